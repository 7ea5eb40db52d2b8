#include "platform/notifier.h"

#include "platform/bounded_process.h"

namespace aimwise::Notifier {

namespace {
constexpr double notifyTimeoutSec = 10.0;
}  // namespace

void notify(const std::string& title, const std::string& message) {
    // "--" so that a title starting with a dash is never read as an option.
    const auto outcome = BoundedProcess::run("notify-send", {"--", title, message}, notifyTimeoutSec);
    if (const auto* failed = std::get_if<BoundedProcess::LaunchFailed>(&outcome))
        throw LaunchError("could not start notify-send: " + failed->reason);
}

}  // namespace aimwise::Notifier
