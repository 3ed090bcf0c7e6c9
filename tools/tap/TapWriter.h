#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "capture/CaptureFiles.h"
#include "tools/tap/PacketRing.h"
#include "tools/tap/Settings.h"
#include "tools/tap/TapClock.h"

namespace tap {

/// What a program gives to a poll.
using Handler = void (*)(const std::uint8_t* data, std::uint32_t size, void* context);

/// One stream of the card, or its registers: where packets come in.
struct Source {
    Source(capture::InterfaceInfo what, std::size_t ringBytes) : info(std::move(what)), ring(ringBytes) {}

    const capture::InterfaceInfo info;
    PacketRing ring;
    std::atomic<bool> open{true};  // false: nobody puts anything any more, the source may be taken for the same stream

    // Whom the poll that is under way is for: one thread at a time polls a stream.
    Handler handler = nullptr;
    void* context = nullptr;

    // Writer's side.
    bool described = false;
    std::uint32_t interface = 0;
    std::uint64_t lostCounted = 0;
    std::uint64_t lastNs = 0;
};

/// Carries packets from the sources' rings into the files. Whoever polls only touches a ring; everything here runs in
/// the writer's thread, but for add() and release().
class TapWriter {
public:
    static constexpr std::size_t kMaxSources = 128;

    TapWriter(const Settings& settings, capture::CaptureFiles::Settings files)
        : m_ringBytes(settings.ringBytes), m_files(std::move(files)) {}
    /// Its sources end with it: nobody may be inside a poll of one.
    ~TapWriter();
    TapWriter(const TapWriter&) = delete;
    TapWriter& operator=(const TapWriter&) = delete;

    /// The source for an interface: a new one, or the one that the same stream left when it was closed.
    /// @return null when there is no memory or no room for another; the caller tells.
    Source* add(const capture::InterfaceInfo& info);
    static void release(Source& source) { source.open.store(false, std::memory_order_release); }

    /// Makes the clock usable; takes a millisecond.
    void startClock();
    /// Takes what lies in the rings at this moment, oldest first. @return false when nothing did.
    bool drain();
    void flush() { m_files.flush(); }
    /// The last drain, and the end of the file.
    void finish();

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
    std::mutex m_addMutex;
    std::array<std::atomic<Source*>, kMaxSources> m_sources{};  // filled up to m_count, and never removed
    std::atomic<std::size_t> m_count{0};
    WallClock m_clock;
    capture::CaptureFiles m_files;
};

}  // namespace tap
