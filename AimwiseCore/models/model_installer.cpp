#include "AimwiseCore/models/model_installer.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "AimwiseCore/models/blob_reuse.h"
#include "AimwiseCore/models/model_download.h"
#include "CaptureShared/common/text.h"

namespace aimwise::ModelInstaller {

namespace fs = std::filesystem;

namespace {

constexpr int64_t lockPollMs = 500;

// Held for the whole install; the kernel lets go if the process dies, so a crash never leaves the
// models directory locked.
class InstallLock {
public:
    InstallLock(const fs::path& path, IfBusy ifBusy, const Clock& clock, const Listener& listener) {
        fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd_ < 0)
            throw ModelInstallError(ModelInstallError::Kind::storeFailed,
                                    "could not open the install lock " + path.string() + ": " + std::strerror(errno));
        bool announced = false;
        while (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
            const std::string holder = readHolder();
            if (ifBusy == IfBusy::refuse) {
                ::close(fd_);
                throw ModelInstallError(ModelInstallError::Kind::busy,
                                        "another model install" + (holder.empty() ? "" : " (process " + holder + ")") +
                                            " is writing into " + path.parent_path().string() +
                                            "; nothing was changed. Run this again once it has finished.");
            }
            if (!announced && listener.onWaiting) listener.onWaiting(holder);
            announced = true;
            clock.sleepMs(lockPollMs);
        }
        const std::string pid = std::to_string(::getpid()) + "\n";
        if (::ftruncate(fd_, 0) == 0) (void)!::pwrite(fd_, pid.data(), pid.size(), 0);
    }
    ~InstallLock() {
        (void)!::ftruncate(fd_, 0);
        ::close(fd_);
    }
    InstallLock(const InstallLock&) = delete;
    InstallLock& operator=(const InstallLock&) = delete;

private:
    std::string readHolder() const {
        char text[32] = {0};
        const ssize_t n = ::pread(fd_, text, sizeof text - 1, 0);
        return n > 0 ? trimWhitespaceAndNewlines(std::string_view(text, static_cast<size_t>(n))) : "";
    }
    int fd_ = -1;
};

LocalModelManifest::File manifestFile(const ModelCatalogue::File& file) {
    return {file.name, file.sizeBytes.value_or(0), file.sha256.value_or("")};
}

FileOutcome installFile(const ModelCatalogue::File& file, const LocalModelStore& store, const Options& options,
                        const std::vector<fs::path>& stores) {
    const fs::path directory = store.modelsDirectory();
    const fs::path destination = directory / file.name;
    const LocalModelManifest::File expected = manifestFile(file);
    const LocalModelManifest single{"", file.name, {expected}};
    if (std::holds_alternative<LocalModelDiskState::Verified>(store.diskState(single).value))
        return {file.name, FileOutcome::How::alreadyVerified, destination.string()};

    const std::string url = ModelMirror::apply(file.url, file.name, options.mirror);
    if (options.listener.onFile) options.listener.onFile(file, url);
    const auto progress = [&](int64_t done, int64_t resumed) {
        if (options.listener.onProgress) options.listener.onProgress(file, done, resumed);
    };
    const fs::path scratch = directory / ".downloads" / (expected.sha256 + ".adopting");
    const auto adopted = BlobReuse::adopt(
        BlobReuse::candidates(expected.sha256, expected.sizeBytes, directory, destination, stores), expected.sha256,
        expected.sizeBytes, destination, scratch, [&](int64_t done) { progress(done, 0); });
    if (adopted) {
        using How = FileOutcome::How;
        const How how = adopted->method == BlobReuse::Method::alreadyInPlace ? How::verifiedInPlace
                        : adopted->method == BlobReuse::Method::hardLink     ? How::hardLinked
                                                                              : How::copied;
        return {file.name, how, adopted->source.string()};
    }

    ModelDownload::Request request;
    request.url = url;
    request.partialPath = directory / ".downloads" / (expected.sha256 + ".partial");
    request.expectedSizeBytes = expected.sizeBytes;
    request.expectedSha256 = expected.sha256;
    request.displayName = file.name;
    const ModelDownload::Result result = ModelDownload::fetch(
        request, [&](const ModelDownload::Progress& p) { progress(p.doneBytes, p.resumedFromBytes); });
    if (::rename(request.partialPath.c_str(), destination.c_str()) != 0)
        throw ModelInstallError(ModelInstallError::Kind::storeFailed, "could not move the verified download to " +
                                                                          destination.string() + ": " +
                                                                          std::strerror(errno));
    return {file.name, FileOutcome::How::downloaded, url, result.resumedFromBytes};
}

}  // namespace

LocalModelManifest manifestFor(const ModelCatalogue::Entry& entry) {
    LocalModelManifest manifest{entry.name, entry.model.name, {}};
    for (const auto& file : entry.files()) manifest.files.push_back(manifestFile(file));
    return manifest;
}

fs::path lockPath(const LocalModelStore& store) { return store.modelsDirectory() / ".install.lock"; }

Outcome install(const ModelCatalogue::Entry& entry, const LocalModelStore& store, const Options& options,
                const Clock& clock) {
    if (const auto gaps = entry.gaps(); !gaps.empty())
        throw ModelInstallError(ModelInstallError::Kind::notInstallable,
                                "the catalogue entry for " + entry.name + " cannot be verified (" + join(gaps, "; ") +
                                    "), so nothing was downloaded. A file whose digest is unknown is never "
                                    "installed; add the publisher's size and SHA-256 to the catalogue first.");
    try {
        fs::create_directories(store.modelsDirectory() / ".downloads");
        fs::permissions(store.modelsDirectory(), fs::perms::owner_all);
    } catch (const fs::filesystem_error& error) {
        throw ModelInstallError(ModelInstallError::Kind::storeFailed,
                                "could not create " + store.modelsDirectory().string() + ": " + error.code().message());
    }
    InstallLock lock(lockPath(store), options.ifBusy, clock, options.listener);

    const LocalModelManifest manifest = manifestFor(entry);
    const std::vector<fs::path> stores = BlobReuse::blobStores(options.environment);
    Outcome outcome{manifest, {}};
    for (size_t i = 0; i < manifest.files.size(); ++i) {
        FileOutcome done = installFile(entry.files()[i], store, options, stores);
        try {
            if (done.how != FileOutcome::How::alreadyVerified &&
                !store.recordVerified(manifest.files[i], manifest.files[i].sha256, clock.wallMs()))
                throw ModelInstallError(ModelInstallError::Kind::storeFailed,
                                        (store.modelsDirectory() / done.name).string() +
                                            " changed while it was being installed; run the command again.");
        } catch (const fs::filesystem_error& error) {
            throw ModelInstallError(ModelInstallError::Kind::storeFailed,
                                    "could not record the verification in " + store.verificationsPath().string() +
                                        ": " + error.code().message());
        }
        if (options.listener.onFileDone) options.listener.onFileDone(done);
        outcome.files.push_back(std::move(done));
    }
    try {
        store.saveManifest(manifest);
    } catch (const fs::filesystem_error& error) {
        throw ModelInstallError(ModelInstallError::Kind::storeFailed,
                                "every file was verified, but " + store.manifestsPath().string() +
                                    " could not be written (" + error.code().message() + "); run the command again.");
    }
    return outcome;
}

}  // namespace aimwise::ModelInstaller
