#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace tap {

struct Source;

/// Finds the source that an open stream is captured into. Any thread looks it up at every poll, without a lock. One
/// thread at a time changes it.
class StreamTable {
public:
    static constexpr std::size_t kSlots = 256;

    /// Looks at the stream's first place only. Null when it is not there; it may be at another place.
    Source* findAtOnce(const void* stream) const {
        const Slot& slot = m_slots[slotOf(stream)];
        if (slot.stream.load(std::memory_order_acquire) != stream) return nullptr;
        Source* source = slot.source.load(std::memory_order_relaxed);
        if (source == nullptr) __builtin_unreachable();  // no stream is null, and each one in the table has a source
        return source;
    }
    Source* find(const void* stream) const {
        std::size_t i = slotOf(stream);
        for (std::size_t n = 0; n < kSlots; ++n, i = (i + 1) % kSlots) {
            const void* found = m_slots[i].stream.load(std::memory_order_acquire);
            if (found == stream) return m_slots[i].source.load(std::memory_order_relaxed);
            if (found == empty()) return nullptr;
        }
        return nullptr;
    }

    /// @return false when the table is full.
    bool insert(const void* stream, Source* source) {
        std::size_t i = slotOf(stream);
        for (std::size_t n = 0; n < kSlots; ++n, i = (i + 1) % kSlots) {
            const void* found = m_slots[i].stream.load(std::memory_order_relaxed);
            if (found != empty() && found != removed()) continue;
            m_slots[i].source.store(source, std::memory_order_relaxed);
            m_slots[i].stream.store(stream, std::memory_order_release);
            return true;
        }
        return false;
    }

    /// @return what the stream was captured into, or null.
    Source* remove(const void* stream) {
        for (Slot& slot : m_slots) {
            if (slot.stream.load(std::memory_order_relaxed) != stream) continue;
            slot.stream.store(removed(), std::memory_order_release);
            return slot.source.load(std::memory_order_relaxed);
        }
        return nullptr;
    }

    void clear() {
        for (Slot& slot : m_slots) slot.stream.store(empty(), std::memory_order_release);
    }

private:
    // No object has these addresses. Neither of them is null, so a null stream is never found.
    static constexpr std::uintptr_t kEmpty = 1;
    static constexpr std::uintptr_t kRemoved = 2;  // a search continues behind it
    static const void* empty() { return reinterpret_cast<const void*>(kEmpty); }
    static const void* removed() { return reinterpret_cast<const void*>(kRemoved); }

    struct Slot {
        std::atomic<const void*> stream{empty()};
        std::atomic<Source*> source{nullptr};
    };

    static std::size_t slotOf(const void* stream) { return (reinterpret_cast<std::uintptr_t>(stream) >> 4) % kSlots; }

    std::array<Slot, kSlots> m_slots;
};

}  // namespace tap
