#include "AimwiseCore/models/sticky_provider_selector.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/dataroot/data_paths.h"

namespace aimwise {

namespace {

using json = nlohmann::json;
constexpr int stateVersion = 1;

}  // namespace

StickyProviderSelector::StickyProviderSelector(std::optional<std::filesystem::path> stateFile)
    : stateFile_(std::move(stateFile)) {
    if (!stateFile_) return;
    // A missing or unreadable state only means starting afresh.
    std::string text;
    try {
        text = readWholeFile(*stateFile_, ReadLimit::setting);
    } catch (const std::exception&) {
        return;
    }
    const json state = json::parse(text, nullptr, false);
    if (!state.is_object() || state.value("v", 0) != stateVersion) return;
    if (auto generation = state.find("routing_generation");
        generation != state.end() && generation->is_number_integer() && generation->get<int64_t>() >= 0)
        generation_ = generation->get<int64_t>();
    if (auto providers = state.find("providers"); providers != state.end() && providers->is_object())
        for (const auto& [slug, provider] : providers->items())
            if (provider.is_string() && !provider.get_ref<const std::string&>().empty())
                providers_[slug] = provider.get<std::string>();
}

std::filesystem::path StickyProviderSelector::defaultStateFile() { return DataPaths::supportDir() / stateFileName; }

std::shared_ptr<StickyProviderSelector> StickyProviderSelector::shared() {
    static const std::shared_ptr<StickyProviderSelector> selector =
        std::make_shared<StickyProviderSelector>(defaultStateFile());
    return selector;
}

void StickyProviderSelector::save() const {
    if (!stateFile_) return;
    json state = {{"v", stateVersion}, {"routing_generation", generation_}, {"providers", providers_}};
    try {
        std::filesystem::create_directories(stateFile_->parent_path());
        writeFileAtomically(*stateFile_, state.dump(2) + "\n", 0600);
    } catch (const std::exception&) {
        // The choice still holds for this process; only its memory across a restart is lost.
    }
}

StickyProviderSelector::Choice StickyProviderSelector::provider(const std::vector<std::string>& pool,
                                                                const std::string& slug) {
    std::lock_guard lock(mutex_);
    auto remembered = providers_.find(slug);
    if (remembered != providers_.end() && std::find(pool.begin(), pool.end(), remembered->second) != pool.end())
        return {remembered->second, false};
    const std::string& first = pool.front();
    const bool moved = remembered != providers_.end();
    providers_[slug] = first;
    if (moved) ++generation_;
    save();
    return {first, true};
}

std::optional<std::string> StickyProviderSelector::rotate(const std::string& failed,
                                                          const std::vector<std::string>& pool,
                                                          const std::string& slug) {
    std::lock_guard lock(mutex_);
    auto at = std::find(pool.begin(), pool.end(), failed);
    size_t start = at == pool.end() ? pool.size() - 1 : static_cast<size_t>(at - pool.begin());
    for (size_t step = 1; step <= pool.size(); ++step) {
        const std::string& candidate = pool[(start + step) % pool.size()];
        if (candidate == failed) continue;
        providers_[slug] = candidate;
        ++generation_;
        save();
        return candidate;
    }
    return std::nullopt;
}

std::string StickyProviderSelector::scoreNote(const std::string&) const { return {}; }

int64_t StickyProviderSelector::routingGeneration() const {
    std::lock_guard lock(mutex_);
    return generation_;
}

std::string StickyProviderSelector::routingGenerationSalt() const {
    return "\x1e" + std::to_string(routingGeneration());
}

std::optional<std::string> StickyProviderSelector::current(const std::string& slug) const {
    std::lock_guard lock(mutex_);
    auto found = providers_.find(slug);
    if (found == providers_.end()) return std::nullopt;
    return found->second;
}

}  // namespace aimwise
