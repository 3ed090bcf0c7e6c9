#pragma once

#include <cstdint>
#include <string>

/// Packets with sequence numbers, for tests.
namespace numbered {

// Numbers in the payload: big-endian, 16 bits, in the whole stream.
inline constexpr char kOfStream[] =
    "[layout]\nname = one\nmeaning = One\nsequence_field = seq\n"
    "[type 17]\nmeaning = A\nsize = 8\nfields = f\nfixed = mark 7\n"
    "[type 18]\nmeaning = B\nsize = 12\nfields = f\nfixed = mark 7\n"
    "[fields f]\nseq = 2, u16be, 1, Number\nmark = 4, u8, 1, Mark\n";

inline std::string Little(std::uint64_t number, std::size_t bytes) {
    return std::string(reinterpret_cast<const char*>(&number), bytes);
}
inline std::string Head(std::uint32_t type, std::uint32_t length = 0, std::uint32_t number = 0) {
    return Little(type, 4) + Little(length, 4) + Little(number, 4);
}
inline std::string OfOne(std::uint32_t type, std::uint16_t number, char mark = 7) {
    std::string payload(type == 17 ? 8 : 12, '\0');
    payload[2] = static_cast<char>(number >> 8);
    payload[3] = static_cast<char>(number & 0xFF);
    payload[4] = mark;
    return Head(type) + payload;
}
// A packet of the simulated card, with no more of a quote than its layout looks at.
inline std::string Simulated(std::uint32_t type, std::uint32_t number) {
    std::string payload(type == 2 ? 30 : 128, '\0');
    if (type != 2) payload[43] = 1;  // the level
    return Head(type, static_cast<std::uint32_t>(12 + payload.size()), number) + payload;
}

}  // namespace numbered
