#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "src/util/SafeFile.h"

/// The day file that carries the map from instrument id to the card's instrument index over a restart in the same
/// half-day: /tmp/.zce_YYYYMMDD_am up to 16:59:59 local time, _pm from 17:00. Text: "inst_index,inst_id", then
/// "<index>,<id>" an instrument, then "bin_file_over_tag" once the map is whole; without that tag it is not loaded.
/// A second variant, the operations named Intrade_ and Normal_, keeps the map in a file "bin" of the working directory;
/// the library's own flow does not use it. Used from the channel's receive thread only.
class CBrixBinFile {
public:
    /// @param map  filled and read here, owned by the channel; must outlive this object
    CBrixBinFile(std::map<std::string, unsigned short>& map, unsigned int channel);
    virtual ~CBrixBinFile();
    CBrixBinFile(const CBrixBinFile&) = delete;
    CBrixBinFile& operator=(const CBrixBinFile&) = delete;

    // ---- day file; results are 0 or -1 ----
    int InstBinFileInit();                                        ///< starts the file afresh
    void WriteBinFileInst(std::string id, unsigned short index);  ///< on disk before it returns
    void WriteBinFileEnd();
    /// Loads today's file of this half-day. The map is empty after a file that was read and is not whole, and untouched
    /// when there is none that could be read.
    int CheckOrLoadBinFile();

    // ---- file "bin"; results are 0 or -1 ----
    int Intrade_ExtractBinCreTime();
    bool Intrade_IsBinComplete();
    int Intrade_ChkBinTimeValidate();
    int WriteEndToBin();
    int Intrade_WrInstFromFpga();
    int Normal_FileInit();
    int Normal_WriteInstToBin(std::string id, unsigned short index);
    int Intrade_GetAllInstFromBin();
    int Intrade_CheckAndGetAllInstFromBin();

    std::map<std::string, unsigned short>& m_Intrade_AllInstMap;
    unsigned long m_ulCreateTime = 0;      ///< YYYYMMDDhhmmss of the file "bin", 0 until read
    std::FILE* m_lpIntradeFile = nullptr;  ///< the file "bin" while it is open
    unsigned int m_uiChannel;
    safe_file::OutputFile m_dayFile;
    /// Exchange time at which the contracts had settled, HHMMSS; the channel sets it.
    static std::atomic<std::uint32_t> m_uiSettleTime;

private:
    void writeToDayFile(std::string_view text);
    bool loadDayLines(const std::string& content);
    bool openIntraday(const char* mode);
    void closeIntraday();

    std::string m_strDayPath;      ///< of the file that m_dayFile has open
    std::vector<char> m_lineRoom;  ///< where the lines of the day file are put together, one after another
};
