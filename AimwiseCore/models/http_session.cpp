#include "AimwiseCore/models/http_session.h"

// Only the header: the library itself is opened on the first request.
#define CURL_DISABLE_TYPECHECK
#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <mutex>

#include "AimwiseCore/models/cancellation.h"
#include "CaptureShared/common/shared_library.h"

namespace aimwise {

namespace {

// The libcurl functions this client calls, resolved once on the first request.
struct Curl {
    SharedLibrary library{"libcurl.so.4", "HTTP", "libcurl4"};
    decltype(&curl_global_init) globalInit = library.function<decltype(&curl_global_init)>("curl_global_init");
    decltype(&curl_easy_init) easyInit = library.function<decltype(&curl_easy_init)>("curl_easy_init");
    decltype(&curl_easy_setopt) easySetopt = library.function<decltype(&curl_easy_setopt)>("curl_easy_setopt");
    decltype(&curl_easy_perform) easyPerform = library.function<decltype(&curl_easy_perform)>("curl_easy_perform");
    decltype(&curl_easy_getinfo) easyGetinfo = library.function<decltype(&curl_easy_getinfo)>("curl_easy_getinfo");
    decltype(&curl_easy_reset) easyReset = library.function<decltype(&curl_easy_reset)>("curl_easy_reset");
    decltype(&curl_easy_cleanup) easyCleanup = library.function<decltype(&curl_easy_cleanup)>("curl_easy_cleanup");
    decltype(&curl_easy_strerror) easyStrerror =
        library.function<decltype(&curl_easy_strerror)>("curl_easy_strerror");
    decltype(&curl_slist_append) slistAppend = library.function<decltype(&curl_slist_append)>("curl_slist_append");
    decltype(&curl_slist_free_all) slistFreeAll =
        library.function<decltype(&curl_slist_free_all)>("curl_slist_free_all");

    Curl() { globalInit(CURL_GLOBAL_DEFAULT); }
};

// Loading failures surface as transport failures, the way callers already handle an unreachable server.
const Curl& libcurl() {
    static const Curl* const loaded = []() -> const Curl* {
        try {
            return new Curl();
        } catch (const std::runtime_error& error) {
            throw HTTPTransportFailure(error.what());
        }
    }();
    return *loaded;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) {
               return std::tolower(x) == std::tolower(y);
           });
}

std::string trimmedASCII(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    return std::string(text);
}

struct Transfer {
    const HTTPSession::StreamHandler* handler = nullptr;
    HTTPResponse response;
    CURL* curl = nullptr;
    bool headDelivered = false;
    bool collect = false;
    bool tooLarge = false;
    const CancellationToken* token = nullptr;
    std::exception_ptr failure;

    void deliverHead() {
        if (headDelivered) return;
        headDelivered = true;
        long status = 0;
        libcurl().easyGetinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        response.status = static_cast<int>(status);
        if (handler && handler->onHead) handler->onHead(response);
    }
};

size_t onHeaderLine(char* data, size_t size, size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    std::string_view line(data, size * count);
    if (line.starts_with("HTTP/")) {
        transfer->response.headers.clear();  // a new status line: an interim reply came first
    } else if (size_t colon = line.find(':'); colon != std::string_view::npos) {
        transfer->response.headers.emplace_back(trimmedASCII(line.substr(0, colon)),
                                                trimmedASCII(line.substr(colon + 1)));
    }
    return size * count;
}

size_t onBody(char* data, size_t size, size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    size_t total = size * count;
    try {
        transfer->deliverHead();
        if (transfer->collect) {
            if (transfer->response.body.size() + total > HTTPSession::maxCollectedBodyBytes) {
                transfer->tooLarge = true;
                return 0;
            }
            transfer->response.body.append(data, total);
        } else if (transfer->handler && transfer->handler->onBytes) {
            transfer->handler->onBytes(std::string_view(data, total));
        }
    } catch (...) {
        transfer->failure = std::current_exception();
        return 0;
    }
    return total;
}

int onProgress(void* context, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    auto* transfer = static_cast<Transfer*>(context);
    return transfer->token && transfer->token->isCancelled() ? 1 : 0;
}

}  // namespace

const std::string* HTTPResponse::header(std::string_view name) const {
    for (const auto& [key, value] : headers)
        if (equalsIgnoringCase(key, name)) return &value;
    return nullptr;
}

struct HTTPSession::Impl {
    std::mutex mutex;
    // Idle handles keep their connections, so a second call to the same server skips the connect.
    std::vector<CURL*> idle;

    CURL* take() {
        {
            std::lock_guard lock(mutex);
            if (!idle.empty()) {
                CURL* handle = idle.back();
                idle.pop_back();
                return handle;
            }
        }
        CURL* handle = libcurl().easyInit();
        if (!handle) throw HTTPTransportFailure("could not create an HTTP handle");
        return handle;
    }

    void give(CURL* handle) {
        libcurl().easyReset(handle);
        std::lock_guard lock(mutex);
        idle.push_back(handle);
    }

    void perform(const HTTPRequest& request, Transfer& transfer);
};

