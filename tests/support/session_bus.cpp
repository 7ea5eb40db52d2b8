#include "tests/support/session_bus.h"

#include <stdexcept>

namespace aimwise::testing {

PrivateSessionBus::PrivateSessionBus() {
    daemon_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"dbus-daemon", "--session", "--nofork", "--print-address=3"},
        ChildProcess::Options{.reportFd = 3});
    address_ = daemon_->firstLine(10000);
    if (address_.empty()) throw std::runtime_error("dbus-daemon did not start (scripts/setup installs dbus)");
}

GtkTextWindow::GtkTextWindow(const std::string& display, const std::string& busAddress, const std::string& title,
                             const std::string& label, const std::string& body) {
    // The system's Python: GTK's bindings come from Debian's python3-gi.
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"/usr/bin/python3", AIMWISE_SOURCE_DIR "/tests/support/gtk_text_window.py", title,
                                 label, body},
        ChildProcess::Options{.environment = {{"DISPLAY", display},
                                              {"DBUS_SESSION_BUS_ADDRESS", busAddress},
                                              {"GDK_BACKEND", "x11"}},
                              .reportFd = 1});
    const std::string ready = process_->firstLine(15000);
    if (!ready.starts_with("ready ")) throw std::runtime_error("the GTK window did not open (python3-gi, gir1.2-gtk-3.0)");
    pid_ = std::stoll(ready.substr(6));
}

}  // namespace aimwise::testing
