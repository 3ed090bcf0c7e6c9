#pragma once

#include <cstdint>
#include <cstring>

/// What every packet of the card begins with: a 12-byte head, whose first word is the type in host order. The library
/// reads nothing else of the head.
namespace packet {

inline constexpr unsigned int kTypeSize = 4;  // bytes
inline constexpr unsigned int kHeadSize = 12;

inline constexpr std::uint32_t kContractMap = 2;
inline constexpr std::uint32_t kFirstMarketData = 17;
inline constexpr std::uint32_t kLastMarketData = 20;

/// @param pkt  at least kTypeSize bytes
inline std::uint32_t typeOf(const unsigned char* pkt) {
    std::uint32_t type;
    std::memcpy(&type, pkt, sizeof type);
    return type;
}

inline constexpr bool isMarketData(std::uint32_t type) { return type >= kFirstMarketData && type <= kLastMarketData; }

}  // namespace packet
