#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <enyx-sim/md_payload.h>

namespace hosted {

/// One received quote, short enough to keep a million of them: any two payloads that differ have another hash.
struct QuoteRecord {
    std::uint64_t hash;      // FNV-1a of type and payload
    std::uint64_t sequence;  // of the quote in its stream

    bool operator==(const QuoteRecord& other) const { return hash == other.hash && sequence == other.sequence; }
};

inline QuoteRecord MakeRecord(std::uint32_t type, const unsigned char* payload, std::size_t size) {
    QuoteRecord record{14695981039346656037U ^ type, 0};
    for (std::size_t n = 0; n < size; ++n) record.hash = (record.hash ^ payload[n]) * 1099511628211U;
    std::memcpy(&record.sequence, payload + offsetof(enyx_sim::QuoteCommon, sequence), sizeof record.sequence);
    return record;
}

}  // namespace hosted
