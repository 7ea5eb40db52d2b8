#include "CaptureShared/video/file_descriptor.h"

#include <cerrno>
#include <unistd.h>

namespace aimwise {

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        reset();
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

int FileDescriptor::reset() {
    if (fd_ < 0) return 0;
    const int result = ::close(std::exchange(fd_, -1));
    return result;
}

ptrdiff_t readFully(int fd, void* buffer, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t count = ::read(fd, static_cast<char*>(buffer) + done, size - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return -1;
        if (count == 0) break;
        done += static_cast<size_t>(count);
    }
    return static_cast<ptrdiff_t>(done);
}

bool writeFully(int fd, const void* data, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t count = ::write(fd, static_cast<const char*>(data) + done, size - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        done += static_cast<size_t>(count);
    }
    return true;
}

}  // namespace aimwise
