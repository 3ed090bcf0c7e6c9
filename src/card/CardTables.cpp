#include "src/card/FpgaServ.h"

#include "interface/CardRegisters.h"
#include "src/card/RowId.h"
#include "src/log/log.h"
#include "src/util/ForkSafe.h"
#include "src/util/Sleep.h"

namespace Vexo2_U50 {

namespace {

constexpr char kLogFile[] = "DataType";

constexpr std::uint16_t kHighestIndex = 8192;
constexpr std::uint32_t kLastClearCommand = 4095 << card_reg::kRowShift;
constexpr int kUnsubscribePasses = 6;
constexpr std::uint32_t kWrittenIdWords = 3;  // an id is written with its first 12 characters

const card_reg::TableRegisters& registersOf(std::uint8_t type) {
    return type == 0 ? card_reg::kTables[card_reg::kSingleLegTable] : card_reg::kTables[card_reg::kCombinationTable];
}

std::uint32_t rowAddress(std::uint32_t row, std::uint32_t word = card_reg::kMaskWord) {
    return row << card_reg::kRowShift | word;
}

}  // namespace

std::atomic<bool> CZceFpgaServ::m_bReseted{false};
std::mutex CZceFpgaServ::subscribe_mutex;
static const fork_safe::Guard<CZceFpgaServ::subscribe_mutex> s_forkGuard(fork_safe::Rank::kCard);
std::atomic<std::uint32_t> CZceFpgaServ::decodeSwitch{card_reg::kSwitchLevel1 | card_reg::kSwitchLevel5};

CZceFpgaServ::CZceFpgaServ(InstIdToIndex& idToIndex, std::uint32_t chan)
    : channel(chan), driver(nullptr), instIdToIndex(idToIndex) {}

CZceFpgaServ::~CZceFpgaServ() = default;

void CZceFpgaServ::Init(IDrv* drv) { driver = drv; }

void CZceFpgaServ::SubsOneInst(std::uint8_t type, std::uint16_t index, std::uint16_t mask) {
    writeMask(type, index, mask, (type == 0 ? oneLegNames : combineNames)[index]);
}

void CZceFpgaServ::writeMask(std::uint8_t type, std::uint16_t index, std::uint16_t mask, const std::string& name) {
    if (index > kHighestIndex) {
        // Still written below: operators rely on the error line, the card ignores the row.
        LOG_ERROR_IN("SubsOneInst", "Subscribes:Write to fpga failed ! :chanbit:0x%x, index:%u, instId:%s", mask, index,
                     oneLegNames[index].c_str());
    }
    const card_reg::TableRegisters& table = registersOf(type);
    driver->WriteInt32_LogWithRead(table.data, mask);
    driver->WriteInt32_LogWithRead(table.command, rowAddress(index));
    LOG_INFO_IN("SubsOneInst", "Subscribes:Write to fpga:chanbit:0x%x, index:%u, instId:%s", mask, index, name.c_str());
}

void CZceFpgaServ::SubsOneInstWithName(std::uint8_t type, const std::string& id, std::uint16_t index) {
    const std::lock_guard<std::mutex> guard(subscribe_mutex);
    const card_reg::TableRegisters& table = registersOf(type);
    driver->WriteInt32_LogWithRead(table.select, rowAddress(index));
    std::uint32_t mask = 0;
    driver->ReadInt32(table.readBack, mask);
    mask |= 1U << (channel % 32);
    driver->WriteInt32_LogWithRead(table.data, mask);
    driver->WriteInt32_LogWithRead(table.command, rowAddress(index));

    std::uint32_t words[card_reg::kIdWords];
    conToAscii(id.c_str(), words);
    for (std::uint32_t w = 0; w < kWrittenIdWords; ++w) {
        driver->WriteInt32_LogWithRead(table.data, words[w]);
        driver->WriteInt32_LogWithRead(table.command, rowAddress(index, card_reg::kFirstIdWord + w));
    }
}

bool CZceFpgaServ::IsSubscribeOk(std::uint8_t type, std::uint16_t index, std::uint16_t expected) {
    const std::lock_guard<std::mutex> guard(subscribe_mutex);
    const card_reg::TableRegisters& table = registersOf(type);
    driver->WriteInt32_LogWithRead(table.select, rowAddress(index));
    std::uint32_t value = 0;
    driver->ReadInt32(table.readBack, value);
    if ((expected & value) != 0) return true;
    LOG_WARN("Attention! Maybe subscribed fail! Type %u, index:%u, shouldbe:0x%x, fpgavalue:0x%x,", type, index,
             expected, value);
    return false;
}

void CZceFpgaServ::ReadBackAllInst() {
    LOG_INFO("Already write into fpga, now read back!");
    for (const auto& [index, mask] : oneLegChanBits) IsSubscribeOk(card_reg::kSingleLegTable, index, mask);
    for (const auto& [index, mask] : combineChanBits) IsSubscribeOk(card_reg::kCombinationTable, index, mask);
}

void CZceFpgaServ::ClearAllInstTable() {
    const std::lock_guard<std::mutex> guard(subscribe_mutex);
    for (const card_reg::TableRegisters& table : card_reg::kTables) {
        for (std::uint32_t command = 0; command <= kLastClearCommand; ++command) {
            driver->WriteInt32(table.data, 0);
            driver->WriteInt32(table.command, command);
        }
    }
    LOG_INFO("[channel:%d] Clear all inst table over", static_cast<int>(channel));
}

void CZceFpgaServ::UnSubsAllInsts() {
    for (int pass = 0; pass < kUnsubscribePasses; ++pass) {
        for (const card_reg::TableRegisters& table : card_reg::kTables) {
            for (std::uint32_t row = 0; row < card_reg::kRows; ++row) {
                driver->WriteInt32(table.data, 0);
                driver->WriteInt32(table.command, rowAddress(row));
            }
        }
    }
    LOG_INFO("Unsubscribe all insts now");
}

void CZceFpgaServ::ResetFpga() {
    if (channel != 0) return;
    driver->WriteInt32_Log(card_reg::kReset, 1);
    sleepSeconds(1);
    driver->WriteInt32_Log(card_reg::kReset, 0);
    ClearAllInstTable();
    m_bReseted = true;
    LOG_INFO("Reset and Clear fpga table over.");
}

void CZceFpgaServ::StartDecode() {
    const std::uint32_t feeds = decodeSwitch;
    driver->WriteInt32_Log(card_reg::kDecodeSwitch, feeds);
    LOG_INFO("Now Fpga start trans subscribe result! write 0x11 value:0x%x.", feeds);
}

void CZceFpgaServ::FpgaStartTrans() {
    driver->WriteInt32_Log(card_reg::kMapTransmit, 1);
    LOG_INFO("Fpga start transmit inst map pkt.");
}

void CZceFpgaServ::FpgaCloseTrans() {
    driver->WriteInt32_Log(card_reg::kMapTransmit, 0);
    LOG_INFO("Fpga stop transmit inst map pkt.");
}

void CZceFpgaServ::DebugLogAllInst() {}

}  // namespace Vexo2_U50
