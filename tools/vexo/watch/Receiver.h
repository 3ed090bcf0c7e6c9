#pragma once

#include <sys/types.h>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tools/receiver/InstrumentPage.h"
#include "tools/vexo/check/ConfigCheck.h"
#include "tools/vexo/run/Signals.h"

namespace vexo::watch {

/// What an instrument has sent.
struct Instrument {
    std::string id;
    std::uint64_t packets = 0;
};

struct Instruments {
    std::vector<Instrument> all;
    std::uint64_t unknown = 0;  // market-data packets that no layout describes
    std::uint64_t crowded = 0;  // packets of instruments for which there was no room
};

/// A program of our own that receives on the channel of a configuration, counted by the tap's stats-only mode. Its log
/// lies in a directory of its own, so that it does not mix with the application's.
class Receiver {
public:
    /// Starts it. Throws Failure.
    Receiver(const check::ConfigFacts& config, const run::Signals& signals);
    ~Receiver();
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    pid_t pid() const { return m_pid; }
    const std::filesystem::path& directory() const { return m_directory; }
    /// Whether the library has started.
    bool isStarted() const { return m_page->isStarted != 0; }
    /// Whether the process has ended.
    bool hasEnded();
    /// Asks it to end, and waits for that.
    void end();
    /// Why it ended before it was asked to; empty when it ended in order.
    std::string whyEnded() const;
    /// Throws Failure with the reason why the start failed.
    [[noreturn]] void failStart() const;
    /// Throws Failure with the reason why there is no page.
    [[noreturn]] void failWithoutPage() const;

    Instruments instruments() const;

private:
    void start(const std::string& config, const run::Signals& signals, int page);
    /// The last line of the output that begins like this.
    std::string outputLine(const std::string& beginning = {}) const;

    std::filesystem::path m_directory;
    receiver::InstrumentPage* m_page = nullptr;
    pid_t m_pid = 0;
    std::optional<int> m_status;  // as waitpid() gives it
};

}  // namespace vexo::watch