void HTTPSession::Impl::perform(const HTTPRequest& request, Transfer& transfer) {
    CancellationToken::checkCurrent();
    transfer.token = CancellationToken::current();

    EndpointURL target = request.url;
    std::string socketPath;
    if (request.url.isUnixSocket()) {
        socketPath = *request.url.host;
        target.scheme = "http";
        target.host = "localhost";
        target.port.reset();
    }
    if (target.path.empty()) target.path = "/";
    const std::string urlText = target.string();
    const bool loopback = !socketPath.empty() || target.host == "127.0.0.1";

    CURL* curl = take();
    transfer.curl = curl;
    char errorText[CURL_ERROR_SIZE] = {0};
    curl_slist* headers = nullptr;
    // No "Expect: 100-continue" round trip before a large body.
    headers = libcurl().slistAppend(headers, "Expect:");
    for (const auto& [name, value] : request.headers)
        headers = libcurl().slistAppend(headers, (name + ": " + value).c_str());

    const long timeoutMs = std::max(1L, static_cast<long>(std::ceil(request.timeoutSec * 1000.0)));
    libcurl().easySetopt(curl, CURLOPT_URL, urlText.c_str());
    libcurl().easySetopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    if (!socketPath.empty()) libcurl().easySetopt(curl, CURLOPT_UNIX_SOCKET_PATH, socketPath.c_str());
    // Traffic for this machine's own server must never be handed to a proxy from the environment.
    if (loopback) libcurl().easySetopt(curl, CURLOPT_NOPROXY, "*");
    // Conversation text travels over https only to a server whose certificate the system's store vouches for.
    libcurl().easySetopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    libcurl().easySetopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    libcurl().easySetopt(curl, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    libcurl().easySetopt(curl, CURLOPT_ERRORBUFFER, errorText);
    libcurl().easySetopt(curl, CURLOPT_NOSIGNAL, 1L);
    libcurl().easySetopt(curl, CURLOPT_TIMEOUT_MS, timeoutMs);
    libcurl().easySetopt(curl, CURLOPT_CONNECTTIMEOUT_MS, timeoutMs);
    libcurl().easySetopt(curl, CURLOPT_HTTPHEADER, headers);
    libcurl().easySetopt(curl, CURLOPT_ACCEPT_ENCODING, nullptr);
    if (request.method == "GET") {
        libcurl().easySetopt(curl, CURLOPT_HTTPGET, 1L);
    } else {
        if (request.method != "POST") libcurl().easySetopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
        libcurl().easySetopt(curl, CURLOPT_POST, 1L);
        libcurl().easySetopt(curl, CURLOPT_POSTFIELDS, request.body.data());
        libcurl().easySetopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    }
    libcurl().easySetopt(curl, CURLOPT_HEADERFUNCTION, onHeaderLine);
    libcurl().easySetopt(curl, CURLOPT_HEADERDATA, &transfer);
    libcurl().easySetopt(curl, CURLOPT_WRITEFUNCTION, onBody);
    libcurl().easySetopt(curl, CURLOPT_WRITEDATA, &transfer);
    libcurl().easySetopt(curl, CURLOPT_NOPROGRESS, 0L);
    libcurl().easySetopt(curl, CURLOPT_XFERINFOFUNCTION, onProgress);
    libcurl().easySetopt(curl, CURLOPT_XFERINFODATA, &transfer);

    CURLcode code = libcurl().easyPerform(curl);
    std::string detail = errorText[0] ? std::string(errorText) : std::string(libcurl().easyStrerror(code));
    // curl speaks of "localhost port 80" even when it dialled a socket file.
    if (code == CURLE_COULDNT_CONNECT && !socketPath.empty()) {
        std::error_code ignored;
        detail = std::filesystem::exists(socketPath, ignored)
                     ? "nothing accepts connections on the socket " + socketPath
                     : "there is no socket at " + socketPath;
    }
    libcurl().slistFreeAll(headers);
    if (code == CURLE_OK && !transfer.failure) {
        try {
            transfer.deliverHead();
        } catch (...) {
            transfer.failure = std::current_exception();
        }
    }

    if (code != CURLE_OK) {
        // A failed transfer may leave the connection half-read; never hand it to the next call.
        libcurl().easyCleanup(curl);
    } else {
        give(curl);
    }
    transfer.curl = nullptr;

    if (transfer.failure) std::rethrow_exception(transfer.failure);
    if (code == CURLE_ABORTED_BY_CALLBACK) throw CancellationError();
    if (transfer.tooLarge)
        throw HTTPTransportFailure("the response body was larger than " + std::to_string(maxCollectedBodyBytes) +
                                   " bytes");
    if (code == CURLE_OPERATION_TIMEDOUT) {
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%g", request.timeoutSec);
        throw HTTPTransportFailure(
            "the request to " + request.url.string() + " timed out after " + seconds + " s (" + detail + ")",
            HTTPTransportFailure::Cause::timedOut);
    }
    if (code != CURLE_OK) throw HTTPTransportFailure("the request to " + request.url.string() + " failed: " + detail);
}

HTTPSession::HTTPSession() : impl_(std::make_unique<Impl>()) {}

HTTPSession::~HTTPSession() {
    for (CURL* handle : impl_->idle) libcurl().easyCleanup(handle);
}

HTTPResponse HTTPSession::send(const HTTPRequest& request) {
    Transfer transfer;
    transfer.collect = true;
    impl_->perform(request, transfer);
    return std::move(transfer.response);
}

void HTTPSession::stream(const HTTPRequest& request, const StreamHandler& handler) {
    Transfer transfer;
    transfer.handler = &handler;
    impl_->perform(request, transfer);
}

}  // namespace aimwise
