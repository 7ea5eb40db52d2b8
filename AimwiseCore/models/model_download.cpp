#include "AimwiseCore/models/model_download.h"

// Only the header: the library itself is opened on the first download.
#define CURL_DISABLE_TYPECHECK
#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <deque>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "AimwiseCore/models/sha256.h"
#include "CaptureShared/common/shared_library.h"

namespace aimwise::ModelDownload {

namespace {

using Kind = ModelDownloadError::Kind;

struct Curl {
    SharedLibrary library{"libcurl.so.4", "Downloading a model", "libcurl4"};
    decltype(&curl_global_init) globalInit = library.function<decltype(&curl_global_init)>("curl_global_init");
    decltype(&curl_easy_init) easyInit = library.function<decltype(&curl_easy_init)>("curl_easy_init");
    decltype(&curl_easy_setopt) easySetopt = library.function<decltype(&curl_easy_setopt)>("curl_easy_setopt");
    decltype(&curl_easy_perform) easyPerform = library.function<decltype(&curl_easy_perform)>("curl_easy_perform");
    decltype(&curl_easy_getinfo) easyGetinfo = library.function<decltype(&curl_easy_getinfo)>("curl_easy_getinfo");
    decltype(&curl_easy_cleanup) easyCleanup = library.function<decltype(&curl_easy_cleanup)>("curl_easy_cleanup");
    decltype(&curl_easy_strerror) easyStrerror =
        library.function<decltype(&curl_easy_strerror)>("curl_easy_strerror");

    Curl() { globalInit(CURL_GLOBAL_DEFAULT); }
};

const Curl& libcurl() {
    static const Curl* const loaded = new Curl();
    return *loaded;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) {
               return std::tolower(x) == std::tolower(y);
           });
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    return text;
}

// A non-negative decimal number, or -1.
int64_t integer(std::string_view text) {
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < 0) return -1;
    return value;
}

bool isLoopback(const std::string& url) {
    for (const char* host : {"http://127.0.0.1", "http://localhost", "http://[::1]"})
        if (url.starts_with(host)) {
            const char next = url.size() > std::strlen(host) ? url[std::strlen(host)] : '/';
            if (next == '/' || next == ':') return true;
        }
    return false;
}

[[noreturn]] void diskFull(const Request& request, int64_t neededBytes, std::optional<int64_t> free) {
    ::unlink(request.partialPath.c_str());
    throw ModelDownloadError(
        Kind::diskFull, request.displayName + " needs " + humanBytes(neededBytes) + " free in " +
                            request.partialPath.parent_path().string() +
                            (free ? ", and only " + humanBytes(*free) + " are" : ", and the disk is full") +
                            ". Nothing half-written was kept; free some space and run the same command again.");
}

// Hashes on a thread of its own, so that digesting one chunk overlaps receiving and writing the
// next: with SHA-256 the dearest step per byte, this is what keeps it from setting the pace.
class BackgroundDigest {
public:
    BackgroundDigest() : worker_([this] { run(); }) {}
    ~BackgroundDigest() {
        {
            std::lock_guard lock(mutex_);
            closed_ = true;
        }
        changed_.notify_all();
        worker_.join();
    }
    BackgroundDigest(const BackgroundDigest&) = delete;
    BackgroundDigest& operator=(const BackgroundDigest&) = delete;

    void update(std::string_view bytes) {
        filling_.append(bytes);
        if (filling_.size() >= chunkBytes) hand();
    }
    std::string finalHex() {
        hand();
        std::unique_lock lock(mutex_);
        closed_ = true;
        changed_.notify_all();
        changed_.wait(lock, [&] { return finished_; });
        if (failure_) std::rethrow_exception(failure_);
        return hex_;
    }

private:
    static constexpr size_t chunkBytes = 4 << 20;
    static constexpr size_t maxQueued = 4;

    void hand() {
        if (filling_.empty()) return;
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return queue_.size() < maxQueued; });
        queue_.push_back(std::move(filling_));
        filling_ = std::string();
        filling_.reserve(chunkBytes + (512 << 10));
        changed_.notify_all();
    }
    void run() {
        try {
            Sha256 digest;
            for (;;) {
                std::string chunk;
                {
                    std::unique_lock lock(mutex_);
                    changed_.wait(lock, [&] { return !queue_.empty() || closed_; });
                    if (queue_.empty()) break;
                    chunk = std::move(queue_.front());
                    queue_.pop_front();
                    changed_.notify_all();
                }
                digest.update(chunk);
            }
            hex_ = digest.finalHex();
        } catch (...) {
            failure_ = std::current_exception();
        }
        std::lock_guard lock(mutex_);
        finished_ = true;
        queue_.clear();
        changed_.notify_all();
    }

    std::string filling_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::string> queue_;
    bool closed_ = false;
    bool finished_ = false;
    std::string hex_;
    std::exception_ptr failure_;
    std::thread worker_;
};

