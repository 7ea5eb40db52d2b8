#include "tests/support/scripted_model_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace aimwise::testing {

namespace {

using json = nlohmann::ordered_json;

bool equalsIgnoringCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) {
               return std::tolower(x) == std::tolower(y);
           });
}

std::string trimmed(std::string text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
    size_t start = 0;
    while (start < text.size() && std::isspace(static_cast<unsigned char>(text[start]))) ++start;
    return text.substr(start);
}

const char* reasonPhrase(int status) {
    switch (status) {
        case 200: return "OK";
        case 400: return "Bad Request";
        case 401: return "Unauthorized";
        case 404: return "Not Found";
        case 429: return "Too Many Requests";
        case 500: return "Internal Server Error";
        case 503: return "Service Unavailable";
        default: return "Status";
    }
}

std::string loadingBody() {
    return R"({"error":{"message":"Loading model","type":"unavailable_error","code":503}})";
}

std::string hex(size_t value) {
    std::ostringstream out;
    out << std::hex << value;
    return out.str();
}

}  // namespace

const std::string* ScriptedModelServer::Request::header(const std::string& name) const {
    for (const auto& [key, value] : headers)
        if (equalsIgnoringCase(key, name)) return &value;
    return nullptr;
}

nlohmann::ordered_json ScriptedModelServer::Request::json() const {
    return nlohmann::ordered_json::parse(body, nullptr, false);
}

ScriptedModelServer::Reply ScriptedModelServer::Reply::json(int status, std::string body) {
    Reply reply;
    reply.status = status;
    reply.body = std::move(body);
    return reply;
}

ScriptedModelServer::Reply ScriptedModelServer::Reply::loading() { return json(503, loadingBody()); }

ScriptedModelServer::Reply ScriptedModelServer::Reply::events(const std::vector<std::string>& payloads, bool done) {
    Reply reply;
    reply.contentType = "text/event-stream";
    reply.chunks.emplace();
    for (const std::string& payload : payloads) reply.chunks->push_back("data: " + payload + "\n\n");
    if (done) reply.chunks->push_back("data: [DONE]\n\n");
    return reply;
}

ScriptedModelServer::Reply ScriptedModelServer::Reply::providerError(int status, const std::string& message) {
    return json(status, nlohmann::ordered_json{{"error", {{"code", status}, {"message", message}}}}.dump());
}

std::string ScriptedModelServer::onlineCompletionBody(const std::string& content, const std::string& provider) {
    json body = json::parse(completionBody(content));
    body["id"] = "gen-scripted";
    body["provider"] = provider;
    body["usage"] = {{"prompt_tokens", 1200},
                     {"completion_tokens", 8},
                     {"prompt_tokens_details", {{"cached_tokens", 1000}}},
                     {"cost", 0.00042}};
    return body.dump();
}

ScriptedModelServer::Reply ScriptedModelServer::onlineStream(const std::vector<std::string>& pieces,
                                                             const std::string& provider,
                                                             const std::optional<std::string>& midStreamError) {
    std::vector<std::string> payloads;
    for (std::string payload : streamPayloads(pieces)) {
        json chunk = json::parse(payload);
        chunk["id"] = "gen-scripted";
        chunk["provider"] = provider;
        if (chunk.contains("usage")) chunk["usage"]["cost"] = 0.00042;
        payloads.push_back(chunk.dump());
    }
    if (midStreamError) {
        payloads.resize(1 + pieces.size());
        payloads.push_back(json{{"id", "gen-scripted"},
                                {"provider", provider},
                                {"error", {{"code", 429}, {"message", *midStreamError}}},
                                {"choices", json::array({{{"index", 0}, {"delta", {{"content", ""}}},
                                                           {"finish_reason", "error"}}})}}
                               .dump());
    }
    Reply reply = Reply::events(payloads, !midStreamError);
    reply.chunks->insert(reply.chunks->begin(), ": OPENROUTER PROCESSING\n\n");
    return reply;
}

std::string ScriptedModelServer::completionBody(const std::string& content, const std::string& finishReason,
                                                const std::optional<std::string>& reasoning,
                                                const std::optional<nlohmann::ordered_json>& toolCalls) {
    json message = {{"role", "assistant"}, {"content", content}};
    if (reasoning) message["reasoning_content"] = *reasoning;
    if (toolCalls) {
        if (content.empty()) message["content"] = nullptr;
        message["tool_calls"] = *toolCalls;
    }
    json body = {{"id", "chatcmpl-scripted"},
                 {"object", "chat.completion"},
                 {"created", 1763791041},
                 {"model", "scripted"},
                 {"choices", json::array({{{"index", 0}, {"finish_reason", finishReason}, {"message", message}}})},
                 {"usage", {{"prompt_tokens", 12}, {"completion_tokens", 3}, {"total_tokens", 15}}},
                 {"timings", {{"prompt_n", 12}, {"predicted_n", 3}}}};
    return body.dump();
}

