#include "sim/shm/CardBlock.h"

#include <cstring>

namespace vexo_sim {

void CardBlock::init() {
    std::memcpy(header.magic, kCardMagic, sizeof header.magic);
    header.layout = kCardLayout;
    header.bytes = sizeof(CardBlock);
}

bool isCompatible(const BlockHeader& header) {
    return std::memcmp(header.magic, kCardMagic, sizeof header.magic) == 0 && header.layout == kCardLayout &&
           header.bytes == sizeof(CardBlock);
}

}  // namespace vexo_sim
