#pragma once
// Just enough of the model server for whole-process and round-trip benchmarks, on 127.0.0.1 or on a
// unix socket: /props names a model file and every other route answers a verdict, at once, over
// kept-alive connections. Its own time is a few microseconds, so what a benchmark measures is ours.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "AimwiseCore/models/endpoint_url.h"

namespace aimwise::bench {

class InstantModelServer {
public:
    enum class Transport { tcp, unixSocket };

    explicit InstantModelServer(Transport transport = Transport::tcp) : transport_(transport) {
        if (transport == Transport::tcp) {
            listenFd_ = ::socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            socklen_t length = sizeof address;
            if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
                ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
                std::abort();
            port_ = ntohs(address.sin_port);
        } else {
            std::string pattern = (std::filesystem::temp_directory_path() / "instant-server-XXXXXX").string();
            if (!::mkdtemp(pattern.data())) std::abort();
            directory_ = pattern;
            listenFd_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            const std::string path = (directory_ / "server.sock").string();
            path.copy(address.sun_path, sizeof address.sun_path - 1);
            if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) std::abort();
        }
        if (::listen(listenFd_, 64) != 0) std::abort();
        acceptThread_ = std::thread([this] { acceptLoop(); });
    }
    ~InstantModelServer() {
        stopping_ = true;
        ::shutdown(listenFd_, SHUT_RDWR);
        ::close(listenFd_);
        acceptThread_.join();
        std::lock_guard lock(mutex_);
        // Connections are closed only here, so no number is reused while a thread may still read it.
        for (int fd : connections_) ::shutdown(fd, SHUT_RDWR);
        for (auto& thread : connectionThreads_) thread.join();
        for (int fd : connections_) ::close(fd);
        std::error_code ignored;
        if (!directory_.empty()) std::filesystem::remove_all(directory_, ignored);
    }

    // As the endpoint variable would give it.
    std::string baseURL() const {
        return transport_ == Transport::tcp ? "http://127.0.0.1:" + std::to_string(port_)
                                            : EndpointURL::unixSocket((directory_ / "server.sock").string()).string();
    }

    static constexpr const char* verdict =
        R"({"choices":[{"index":0,"finish_reason":"stop","message":{"role":"assistant","content":)"
        R"("{\"state\": \"ON_TASK\", \"confidence\": 0.9, \"reason\": \"Writing the report.\"}"}}]})";

private:
    void acceptLoop() {
        while (!stopping_) {
            const int fd = ::accept(listenFd_, nullptr, nullptr);
            if (fd < 0) continue;
            if (transport_ == Transport::tcp) {
                int on = 1;
                ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            }
            std::lock_guard lock(mutex_);
            connections_.push_back(fd);
            connectionThreads_.emplace_back([fd] { serve(fd); });
        }
    }
    static void serve(int fd) {
        std::string pending;
        char buffer[65536];
        while (true) {
            size_t headerEnd;
            while ((headerEnd = pending.find("\r\n\r\n")) == std::string::npos) {
                const ssize_t got = ::read(fd, buffer, sizeof buffer);
                if (got <= 0) return;
                pending.append(buffer, static_cast<size_t>(got));
            }
            size_t contentLength = 0;
            if (const size_t at = pending.find("Content-Length: "); at != std::string::npos && at < headerEnd)
                contentLength = std::strtoul(pending.c_str() + at + 16, nullptr, 10);
            while (pending.size() < headerEnd + 4 + contentLength) {
                const ssize_t got = ::read(fd, buffer, sizeof buffer);
                if (got <= 0) return;
                pending.append(buffer, static_cast<size_t>(got));
            }
            const bool props = pending.rfind("GET /props", 0) == 0;
            pending.erase(0, headerEnd + 4 + contentLength);
            const std::string body = props ? R"({"model_path":"/models/bench.gguf"})" : verdict;
            const std::string reply = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                                      std::to_string(body.size()) + "\r\n\r\n" + body;
            if (::write(fd, reply.data(), reply.size()) != static_cast<ssize_t>(reply.size())) return;
        }
    }

    Transport transport_;
    int listenFd_ = -1;
    int port_ = 0;
    std::filesystem::path directory_;
    std::atomic<bool> stopping_{false};
    std::thread acceptThread_;
    std::mutex mutex_;
    std::vector<int> connections_;
    std::vector<std::thread> connectionThreads_;
};

}  // namespace aimwise::bench
