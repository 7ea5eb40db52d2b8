#pragma once
// Which provider serves each online model. A provider's prompt cache is only warm where the last
// call went, so the choice stays put until that provider fails (or a re-evaluation moves it), and it
// is remembered across restarts of the coach in a small state file.
//
// Routing in brief: the pool is the configured order (AIMCAP_MODEL_PROVIDER, comma-separated). The
// first call for a model takes the pool's first provider; a provider-attributable failure moves the
// model to the next one in the pool, wrapping around. No measurements are kept yet, so a provider's
// score note is empty and the observed ranking is the configured order itself.
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace aimwise {

class StickyProviderSelector {
public:
    struct Choice {
        std::string provider;
        // True when the model was not on this provider before this call (first use, or the
        // remembered one has left the pool).
        bool isNew = false;
        bool operator==(const Choice&) const = default;
    };

    static constexpr const char* stateFileName = "provider-selection.json";

    // Remembers its choices in `stateFile` (read now, replaced atomically with mode 0600 on each change);
    // without one it remembers only for the life of the object.
    explicit StickyProviderSelector(std::optional<std::filesystem::path> stateFile = std::nullopt);

    // The process-wide selector, with its state in <support dir>/provider-selection.json.
    static std::shared_ptr<StickyProviderSelector> shared();
    static std::filesystem::path defaultStateFile();

    // The provider for `slug` within `pool`, which must not be empty.
    Choice provider(const std::vector<std::string>& pool, const std::string& slug);
    // Moves `slug` off `failed` to the next provider of `pool` and returns it; nothing when the pool
    // has no other provider.
    std::optional<std::string> rotate(const std::string& failed, const std::vector<std::string>& pool,
                                      const std::string& slug);
    // What measurements say of a provider, for the log; empty until measurements exist.
    std::string scoreNote(const std::string& provider) const;

    // Rises by one each time any model moves to another provider, and survives restarts with the
    // choices. Session keys salted with it start a new prompt-cache lineage after a move.
    int64_t routingGeneration() const;
    // U+001E and the generation in decimal, to append to what a session key is hashed from.
    std::string routingGenerationSalt() const;

    // The remembered provider of a model, if any.
    std::optional<std::string> current(const std::string& slug) const;

private:
    void save() const;

    std::optional<std::filesystem::path> stateFile_;
    mutable std::mutex mutex_;
    std::map<std::string, std::string> providers_;
    int64_t generation_ = 0;
};

}  // namespace aimwise
