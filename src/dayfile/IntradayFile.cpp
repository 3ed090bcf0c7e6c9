#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "src/dayfile/DayFile.h"
#include "src/log/log.h"
#include "src/util/LocalTime.h"

std::atomic<std::uint32_t> CBrixBinFile::m_uiSettleTime{0};

namespace {

constexpr char kLogFile[] = "VexoZceBinFile";

constexpr char kBinName[] = "bin";
constexpr char kTimeKey[] = "contract's_corresponding_time=";
constexpr char kEndTag[] = "bin_file_over_tag";

constexpr int kInstLineSize = 128;             // a longer line is cut
constexpr int kReadLineSize = 256;             // Intrade_GetAllInstFromBin takes a longer line in pieces
constexpr unsigned long kTimeOfDay = 1000000;  // YYYYMMDDhhmmss: date above, time of day below
constexpr int kLastMorningHour = 14;

// Reads a line to its end and keeps its first 255 characters, because only the beginning of a line is searched for
// marks. False at the end of the file.
bool readLineStart(std::FILE* file, char (&start)[kReadLineSize]) {
    std::size_t length = 0;
    int c = std::getc(file);
    if (c == EOF) return false;
    for (; c != EOF && c != '\n'; c = std::getc(file)) {
        if (length < sizeof start - 1) start[length++] = static_cast<char>(c);
    }
    start[length] = '\0';
    return true;
}

bool beginsWith(const char* line, const char* text) { return std::strncmp(line, text, std::strlen(text)) == 0; }

unsigned long stamp(const std::tm& t) {
    return static_cast<unsigned long>(local_time::date(t)) * kTimeOfDay + local_time::timeOfDay(t);
}

}  // namespace

bool CBrixBinFile::openIntraday(int flags, const char* mode) {
    closeIntraday();
    const int fd = safe_file::openAboveStandard(kBinName, flags | O_CLOEXEC, 0666);
    if (fd < 0) return false;
    m_lpIntradeFile = ::fdopen(fd, mode);
    if (m_lpIntradeFile == nullptr) ::close(fd);
    return m_lpIntradeFile != nullptr;
}

void CBrixBinFile::closeIntraday() {
    if (m_lpIntradeFile != nullptr) std::fclose(m_lpIntradeFile);
    m_lpIntradeFile = nullptr;
}

bool CBrixBinFile::createIntraday(const char* operation) {
    if (openIntraday(O_WRONLY | O_CREAT | O_TRUNC, "w")) return true;
    LOG_WARN_IN(operation, "Fail! Unable to open file %s,msg:%s", kBinName, std::strerror(errno));
    return false;
}

int CBrixBinFile::Normal_FileInit() { return createIntraday("Normal_FileInit") ? 0 : -1; }

int CBrixBinFile::Normal_WriteInstToBin(std::string id, unsigned short index) {
    char line[kInstLineSize];
    std::snprintf(line, sizeof line, "%u,%s\n", index, id.c_str());
    if (m_lpIntradeFile == nullptr) return 0;
    std::fputs(line, m_lpIntradeFile);
    LOG_INFO("Write to bin :index:%u,inst:%s,", index, id.c_str());
    std::fflush(m_lpIntradeFile);
    return 0;
}

int CBrixBinFile::Intrade_WrInstFromFpga() {
    if (!createIntraday("Intrade_WrInstFromFpga")) return -1;
    std::fprintf(m_lpIntradeFile, "%s%lu\n", kTimeKey, stamp(local_time::now()));
    for (const auto& [id, index] : m_Intrade_AllInstMap) std::fprintf(m_lpIntradeFile, "%u,%s\n", index, id.c_str());
    const int result = WriteEndToBin();
    std::fflush(m_lpIntradeFile);
    return result;
}

int CBrixBinFile::WriteEndToBin() {
    if (m_lpIntradeFile == nullptr) return -1;
    const unsigned long today = static_cast<unsigned long>(local_time::date(local_time::now())) * kTimeOfDay;
    const unsigned long settled = today + m_uiSettleTime;
    // The sum is also stored in the 32-bit global, which keeps its low bits.
    m_uiSettleTime = static_cast<unsigned int>(settled);
    std::fprintf(m_lpIntradeFile, "%s%lu\n", kTimeKey, settled);
    std::fputs(kEndTag, m_lpIntradeFile);
    LOG_INFO("Write end tag to bin.");
    std::fflush(m_lpIntradeFile);
    return 0;
}

