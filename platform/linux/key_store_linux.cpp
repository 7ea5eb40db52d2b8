// The video archive's keys as files: one per generation, 32 random bytes, mode 0600, in a 0700
// directory under the support directory. File permissions play the part of a keychain's access list.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>

#include "CaptureShared/dataroot/data_paths.h"
#include "CaptureShared/video/file_descriptor.h"
#include "platform/key_store.h"

namespace aimwise {

namespace fs = std::filesystem;
using KeyError = VideoArchiveKeyStore::KeyError;
using Kind = KeyError::Kind;

namespace {

std::string describe(Kind kind, const std::string& detail, uint32_t generation) {
    switch (kind) {
        case Kind::notTrusted: return "video archive key exists but this process's identity isn't trusted: " + detail;
        case Kind::unreadable: return "video archive key unreadable: " + detail;
        case Kind::alreadyExists: return "a video archive key already exists — refusing to replace it";
        case Kind::noCapturePath:
            return "refusing to create a video archive key with no path to Capturer in its ACL — that key could never "
                   "be read by the one process that needs to write with it";
        case Kind::noKey: return "no video archive key in " + detail;
        case Kind::keychainLocked: return "login keychain is locked or not yet available";
        case Kind::noSuchGeneration:
            return "no video archive key of generation " + std::to_string(generation) + " in " + detail +
                   " — the recordings sealed with it stay unreadable until that key file is restored";
    }
    return detail;
}

std::string errnoText() { return std::strerror(errno); }

std::optional<uint32_t> generationOfName(const std::string& name) {
    constexpr std::string_view prefix = "generation-", suffix = ".key";
    if (name.size() <= prefix.size() + suffix.size() || !name.starts_with(prefix) || !name.ends_with(suffix))
        return std::nullopt;
    const char* first = name.data() + prefix.size();
    const char* last = name.data() + name.size() - suffix.size();
    uint32_t generation = 0;
    const auto [end, error] = std::from_chars(first, last, generation);
    if (error != std::errc() || end != last || generation == 0 || *first == '0') return std::nullopt;
    return generation;
}

class FileKeyStore final : public VideoArchiveKeyStore {
public:
    explicit FileKeyStore(fs::path directory) : directory_(std::move(directory)) {}

    Current loadCurrentWithGeneration(std::optional<uint32_t> maxGeneration) const override {
        std::vector<uint32_t> present = generations();
        std::erase_if(present, [&](uint32_t g) { return maxGeneration && g > *maxGeneration; });
        if (present.empty()) throw KeyError(Kind::noKey, directory_.string());
        std::string lastFailure;
        for (auto it = present.rbegin(); it != present.rend(); ++it) {
            try {
                return {loadGeneration(*it), *it};
            } catch (const KeyError& error) {
                lastFailure = error.description();
            }
        }
        throw KeyError(Kind::unreadable,
                       std::to_string(present.size()) + " key generations, all unreadable (" + lastFailure + ")");
    }

    VideoArchiveKey loadGeneration(uint32_t generation) const override {
        const fs::path path = pathOf(generation);
        FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        if (!fd.valid() && errno == ENOENT) throw KeyError(Kind::noSuchGeneration, directory_.string(), generation);
        if (!fd.valid()) throw KeyError(Kind::unreadable, path.string() + ": " + errnoText());
        struct stat info {};
        if (::fstat(fd.get(), &info) != 0) throw KeyError(Kind::unreadable, path.string() + ": " + errnoText());
        if (!S_ISREG(info.st_mode) || info.st_uid != ::geteuid())
            throw KeyError(Kind::notTrusted, path.string() + " is not a file of this user's");
        if ((info.st_mode & 077) != 0) {
            char mode[8];
            std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
            throw KeyError(Kind::unreadable, path.string() + " can be read by other users (mode " + mode +
                                                 "); if nobody else could have copied it, chmod 600 it");
        }
        VideoArchiveKey::Bytes bytes{};
        char extra = 0;
        const bool exact = info.st_size == static_cast<off_t>(bytes.size()) &&
                           readFully(fd.get(), bytes.data(), bytes.size()) == static_cast<ptrdiff_t>(bytes.size()) &&
                           readFully(fd.get(), &extra, 1) == 0;
        if (!exact) throw KeyError(Kind::unreadable, "the key file " + path.string() + " is present but not a valid key");
        VideoArchiveKey key(bytes);
        ::explicit_bzero(bytes.data(), bytes.size());
        return key;
    }

