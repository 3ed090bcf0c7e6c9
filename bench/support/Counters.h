#pragma once

#include <cstdint>
#include <optional>

namespace bench {

/// The processor's own counters of the calling thread, user mode alone: cycles, instructions, mispredicted branches.
/// Virtual machines often have none; then read() returns nothing.
class Counters {
public:
    struct Values {
        std::uint64_t cycles;
        std::uint64_t instructions;
        std::uint64_t mispredicts;
    };
    /// What is counted, as perf_event_open takes it. Tests count software events, which every machine has.
    struct Event {
        std::uint32_t type;
        std::uint64_t config;
    };

    Counters();
    Counters(const Event& cycles, const Event& instructions, const Event& mispredicts);
    ~Counters();
    Counters(const Counters&) = delete;
    Counters& operator=(const Counters&) = delete;

    /// Counted since this object was made. Nothing when the machine does not count, or when the counters were shared
    /// with others for a while, so that a value would be an estimate.
    [[gnu::noinline]] std::optional<Values> read() const;

private:
    static constexpr int kEvents = 3;

    bool open(const Event (&events)[kEvents]);
    void close();
    std::optional<Values> readBySystemCall() const;
    std::optional<Values> readInUserMode() const;
    bool userModeAgrees() const;

    int m_fds[kEvents] = {-1, -1, -1};
    void* m_pages[kEvents] = {};  // for reading without a system call
    bool m_inUserMode = false;
};

}  // namespace bench
