#pragma once
// SHA-256 through libcrypto, which is opened only when a digest is first needed: most processes
// never hash anything and should not pay for loading it.
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace aimwise {

class Sha256 {
public:
    // Throws std::runtime_error when libcrypto cannot be loaded.
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    bool update(const void* bytes, size_t count);
    bool update(std::string_view bytes) { return update(bytes.data(), bytes.size()); }
    // Lowercase hex; nothing when the library reported a failure. The digest is final afterwards.
    std::optional<std::string> hexDigest();
    // The same, throwing std::runtime_error on a failure.
    std::string finalHex();

    static std::string hex(std::string_view bytes);
    // True for 64 hexadecimal digits, either case.
    static bool isDigestText(std::string_view text);

private:
    void* context_ = nullptr;
    bool failed_ = false;
};

}  // namespace aimwise
