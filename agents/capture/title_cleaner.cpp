#include "agents/capture/title_cleaner.h"

#include "AimwiseCore/privacy/safe_text.h"

namespace aimwise {

const std::string& TitleCleaner::clean(const std::string& title) {
    if (const auto it = cleaned_.find(title); it != cleaned_.end()) return it->second;
    if (cleaned_.size() >= capacity) cleaned_.clear();
    std::string text = SafeText::clean(title, SensitiveIdentifierRedaction::Scope::lifeLevel).text;
    return cleaned_.emplace(title, std::move(text)).first->second;
}

void TitleCleaner::clean(DesktopSnapshot& snapshot) {
    if (snapshot.front) snapshot.front->title = clean(snapshot.front->title);
    for (DesktopWindow& window : snapshot.windows) window.title = clean(window.title);
}

}  // namespace aimwise