    Current loadOrRotate() override {
        try {
            return loadCurrentWithGeneration(std::nullopt);
        } catch (const KeyError& error) {
            if (error.kind() != Kind::noKey && error.kind() != Kind::unreadable) throw;
        }
        // None readable: new recordings get a new generation, and the unreadable ones stay for repair.
        return rotate();
    }

    Current rotate() override {
        const std::vector<uint32_t> present = generations();
        const uint32_t next = present.empty() ? 1 : present.back() + 1;
        if (next == 0) throw KeyError(Kind::unreadable, "every key generation number is used");
        return {create(next), next};
    }

    std::vector<uint32_t> generations() const override {
        std::vector<uint32_t> found;
        std::error_code ec;
        for (fs::directory_iterator it(directory_, ec), end; !ec && it != end; it.increment(ec))
            if (auto generation = generationOfName(it->path().filename().string())) found.push_back(*generation);
        std::sort(found.begin(), found.end());
        return found;
    }

private:
    fs::path pathOf(uint32_t generation) const {
        return directory_ / ("generation-" + std::to_string(generation) + ".key");
    }

    void prepareDirectory() const {
        std::error_code ec;
        fs::create_directories(directory_, ec);
        struct stat info {};
        if (ec || ::lstat(directory_.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
            throw KeyError(Kind::unreadable, "could not make the key directory " + directory_.string() +
                                                 (ec ? ": " + ec.message() : ""));
        if (info.st_uid != ::geteuid())
            throw KeyError(Kind::notTrusted, directory_.string() + " belongs to another user");
        if ((info.st_mode & 07777) != 0700 && ::chmod(directory_.c_str(), 0700) != 0)
            throw KeyError(Kind::unreadable, "could not restrict " + directory_.string() + ": " + errnoText());
    }

    // Written under a temporary name and linked into place, so a reader never sees half a key and two
    // writers racing for one generation cannot both win.
    VideoArchiveKey create(uint32_t generation) const {
        prepareDirectory();
        const fs::path path = pathOf(generation);
        std::string temporary = (directory_ / ".key-XXXXXX").string();
        FileDescriptor fd(::mkostemp(temporary.data(), O_CLOEXEC));
        if (!fd.valid()) throw KeyError(Kind::unreadable, "could not write a key in " + directory_.string() + ": " + errnoText());
        const VideoArchiveKey key = VideoArchiveKey::random();
        const bool written = ::fchmod(fd.get(), 0600) == 0 && writeFully(fd.get(), key.bytes().data(), key.bytes().size()) &&
                             ::fsync(fd.get()) == 0 && fd.reset() == 0;
        const int linkResult = written ? ::link(temporary.c_str(), path.c_str()) : -1;
        const int linkErrno = errno;
        ::unlink(temporary.c_str());
        if (!written) throw KeyError(Kind::unreadable, "could not write " + path.string() + ": " + std::strerror(linkErrno));
        if (linkResult != 0 && linkErrno == EEXIST) throw KeyError(Kind::alreadyExists, path.string());
        if (linkResult != 0) throw KeyError(Kind::unreadable, "could not place " + path.string() + ": " + std::strerror(linkErrno));
        FileDescriptor directory(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (directory.valid()) ::fsync(directory.get());
        return key;
    }

    fs::path directory_;
};

}  // namespace

VideoArchiveKeyStore::KeyError::KeyError(Kind kind, std::string detail, uint32_t generation)
    : Error(describe(kind, detail, generation)), kind_(kind) {}

std::unique_ptr<VideoArchiveKeyStore> makeFileKeyStore(const fs::path& directory) {
    return std::make_unique<FileKeyStore>(directory);
}

fs::path defaultKeyStoreDirectory() { return DataPaths::supportDir() / "video-archive-keys"; }

std::unique_ptr<VideoArchiveKeyStore> defaultVideoArchiveKeyStore() { return makeFileKeyStore(defaultKeyStoreDirectory()); }

}  // namespace aimwise
