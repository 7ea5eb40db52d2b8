// `tick`: the classifier's production entry point, started by a systemd user timer.
#include "VerdictBench/cli.h"
#include "VerdictBench/tick_run.h"
#include "VerdictBench/verbs.h"

namespace aimwise::verbs {

int runTickVerb(const cli::Invocation& invocation) {
    tick::armTickWatchdog(cli::tickWatchdogCeilingSec);
    return tick::runTick(tick::Platform::live(), *invocation.clock);
}

}  // namespace aimwise::verbs