bool CBrixBinFile::Intrade_IsBinComplete() {
    char line[kReadLineSize];
    if (m_lpIntradeFile != nullptr) {
        std::rewind(m_lpIntradeFile);
        while (readLineStart(m_lpIntradeFile, line)) {
            if (beginsWith(line, kEndTag)) return true;
        }
    }
    // The text names the time key instead of the end tag: operators search for it.
    LOG_WARN(" %s not found in the file. bin file  is not complete.", kTimeKey);
    return false;
}

int CBrixBinFile::Intrade_ExtractBinCreTime() {
    char line[kReadLineSize];
    if (m_lpIntradeFile != nullptr) {
        std::rewind(m_lpIntradeFile);
        while (readLineStart(m_lpIntradeFile, line)) {
            if (!beginsWith(line, kTimeKey)) continue;
            m_ulCreateTime = std::strtoul(line + std::strlen(kTimeKey), nullptr, 10);
            LOG_INFO("%s%lu", kTimeKey, m_ulCreateTime);
            return 0;
        }
    }
    LOG_WARN("Error: '%s' not found in the file.\n", kTimeKey);
    return -1;
}

int CBrixBinFile::Intrade_ChkBinTimeValidate() {
    const std::tm now = local_time::now();
    const unsigned long current = stamp(now);
    if (current / kTimeOfDay != m_ulCreateTime / kTimeOfDay) return -1;

    // Wider than the messages say: a file from the hour before the session is as good as one from its first part.
    const unsigned long created = m_ulCreateTime % kTimeOfDay;
    if (now.tm_hour <= kLastMorningHour) {
        if (created >= 80000 && created < 103000) return 0;
        LOG_WARN("BinCreTime is not in the current date's 8-9 AM range.current time:%lu, bintime:%lu.", current,
                 m_ulCreateTime);
        return -1;
    }
    if (created >= 200000 && created < 220000) return 0;
    LOG_WARN("BinCreTime is not in the current date's 8-9 PM range. current time:%lu, Bintime:%lu.", current,
             m_ulCreateTime);
    return -1;
}

int CBrixBinFile::Intrade_GetAllInstFromBin() {
    if (m_lpIntradeFile == nullptr) return -1;
    std::rewind(m_lpIntradeFile);
    char line[kReadLineSize];
    for (unsigned int number = 1; std::fgets(line, sizeof line, m_lpIntradeFile) != nullptr; ++number) {
        std::string fields = line;
        char* rest = nullptr;
        const char* indexText = ::strtok_r(fields.data(), ",", &rest);
        char* id = ::strtok_r(nullptr, ",", &rest);
        const std::size_t length = id != nullptr ? std::strlen(id) : 0;
        // The time lines and the end tag have no second field, so they come here too.
        if (length == 0 || id[length - 1] != '\n') {
            LOG_WARN("Invalid format!we skip line %d: %s", static_cast<int>(number), line);
            continue;
        }
        id[length - 1] = '\0';
        const auto index = static_cast<unsigned short>(std::strtol(indexText, nullptr, 10));
        m_Intrade_AllInstMap[id] = index;
        LOG_INFO("Loading from bin: Index:%u,Instructmentid:%s, lineNumber:%u.", index, id, number);
    }
    LOG_INFO("Loading over!");
    return 0;
}

int CBrixBinFile::Intrade_CheckAndGetAllInstFromBin() {
    if (!openIntraday(O_RDONLY, "r")) {
        LOG_WARN("Cannot open file:%s, errmsg:%s", kBinName, std::strerror(errno));
        return -1;
    }
    if (!Intrade_IsBinComplete()) {
        LOG_WARN("Bin file is not complete.");
        return -1;
    }
    if (Intrade_ExtractBinCreTime() != 0) {
        LOG_WARN("Bin time check fail.");
        return -1;
    }
    if (Intrade_ChkBinTimeValidate() != 0) {
        LOG_WARN("Bin is not validate");
        return -1;
    }
    LOG_INFO("Bin is validate");
    if (Intrade_GetAllInstFromBin() != 0) {
        LOG_WARN("Fail! load to map fail");
        return -1;
    }
    LOG_INFO("[channel:%d] Current bin total inst count:%u.", static_cast<int>(m_uiChannel),
             static_cast<unsigned int>(m_Intrade_AllInstMap.size()));
    return 0;
}
