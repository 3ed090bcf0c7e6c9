#include "src/log/StandardWrite.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <ucontext.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>

#include "src/log/LineBuilder.h"
#include "src/util/StandardStreams.h"

std::atomic<std::uint32_t> vexo_log_stopping{0};

#ifndef VEXO_LOG_UNDER_TSAN
// write(2), unless the process is to stop. Returns the result of the system call, or -EINTR. In C++, a signal between
// the check of the flag and the system call would go unnoticed, and the write could wait for ever. Here the handler
// sees from the program counter that the thread is between the two, and moves it to the end. The code keeps nothing on
// the stack, so the move is safe.
asm(R"(
    .pushsection .text
    .p2align 4
    .globl vexo_log_write
    .hidden vexo_log_write
    .type vexo_log_write, @function
vexo_log_write:
    .cfi_startproc
    movl vexo_log_stopping(%rip), %eax
    testl %eax, %eax
    jnz vexo_log_write_refused
    movl $1, %eax
    .globl vexo_log_write_call
    .hidden vexo_log_write_call
vexo_log_write_call:
    syscall
    ret
    .globl vexo_log_write_refused
    .hidden vexo_log_write_refused
vexo_log_write_refused:
    movq $-4, %rax
    ret
    .cfi_endproc
    .size vexo_log_write, .-vexo_log_write
    .popsection
)");

extern "C" __attribute__((visibility("hidden"))) long vexo_log_write(int fd, const void* text, std::size_t size);
extern "C" __attribute__((visibility("hidden"))) const char vexo_log_write_call[];
extern "C" __attribute__((visibility("hidden"))) const char vexo_log_write_refused[];
#endif

