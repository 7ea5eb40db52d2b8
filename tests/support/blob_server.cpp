#include "tests/support/blob_server.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace aimwise::testing {

namespace {

bool sendAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

BlobServer::BlobServer() {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0 || ::listen(listenFd_, 16) != 0)
        std::abort();
    port_ = ntohs(address.sin_port);
    acceptThread_ = std::thread([this] {
        for (;;) {
            const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return;
            std::lock_guard lock(mutex_);
            connections_.push_back(fd);
            threads_.emplace_back([this, fd] { serve(fd); });
        }
    });
}

BlobServer::~BlobServer() {
    stopping_ = true;
    ::shutdown(listenFd_, SHUT_RDWR);
    ::close(listenFd_);
    acceptThread_.join();
    for (int fd : connections_) ::shutdown(fd, SHUT_RDWR);
    for (auto& thread : threads_) thread.join();
    for (int fd : connections_) ::close(fd);
}

void BlobServer::route(const std::string& path, Route route) {
    std::lock_guard lock(mutex_);
    routes_[path] = std::move(route);
}

std::string BlobServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<std::string> BlobServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

void BlobServer::serve(int fd) {
    std::string pending;
    char buffer[4096];
    while (!stopping_) {
        size_t end;
        while ((end = pending.find("\r\n\r\n")) == std::string::npos) {
            const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0) return;
            pending.append(buffer, static_cast<size_t>(n));
        }
        const std::string head = pending.substr(0, end);
        pending.erase(0, end + 4);
        const size_t space = head.find(' ');
        const std::string path = head.substr(space + 1, head.find(' ', space + 1) - space - 1);
        long long from = -1;
        if (const size_t at = head.find("\r\nRange: bytes="); at != std::string::npos) from = std::atoll(head.c_str() + at + 15);
        Route route;
        {
            std::lock_guard lock(mutex_);
            requests_.push_back("GET " + path + (from >= 0 ? " bytes=" + std::to_string(from) + "-" : ""));
            if (routes_.contains(path))
                route = routes_[path];
            else
                route = Route{.body = "not found", .status = 404, .contentType = "text/plain"};
        }
        int file = -1;
        long long size = static_cast<long long>(route.body.size());
        if (route.file) {
            file = ::open(route.file->c_str(), O_RDONLY | O_CLOEXEC);
            struct stat info {};
            ::fstat(file, &info);
            size = info.st_size;
        }
        int status = route.location ? 302 : route.status;
        long long first = 0;
        std::string extra;
        if (route.location) {
            extra = "Location: " + *route.location + "\r\n";
            size = 0;
        } else if (from >= 0 && route.honourRange && status == 200) {
            if (from >= size) {
                status = 416;
                extra = "Content-Range: bytes */" + std::to_string(size) + "\r\n";
                first = size;
            } else {
                status = 206;
                extra = "Content-Range: bytes " + std::to_string(from) + "-" + std::to_string(size - 1) + "/" +
                        std::to_string(size) + "\r\n";
                first = from;
            }
        }
        const long long length = size - first;
        const std::string response = "HTTP/1.1 " + std::to_string(status) + (status < 300 ? " OK" : " Not OK") +
                                     "\r\nContent-Type: " + route.contentType + "\r\nContent-Length: " +
                                     std::to_string(route.declaredLength.value_or(length)) + "\r\n" + extra + "\r\n";
        const long long sent = std::min(length, route.cutAfterBytes.value_or(length));
        bool ok = sendAll(fd, response.data(), response.size());
        if (file >= 0) {
            off_t offset = first;
            for (long long left = sent; ok && left > 0;) {
                const ssize_t n = ::sendfile(fd, file, &offset, static_cast<size_t>(std::min(left, 1LL << 30)));
                ok = n > 0;
                left -= n;
            }
            ::close(file);
        } else if (ok) {
            ok = sendAll(fd, route.body.data() + first, static_cast<size_t>(sent));
        }
        if (!ok || route.cutAfterBytes) {
            ::shutdown(fd, SHUT_RDWR);
            return;
        }
    }
}

}  // namespace aimwise::testing
