#pragma once

#include <atomic>
#include <csignal>

/// Turns SIGINT and SIGTERM into a flag that the receive path checks, and makes a broken pipe harmless.
class CSignalProcess {
public:
    /// Installs the handlers of the process. @return 0, or -1 at the first that failed; earlier ones stay installed
    static int InitSignal();
    static void SignalHandler(int sig, siginfo_t* info, void* ctx);

    /// Set by the handler, never cleared. Hidden, so that VexoRecv reads it without a look into the global offset
    /// table.
    __attribute__((visibility("hidden"))) static std::atomic<bool> m_isExit;
};
