#include "AimwiseCore/models/license_credential_source.h"

#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "AimwiseCore/models/merl_proxy_error.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/common/text.h"
#include "CaptureShared/dataroot/data_paths.h"

namespace aimwise {

std::filesystem::path FileLicenseCredentialSource::defaultPath() { return DataPaths::supportDir() / fileName; }

LicenseCredential FileLicenseCredentialSource::credential() {
    const std::string where = path_.string();
    struct stat info {};
    if (::stat(path_.c_str(), &info) != 0)
        throw MerlProxyError::licenseMissing("this computer has no coach service credential (" + where +
                                             " is missing); the local model answers meanwhile");
    // A credential other accounts can read is as good as shared; refuse it rather than send it.
    if ((info.st_mode & 077) != 0)
        throw MerlProxyError::licenseMissing("the coach service credential " + where +
                                             " is readable by other accounts; run `chmod 600 " + where +
                                             "` to use it. Nothing was sent");
    std::string text;
    try {
        text = readWholeFile(path_, ReadLimit::setting);
    } catch (const std::exception&) {
        throw MerlProxyError::licenseMissing("the coach service credential " + where + " could not be read");
    }
    const nlohmann::json value = nlohmann::json::parse(text, nullptr, false);
    auto field = [&](const char* key) -> std::string {
        if (!value.is_object()) return {};
        auto found = value.find(key);
        return found != value.end() && found->is_string() ? trimWhitespaceAndNewlines(found->get<std::string>())
                                                          : std::string();
    };
    LicenseCredential credential{field("instance"), field("secret")};
    if (credential.instance.empty() || credential.secret.empty())
        throw MerlProxyError::licenseMissing("the coach service credential " + where +
                                             " does not hold an \"instance\" and a \"secret\"");
    return credential;
}

}  // namespace aimwise
