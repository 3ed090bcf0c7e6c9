#pragma once

#include <string>

#include "interface/CardRegisters.h"
#include "src/instruments/NameList.h"

namespace Vexo2_U50 {

/// What one DMA channel subscribes: its section of the ini file.
struct ZceSubsInfo_t {
    NameList m_SubsContractId;     ///< exact instrument ids
    NameList m_SubsContractClass;  ///< product codes
    bool bSubAll = false;          ///< every single-leg future; options still follow bOptionsRecv
    bool bOptionsRecv = false;
    bool bIpsRecv = false;  ///< inter-product spreads, ids beginning "IPS-"
    bool bSpdRecv = false;  ///< calendar spreads, ids beginning "SPD-"
    unsigned int uiReserved3 = 3;
    std::string strIds;      ///< the ids as written, joined with ","
    std::string strClasses;  ///< the classes as written, joined with ","
    std::string strOptions;  ///< raw value of the key
    std::string strIps;      ///< raw value of the key
    std::string strSpd;      ///< raw value of the key
};

/// A second set of records at namespace scope. Nothing uses it: the live ones are the configuration object's.
extern ZceSubsInfo_t m_stSubsInfo[card_reg::kChannels];

}  // namespace Vexo2_U50
