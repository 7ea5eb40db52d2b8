#include "tests/support/gtk_text_window.h"

#include <stdexcept>

namespace aimwise::testing {

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
