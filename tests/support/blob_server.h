#pragma once
// A loopback HTTP/1.1 file server for downloads: ranges, redirects, and the ways a real server
// fails (an error page, a length that lies, a connection cut partway). Large bodies come from a
// file through sendfile, so that it can also feed a throughput benchmark.
#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace aimwise::testing {

class BlobServer {
public:
    struct Route {
        std::string body;
        // Served instead of `body` when set.
        std::optional<std::filesystem::path> file;
        int status = 200;
        std::string contentType = "application/octet-stream";
        bool honourRange = true;
        std::optional<std::string> location;  // a redirect to this path
        std::optional<long long> declaredLength;
        std::optional<long long> cutAfterBytes;  // body bytes sent before the connection is closed
    };

    BlobServer();
    ~BlobServer();
    BlobServer(const BlobServer&) = delete;
    BlobServer& operator=(const BlobServer&) = delete;

    void route(const std::string& path, Route route);
    std::string url(const std::string& path) const;
    // "GET /path" plus " bytes=N-" when a range was asked, in arrival order.
    std::vector<std::string> requests() const;

private:
    void serve(int fd);

    int listenFd_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    mutable std::mutex mutex_;
    std::map<std::string, Route> routes_;
    std::vector<std::string> requests_;
    std::vector<int> connections_;
    std::vector<std::thread> threads_;
    std::thread acceptThread_;
};

}  // namespace aimwise::testing
