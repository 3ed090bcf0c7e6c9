#include "sim/shm/AttachedCard.h"

#include <cstdio>
#include <utility>

namespace vexo_sim {

std::optional<AttachedCard> attachCard(std::uint32_t bus) {
    for (const std::string& path : findCardFiles(cardDirectory(), bus)) {
        CardFile file = CardFile::open(path);
        if (!file || !file.holderOf({CardPart::kHost})) continue;
        CardBlock* block = file.map();
        if (block == nullptr) continue;
        if (block->isCompatible()) return AttachedCard{std::move(file), block};
        std::fprintf(stderr,
                     "libenyx-hw-c: the host of the simulated card at bus %u is of another version, its "
                     "card is not used. Restart vexo-simcard.\n",
                     bus);
    }
    return std::nullopt;
}

Holder describeHost(const CardFile& file, const CardBlock& block) {
    return describeProcess(file.holderOf({CardPart::kHost}).value_or(block.host.pid));
}

}  // namespace vexo_sim
