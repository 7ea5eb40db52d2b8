// `replay <n> [offset] [--paired-fm] [--settled]`: the classifier scored against hand labels.
#include "VerdictBench/replay.h"
#include "VerdictBench/verbs.h"

namespace aimwise::verbs {

int runReplay(const cli::Invocation& invocation) {
    const auto& positional = invocation.positional;
    return Replay::run(positional.size() > 0 ? std::optional(positional[0]) : std::nullopt,
                       positional.size() > 1 ? std::optional(positional[1]) : std::nullopt, invocation.fmPairedArmFlag,
                       !invocation.settledFlag);
}

}  // namespace aimwise::verbs
