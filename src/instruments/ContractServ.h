#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "src/card/FpgaServ.h"
#include "src/instruments/SubsInfo.h"

class CBrixBinFile;

namespace Vexo2_U50 {

class CZceConfigFile;

/// Decides which instruments each of the 16 channels subscribes, and recovers the instrument map at start-up. 32-bit
/// results are 0 or 0xFFFFFFFF unless said otherwise.
/// Implemented in ContractFilter.cpp and ContractRecovery.cpp.
class CContractServ {
public:
    /// Owns none of what it is given; all of it must outlive this object.
    CContractServ(InstIdToIndex& idToIndex, CZceConfigFile* cfg, CBrixBinFile* bin, CZceFpgaServ* fpga,
                  std::uint32_t chan, ZceSubsInfo_t (&rules)[card_reg::kChannels]);
    virtual ~CContractServ();
    CContractServ(const CContractServ&) = delete;
    CContractServ& operator=(const CContractServ&) = delete;

    // ---- filtering ----
    /// Reports missing ids, matches every instrument against every channel's rules and merges the result into the
    /// card service's store. One thread at a time: order_mutex is held.
    void FilterAndStoreToGlobMap();
    void JudgeAndFilterSubsInst();
    bool StoreAllSubsInstToFpga();  ///< always true
    /// The channels whose rules take the instrument: bit n for channel n.
    unsigned short wantedBy(const std::string& id) const;
    bool OptionIsMeetCondition(std::string id, std::uint32_t chan);
    bool bOrderedClass(std::string cls, std::uint32_t chan);
    bool bOrderedId(std::string id, std::uint32_t chan);

    // ---- recovery ----
    std::uint32_t RecoverInstsFromBin();
    std::uint32_t RecoverInstsFromFpga();  ///< always 1
    /// Minutes to wait until the card has gathered its instruments. 0 unless this process has reset the card.
    std::uint32_t GetExpireTime();
    /// The whole recovery: from the day file, or else, after a wait, from the card's tables. Always 0.
    std::uint32_t RecoverAllInst();
    /// Whether every id that the channel subscribes is known. Stores the unknown ones in lackIds.
    bool Id_chkPresent(std::uint32_t chan);
    int DumpLackId();  ///< 0 when no instrument is known at all, else 1

    std::uint32_t channel;
    IndexToInstId oneLegByChannel[card_reg::kChannels];
    IndexToInstId combineByChannel[card_reg::kChannels];
    InstIdToIndex& instIdToIndex;
    CZceFpgaServ* fpgaServ;
    CBrixBinFile* binFile;
    CZceConfigFile* config;
    std::vector<std::string> lackIds;
    ZceSubsInfo_t (&subsInfo)[card_reg::kChannels];

    static std::mutex order_mutex;  ///< taken before CZceFpgaServ::subscribe_mutex
};

}  // namespace Vexo2_U50
