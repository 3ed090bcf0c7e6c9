#include "log/elog.h"

#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace {

// A thread that is cancelled in its write counts no longer either: closing the log file waits for the count.
struct HandlerWriting {
    HandlerWriting() { ++elog_handlers_writing; }
    ~HandlerWriting() { --elog_handlers_writing; }
    HandlerWriting(const HandlerWriting&) = delete;
    HandlerWriting& operator=(const HandlerWriting&) = delete;
};

}  // namespace

int elog_port_init(const char* dir, const char* name) { return elog_file_init(dir, name); }

void elog_port_fini() { elog_file_fini(); }

void elog_port_output(const char* buf, std::size_t size) {
    // Standard output is unbuffered and stdio locks it for the call: the line leaves whole, in one write. A write that a
    // stop signal interrupts is not tried again: its reader may have stopped, and the process is to end.
    std::fwrite(buf, 1, size, stdout);
    elog_file_write(buf, size);
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
    while (fd >= 0 && size > 0) {
        const ssize_t written = ::write(fd, buf, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        buf += written;
        size -= static_cast<std::size_t>(written);
    }
}
