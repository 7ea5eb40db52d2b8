#pragma once
// A headless sway compositor for tests: software rendering, no input devices, one 1280x800 output.
// sway refuses to run as root, so a root test runs it as the unprivileged "nobody".
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/x_display.h"

namespace aimwise::testing {

class SwayDisplay {
public:
    // Why a headless sway with foot terminals cannot run here, when it cannot.
    static std::optional<std::string> missing();
    explicit SwayDisplay(std::filesystem::path log = {});
    ~SwayDisplay();
    SwayDisplay(const SwayDisplay&) = delete;
    SwayDisplay& operator=(const SwayDisplay&) = delete;

    // What a client of this compositor needs, as a sway session sets it.
    std::map<std::string, std::string> environment() const;
    // A foot terminal with this app id and title running `command`, listed by the compositor when
    // this returns.
    std::unique_ptr<ChildProcess> terminal(const std::string& appId, const std::string& title,
                                           const std::vector<std::string>& command = {"sleep", "3600"}) const;
    // A sway command through its IPC socket ("[app_id=x] focus"); true when sway accepted it.
    bool command(const std::string& text) const;

private:
    std::filesystem::path directory_;
    std::string socket_;
    std::string waylandDisplay_;
    std::unique_ptr<ChildProcess> server_;
};

}  // namespace aimwise::testing
