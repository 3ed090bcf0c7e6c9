#pragma once

#include <cstdint>
#include <optional>

#include "sim/shm/CardFile.h"

namespace vexo_sim {

/// A card that another process hosts, mapped into this one.
struct AttachedCard {
    CardFile file;
    CardBlock* block = nullptr;
};

/// The card of a living host at @p bus. Nothing when there is none that this process may use.
std::optional<AttachedCard> attachCard(std::uint32_t bus);

/// The process that hosts a card.
Holder describeHost(const CardFile& file, const CardBlock& block);

}  // namespace vexo_sim
