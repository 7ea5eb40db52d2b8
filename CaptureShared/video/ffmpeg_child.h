#pragma once
// ffmpeg run as a child whose standard input and output are pipes to us, so decrypted video passes
// through memory and never through a file. Standard error is collected for messages.
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

#include "CaptureShared/common/environment.h"
#include "CaptureShared/video/file_descriptor.h"

namespace aimwise {

class FfmpegChild {
public:
    // AIMCAP_FFMPEG when set, else `ffmpeg` on PATH, else the usual install places.
    static std::optional<std::string> locate(const Environment& environment);

    // Starts `executable` with `arguments`; `pipeOutput` makes its standard output a pipe, otherwise it
    // goes to the null device. Throws std::system_error when it cannot start. Writing to a child that
    // has quit must not end this process, so SIGPIPE is ignored from the first start on.
    FfmpegChild(const std::string& executable, const std::vector<std::string>& arguments, bool pipeOutput);
    // Kills a child still running and reaps it.
    ~FfmpegChild();
    FfmpegChild(const FfmpegChild&) = delete;
    FfmpegChild& operator=(const FfmpegChild&) = delete;

    int input() const { return input_.get(); }
    int output() const { return output_.get(); }
    void closeInput() { input_.reset(); }
    // For a writer thread that should close the input itself, whatever happens to this object.
    FileDescriptor takeInput() { return std::move(input_); }
    // Ends a running child at once, without waiting: what it wrote stays readable, and `wait` reaps it.
    void kill();
    // Waits for the end; true when it exited with status 0.
    bool wait();
    // What it wrote on standard error, its last few kilobytes, trimmed; "exit status N" when nothing.
    std::string failureDetail() const;

private:
    pid_t pid_ = -1;
    int status_ = 0;
    FileDescriptor input_, output_;
    std::thread errorReader_;
    std::string errorTail_;
};

}  // namespace aimwise
