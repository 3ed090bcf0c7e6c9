#pragma once

#include <VexoZceMdStatsFile.h>
#include <cstdint>
#include <cstring>

#include "sim/remote/Wire.h"
#include "tools/tap/TapClock.h"

namespace relay {

/// The statistics page of a relay. The polling thread counts what it receives, with plain stores. The sending thread
/// fills in what was lost.
class RelayPage {
public:
    /// Tells on standard error why there is no page. The counts then go into memory of this process.
    RelayPage(std::uint32_t card, std::uint32_t channel, bool knowsPolls);
    /// The page ends with its relay.
    ~RelayPage();
    RelayPage(const RelayPage&) = delete;
    RelayPage& operator=(const RelayPage&) = delete;

    // ---- the polling thread ----
    void packet(std::uint64_t ticks, const std::uint8_t* data, std::uint32_t size) {
        const std::uint64_t now = tap::clock_ticks::g_counterIsEven ? ticks * 2 : vexo_stats::startNow();
        if (__builtin_expect(m_isFirst, 0)) begin(now);
        const std::uint64_t gap = vexo_stats::between(m_stream->lastPacket, now);
        vexo_stats::set(m_stream->lastPacket, now);
        vexo_stats::addOne(m_stream->gaps[vexo_stats::bucketOf(gap)]);
        const std::uint32_t slot = slotOf(data, size);
        vexo_stats::addOne(m_stream->packets[slot]);
        vexo_stats::add(m_stream->bytes[slot], size);
    }
    /// Packets that were received, but whose bytes cannot be had.
    void packetsWithoutBytes(std::uint64_t packets) {
        vexo_stats::add(m_stream->packets[vexo_stats::kNoType], packets);
    }
    void idlePoll() { vexo_stats::addOne(m_stream->idlePolls); }
    void failedPoll() { vexo_stats::addOne(m_stream->failedPolls); }
    /// Another stream delivers from now on: the time until its first packet is no gap.
    void beginAnew() { m_isFirst = true; }

    // ---- the sending thread ----
    void setCounts(const vexo_sim::wire::Counts& counts);

private:
    static std::uint32_t slotOf(const std::uint8_t* data, std::uint32_t size) {
        constexpr std::uint32_t kOrdinaryTypes = 32;
        std::uint32_t type = 0;
        if (size < sizeof type) return vexo_stats::kNoType;
        std::memcpy(&type, data, sizeof type);
        return type < kOrdinaryTypes ? type : std::uint32_t{vexo_stats::kOtherType};
    }
    void begin(std::uint64_t now);
    bool make();

    vexo_stats::PageFile m_file;
    vexo_stats::Process m_ownProcess{};
    vexo_stats::Stream m_ownStream{};
    vexo_stats::Process* m_process = &m_ownProcess;
    vexo_stats::Stream* m_stream = &m_ownStream;
    bool m_isFirst = true;  // the next packet follows none
};

}  // namespace relay
