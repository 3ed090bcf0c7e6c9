#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "tools/share/SharedRing.h"

namespace share {

/// Writes a shared ring. What lies in it is never read here: nobody who changes it can lead the writer astray.
class RingWriter {
public:
    struct Stream {
        std::uint32_t card = 0;
        std::uint32_t channel = 0;
        std::uint32_t mtu = kMostPacketBytes;
        std::uint32_t flags = 0;
    };

    RingWriter() = default;
    /// The memory stays mapped: a poll may be under way. Only end() takes the ring away.
    ~RingWriter() = default;
    RingWriter(const RingWriter&) = delete;
    RingWriter& operator=(const RingWriter&) = delete;

    /// Makes a ring, with all its memory, and gives it its name. A ring of the same stream whose process has ended is
    /// replaced. @param bytes  rounded up to a power of two
    /// @return false: there is none, and error() says why
    bool make(const Stream& stream, std::size_t bytes);
    const std::string& error() const { return m_error; }

    // ---- the polling thread ----
    /// @param size  at most kMostPacketBytes
    void put(std::uint64_t ticks, const void* data, std::uint32_t size) {
        const std::uint64_t end = m_end + footprint(size);
        store(&Progress::reserved, end);
        // Readers see the stores in this order: the processor keeps it, and the compiler must not change it.
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
        unsigned char* const at = m_bytes + (m_end & m_mask);
        const Prefix prefix{ticks, size, static_cast<std::uint32_t>(m_packets)};
        std::memcpy(at, &prefix, sizeof prefix);
        std::memcpy(at + sizeof prefix, data, size);
        m_end = end;
        store(&Progress::packets, ++m_packets);
        store(&Progress::end, end);
    }
    /// A packet whose bytes cannot be had.
    void skip() { store(&Progress::packets, ++m_packets); }

    // ---- one other thread ----
    void setCard(const CardCounts& counts);
    /// Removes the file, and lets nobody see what a poll still writes.
    void end();

    // ---- in a child of fork() ----
    /// The ring is the parent's.
    void leaveToParent();

private:
    void store(std::uint64_t Progress::*word, std::uint64_t value) {
        for (Progress& progress : m_head->progress) __atomic_store_n(&(progress.*word), value, __ATOMIC_RELEASE);
    }
    bool refuse(const std::string& why);
    bool fail(const std::string& what);
    bool openDraft(std::uint64_t ringBytes);
    bool map(std::uint64_t ringBytes);
    void describe(const Stream& stream, std::uint64_t ringBytes) const;
    bool publish();
    bool isTaken(const std::string& name) const;
    void closeFiles();

    Head* m_head = nullptr;
    unsigned char* m_bytes = nullptr;  // the ring, and the same memory once more behind it
    std::uint64_t m_mask = 0;
    std::uint64_t m_end = 0;
    std::uint64_t m_packets = 0;

    std::string m_path;  // of the directory
    std::string m_name;
    std::string m_draft;
    std::string m_error;
    int m_directory = -1;
    int m_file = -1;
    dev_t m_device = 0;  // which file is ours
    ino_t m_inode = 0;
    bool m_hasDraft = false;
    bool m_isPublished = false;
};

}  // namespace share