namespace standard_write {

namespace {

constexpr int kPatienceMs = 100;  // for a lock, once the process is to stop
constexpr std::size_t kStreams = STDERR_FILENO + 1;

#ifdef VEXO_LOG_UNDER_TSAN
// The sanitizer delivers a signal to a waiting thread only if it knows the call in which the thread waits.
long writeUnlessStopping(int fd, const char* text, std::size_t size) {
    if (isStopping()) return -EINTR;
    const ssize_t written = ::write(fd, text, size);
    return written < 0 ? -errno : written;
}
void leaveWrite(void*) {}
#else
long writeUnlessStopping(int fd, const char* text, std::size_t size) { return vexo_log_write(fd, text, size); }

void leaveWrite(void* context) {
    if (context == nullptr) return;
    greg_t& counter = static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP];
    const auto at = static_cast<std::uintptr_t>(counter);
    // Also when the thread is at the system call itself: the call has not begun, or the kernel is about to restart it.
    if (at >= reinterpret_cast<std::uintptr_t>(&vexo_log_write) &&
        at <= reinterpret_cast<std::uintptr_t>(vexo_log_write_call))
        counter = reinterpret_cast<greg_t>(vexo_log_write_refused);
}
#endif

// The threads that may be waiting in a write, by stream; 0 for none. A handler that runs on another thread interrupts
// them. While a handler is about to do that, they do not continue, so they cannot end.
std::atomic<pthread_t> g_writers[kStreams]{};
std::atomic<int> g_interrupters{0};
char g_interruptMark;

class Interruptible {
public:
    explicit Interruptible(int fd)
        : m_slot(g_writers[static_cast<unsigned int>(fd) < kStreams ? static_cast<unsigned int>(fd) : 0]) {
        m_slot.store(::pthread_self());
    }
    ~Interruptible() {
        m_slot.store(0);
        while (g_interrupters.load() != 0) ::sched_yield();
    }
    Interruptible(const Interruptible&) = delete;
    Interruptible& operator=(const Interruptible&) = delete;

private:
    std::atomic<pthread_t>& m_slot;
};

void interruptWriters(int signal) {
    ++g_interrupters;
    for (const std::atomic<pthread_t>& slot : g_writers) {
        const pthread_t writer = slot.load();
        if (writer == 0 || ::pthread_equal(writer, ::pthread_self())) continue;
        sigval mark{};
        mark.sival_ptr = &g_interruptMark;
        ::pthread_sigqueue(writer, signal, mark);
    }
    --g_interrupters;
}

bool isInterrupt(const siginfo_t* info) {
    return info != nullptr && info->si_code == SI_QUEUE && info->si_value.sival_ptr == &g_interruptMark &&
           info->si_pid == ::getpid();
}

// Opens a pipe or terminal again in non-blocking mode. O_NONBLOCK on the shared file description would affect every
// process that uses it. -1 when that fails.
int openAtOnce(int fd) {
    char path[32];
    LineBuilder text(path, sizeof path);
    text.append("/proc/self/fd/");
    text.appendNumber(fd, 1);
    text.append('\0');
    return standard_streams::moveAbove(::open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

// A pipe that is ready takes this much without waiting.
void writeWhenReady(int fd, const char* text, std::size_t size) {
    while (size > 0) {
        pollfd out{fd, POLLOUT, 0};
        if (::poll(&out, 1, 0) != 1) return;
        const ssize_t written = ::write(fd, text, size < PIPE_BUF ? size : PIPE_BUF);
        if (written <= 0) return;
        text += written;
        size -= static_cast<std::size_t>(written);
    }
}

// A file, or a device whose writes never wait.
void writeWhole(int fd, const char* text, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, text, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        text += written;
        size -= static_cast<std::size_t>(written);
    }
}

}  // namespace

void forgetStop() { vexo_log_stopping = 0; }

bool stopFromHandler(int signal, const siginfo_t* info, void* context) {
    const int saved = errno;
    vexo_log_stopping = 1;
    leaveWrite(context);
    const bool isReal = !isInterrupt(info);
    if (isReal) interruptWriters(signal);
    errno = saved;
    return isReal;
}

namespace {

// Continues after a first write that did not write everything.
__attribute__((noinline)) void writeRest(int fd, const char* text, std::size_t size, long written) {
    while (written > 0 || (written == -EINTR && !isStopping())) {
        if (written > 0) {
            text += written;
            size -= static_cast<std::size_t>(written);
        }
        if (size == 0) return;
        written = writeUnlessStopping(fd, text, size);
    }
    if (written == -EBADF) standard_streams::noteClosed(fd);
}

}  // namespace

void write(int fd, const char* text, std::size_t size) {
    if (!standard_streams::isOurs(fd)) return;
    if (isStopping()) return writeAtOnce(fd, text, size);
    const Interruptible waiting(fd);
    const long written = writeUnlessStopping(fd, text, size);
    if (written != static_cast<long>(size)) writeRest(fd, text, size, written);
}

void writeAtOnce(int fd, const char* text, std::size_t size) {
    struct stat status {};
    if (!standard_streams::isOurs(fd) || ::fstat(fd, &status) != 0) return;
    if (S_ISSOCK(status.st_mode)) {
        ::send(fd, text, size, MSG_DONTWAIT);
    } else if (S_ISFIFO(status.st_mode) || (S_ISCHR(status.st_mode) && ::isatty(fd) == 1)) {
        const int own = openAtOnce(fd);
        if (own < 0) return writeWhenReady(fd, text, size);
        writeWhole(own, text, size);
        ::close(own);
    } else {
        writeWhole(fd, text, size);
    }
}

bool StdoutTurn::tryShortly() {
    static std::atomic<bool> s_gaveUp{false};  // later lines do not wait again
    for (int waited = 0; ::ftrylockfile(stdout) != 0; ++waited) {
        if (s_gaveUp || waited == kPatienceMs) return s_gaveUp = true, false;
        ::poll(nullptr, 0, 1);
    }
    s_gaveUp = false;
    return true;
}

// Does the same as fwrite on an unbuffered stream, but faster. The application may have made the stream buffered or
// replaced it.
void StdoutTurn::writeToStdio(const char* text, std::size_t size) {
    const int fd = ::fileno_unlocked(stdout);
    if (fd < 0) {
        ::fwrite_unlocked(text, 1, size, stdout);  // the application's stdout has no descriptor
        return;
    }
    if (::__fpending(stdout) != 0 && standard_streams::isOurs(fd)) ::fflush_unlocked(stdout);
    standard_write::write(fd, text, size);
}

}  // namespace standard_write