struct Transfer {
    const Request& request;
    int fd = -1;
    CURL* curl = nullptr;
    int64_t offset = 0;   // bytes of the partial file this attempt continues
    int64_t written = 0;  // bytes in the partial file now
    std::unique_ptr<BackgroundDigest> digest;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string statusLine;
    bool headChecked = false;
    std::exception_ptr failure;
    const std::function<void(const Progress&)>* onProgress = nullptr;
    int64_t resumedFrom = 0;

    const std::string* header(std::string_view name) const {
        for (const auto& [key, value] : headers)
            if (equalsIgnoringCase(key, name)) return &value;
        return nullptr;
    }

    [[noreturn]] void refuse(Kind kind, const std::string& why) const {
        throw ModelDownloadError(kind, request.url + " " + why);
    }

    void checkHead() {
        if (headChecked) return;
        headChecked = true;
        long status = 0;
        libcurl().easyGetinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        const bool fileURL = request.url.starts_with("file://");
        // Nothing left to send from where the partial file ends: the server's file is shorter.
        if (status == 416 && offset > 0) {
            ::unlink(request.partialPath.c_str());
            refuse(Kind::wrongSize, "has fewer bytes than the " + humanBytes(offset) + " already downloaded of " +
                                        request.displayName + ": it is not the same file, so nothing was kept.");
        }
        if (!fileURL && status != 200 && status != 206) {
            const std::string reason = statusLine.empty() ? "HTTP " + std::to_string(status) : statusLine;
            refuse(Kind::refusedReply, "answered " + reason + " instead of the file; nothing was written.");
        }
        if (const std::string* type = header("Content-Type"); type && trimmed(*type).starts_with("text/html"))
            refuse(Kind::refusedReply,
                   "sent a web page instead of the file (a sign-in or error page, perhaps); nothing was written.");
        const std::string* length = header("Content-Length");
        const int64_t bodyBytes = length ? integer(trimmed(*length)) : -1;
        if (status == 206) {
            // "bytes <first>-<last>/<total>": the reply must continue the partial file exactly.
            const std::string* range = header("Content-Range");
            std::string_view text = range ? trimmed(*range) : std::string_view();
            const size_t dash = text.find('-'), slash = text.find('/');
            const int64_t first =
                text.starts_with("bytes ") && dash != std::string_view::npos ? integer(text.substr(6, dash - 6)) : -1;
            const int64_t total = slash != std::string_view::npos ? integer(text.substr(slash + 1)) : -1;
            if (offset == 0 || first != offset)
                refuse(Kind::refusedReply, "sent a part of the file other than the one asked for; nothing was written.");
            if (total >= 0 && total != request.expectedSizeBytes) wrongSize(total);
        } else if (offset > 0 && !fileURL) {
            // The server cannot resume: start again from the first byte.
            if (::ftruncate(fd, 0) != 0 || ::lseek(fd, 0, SEEK_SET) != 0)
                throw ModelDownloadError(Kind::writeFailed, "could not restart " + request.partialPath.string() +
                                                                ": " + std::strerror(errno));
            offset = written = resumedFrom = 0;
            digest = std::make_unique<BackgroundDigest>();
        }
        if (!fileURL && bodyBytes >= 0 && offset + bodyBytes != request.expectedSizeBytes) wrongSize(offset + bodyBytes);
    }

    [[noreturn]] void wrongSize(int64_t offered) const {
        ::unlink(request.partialPath.c_str());
        refuse(Kind::wrongSize, "offers " + std::to_string(offered) + " bytes, but " + request.displayName + " is " +
                                    std::to_string(request.expectedSizeBytes) +
                                    " bytes: it is not the same file, so nothing was kept.");
    }

    void append(std::string_view bytes) {
        if (written + static_cast<int64_t>(bytes.size()) > request.expectedSizeBytes) wrongSize(written + static_cast<int64_t>(bytes.size()));
        digest->update(bytes);
        while (!bytes.empty()) {
            const ssize_t n = ::write(fd, bytes.data(), bytes.size());
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && (errno == ENOSPC || errno == EDQUOT))
                diskFull(request, request.expectedSizeBytes, freeBytes(request.partialPath.parent_path()));
            if (n < 0) {
                const int saved = errno;
                ::unlink(request.partialPath.c_str());
                throw ModelDownloadError(Kind::writeFailed, "could not write " + request.partialPath.string() + ": " +
                                                                std::strerror(saved) + "; the partial download was removed.");
            }
            bytes.remove_prefix(static_cast<size_t>(n));
            written += n;
        }
        if (*onProgress) (*onProgress)({written, request.expectedSizeBytes, resumedFrom});
    }
};