std::vector<std::string> ScriptedModelServer::streamPayloads(const std::vector<std::string>& pieces,
                                                             const std::string& finishReason) {
    auto chunk = [](json delta, json finish) {
        return json{{"id", "chatcmpl-scripted"},
                    {"object", "chat.completion.chunk"},
                    {"created", 1763791041},
                    {"model", "scripted"},
                    {"choices", json::array({{{"index", 0}, {"finish_reason", finish}, {"delta", delta}}})}}
            .dump();
    };
    std::vector<std::string> out;
    out.push_back(chunk({{"role", "assistant"}, {"content", nullptr}}, nullptr));
    for (const std::string& piece : pieces) out.push_back(chunk({{"content", piece}}, nullptr));
    out.push_back(chunk(json::object(), finishReason));
    out.push_back(json{{"id", "chatcmpl-scripted"},
                       {"object", "chat.completion.chunk"},
                       {"model", "scripted"},
                       {"choices", json::array()},
                       {"usage", {{"prompt_tokens", 12}, {"completion_tokens", pieces.size()}}}}
                      .dump());
    return out;
}

ScriptedModelServer::ScriptedModelServer(Transport transport) : transport_(transport) {
    if (::pipe2(wakePipe_, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    if (transport == Transport::tcp) {
        listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int yes = 1;
        ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = 0;
        if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error(std::string("bind failed: ") + std::strerror(errno));
        socklen_t length = sizeof address;
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    } else {
        std::string pattern = (std::filesystem::temp_directory_path() / "scripted-llama-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        socketDirectory_ = pattern;
        listenOnUnixSocket(socketDirectory_ / "llama.sock");
        return;
    }
    if (::listen(listenFd_, 64) != 0) throw std::runtime_error("listen failed");
    acceptThread_ = std::thread([this] { acceptLoop(); });
}

ScriptedModelServer::ScriptedModelServer(const std::filesystem::path& socketPath) : transport_(Transport::unixSocket) {
    if (::pipe2(wakePipe_, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    std::filesystem::create_directories(socketPath.parent_path());
    listenOnUnixSocket(socketPath);
}

void ScriptedModelServer::listenOnUnixSocket(const std::filesystem::path& path) {
    socketPath_ = path;
    std::error_code ignored;
    std::filesystem::remove(path, ignored);  // a stale socket from an earlier run
    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.native().size() >= sizeof address.sun_path) throw std::runtime_error("socket path too long: " + path.string());
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error(std::string("bind failed: ") + std::strerror(errno));
    if (::listen(listenFd_, 64) != 0) throw std::runtime_error("listen failed");
    acceptThread_ = std::thread([this] { acceptLoop(); });
}

ScriptedModelServer::~ScriptedModelServer() {
    stopping_ = true;
    char byte = 1;
    [[maybe_unused]] ssize_t ignored = ::write(wakePipe_[1], &byte, 1);
    if (acceptThread_.joinable()) acceptThread_.join();
    std::vector<std::thread> threads;
    {
        std::lock_guard lock(mutex_);
        threads.swap(connectionThreads_);
    }
    for (std::thread& thread : threads) thread.join();
    ::close(listenFd_);
    ::close(wakePipe_[0]);
    ::close(wakePipe_[1]);
    std::error_code error;
    if (!socketDirectory_.empty())
        std::filesystem::remove_all(socketDirectory_, error);
    else if (!socketPath_.empty())
        std::filesystem::remove(socketPath_, error);
}

EndpointURL ScriptedModelServer::baseURL() const {
    if (transport_ == Transport::unixSocket) return EndpointURL::unixSocket(socketPath_.string());
    return *EndpointURL::parse("http://127.0.0.1:" + std::to_string(port_));
}

void ScriptedModelServer::enqueue(const std::string& path, Reply reply) {
    std::lock_guard lock(mutex_);
    queued_[path].push_back(std::move(reply));
}

void ScriptedModelServer::setHandler(const std::string& path, Handler handler) {
    std::lock_guard lock(mutex_);
    handlers_[path] = std::move(handler);
}

void ScriptedModelServer::setLoadingRequests(int count) {
    std::lock_guard lock(mutex_);
    loadingRequests_ = count;
}

void ScriptedModelServer::setOnlineMode(std::string apiKey) {
    std::lock_guard lock(mutex_);
    onlineKey_ = std::move(apiKey);
}

void ScriptedModelServer::setModelPath(std::string path) {
    std::lock_guard lock(mutex_);
    modelPath_ = std::move(path);
}

std::vector<ScriptedModelServer::Request> ScriptedModelServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

std::vector<ScriptedModelServer::Request> ScriptedModelServer::requests(const std::string& path) const {
    std::vector<Request> out;
    for (const Request& request : requests())
        if (request.path == path) out.push_back(request);
    return out;
}

bool ScriptedModelServer::waitForRequests(size_t count, int timeoutMs) const {
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return requests_.size() >= count; });
}

void ScriptedModelServer::acceptLoop() {
    while (!stopping_) {
        pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents) return;
        if (!(fds[0].revents & POLLIN)) continue;
        int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        if (transport_ == Transport::tcp) {
            // Small replies go out at once rather than waiting on the client's delayed acknowledgement.
            int yes = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        }
        std::lock_guard lock(mutex_);
        connectionThreads_.emplace_back([this, fd] {
            serve(fd);
            ::close(fd);
        });
    }
}

// True when `fd` became readable (or closed); false on timeout or when the server is stopping.
bool ScriptedModelServer::waitUnlessStopping(int fd, int timeoutMs) const {
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!stopping_) {
        int remaining = timeoutMs < 0 ? -1
                                      : static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                             until - std::chrono::steady_clock::now())
                                                             .count());
        if (timeoutMs >= 0 && remaining <= 0) return false;
        // A negative fd is ignored by poll, which makes this a plain interruptible sleep.
        pollfd fds[2] = {{fd, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
        int ready = ::poll(fds, 2, remaining);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        if (fds[1].revents) return false;
        return true;
    }
    return false;
}

