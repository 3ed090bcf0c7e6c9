#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "src/driver/IDrv.h"

namespace Vexo2_U50 {

using InstIdToIndex = std::map<std::string, unsigned short>;
using IndexToInstId = std::map<unsigned short, std::string>;
using IndexToChanBit = std::map<unsigned short, unsigned short>;

/// A row of a table whose instrument is stored and not yet subscribed.
struct StoredRow {
    std::uint8_t type;
    std::uint16_t index;
    std::uint32_t maskBefore;  ///< of the channels that had taken it earlier
    std::uint32_t channels;    ///< that take it now
    const std::string* name;   ///< in the store
};

/// The library's view of the card's two instrument tables and of the registers that start, stop and reset its decoding.
/// Table type 0 is the single-leg table, any other the combination table; an index is the card's row number; a mask
/// holds bit n for DMA channel n. An operation ignores the driver's results unless it says otherwise.
/// Implemented in CardTables.cpp, InstDiscovery.cpp and GlobalStore.cpp.
class CZceFpgaServ {
public:
    /// @param idToIndex  shared with the channel that owns it; must outlive this object
    /// @param chan       DMA channel of the owner, 0 for the master; also its bit in every mask
    CZceFpgaServ(InstIdToIndex& idToIndex, std::uint32_t chan);
    virtual ~CZceFpgaServ();
    CZceFpgaServ(const CZceFpgaServ&) = delete;
    CZceFpgaServ& operator=(const CZceFpgaServ&) = delete;

    void Init(IDrv* drv);  ///< keeps the driver; touches no register

    // ---- tables ----
    /// Replaces the mask of one row. An index above 8192 is logged as an error and written all the same.
    void SubsOneInst(std::uint8_t type, std::uint16_t index, std::uint16_t mask);
    /// Adds this channel's bit to a row and writes the id (its first 12 characters) into it.
    void SubsOneInstWithName(std::uint8_t type, const std::string& id, std::uint16_t index);
    /// Reads a row back. @return whether it shares a bit with @p expected; logged when not
    bool IsSubscribeOk(std::uint8_t type, std::uint16_t index, std::uint16_t expected);
    void ReadBackAllInst();
    /// Zeroes every word of rows 0 to 4094 and word 0 of row 4095 of both tables.
    void ClearAllInstTable();
    /// Zeroes the mask of every row of both tables, six times over; ids stay.
    void UnSubsAllInsts();

    // ---- control ----
    void ResetFpga();  ///< on channel 0 only: pulses the reset (one second) and clears both tables
    bool bIsReseted() const { return m_bReseted; }
    void StartDecode();
    void FpgaStartTrans();
    void FpgaCloseTrans();
    void DebugLogAllInst();  ///< does nothing

    // ---- what the card knows ----
    void UpdateTimeStamp();  ///< writes today's date into the card
    /// Reads the card's date and computes today's. @return whether they agree
    bool bDataEqual(std::uint32_t* cardDate, std::uint32_t* sysDate);
    /// Exchange time as HHMMSS. It is the card's time when a trading session is on, the card's date is today and the
    /// two times differ, as numbers, by at most 1799; otherwise the system's. Up to 00:17:59 it is 0.
    /// 0xFFFFFFFF when the card's time cannot be read.
    std::uint32_t GetRealTime();
    /// Whether decoding is on and the card's parser counters stand still. Takes two seconds when decoding is on.
    bool FpgaCounterEqual();
    /// Adds every id in rows 0 to 4094 of both tables to the map. Slow, for start-up only: reads a row up to 8 times.
    void FetchAllInst();

    // ---- merged store of all channels ----
    void StoreInstToGlob(std::uint8_t type, std::uint16_t index, std::string id, std::uint32_t chan);
    void StoreInstsToGlob(IndexToInstId& oneLeg, IndexToInstId& combine, std::uint32_t chan);
    /// Stores an instrument for several channels, bit n for channel n, without touching the card. Stores all of it or,
    /// when memory runs out, throws and stores nothing.
    StoredRow storeForChannels(std::uint8_t type, std::uint16_t index, const std::string& id, std::uint32_t channels);
    /// Subscribes a stored instrument for one channel after the other: each time the row is written with the mask that
    /// it has by then, and read back. Needs no memory.
    void subscribeRow(const StoredRow& row);
    /// Writes the merged masks to the card and reads them back.
    void SubsFromGlobInsts();

    std::uint32_t channel;
    IDrv* driver;
    InstIdToIndex& instIdToIndex;
    IndexToInstId oneLegNames;
    IndexToInstId combineNames;
    IndexToChanBit oneLegChanBits;
    IndexToChanBit combineChanBits;

    static std::atomic<bool> m_bReseted;  ///< this process has reset the card; never cleared
    /// What StartDecode writes: bit 1 Level-1, bit 0 Level-5. The configuration sets it.
    static std::atomic<std::uint32_t> decodeSwitch;
    /// Held while several register accesses form one table access, so that those of several channels do not mix.
    static std::mutex subscribe_mutex;

private:
    void writeMask(std::uint8_t type, std::uint16_t index, std::uint16_t mask, const std::string& name);
    void fetchRow(std::uint8_t type, std::uint32_t row, std::string& previous);
    std::string readRowId(std::uint8_t type, std::uint32_t row);
};

}  // namespace Vexo2_U50
