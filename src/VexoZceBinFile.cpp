#include "VexoZceBinFile.h"

#include <cerrno>
#include <cstring>

#include "log/log.h"
#include "util/Decimal.h"
#include "util/LocalTime.h"

namespace {

constexpr char kLogFile[] = "VexoZceBinFile";

constexpr char kHeader[]          = "inst_index,inst_id";
constexpr char kEndTag[]          = "bin_file_over_tag";
constexpr int kFirstEveningHour   = 17;

// Path of the current half-day's file.
std::string DayFilePath() {
    const std::tm now = local_time::Now();
    char path[64];
    std::snprintf(path, sizeof path, "/tmp/.zce_%04d%02d%02d", now.tm_year + 1900, now.tm_mon + 1, now.tm_mday);
    return std::string(path) + (now.tm_hour < kFirstEveningHour ? "_am" : "_pm");
}

}  // namespace

CBrixBinFile::CBrixBinFile(std::map<std::string, unsigned short>& map, unsigned int channel)
    : m_Intrade_AllInstMap(map), m_uiChannel(channel) {}

CBrixBinFile::~CBrixBinFile() {
    CloseIntraday();
    m_dayFile.Close();
}

int CBrixBinFile::InstBinFileInit() {
    m_strDayPath = DayFilePath();
    if (!m_dayFile.Open(m_strDayPath)) {
        LOG_WARN("open contract index file failed %s.", m_strDayPath.c_str());
        return -1;
    }
    WriteToDayFile(std::string(kHeader) + '\n');
    return 0;
}

void CBrixBinFile::WriteBinFileInst(std::string id, unsigned short index) {
    if (id.find('\n') != std::string::npos) return;  // no id of the exchange: it would forge lines, the end tag among them
    WriteToDayFile(std::to_string(index) + ',' + id + '\n');
}

void CBrixBinFile::WriteBinFileEnd() { WriteToDayFile(std::string(kEndTag) + '\n'); }

void CBrixBinFile::WriteToDayFile(const std::string& text) {
    if (m_dayFile.Write(text.data(), text.size())) return;
    LOG_WARN("write contract index file failed %s, msg:%s. It stays without its end tag, the next start won't load it.",
             m_strDayPath.c_str(), std::strerror(errno));
}

int CBrixBinFile::CheckOrLoadBinFile() {
    const std::string path = DayFilePath();
    std::string content;
    std::string refusal;
    if (!safe_file::ReadWhole(path, content, refusal)) {
        if (!refusal.empty()) LOG_WARN("contract index file %s is not used, %s.", path.c_str(), refusal.c_str());
        LOG_INFO("bin file is not exists , [%s].", path.c_str());
        return -1;
    }
    const bool tagSeen = LoadDayLines(content);
    LOG_INFO("m_Intrade_AllInstMap size is [%d].", static_cast<int>(m_Intrade_AllInstMap.size()));
    if (m_Intrade_AllInstMap.empty() || !tagSeen) {
        LOG_INFO("loading bin file is fail");
        m_Intrade_AllInstMap.clear();
        return -1;
    }
    LOG_INFO("loading bin file is success");
    return 0;
}

// Takes every line of a day file into the map, lines behind an end tag too. Returns whether there was an end tag.
bool CBrixBinFile::LoadDayLines(const std::string& content) {
    bool tagSeen = false;
    std::size_t begin = 0;
    while (begin < content.size()) {
        const std::size_t newline = content.find('\n', begin);
        const std::size_t end = newline == std::string::npos ? content.size() : newline;
        const std::string line = content.substr(begin, end - begin);
        begin = end + 1;

        const std::size_t comma = line.find(',');
        if (line == kEndTag) {
            LOG_INFO("Get file end flag is success.");
            tagSeen = true;
        } else if (line != kHeader && comma != std::string::npos) {
            const auto index = LeadingDecimal<unsigned short>(line.c_str());
            m_Intrade_AllInstMap.emplace(line.substr(comma + 1), index);
        }
    }
    return tagSeen;
}
