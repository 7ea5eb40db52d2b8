// aimwise-coach: the coach driver.
#include <string>
#include <vector>

#include "CaptureShared/common/clock.h"
#include "CaptureShared/common/environment.h"
#include "CaptureShared/dataroot/agent_config.h"
#include "CaptureShared/dataroot/agent_umask.h"
#include "agents/coach/coach_command.h"
#include "platform/notification_service.h"

int main(int argc, char** argv) {
    using namespace aimwise;
    AgentUmask::apply();
    // config.json's settings, under whatever the real environment already sets.
    AgentConfig::bootstrapProcessEnvironment(std::nullopt, std::nullopt);
    const CoachCommand::Platform platform{.connectNotifications = &NotificationService::connectSessionBus};
    return CoachCommand::run(std::vector<std::string>(argv + 1, argv + argc), processEnvironment(), wallClockMs(),
                             platform);
}
