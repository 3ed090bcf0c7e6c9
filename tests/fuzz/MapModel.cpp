#include "tests/fuzz/MapModel.h"

namespace fuzz {

namespace {

constexpr std::size_t kLeast = 15;        // bytes of a contract-map packet
constexpr std::size_t kMessages = 14;     // where its messages begin
constexpr std::size_t kLongestName = 63;  // what of an id counts

}  // namespace

void MapModel::Learn(const std::uint8_t* packet, std::size_t size) {
    if (size < kLeast) return;
    const std::size_t area = packet[12] * 256U + packet[13];
    bool first = true;
    for (std::size_t at = kMessages; at + 1 < kMessages + area; first = false) {
        const std::size_t left = size - at;
        const std::size_t head = first ? 9 : 5;
        if (left < 2) return;
        const std::size_t length = packet[at] * 256U + packet[at + 1];
        if (length < head || length > left) return;
        std::string name;
        for (std::size_t i = head; i < length && name.size() < kLongestName && packet[at + i] != 0; ++i)
            name += static_cast<char>(packet[at + i]);
        const std::size_t index = packet[at + head - 2] * 256U + packet[at + head - 1];
        m_known.emplace(name, static_cast<unsigned short>(index));
        at += length;
    }
}

}  // namespace fuzz
