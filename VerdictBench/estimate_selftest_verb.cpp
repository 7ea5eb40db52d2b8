// `estimate-selftest`: one estimate extraction against the local model, cached like a tick's.
#include <cstdio>

#include "AimwiseCore/classifier/classifier_backend.h"
#include "AimwiseCore/classifier/estimate_extractor.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/data_paths.h"
#include "VerdictBench/classifier_verb_support.h"
#include "VerdictBench/verbs.h"

namespace aimwise::verbs {

int runEstimateSelftest(const cli::Invocation& invocation) {
    if (invocation.positional.empty()) throw cli::Failure("usage: estimate-selftest <declared-task-text>");
    const EstimateExtractor::Config config = EstimateExtractor::Config::standard();
    HTTPSession session;
    const EstimateExtractor::Estimate estimate =
        EstimateExtractor::extract(invocation.positional.front(), DataPaths::signalsDB(), config, session);
    std::printf("minutes: %s\n", estimate.minutes ? shortestRoundTrip(*estimate.minutes).c_str() : "nil");
    std::printf("reason: %s\n", estimate.reason.c_str());
    return 0;
}

}  // namespace aimwise::verbs
