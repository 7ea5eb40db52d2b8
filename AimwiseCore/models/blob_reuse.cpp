#include "AimwiseCore/models/blob_reuse.h"

#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "AimwiseCore/models/sha256.h"

namespace aimwise::BlobReuse {

namespace fs = std::filesystem;

namespace {

std::optional<fs::path> variable(const Environment& environment, const char* key) {
    const auto value = lookup(environment, key);
    if (!value || value->empty()) return std::nullopt;
    return fs::path(*value);
}

bool hasSize(const fs::path& path, int64_t sizeBytes) {
    std::error_code error;
    return fs::is_regular_file(path, error) && static_cast<int64_t>(fs::file_size(path, error)) == sizeBytes && !error;
}

// Reads `from` to its end, digesting it and, when `to` is a descriptor, copying it there.
std::optional<std::string> digestOf(const fs::path& from, int to, const std::function<void(int64_t)>& onBytes) {
    const int fd = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    Sha256 digest;
    std::vector<char> buffer(1 << 20);
    int64_t done = 0;
    bool ok = true;
    for (;;) {
        const ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ok = n == 0;
            break;
        }
        digest.update(std::string_view(buffer.data(), static_cast<size_t>(n)));
        for (ssize_t at = 0; to >= 0 && ok && at < n;) {
            const ssize_t w = ::write(to, buffer.data() + at, static_cast<size_t>(n - at));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) ok = false;
            at += std::max<ssize_t>(w, 0);
        }
        if (!ok) break;
        done += n;
        if (onBytes) onBytes(done);
    }
    ::close(fd);
    if (!ok || (to >= 0 && ::fsync(to) != 0)) return std::nullopt;
    return digest.finalHex();
}

}  // namespace

std::vector<fs::path> blobStores(const Environment& environment) {
    std::vector<fs::path> stores;
    const auto home = variable(environment, "HOME");
    if (const auto custom = variable(environment, "OLLAMA_MODELS")) stores.push_back(*custom / "blobs");
    if (home) stores.push_back(*home / ".ollama/models/blobs");
    stores.push_back("/usr/share/ollama/.ollama/models/blobs");

    std::optional<fs::path> hub = variable(environment, "HF_HUB_CACHE");
    if (!hub) {
        if (const auto hfHome = variable(environment, "HF_HOME"))
            hub = *hfHome / "hub";
        else if (const auto cache = variable(environment, "XDG_CACHE_HOME"))
            hub = *cache / "huggingface/hub";
        else if (home)
            hub = *home / ".cache/huggingface/hub";
    }
    std::error_code error;
    if (hub)
        for (fs::directory_iterator it(*hub, error), end; !error && it != end; it.increment(error))
            if (it->path().filename().string().starts_with("models--")) stores.push_back(it->path() / "blobs");
    return stores;
}

std::vector<fs::path> candidates(const std::string& sha256, int64_t sizeBytes, const fs::path& modelsDirectory,
                                 const fs::path& destination, const std::vector<fs::path>& stores) {
    std::vector<fs::path> found;
    if (hasSize(destination, sizeBytes)) found.push_back(destination);
    std::error_code error;
    for (fs::directory_iterator it(modelsDirectory, error), end; !error && it != end; it.increment(error)) {
        const fs::path& path = it->path();
        if (path.filename().string().starts_with(".") || path == destination) continue;
        if (hasSize(path, sizeBytes)) found.push_back(path);
    }
    for (const fs::path& store : stores)
        for (const fs::path& blob : {store / ("sha256-" + sha256), store / sha256})
            if (hasSize(blob, sizeBytes)) found.push_back(blob);
    return found;
}

std::optional<Adopted> adopt(const std::vector<fs::path>& candidates, const std::string& sha256, int64_t sizeBytes,
                             const fs::path& destination, const fs::path& scratch,
                             const std::function<void(int64_t)>& onBytes) {
    std::error_code error;
    fs::create_directories(scratch.parent_path(), error);
    for (const fs::path& source : candidates) {
        if (!hasSize(source, sizeBytes)) continue;
        if (fs::equivalent(source, destination, error)) {
            if (digestOf(destination, -1, onBytes) == sha256) return Adopted{source, Method::alreadyInPlace};
            continue;
        }
        ::unlink(scratch.c_str());
        std::optional<std::string> digest;
        Method method = Method::hardLink;
        if (::link(source.c_str(), scratch.c_str()) == 0) {
            digest = digestOf(scratch, -1, onBytes);
        } else {
            method = Method::copy;
            const int to = ::open(scratch.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
            if (to < 0) continue;
            digest = digestOf(source, to, onBytes);
            ::close(to);
        }
        if (digest == sha256 && hasSize(scratch, sizeBytes) && ::rename(scratch.c_str(), destination.c_str()) == 0)
            return Adopted{source, method};
        ::unlink(scratch.c_str());
    }
    return std::nullopt;
}

}  // namespace aimwise::BlobReuse
