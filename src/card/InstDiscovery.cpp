#include <algorithm>
#include <cstring>
#include <iterator>

#include "VexoZceUtil.h"
#include "interface/CardRegisters.h"
#include "src/card/FpgaServ.h"
#include "src/card/RowId.h"
#include "src/log/log.h"
#include "src/util/LocalTime.h"
#include "src/util/Sleep.h"

namespace Vexo2_U50 {

namespace {

constexpr char kLogFile[] = "DataType";

constexpr std::uint32_t kFailure = 0xFFFFFFFF;
constexpr std::uint32_t kMaxTimeDistance = 1799;  // between the card's and the system's HHMMSS, as numbers
constexpr std::uint32_t kFetchedRows = 4095;
constexpr int kReadAttempts = 8;

struct ParserCounters {
    std::uint32_t values[std::size(card_reg::kParserCounters)] = {};

    static ParserCounters read(IDrv& drv) {
        ParserCounters counters;
        for (std::size_t i = 0; i < std::size(counters.values); ++i)
            drv.ReadInt32(card_reg::kParserCounters[i], counters.values[i]);
        return counters;
    }
    bool operator==(const ParserCounters& other) const {
        return std::equal(std::begin(values), std::end(values), std::begin(other.values));
    }
};

}  // namespace

void CZceFpgaServ::UpdateTimeStamp() {
    const std::uint32_t date = local_time::date(local_time::now());
    driver->WriteInt32(card_reg::kTradingDate, date);
    LOG_INFO("Update fpga addr 0x106 to %u over", date);
}

bool CZceFpgaServ::bDataEqual(std::uint32_t* cardDate, std::uint32_t* sysDate) {
    *sysDate = local_time::date(local_time::now());
    driver->ReadInt32(card_reg::kTradingDate, *cardDate);
    return *cardDate == *sysDate;
}

std::uint32_t CZceFpgaServ::GetRealTime() {
    const auto number = static_cast<int>(channel);
    const std::uint32_t sys = local_time::timeOfDay(local_time::now());
    std::uint32_t card = 0;
    std::uint32_t cardDate = 0;
    std::uint32_t sysDate = 0;
    if (ZceIsInTradeTime() && bDataEqual(&cardDate, &sysDate)) {
        std::uint32_t a = 0;
        if (driver->ReadInt32(card_reg::kExchangeTimeA, a) != 0) {
            LOG_ERROR("[channel:%d] 1 Unable to read time stamp !", number);
            return kFailure;
        }
        std::uint32_t b = 0;
        if (driver->ReadInt32(card_reg::kExchangeTimeB, b) != 0) {
            LOG_ERROR("[channel:%d] 2 Unable to read time stamp !", number);
            return kFailure;
        }
        card = std::max(a, b);
        LOG_INFO("[channel:%d] Current fpga time:%u. system time:%u.", number, card, sys);
    }
    const std::uint32_t result = card - sys + kMaxTimeDistance < 2 * kMaxTimeDistance + 1 ? card : sys;
    LOG_INFO("System time:%u.", result);
    return result;
}

bool CZceFpgaServ::FpgaCounterEqual() {
    std::uint32_t decoding = 0;
    driver->ReadInt32(card_reg::kDecodeSwitch, decoding);
    LOG_INFO("0x11 register value:0x%x", decoding);
    if (decoding == 0) return false;

    const ParserCounters reference = ParserCounters::read(*driver);
    bool equal = true;
    for (int pass = 0; pass < 2; ++pass) {
        sleepSeconds(1);
        if (!(ParserCounters::read(*driver) == reference)) equal = false;
    }
    if (equal) LOG_INFO("Fpga parse static count doesn't change!");
    return equal;
}

// The card returns the id's last word first.
std::string CZceFpgaServ::readRowId(std::uint8_t type, std::uint32_t row) {
    const card_reg::TableRegisters& table = card_reg::kTables[type];
    char id[kIdBytes + 1] = {};
    for (std::uint32_t i = 0; i < card_reg::kIdWords; ++i) {
        const std::uint32_t word = card_reg::kIdWords - i;
        driver->WriteInt32_LogWithRead(table.select, row << card_reg::kRowShift | word);
        std::uint32_t value = 0;
        driver->ReadInt32(table.readBack, value);
        const std::uint32_t swapped = __builtin_bswap32(value);
        std::memcpy(id + sizeof swapped * i, &swapped, sizeof swapped);
    }
    return id;
}

void CZceFpgaServ::FetchAllInst() {
    const std::lock_guard<std::mutex> guard(subscribe_mutex);
    // An id is good when two reads in a row give it. `previous` lives on from row to row and from table to table: a row
    // that first reads empty and then shows the id of the row before it is taken at once.
    std::string previous;
    for (const auto type : {std::uint8_t{card_reg::kSingleLegTable}, std::uint8_t{card_reg::kCombinationTable}}) {
        for (std::uint32_t row = 0; row < kFetchedRows; ++row) fetchRow(type, row, previous);
    }
    LOG_INFO("New round, fetch from fpga, inst count:%u.", static_cast<unsigned int>(instIdToIndex.size()));
}

void CZceFpgaServ::fetchRow(std::uint8_t type, std::uint32_t row, std::string& previous) {
    for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
        std::string id = readRowId(type, row);
        if (id.empty()) continue;
        if (attempt == 0 || id != previous) {
            previous = std::move(id);
            continue;
        }
        instIdToIndex[id] = static_cast<unsigned short>(row);
        if (attempt >= 2) {
            LOG_WARN_IN("FetchAllInst", "current read fpga %u time, and this is equal previous, current inst id:%s ",
                        static_cast<unsigned int>(attempt), id.c_str());
        }
        return;
    }
}

}  // namespace Vexo2_U50
