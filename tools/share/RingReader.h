#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/share/SharedRing.h"

namespace share {

/// Reads a shared ring by copies of the file, so nobody can cut the file under it or change what was checked.
class RingReader {
public:
    /// One packet, or packets that were lost, or both: then the lost ones were before it.
    struct Item {
        std::uint64_t lost = 0;
        std::uint64_t ticks = 0;
        const unsigned char* data = nullptr;  // null: there is no packet; valid until the next call
        std::uint32_t size = 0;
    };

    /// @param fault  why there is none; empty when nobody shares this channel
    /// @return null: there is none
    static std::unique_ptr<RingReader> open(const std::string& path, std::string& fault);
    ~RingReader();
    RingReader(const RingReader&) = delete;
    RingReader& operator=(const RingReader&) = delete;

    std::uint32_t mtu() const { return m_mtu; }
    std::uint32_t flags() const { return m_flags; }
    /// "quote_printer (process 17)"; any bytes, if the writer is hostile.
    std::string writer() const;

    /// Leaves out what is in the ring already. Without this call, reading begins with the first packet of the stream.
    void skipToEnd();
    /// The next one, if there is one. Never waits for the writer.
    bool next(Item& item);
    /// What the card has counted, as of the last next() that found nothing in its copy.
    const CardCounts& card() const { return m_card; }

    /// The process that writes has not ended, and its ring is still at @p path.
    bool isWritten(const std::string& path) const;
    /// Something is in the ring that no writer writes. Nothing more is read.
    bool isDamaged() const { return m_isDamaged; }

private:
    static constexpr std::size_t kCopyBytes = 1U << 20;

    explicit RingReader(int file) : m_file(file) {}
    std::string check();
    template <typename What>
    bool read(What& what, std::uint64_t at) const;
    bool readProgress(Progress& progress) const;
    bool readCard();
    bool refill(Item& item);
    bool take(Item& item);
    bool copy(std::uint64_t bytes);
    bool jump(std::uint64_t end);
    bool settle(Item& item);
    bool damage();

    const int m_file;
    std::uint64_t m_ringBytes = 0;
    std::uint32_t m_mtu = 0;
    std::uint32_t m_flags = 0;
    std::uint32_t m_pid = 0;
    std::string m_program;
    CardCounts m_card{};

    std::uint64_t m_position = 0;  // in the ring, of the first byte that no item has come from
    std::uint64_t m_next = 0;      // number of the next packet
    bool m_isNumberKnown = true;   // false: m_next is not exact, because it was not read together with m_position
    bool m_isDamaged = false;
    std::vector<unsigned char> m_copy;  // what lies at m_position
    std::size_t m_copied = 0;
    std::size_t m_taken = 0;  // of it; m_position is behind that
};

}  // namespace share