void ScriptedModelServer::write(int fd, const std::string& bytes) const {
    size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t count = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return;
        sent += static_cast<size_t>(count);
    }
}

void ScriptedModelServer::serve(int fd) {
    std::string buffer;
    char chunk[65536];
    while (!stopping_) {
        // Read one request: head up to the blank line, then Content-Length bytes of body.
        size_t headEnd;
        while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
            if (!waitUnlessStopping(fd, -1)) return;
            ssize_t count = ::recv(fd, chunk, sizeof chunk, 0);
            if (count <= 0) return;
            buffer.append(chunk, static_cast<size_t>(count));
        }
        Request request;
        std::istringstream head(buffer.substr(0, headEnd));
        std::string line;
        std::getline(head, line);
        std::istringstream requestLine(line);
        std::string target;
        requestLine >> request.method >> target;
        request.path = target.substr(0, target.find('?'));
        size_t contentLength = 0;
        while (std::getline(head, line)) {
            size_t colon = line.find(':');
            if (colon == std::string::npos) continue;
            std::string name = trimmed(line.substr(0, colon)), value = trimmed(line.substr(colon + 1));
            if (equalsIgnoringCase(name, "Content-Length")) contentLength = std::stoul(value);
            if (equalsIgnoringCase(name, "Expect") && equalsIgnoringCase(value, "100-continue"))
                write(fd, "HTTP/1.1 100 Continue\r\n\r\n");
            request.headers.emplace_back(std::move(name), std::move(value));
        }
        buffer.erase(0, headEnd + 4);
        while (buffer.size() < contentLength) {
            if (!waitUnlessStopping(fd, -1)) return;
            ssize_t count = ::recv(fd, chunk, sizeof chunk, 0);
            if (count <= 0) return;
            buffer.append(chunk, static_cast<size_t>(count));
        }
        request.body = buffer.substr(0, contentLength);
        buffer.erase(0, contentLength);

        Reply reply = replyFor(request);
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(request);
        }
        arrived_.notify_all();

        if (reply.ending == Reply::Ending::noReply) return;
        if (reply.ending == Reply::Ending::hang) {
            // Held until the client gives up (the socket reads as closed) or the server stops.
            while (waitUnlessStopping(fd, -1)) {
                ssize_t count = ::recv(fd, chunk, sizeof chunk, 0);
                if (count <= 0) return;
            }
            return;
        }
        if (reply.delayMs > 0 && waitUnlessStopping(fd, reply.delayMs)) {
            // The client went away (or sent more) during the delay; a closed client ends the connection.
            ssize_t count = ::recv(fd, chunk, sizeof chunk, MSG_PEEK | MSG_DONTWAIT);
            if (count <= 0) return;
        }
        if (stopping_) return;

        std::string headText = "HTTP/1.1 " + std::to_string(reply.status) + " " + reasonPhrase(reply.status) +
                               "\r\nContent-Type: " + reply.contentType + "\r\nServer: scripted\r\n";
        for (const auto& [name, value] : reply.headers) headText += name + ": " + value + "\r\n";
        if (reply.chunks) {
            write(fd, headText + "Transfer-Encoding: chunked\r\n\r\n");
            for (const std::string& piece : *reply.chunks) {
                if (reply.chunkDelayMs > 0 && waitUnlessStopping(-1, reply.chunkDelayMs)) return;
                if (stopping_) return;
                write(fd, hex(piece.size()) + "\r\n" + piece + "\r\n");
            }
            if (reply.ending == Reply::Ending::cut) return;
            write(fd, "0\r\n\r\n");
        } else {
            std::string head = headText + "Content-Length: " + std::to_string(reply.body.size()) + "\r\n\r\n";
            if (reply.ending == Reply::Ending::cut) {
                write(fd, head + reply.body.substr(0, reply.body.size() / 2));
                return;
            }
            write(fd, head + reply.body);
        }
    }
}