size_t onHeaderLine(char* data, size_t size, size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    const std::string_view line = trimmed(std::string_view(data, size * count));
    if (line.starts_with("HTTP/")) {
        // A new response: a redirect or an interim reply came first.
        transfer->headers.clear();
        const size_t space = line.find(' ');
        transfer->statusLine = space == std::string_view::npos ? std::string(line) : "HTTP " + std::string(line.substr(space + 1));
    } else if (const size_t colon = line.find(':'); colon != std::string_view::npos) {
        transfer->headers.emplace_back(std::string(trimmed(line.substr(0, colon))),
                                       std::string(trimmed(line.substr(colon + 1))));
    }
    return size * count;
}

size_t onBody(char* data, size_t size, size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    try {
        transfer->checkHead();
        transfer->append(std::string_view(data, size * count));
    } catch (...) {
        transfer->failure = std::current_exception();
        return 0;
    }
    return size * count;
}

// The partial file's bytes, digested, or nothing when they cannot be read back.
bool digestExisting(int fd, int64_t length, BackgroundDigest& digest) {
    std::vector<char> buffer(1 << 20);
    int64_t done = 0;
    while (done < length) {
        const ssize_t n = ::pread(fd, buffer.data(), buffer.size(), done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        digest.update(std::string_view(buffer.data(), static_cast<size_t>(n)));
        done += n;
    }
    return true;
}

}  // namespace

std::optional<int64_t> freeBytes(const std::filesystem::path& directory) {
    struct statvfs info {};
    if (::statvfs(directory.c_str(), &info) != 0) return std::nullopt;
    return static_cast<int64_t>(info.f_bavail) * static_cast<int64_t>(info.f_frsize);
}

std::string humanBytes(int64_t bytes) {
    if (bytes < 1000) return std::to_string(bytes) + " bytes";
    static constexpr const char* units[] = {"kB", "MB", "GB", "TB"};
    double value = static_cast<double>(bytes);
    int unit = -1;
    while (value >= 1000 && unit < 3) {
        value /= 1000;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, value < 10 ? "%.1f %s" : "%.0f %s", value, units[unit]);
    return text;
}

namespace {

namespace fs = std::filesystem;

Result fetchInto(const Request& request, const std::function<void(const Progress&)>& onProgress) {
    const std::filesystem::path& partial = request.partialPath;
    std::filesystem::create_directories(partial.parent_path());
    // No symbolic link: the file written is the one named, never something it points at.
    const int fd = ::open(partial.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        throw ModelDownloadError(Kind::writeFailed, "could not open " + partial.string() + ": " + std::strerror(errno));
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    Transfer transfer{request};
    transfer.fd = fd;
    transfer.onProgress = &onProgress;
    transfer.digest = std::make_unique<BackgroundDigest>();
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode))
        throw ModelDownloadError(Kind::writeFailed, partial.string() + " is not a regular file");
    transfer.offset = info.st_size;
    if (transfer.offset > request.expectedSizeBytes || !digestExisting(fd, transfer.offset, *transfer.digest)) {
        if (::ftruncate(fd, 0) != 0)
            throw ModelDownloadError(Kind::writeFailed, "could not empty " + partial.string() + ": " + std::strerror(errno));
        transfer.offset = 0;
        transfer.digest = std::make_unique<BackgroundDigest>();
    }
    transfer.written = transfer.resumedFrom = transfer.offset;
    ::lseek(fd, transfer.offset, SEEK_SET);

