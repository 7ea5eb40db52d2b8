#pragma once
// A real HTTP/1.1 server, on 127.0.0.1 or on a unix socket, that behaves as the local model server
// does on the wire: the chat route (whole and streamed), /props, /tokenize, /apply-template, and
// 503 "Loading model" while loading. Tests script its replies per path, including slow ones, cut
// ones and ones that never come, and read back every request it received. In online mode the chat
// route behaves as the online router does: it wants the bearer key, names the provider that served,
// reports cost, and keeps its streams alive with ":" comment lines.
#include <atomic>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "AimwiseCore/models/endpoint_url.h"

namespace aimwise::testing {

class ScriptedModelServer {
public:
    enum class Transport { tcp, unixSocket };

    struct Request {
        std::string method;
        std::string path;
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;

        const std::string* header(const std::string& name) const;
        // The body as JSON; discarded (is_discarded) when it is not JSON.
        nlohmann::ordered_json json() const;
    };

    struct Reply {
        enum class Ending {
            complete,
            // The connection closes partway: half a declared body, or a stream without its last chunk.
            cut,
            // Nothing is ever written; the connection is held until the client leaves.
            hang,
            // The request is read and the connection closed without a byte of reply.
            noReply,
        };
        int status = 200;
        std::string contentType = "application/json";
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;
        // When set, the reply is a chunked event stream, one chunk per element.
        std::optional<std::vector<std::string>> chunks;
        int delayMs = 0;
        int chunkDelayMs = 0;
        Ending ending = Ending::complete;

        static Reply json(int status, std::string body);
        static Reply loading();
        // "data: <payload>\n\n" for each payload, then "data: [DONE]\n\n" when `done`.
        static Reply events(const std::vector<std::string>& payloads, bool done = true);
        // The router's error reply: {"error":{"code":status,"message":...}}.
        static Reply providerError(int status, const std::string& message);
    };
    using Handler = std::function<Reply(const Request&)>;

    // Listens at once; the unix socket is created in a fresh temporary directory.
    explicit ScriptedModelServer(Transport transport);
    // A unix-socket server at a path of the test's choosing (the default socket under a support dir).
    explicit ScriptedModelServer(const std::filesystem::path& socketPath);
    ~ScriptedModelServer();
    ScriptedModelServer(const ScriptedModelServer&) = delete;
    ScriptedModelServer& operator=(const ScriptedModelServer&) = delete;

    // The server's base URL, as the endpoint variable or the default socket URL would give it.
    EndpointURL baseURL() const;
    std::string baseURLString() const { return baseURL().string(); }
    EndpointURL chatURL() const { return baseURL().appendingPath("v1/chat/completions"); }
    const std::filesystem::path& socketPath() const { return socketPath_; }

    // Scripted replies for a path are used first, one per request, in order.
    void enqueue(const std::string& path, Reply reply);
    // Then the handler for the path, if any; then the built-in behaviour.
    void setHandler(const std::string& path, Handler handler);
    // The next `count` requests to any route but /v1/models answer 503 "Loading model".
    void setLoadingRequests(int count);
    void setModelPath(std::string path);
    // The chat route answers as the online router, for requests bearing this key (401 otherwise).
    void setOnlineMode(std::string apiKey);

    std::vector<Request> requests() const;
    std::vector<Request> requests(const std::string& path) const;
    // Waits up to `timeoutMs` for the n-th request (1-based) to arrive.
    bool waitForRequests(size_t count, int timeoutMs) const;

    // A llama-server completion body.
    static std::string completionBody(const std::string& content, const std::string& finishReason = "stop",
                                      const std::optional<std::string>& reasoning = std::nullopt,
                                      const std::optional<nlohmann::ordered_json>& toolCalls = std::nullopt);
    // The events llama-server streams for `pieces` of content: role delta, one delta per piece,
    // the finishing chunk, a usage chunk; each as a bare JSON payload.
    static std::vector<std::string> streamPayloads(const std::vector<std::string>& pieces,
                                                   const std::string& finishReason = "stop");
    // The router's completion: provider, generation id and a usage block with cached tokens and cost.
    static std::string onlineCompletionBody(const std::string& content, const std::string& provider = "Scripted");
    // The router's stream: a keep-alive comment, one chunk per piece, the finish and usage chunks, then
    // [DONE]; or, with `midStreamError`, that error chunk after the pieces and no [DONE].
    static Reply onlineStream(const std::vector<std::string>& pieces, const std::string& provider = "Scripted",
                              const std::optional<std::string>& midStreamError = std::nullopt);

private:
    void listenOnUnixSocket(const std::filesystem::path& path);
    void acceptLoop();
    void serve(int fd);
    Reply replyFor(const Request& request);
    Reply builtIn(const Request& request);
    bool waitUnlessStopping(int fd, int timeoutMs) const;
    void write(int fd, const std::string& bytes) const;

    Transport transport_;
    int listenFd_ = -1;
    int wakePipe_[2] = {-1, -1};
    int port_ = 0;
    std::filesystem::path socketDirectory_;
    std::filesystem::path socketPath_;
    std::atomic<bool> stopping_{false};
    std::thread acceptThread_;

    mutable std::mutex mutex_;
    mutable std::condition_variable arrived_;
    std::vector<std::thread> connectionThreads_;
    std::map<std::string, std::deque<Reply>> queued_;
    std::map<std::string, Handler> handlers_;
    std::vector<Request> requests_;
    int loadingRequests_ = 0;
    std::string modelPath_ = "/models/scripted.gguf";
    std::optional<std::string> onlineKey_;
};

}  // namespace aimwise::testing
