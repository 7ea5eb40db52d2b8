#pragma once
// A desktop notification for the user, shown by the session's notification daemon.
#include <stdexcept>
#include <string>

#include "CaptureShared/common/error.h"

namespace aimwise::Notifier {

struct LaunchError : Error {
    using Error::Error;
};

// `notify-send` with the title and the message as its two arguments, waited on for at most ten
// seconds and terminated after that. Throws LaunchError when the tool cannot be started.
void notify(const std::string& title, const std::string& message);

}  // namespace aimwise::Notifier
