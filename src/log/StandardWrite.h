#pragma once

#include <stdio_ext.h>
#include <unistd.h>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VEXO_LOG_UNDER_TSAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define VEXO_LOG_UNDER_TSAN 1
#endif

#ifdef VEXO_LOG_UNDER_TSAN
extern "C" void __tsan_acquire(void* lock);
extern "C" void __tsan_release(void* lock);
#endif

/// 1 once a stop signal came. The assembly of the log's write reads it.
extern __attribute__((visibility("hidden"))) std::atomic<std::uint32_t> vexo_log_stopping;

/// How the log writes to standard output and standard error. Until the process is to stop, a line waits for a slow
/// reader; After that, a line that the stream does not take at once is left out there, and no wait for a lock is long.
namespace standard_write {

/// The handler of a stop signal calls this before anything else. From then on nothing waits for standard output, and a
/// write that is already waiting returns.
/// @return false when the library itself sent this signal to interrupt a write: then the handler must not log it
bool stopFromHandler(int signal, const siginfo_t* info, void* context);

inline bool isStopping() { return vexo_log_stopping.load(std::memory_order_relaxed) != 0; }
void forgetStop();  ///< for tests: an ordinary process stops only once

/// Writes a text to a standard stream. Only one thread at a time may write to the same stream.
void write(int fd, const char* text, std::size_t size);
/// Writes what the stream takes without waiting. A signal handler may call it.
void writeAtOnce(int fd, const char* text, std::size_t size);

/// Holds the lock of stdio's standard output for a scope, so that lines of the application do not mix with the log's.
/// Take it before the log lock: the application may hold stdio's lock when it logs.
class StdoutTurn {
public:
    StdoutTurn() {
        if (isStopping()) {
            m_isMine = tryShortly();
        } else {
            ::flockfile(stdout);
        }
#ifdef VEXO_LOG_UNDER_TSAN
        if (m_isMine) __tsan_acquire(stdout);  // the sanitizer does not know the lock of stdio
#endif
    }
    ~StdoutTurn() {
#ifdef VEXO_LOG_UNDER_TSAN
        if (m_isMine) __tsan_release(stdout);
#endif
        if (m_isMine) ::funlockfile(stdout);
    }
    StdoutTurn(const StdoutTurn&) = delete;
    StdoutTurn& operator=(const StdoutTurn&) = delete;

    /// False when the process is to stop and another thread keeps the lock of standard output.
    bool isMine() const { return m_isMine; }
    void write(const char* text, std::size_t size) const {
        if (m_isMine && ::fileno_unlocked(stdout) == STDOUT_FILENO && ::__fpending(stdout) == 0) {
            standard_write::write(STDOUT_FILENO, text, size);
        } else if (m_isMine) {
            writeToStdio(text, size);
        }
    }

private:
    static void writeToStdio(const char* text, std::size_t size);
    static bool tryShortly();

    bool m_isMine = true;
};

}  // namespace standard_write
