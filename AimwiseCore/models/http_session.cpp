#include "AimwiseCore/models/http_session.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <mutex>

#include "AimwiseCore/models/cancellation.h"

namespace aimwise {

namespace {

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
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
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

void initialiseOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
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
        CURL* handle = curl_easy_init();
        if (!handle) throw HTTPTransportFailure("could not create an HTTP handle");
        return handle;
    }

    void give(CURL* handle) {
        curl_easy_reset(handle);
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
    headers = curl_slist_append(headers, "Expect:");
    for (const auto& [name, value] : request.headers)
        headers = curl_slist_append(headers, (name + ": " + value).c_str());

    const long timeoutMs = std::max(1L, static_cast<long>(std::ceil(request.timeoutSec * 1000.0)));
    curl_easy_setopt(curl, CURLOPT_URL, urlText.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    if (!socketPath.empty()) curl_easy_setopt(curl, CURLOPT_UNIX_SOCKET_PATH, socketPath.c_str());
    // Traffic for this machine's own server must never be handed to a proxy from the environment.
    if (loopback) curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeoutMs);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, timeoutMs);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, nullptr);
    if (request.method == "GET") {
        curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    } else {
        if (request.method != "POST") curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    }
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, onHeaderLine);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &transfer);

    CURLcode code = curl_easy_perform(curl);
    std::string detail = errorText[0] ? std::string(errorText) : std::string(curl_easy_strerror(code));
    curl_slist_free_all(headers);
    if (code == CURLE_OK && !transfer.failure) {
        try {
            transfer.deliverHead();
        } catch (...) {
            transfer.failure = std::current_exception();
        }
    }

    if (code != CURLE_OK) {
        // A failed transfer may leave the connection half-read; never hand it to the next call.
        curl_easy_cleanup(curl);
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
        throw HTTPTransportFailure("the request to " + request.url.string() + " timed out after " + seconds +
                                   " s (" + detail + ")");
    }
    if (code != CURLE_OK) throw HTTPTransportFailure("the request to " + request.url.string() + " failed: " + detail);
}

HTTPSession::HTTPSession() : impl_(std::make_unique<Impl>()) { initialiseOnce(); }

HTTPSession::~HTTPSession() {
    for (CURL* handle : impl_->idle) curl_easy_cleanup(handle);
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