    if (transfer.offset < request.expectedSizeBytes) {
        const std::optional<int64_t> free = freeBytes(partial.parent_path());
        // A little to spare for the manifests and whatever else writes meanwhile.
        if (free && *free < request.expectedSizeBytes - transfer.offset + (16 << 20)) {
            diskFull(request, request.expectedSizeBytes, std::max<int64_t>(0, *free + transfer.offset));
        }
        CURL* curl = libcurl().easyInit();
        if (!curl) throw ModelDownloadError(Kind::interrupted, "could not create an HTTP handle");
        std::unique_ptr<CURL, void (*)(CURL*)> handle(curl, [](CURL* c) { libcurl().easyCleanup(c); });
        transfer.curl = curl;
        char errorText[CURL_ERROR_SIZE] = {0};
        const std::string range = std::to_string(transfer.offset) + "-";
        const Curl& c = libcurl();
        c.easySetopt(curl, CURLOPT_URL, request.url.c_str());
        c.easySetopt(curl, CURLOPT_PROTOCOLS_STR, "http,https,file");
        c.easySetopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
        c.easySetopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
        c.easySetopt(curl, CURLOPT_MAXREDIRS, static_cast<long>(request.maxRedirects));
        c.easySetopt(curl, CURLOPT_USERAGENT, "aimwise-model-install");
        if (transfer.offset > 0) c.easySetopt(curl, CURLOPT_RANGE, range.c_str());
        if (isLoopback(request.url)) c.easySetopt(curl, CURLOPT_NOPROXY, "*");
        c.easySetopt(curl, CURLOPT_ERRORBUFFER, errorText);
        c.easySetopt(curl, CURLOPT_NOSIGNAL, 1L);
        c.easySetopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.connectTimeoutSec * 1000));
        c.easySetopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1024L);
        c.easySetopt(curl, CURLOPT_LOW_SPEED_TIME, std::max(1L, static_cast<long>(request.stallTimeoutSec)));
        c.easySetopt(curl, CURLOPT_BUFFERSIZE, 2L << 20);  // older libcurl keeps its 512 KiB ceiling
        c.easySetopt(curl, CURLOPT_ACCEPT_ENCODING, nullptr);
        c.easySetopt(curl, CURLOPT_HEADERFUNCTION, onHeaderLine);
        c.easySetopt(curl, CURLOPT_HEADERDATA, &transfer);
        c.easySetopt(curl, CURLOPT_WRITEFUNCTION, onBody);
        c.easySetopt(curl, CURLOPT_WRITEDATA, &transfer);
        const CURLcode code = c.easyPerform(curl);
        if (transfer.failure) std::rethrow_exception(transfer.failure);
        const std::string detail = errorText[0] ? errorText : c.easyStrerror(code);
        if (code == CURLE_TOO_MANY_REDIRECTS)
            transfer.refuse(Kind::redirectLoop, "kept redirecting (more than " + std::to_string(request.maxRedirects) +
                                                    " times) without reaching the file; nothing was written.");
        if (code == CURLE_UNSUPPORTED_PROTOCOL || code == CURLE_FILE_COULDNT_READ_FILE ||
            code == CURLE_REMOTE_FILE_NOT_FOUND || code == CURLE_URL_MALFORMAT)
            transfer.refuse(Kind::refusedReply, "could not be fetched (" + detail + "); nothing was written.");
        if (code == CURLE_OK) transfer.checkHead();
        if (code != CURLE_OK || transfer.written < request.expectedSizeBytes) {
            const std::string reason = code != CURLE_OK ? detail : "the reply ended early";
            throw ModelDownloadError(
                Kind::interrupted,
                "the download of " + request.displayName + " stopped after " + humanBytes(transfer.written) + " of " +
                    humanBytes(request.expectedSizeBytes) + " (" + reason + ")." +
                    (transfer.written > 0 ? " What arrived is kept, and the same command continues from there." : ""));
        }
        if (::fsync(fd) != 0) {
            const int saved = errno;
            if (saved == ENOSPC || saved == EDQUOT) diskFull(request, request.expectedSizeBytes, freeBytes(partial.parent_path()));
            ::unlink(partial.c_str());
            throw ModelDownloadError(Kind::writeFailed, "could not write " + partial.string() + ": " +
                                                            std::strerror(saved) + "; the partial download was removed.");
        }
    }
    const std::string digest = transfer.digest->finalHex();
    if (digest != request.expectedSha256) {
        ::unlink(partial.c_str());
        throw ModelDownloadError(Kind::digestMismatch,
                                 request.displayName + " arrived whole, but its SHA-256 is " + digest + ", not " +
                                     request.expectedSha256 +
                                     ": it is not the published file. The download was removed and nothing was "
                                     "installed.");
    }
    return {digest, transfer.written, transfer.resumedFrom};
}

}  // namespace

Result fetch(const Request& request, const std::function<void(const Progress&)>& onProgress) {
    try {
        return fetchInto(request, onProgress);
    } catch (const ModelDownloadError&) {
        // A refusal before the first byte leaves no empty file behind.
        std::error_code error;
        if (fs::is_regular_file(request.partialPath, error) && fs::file_size(request.partialPath, error) == 0 && !error)
            fs::remove(request.partialPath, error);
        throw;
    }
}

}  // namespace aimwise::ModelDownload
