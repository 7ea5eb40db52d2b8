// aimwise-dream: the nightly consolidation of the event log into memory.
#include <signal.h>

#include <string>
#include <vector>

#include "CaptureShared/common/environment.h"
#include "CaptureShared/dataroot/agent_logging.h"
#include "CaptureShared/dataroot/agent_umask.h"
#include "agents/dream/dream_job.h"

int main(int argc, char** argv) {
    using namespace aimwise;
    AgentUmask::apply();
    // config.json's settings under the real environment; under systemd the streams go to dream.log.
    AgentLogging::bootstrap("AimwiseCoach", "dream", 8u << 20, 300.0);
    signal(SIGPIPE, SIG_IGN);
    return DreamJob::run(std::vector<std::string>(argv + 1, argv + argc), processEnvironment());
}
