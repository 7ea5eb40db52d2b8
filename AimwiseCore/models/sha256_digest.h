#pragma once
// SHA-256 over bytes that arrive in pieces, through libcrypto opened on first use: most processes
// never hash anything and should not pay for loading it.
#include <memory>
#include <string>
#include <string_view>

namespace aimwise {

class Sha256Digest {
public:
    // Throws std::runtime_error when libcrypto cannot be loaded.
    Sha256Digest();
    ~Sha256Digest();
    Sha256Digest(const Sha256Digest&) = delete;
    Sha256Digest& operator=(const Sha256Digest&) = delete;

    void update(std::string_view bytes);
    // Lowercase hex. The digest cannot be updated afterwards.
    std::string finalHex();

    // True for 64 hexadecimal digits, either case.
    static bool isDigestText(std::string_view text);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace aimwise
