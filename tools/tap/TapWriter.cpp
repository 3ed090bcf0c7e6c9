#include "tools/tap/TapWriter.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <thread>

#include "capture/RegisterAccess.h"

namespace tap {
namespace {

// Two readings of the clocks differ by less. A greater step back means that the clock was set.
constexpr std::uint64_t kClockNoiseNs = 100'000;

}  // namespace

TapWriter::~TapWriter() {
    for (std::size_t i = 0; i < m_count.load(); ++i) delete m_sources[i].load();
}

Source* TapWriter::add(const capture::InterfaceInfo& info) {
    const std::lock_guard<std::mutex> lock(m_addMutex);
    const std::size_t count = m_count.load(std::memory_order_relaxed);
    for (std::size_t i = 0; i < count; ++i) {
        Source* source = m_sources[i].load(std::memory_order_relaxed);
        bool open = false;
        if (source->info.name == info.name && source->open.compare_exchange_strong(open, true)) return source;
    }
    if (count == kMaxSources) return nullptr;
    std::unique_ptr<Source> source(new (std::nothrow) Source(info, m_ringBytes));
    if (!source || !source->ring.isUsable()) return nullptr;
    if (m_newStats && info.linkType == capture::kStreamLink) source->stats = m_newStats(info);
    m_sources[count].store(source.get(), std::memory_order_relaxed);
    m_count.store(count + 1, std::memory_order_release);
    return source.release();
}

void TapWriter::startClock() {
    m_clock.sample();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    m_clock.sample();
}

void TapWriter::describe(Source& source) {
    source.described = true;
    source.interface = m_files.addInterface(source.info, nowNs());
}

// Finds the sources that have packets, and the limit up to which to take them. Later packets wait for the next drain.
std::size_t TapWriter::collect(std::array<Pending, kMaxSources>& pending) {
    std::size_t filled = 0;
    const std::size_t count = m_count.load(std::memory_order_acquire);
    for (std::size_t i = 0; i < count; ++i) {
        Source* source = m_sources[i].load(std::memory_order_relaxed);
        if (!source->described) describe(*source);
        Pending& entry = pending[filled];
        entry = {source, source->ring.published(), {}};
        if (source->ring.front(entry.limit, entry.record)) ++filled;
    }
    return filled;
}

bool TapWriter::drain() {
    std::array<Pending, kMaxSources> pending;
    std::size_t left = collect(pending);
    const bool any = left > 0;
    m_clock.sample();
    while (left > 0) {
        Pending* oldest = std::min_element(
            pending.data(), pending.data() + left,
            [](const Pending& a, const Pending& b) { return a.record.ticks < b.record.ticks; });
        write(*oldest->source, oldest->record);
        oldest->source->ring.pop(oldest->record);
        if (!oldest->source->ring.front(oldest->limit, oldest->record)) *oldest = pending[--left];
    }
    countLost();
    return any;
}

void TapWriter::write(Source& source, const PacketRing::Record& record) {
    if (source.stats != nullptr) source.stats->take(record);
    if (record.isOpening) return;
    std::uint64_t ns = m_clock.at(record.ticks);
    if (ns < source.lastNs && source.lastNs - ns < kClockNoiseNs) ns = source.lastNs;
    source.lastNs = ns;
    if (source.info.linkType != capture::kRegisterLink) {
        m_files.addPacket(source.interface, ns, record.data, record.size, record.trueSize);
        return;
    }
    capture::RegisterAccess access;  // its duration is in ticks up to here
    std::memcpy(&access, record.data, sizeof access);
    access.durationNs = m_clock.duration(access.durationNs);
    m_files.addPacket(source.interface, ns, &access, sizeof access);
}

void TapWriter::countLost() {
    const std::size_t count = m_count.load(std::memory_order_acquire);
    for (std::size_t i = 0; i < count; ++i) {
        Source& source = *m_sources[i].load(std::memory_order_relaxed);
        const std::uint64_t lost = source.ring.lost();
        if (!source.described || lost == source.lostCounted) continue;
        m_files.addLost(source.interface, lost - source.lostCounted);
        source.lostCounted = lost;
    }
}

void TapWriter::finish() {
    drainAll();
    m_clock.sample();
    m_files.close(nowNs());
}

}  // namespace tap
