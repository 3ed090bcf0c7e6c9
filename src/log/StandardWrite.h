#pragma once

#include <stdio_ext.h>
#include <unistd.h>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>

/// 1 once a stop signal came. The assembly of the log's write reads it.
extern __attribute__((visibility("hidden"))) std::atomic<std::uint32_t> vexo_log_stopping;

/// How the log writes to standard output and standard error. Until the process is to stop, a line waits for a slow
/// reader; from then on a line that the stream does not take at once is left out there, and no lock is waited for long.
namespace standard_write {

/// For the handler of a stop signal, before anything else. From now on nothing waits for standard output, and a write
/// that waits already comes back.
/// @return false when the library sent this signal to itself, only to end a waiting write: it is not to be told
bool stopFromHandler(int signal, const siginfo_t* info, void* context);

inline bool isStopping() { return vexo_log_stopping.load(std::memory_order_relaxed) != 0; }
void forgetStop();  ///< for tests: a process stops once

/// Writes a text to a standard stream. Only one thread at a time may write to the same stream.
void write(int fd, const char* text, std::size_t size);
/// Writes what the stream takes without waiting. A signal handler may call it.
void writeAtOnce(int fd, const char* text, std::size_t size);

/// Standard output for a scope, under the lock of stdio: what the application prints meanwhile stays whole. It is taken
/// before the log lock, because the application may hold it when it logs.
class StdoutTurn {
public:
    StdoutTurn() {
        if (isStopping()) {
            m_isMine = tryShortly();
        } else {
            ::flockfile(stdout);
        }
    }
    ~StdoutTurn() {
        if (m_isMine) ::funlockfile(stdout);
    }
    StdoutTurn(const StdoutTurn&) = delete;
    StdoutTurn& operator=(const StdoutTurn&) = delete;

    /// False when the process is to stop and another thread keeps standard output to itself.
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
