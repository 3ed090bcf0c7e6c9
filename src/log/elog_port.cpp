#include "src/log/elog.h"

#include <poll.h>
#include <stdio_ext.h>
#include <unistd.h>
#include <cerrno>

#include "src/log/elog_mutex.h"

namespace {

// A thread that is cancelled in its write counts no longer either: closing the log file waits for the count.
struct HandlerWriting {
    HandlerWriting() { ++elog_handlers_writing; }
    ~HandlerWriting() { --elog_handlers_writing; }
    HandlerWriting(const HandlerWriting&) = delete;
    HandlerWriting& operator=(const HandlerWriting&) = delete;
};

// The lock of stdio: what an application prints at the same time stays whole. A thread that is cancelled releases it.
struct StdoutLock {
    StdoutLock() { ::flockfile(stdout); }
    ~StdoutLock() { ::funlockfile(stdout); }
    StdoutLock(const StdoutLock&) = delete;
    StdoutLock& operator=(const StdoutLock&) = delete;
};

// What fwrite does on an unbuffered stream, without the way through stdio. A write that a stop signal interrupts is not
// tried again: its reader may have stopped, and the process is to end.
void writeToStdout(const char* buf, std::size_t size) {
    const StdoutLock lock;
    const int fd = ::fileno_unlocked(stdout);
    if (fd < 0) {
        ::fwrite_unlocked(buf, 1, size, stdout);  // the application's stdout is no file
        return;
    }
    if (::__fpending(stdout) != 0) ::fflush_unlocked(stdout);
    while (size > 0) {
        const ssize_t written = ::write(fd, buf, size);
        if (written <= 0 || written == static_cast<ssize_t>(size)) return;
        buf += written;
        size -= static_cast<std::size_t>(written);
    }
}

}  // namespace

int elog_port_init(const char* dir, const char* name) { return elog_file_init(dir, name); }

void elog_port_fini() { elog_file_fini(); }

void elog_port_output(const char* buf, std::size_t size) {
    const LogLock lock;
    elog_port_output_locked(buf, size);
}

void elog_port_output_locked(const char* buf, std::size_t size) {
    writeToStdout(buf, size);
    elog_file_write_locked(buf, size);
}

void elog_port_output_from_handler(const char* buf, std::size_t size) {
    // A reader of standard output that has stopped must not keep the stop signal from taking effect. A pipe that is
    // ready takes a line whole.
    pollfd out{STDOUT_FILENO, POLLOUT, 0};
    if (::poll(&out, 1, 0) == 1) elog_write_fully(STDOUT_FILENO, buf, size);
    const HandlerWriting writing;
    elog_write_fully(elog_file_fd, buf, size);
}

void elog_write_fully(int fd, const char* buf, std::size_t size) {
    if (fd < 0) return;
    while (size > 0) {
        const ssize_t written = ::write(fd, buf, size);
        if (written == static_cast<ssize_t>(size)) return;
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        buf += written;
        size -= static_cast<std::size_t>(written);
    }
}