ScriptedModelServer::Reply ScriptedModelServer::replyFor(const Request& request) {
    Handler handler;
    {
        std::lock_guard lock(mutex_);
        if (loadingRequests_ > 0 && request.path != "/v1/models") {
            --loadingRequests_;
            return Reply::loading();
        }
        auto queue = queued_.find(request.path);
        if (queue != queued_.end() && !queue->second.empty()) {
            Reply reply = std::move(queue->second.front());
            queue->second.pop_front();
            return reply;
        }
        auto found = handlers_.find(request.path);
        if (found != handlers_.end()) handler = found->second;
    }
    if (handler) return handler(request);
    return builtIn(request);
}

ScriptedModelServer::Reply ScriptedModelServer::builtIn(const Request& request) {
    std::string modelPath;
    std::optional<std::string> onlineKey;
    {
        std::lock_guard lock(mutex_);
        modelPath = modelPath_;
        onlineKey = onlineKey_;
    }
    if (request.path == "/health") return Reply::json(200, R"({"status":"ok"})");
    if (request.path == "/props") {
        json props = {{"default_generation_settings", {{"n_ctx", 8192}}},
                      {"total_slots", 1},
                      {"model_alias", "scripted"},
                      {"model_path", modelPath},
                      {"modalities", {{"vision", true}, {"audio", false}}},
                      {"chat_template", "{{ messages }}"},
                      {"bos_token", "<bos>"},
                      {"eos_token", "<eos>"},
                      {"build_info", "scripted"}};
        return Reply::json(200, props.dump());
    }
    json body = request.json();
    if (request.path == "/tokenize" && body.is_object() && body.contains("content")) {
        json tokens = json::array();
        std::istringstream words(body.value("content", ""));
        std::string word;
        for (int id = 1; words >> word; ++id) tokens.push_back(id);
        return Reply::json(200, json{{"tokens", tokens}}.dump());
    }
    if (request.path == "/apply-template" && body.is_object() && body.contains("messages")) {
        std::string prompt;
        for (const json& message : body["messages"])
            prompt += "<|" + message.value("role", "") + "|>" +
                      (message.contains("content") && message["content"].is_string()
                           ? message["content"].get<std::string>()
                           : std::string()) +
                      "\n";
        return Reply::json(200, json{{"prompt", prompt}}.dump());
    }
    if (request.path == "/v1/chat/completions" && body.is_object() && body.contains("messages")) {
        std::string lastUser;
        for (const json& message : body["messages"])
            if (message.value("role", "") == "user" && message.contains("content") && message["content"].is_string())
                lastUser = message["content"].get<std::string>();
        std::string answer = "echo: " + lastUser;
        if (onlineKey) {
            const std::string* authorization = request.header("Authorization");
            if (!authorization || *authorization != "Bearer " + *onlineKey)
                return Reply::providerError(401, "No auth credentials found");
            // A pinned call is answered by the provider it was pinned to.
            std::string provider = "Scripted";
            if (body.contains("provider") && body["provider"].contains("only") && !body["provider"]["only"].empty())
                provider = body["provider"]["only"][0].get<std::string>();
            if (body.value("stream", false)) return onlineStream({"echo: ", lastUser}, provider);
            return Reply::json(200, onlineCompletionBody(answer, provider));
        }
        if (body.value("stream", false)) return Reply::events(streamPayloads({"echo: ", lastUser}));
        return Reply::json(200, completionBody(answer));
    }
    if (request.path == "/v1/chat/completions" || request.path == "/tokenize" || request.path == "/apply-template")
        return Reply::json(500, R"({"error":{"code":500,"message":"[json.exception] invalid request","type":"server_error"}})");
    return Reply::json(404, R"({"error":{"code":404,"message":"File Not Found","type":"not_found_error"}})");
}

}  // namespace aimwise::testing
