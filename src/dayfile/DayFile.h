#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>

#include "src/util/SafeFile.h"

/// The day file keeps the map from instrument id to the card's instrument index for a restart in the same half-day:
/// /tmp/.zce_YYYYMMDD_am up to 16:59:59 local time, _pm from 17:00. Text: "inst_index,inst_id", then "<index>,<id>" for
/// each instrument, then "bin_file_over_tag" once the map is complete. A file without that tag is not loaded. A file
/// that lacks an instrument never gets the tag. An instrument is missing if its line was left out, could not be
/// written, or was never requested. A second variant keeps the map in a file "bin" of the working directory: the
/// operations named Intrade_ and Normal_. The library itself does not use it. Used from the channel's receive thread
/// only. Implemented in DayFile.cpp and IntradayFile.cpp.
class CBrixBinFile {
public:
    /// @param map  filled and read here, owned by the channel; must outlive this object
    CBrixBinFile(std::map<std::string, unsigned short>& map, unsigned int channel);
    virtual ~CBrixBinFile();
    CBrixBinFile(const CBrixBinFile&) = delete;
    CBrixBinFile& operator=(const CBrixBinFile&) = delete;

    // ---- day file; results are 0 or -1 ----
    int InstBinFileInit();  ///< creates the file, or empties the existing one
    /// The line is in the file when this returns. Needs no memory for an id of up to 63 characters. An id with a line
    /// feed is left out.
    void WriteBinFileInst(std::string id, unsigned short index);
    void WriteBinFileEnd();  ///< writes the end tag, unless the file lacks an instrument
    /// Logs once that an instrument is missing, and prevents the end tag. An end tag that the file already has is cut
    /// off. Does nothing without a file.
    /// @param why  for the log line
    void markIncomplete(const char* why);
    /// Loads today's file of this half-day. If the file was read but is not complete, the map is empty afterwards. If
    /// no file can be read, the map is unchanged.
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
    void writeInstLine(std::string_view line);
    bool writeToDayFile(std::string_view text);
    void withdrawEndTag();
    void reportLostLines();
    bool loadDayLines(const std::string& content);
    bool openIntraday(int flags, const char* mode);
    bool createIntraday(const char* operation);
    void closeIntraday();

    std::string m_strDayPath;            ///< path of the file that m_dayFile opened last
    bool m_begun = false;                ///< the file was opened for writing
    bool m_incomplete = false;           ///< it lacks an instrument, so it gets no end tag
    unsigned long m_lostLines = 0;       ///< instruments that are not in it, until they are reported
    std::size_t m_sizeBeforeEndTag = 0;  ///< 0 until it has its end tag
};
