#pragma once
// One function per verb; main.cpp holds the table that dispatches to them.
#include "VerdictBench/cli.h"

namespace aimwise::verbs {

int runJudge(const cli::Invocation& invocation);
int runPrompt(const cli::Invocation& invocation);
int runTickVerb(const cli::Invocation& invocation);
int runEstimateSelftest(const cli::Invocation& invocation);
int runOCRSelftest(const cli::Invocation& invocation);
int runPyReprSelftest(const cli::Invocation& invocation);
int runIntegrity(const cli::Invocation& invocation);
int runStaleness(const cli::Invocation& invocation);
int runReplay(const cli::Invocation& invocation);
int runShadow(const cli::Invocation& invocation);
int runShadowCompare(const cli::Invocation& invocation);
int runRamp(const cli::Invocation& invocation);
int runEnergyReport(const cli::Invocation& invocation);

}  // namespace aimwise::verbs
