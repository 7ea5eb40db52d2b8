// Runs a program and reports on descriptor 3 what it cost: wall and CPU seconds, peak resident set
// in KiB and exit status. The kernel counts a child's peak from the moment it is a copy of its parent,
// so a child started by a benchmark program could never report less than that program's own resident
// set; started by this small probe, it reports nearly its own.
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern char** environ;

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    ::fcntl(3, F_SETFD, FD_CLOEXEC);
    timespec start{}, end{};
    ::clock_gettime(CLOCK_MONOTONIC, &start);
    pid_t pid = 0;
    if (::posix_spawnp(&pid, argv[1], nullptr, nullptr, argv + 1, environ) != 0) return 127;
    int status = 0;
    rusage usage{};
    ::wait4(pid, &status, 0, &usage);
    ::clock_gettime(CLOCK_MONOTONIC, &end);
    const auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    ::dprintf(3, "%.9f %.6f %ld %d\n", double(end.tv_sec - start.tv_sec) + double(end.tv_nsec - start.tv_nsec) / 1e9,
              seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_maxrss,
              WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    return 0;
}
