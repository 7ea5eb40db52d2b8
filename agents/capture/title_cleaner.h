#pragma once
// Window titles as they may be kept: cleaned of identifiers before they reach signals.sqlite, so a
// card number in a title never lands on the disk. A title changes far less often than it is
// sampled, so each distinct title is cleaned once and remembered.
#include <string>
#include <unordered_map>

#include "platform/desktop_session.h"

namespace aimwise {

class TitleCleaner {
public:
    const std::string& clean(const std::string& title);
    // Every title of the snapshot, the front window's included.
    void clean(DesktopSnapshot& snapshot);
    size_t rememberedCount() const { return cleaned_.size(); }

    // Emptied whole when full: titles that tick with a clock would otherwise grow it without end.
    static constexpr size_t capacity = 512;

private:
    std::unordered_map<std::string, std::string> cleaned_;
};

}  // namespace aimwise
