#pragma once
// Where the hosted coach route gets this machine's licence credential before each call. The checks
// behind it belong to a closed service; all this side knows is whether it has a credential to show.
#include <filesystem>
#include <string>

namespace aimwise {

struct LicenseCredential {
    // Sent as X-Merl-Instance.
    std::string instance;
    // Sent as the bearer token.
    std::string secret;
    bool operator==(const LicenseCredential&) const = default;
};

class LicenseCredentialSource {
public:
    virtual ~LicenseCredentialSource() = default;
    // Throws MerlProxyError (licenseMissing) when there is no credential to show.
    virtual LicenseCredential credential() = 0;
};

// A JSON file {"instance": ..., "secret": ...} that only its owner may read (mode 0600).
class FileLicenseCredentialSource : public LicenseCredentialSource {
public:
    static constexpr const char* fileName = "coach-license.json";

    explicit FileLicenseCredentialSource(std::filesystem::path path) : path_(std::move(path)) {}
    // <support dir>/coach-license.json
    static std::filesystem::path defaultPath();

    LicenseCredential credential() override;
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

}  // namespace aimwise
