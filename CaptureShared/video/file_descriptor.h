#pragma once
// An owned POSIX file descriptor, and whole reads and writes that retry after signals.
#include <cstddef>
#include <utility>

namespace aimwise {

class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    ~FileDescriptor() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    // Closes now; the close's own result, 0 or -1 with errno.
    int reset();

private:
    int fd_ = -1;
};

// Reads until `size` bytes arrived or the end came; the count read, or -1 with errno on an error.
ptrdiff_t readFully(int fd, void* buffer, size_t size);
// Writes all of it in as few calls as the kernel allows; false with errno on an error.
bool writeFully(int fd, const void* data, size_t size);

}  // namespace aimwise
