#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "capture/CaptureFiles.h"
#include "tools/tap/PacketRing.h"
#include "tools/tap/Presence.h"
#include "tools/tap/Settings.h"
#include "tools/tap/StreamStats.h"
#include "tools/tap/TapClock.h"

namespace tap {

/// A program's packet handler.
using Handler = void (*)(const std::uint8_t* data, std::uint32_t size, void* context);

/// A source of packets: one stream of the card, or its registers.
struct Source {
    Source(capture::InterfaceInfo what, std::size_t ringBytes) : info(std::move(what)), ring(ringBytes) {}

    const capture::InterfaceInfo info;
    PacketRing ring;
    std::atomic<bool> open{true};  // false: closed; the same stream may use it again

    // Handler and context of the poll that is under way, and its packet. One thread at a time polls a stream.
    Handler handler = nullptr;
    void* context = nullptr;
    const std::uint8_t* data = nullptr;
    std::uint32_t size = 0;

    std::atomic<std::uint32_t> quickLimit{0};  // packets up to this size take the fast path: the limit, or 0
    std::atomic<std::uint32_t> limit{0};       // bytes of a packet that are kept; 0 = the stream's MTU is not known yet
    const void* stream = nullptr;              // the handle; null for registers
    Presence presence;
    std::unique_ptr<StreamStats> stats;  // null: nobody counts; made before the writer knows this source

    void keepUpTo(std::uint32_t bytes) {
        limit.store(bytes, std::memory_order_relaxed);
        quickLimit.store(clock_ticks::g_counterIsEven ? bytes : 0, std::memory_order_relaxed);
    }

    // Writer's side.
    bool described = false;
    std::uint32_t interface = 0;
    std::uint64_t lostCounted = 0;
    std::uint64_t lastNs = 0;
};

/// Carries packets from the sources' rings into the files. Polling threads touch only the rings. All else runs in the
/// writer's thread, except add() and release().
class TapWriter {
public:
    static constexpr std::size_t kMaxSources = 128;

    TapWriter(const Settings& settings, capture::CaptureFiles::Settings files)
        : m_ringBytes(settings.ringBytes), m_files(std::move(files)) {}
    /// Destroys its sources too. No thread may be inside a poll of one of them.
    ~TapWriter();
    TapWriter(const TapWriter&) = delete;
    TapWriter& operator=(const TapWriter&) = delete;

    /// The source for an interface: a new one, or the closed one of the same stream.
    /// @return null when there is no memory or no room for another; the caller reports it
    Source* add(const capture::InterfaceInfo& info);
    static void release(Source& source) { source.open.store(false, std::memory_order_release); }

    using NewStats = std::function<std::unique_ptr<StreamStats>(const capture::InterfaceInfo&)>;
    /// What add() gives each new source. Before the first add().
    void countWith(NewStats newStats) { m_newStats = std::move(newStats); }

    /// Must be called before the first drain(). Takes a millisecond.
    void startClock();
    /// Writes the packets that are in the rings now, oldest first. @return false when there were none.
    bool drain();
    void flush() { m_files.tick(nowNs()); }
    /// Writes all packets that are in the rings.
    void drainAll() {
        while (drain()) {
        }
    }
    /// Writes the last packets and ends the file.
    void finish();

    /// Calls @p what with each source.
    template <typename What>
    void eachSource(What what) {
        for (std::size_t i = 0; i < m_count.load(std::memory_order_acquire); ++i) {
            what(*m_sources[i].load(std::memory_order_relaxed));
        }
    }

    capture::CaptureFiles& files() { return m_files; }
    const capture::CaptureFiles& files() const { return m_files; }

private:
    struct Pending {
        Source* source;
        std::uint64_t limit;
        PacketRing::Record record;
    };

    std::size_t collect(std::array<Pending, kMaxSources>& pending);
    void describe(Source& source);
    void write(Source& source, const PacketRing::Record& record);
    void countLost();
    std::uint64_t nowNs() const { return m_clock.at(clock_ticks::now()); }

    const std::size_t m_ringBytes;
    NewStats m_newStats;
    std::mutex m_addMutex;
    std::array<std::atomic<Source*>, kMaxSources> m_sources{};  // filled up to m_count, and never removed
    std::atomic<std::size_t> m_count{0};
    WallClock m_clock;
    capture::CaptureFiles m_files;
};

}  // namespace tap
