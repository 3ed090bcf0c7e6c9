#include <utility>

#include "interface/CardRegisters.h"
#include "src/card/FpgaServ.h"
#include "src/log/log.h"
#include "src/util/TentativeEntry.h"

namespace Vexo2_U50 {

namespace {

constexpr char kLogFile[] = "DataType";

unsigned int count(const IndexToInstId& insts) { return static_cast<unsigned int>(insts.size()); }
unsigned int count(const IndexToChanBit& rows) { return static_cast<unsigned int>(rows.size()); }

// The entry of a row, made when there is none. The card mostly announces its rows in ascending order: at the end a map
// need not search.
template <typename Map>
TentativeEntry<Map> entryOf(Map& map, std::uint16_t index) {
    const std::size_t before = map.size();
    const auto entry = map.try_emplace(map.end(), index);
    return {map, entry, map.size() != before};
}

}  // namespace

void CZceFpgaServ::StoreInstToGlob(std::uint8_t type, std::uint16_t index, std::string id, std::uint32_t chan) {
    const std::lock_guard<std::mutex> guard(subscribe_mutex);
    IndexToChanBit& masks = type == 0 ? oneLegChanBits : combineChanBits;
    IndexToInstId& names = type == 0 ? oneLegNames : combineNames;
    const auto bit = static_cast<unsigned short>(chan < card_reg::kChannels ? 1U << chan : 0U);
    masks[index] = static_cast<unsigned short>(masks[index] | bit);
    names[index] = std::move(id);
}

StoredRow CZceFpgaServ::storeForChannels(std::uint8_t type, std::uint16_t index, const std::string& id,
                                         std::uint32_t channels) {
    const std::lock_guard<std::mutex> guard(subscribe_mutex);
    std::string name = id;
    auto mask = entryOf(type == 0 ? oneLegChanBits : combineChanBits, index);
    auto stored = entryOf(type == 0 ? oneLegNames : combineNames, index);
    // The error line of such a row names the single-leg instrument: its entry is made here, where memory may run out.
    if (index > card_reg::kRows) oneLegNames.try_emplace(index);
    mask.keep();
    stored.keep();
    const StoredRow row{type, index, mask.value(), channels, &stored.value()};
    mask.value() = static_cast<unsigned short>(mask.value() | channels);
    stored.value().swap(name);
    return row;
}

void CZceFpgaServ::subscribeRow(const StoredRow& row) {
    std::uint32_t mask = row.maskBefore;
    for (std::uint32_t chan = 0; chan < card_reg::kChannels; ++chan) {
        if ((row.channels >> chan & 1) == 0) continue;
        mask |= 1U << chan;
        writeMask(row.type, row.index, static_cast<std::uint16_t>(mask), *row.name);
        IsSubscribeOk(row.type, row.index, static_cast<std::uint16_t>(mask));
    }
}

void CZceFpgaServ::StoreInstsToGlob(IndexToInstId& oneLeg, IndexToInstId& combine, std::uint32_t chan) {
    // Copies, because a caller may hand in this object's own maps, which grow below.
    const IndexToInstId oneLegInsts = oneLeg;    // NOLINT(performance-unnecessary-copy-initialization)
    const IndexToInstId combineInsts = combine;  // NOLINT(performance-unnecessary-copy-initialization)
    const auto number = static_cast<int>(chan);
    LOG_INFO("[channel:%d] Record func:Meeting conditions count is:OneLeg:%u, Combine:%u.", number, count(oneLegInsts),
             count(combineInsts));
    if (oneLegInsts.empty() && combineInsts.empty())
        LOG_INFO("[channel:%d] Matched subs inst count is 0. you doesn't subscribe inst.", number);
    for (const auto& [index, id] : oneLegInsts) StoreInstToGlob(card_reg::kSingleLegTable, index, id, chan);
    for (const auto& [index, id] : combineInsts) StoreInstToGlob(card_reg::kCombinationTable, index, id, chan);
}

void CZceFpgaServ::SubsFromGlobInsts() {
    LOG_WARN("Subscribe:Meeting conditions count is:OneLeg:%u, Combine:%u. Now write to fpga!", count(oneLegChanBits),
             count(combineChanBits));
    if (oneLegChanBits.empty() && combineChanBits.empty()) {
        LOG_INFO(
            "Warning !! The number of contracts that comply with the subscription rules is 0. You subscribe no contract !!");
    }
    for (const auto& [index, mask] : oneLegChanBits) SubsOneInst(card_reg::kSingleLegTable, index, mask);
    for (const auto& [index, mask] : combineChanBits) SubsOneInst(card_reg::kCombinationTable, index, mask);
    LOG_INFO("Subscribes:Write to fpga Over!");
    ReadBackAllInst();
}

}  // namespace Vexo2_U50
