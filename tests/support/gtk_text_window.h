#pragma once
// A GTK window that publishes its text on the accessibility bus, which a private session bus
// (tests/support/session_bus.h) starts on demand (at-spi2-core).
#include <cstdint>
#include <memory>
#include <string>

#include "tests/support/x_display.h"

namespace aimwise::testing {

class GtkTextWindow {
public:
    // Shown on `display`, a client of the session bus at `busAddress`.
    GtkTextWindow(const std::string& display, const std::string& busAddress, const std::string& title,
                  const std::string& label, const std::string& body);
    int64_t pid() const { return pid_; }

private:
    std::unique_ptr<ChildProcess> process_;
    int64_t pid_ = 0;
};

}  // namespace aimwise::testing
