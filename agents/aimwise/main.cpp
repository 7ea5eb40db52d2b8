// aimwise: the person's command.
#include <string>
#include <vector>

#include "CaptureShared/dataroot/agent_umask.h"
#include "agents/aimwise/aimwise_command.h"

int main(int argc, char** argv) {
    aimwise::AgentUmask::apply();
    return aimwise::AimwiseCommand::run(std::vector<std::string>(argv + 1, argv + argc),
                                          aimwise::Clock::system());
}
