#include "src/dayfile/DayFile.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <iterator>
#include <string_view>
#include <vector>

#include "src/log/log.h"
#include "src/util/Decimal.h"
#include "src/util/LocalTime.h"

namespace {

constexpr char kLogFile[] = "VexoZceBinFile";

constexpr char kHeader[] = "inst_index,inst_id";
constexpr char kEndTag[] = "bin_file_over_tag";
constexpr int kFirstEveningHour = 17;
constexpr std::size_t kIndexDigits = 5;

// Path of the current half-day's file.
std::string dayFilePath() {
    const std::tm now = local_time::now();
    char path[64];
    std::snprintf(path, sizeof path, "/tmp/.zce_%04d%02d%02d", now.tm_year + 1900, now.tm_mon + 1, now.tm_mday);
    return std::string(path) + (now.tm_hour < kFirstEveningHour ? "_am" : "_pm");
}

// More lines than the exchange has instruments are sorted in portions: a file of nothing but lines must not take many
// times its size in memory.
constexpr std::size_t kPortion = 32768;

struct DayLine {
    std::string_view id;
    unsigned short index;
};

// The file has the order in which the card announced the instruments; a map takes its entries fastest in its own order.
// Of several lines with one id the first stays first, and is the one that counts.
void insert(std::vector<DayLine>& insts, std::map<std::string, unsigned short>& map) {
    std::stable_sort(insts.begin(), insts.end(), [](const DayLine& a, const DayLine& b) { return a.id < b.id; });
    auto behind = map.begin();
    for (const DayLine& inst : insts) behind = std::next(map.try_emplace(behind, std::string(inst.id), inst.index));
    insts.clear();
}

}  // namespace

CBrixBinFile::CBrixBinFile(std::map<std::string, unsigned short>& map, unsigned int channel)
    : m_Intrade_AllInstMap(map), m_uiChannel(channel) {}

CBrixBinFile::~CBrixBinFile() {
    closeIntraday();
    m_dayFile.close();
}

int CBrixBinFile::InstBinFileInit() {
    m_strDayPath = dayFilePath();
    if (!m_dayFile.open(m_strDayPath)) {
        LOG_WARN("open contract index file failed %s.", m_strDayPath.c_str());
        return -1;
    }
    writeToDayFile(std::string(kHeader) + '\n');
    return 0;
}

void CBrixBinFile::WriteBinFileInst(std::string id, unsigned short index) {
    const std::size_t room = kIndexDigits + 1 + id.size() + 1;
    if (m_lineRoom.size() < room) m_lineRoom.resize(room);
    char* const line = m_lineRoom.data();
    char* end = std::to_chars(line, line + kIndexDigits, index).ptr;
    *end++ = ',';
    for (const char c : id) {
        if (c == '\n') return;  // no id of the exchange: it would forge lines, the end tag among them
        *end++ = c;
    }
    *end++ = '\n';
    writeToDayFile({line, static_cast<std::size_t>(end - line)});
}

void CBrixBinFile::WriteBinFileEnd() { writeToDayFile(std::string(kEndTag) + '\n'); }

void CBrixBinFile::writeToDayFile(std::string_view text) {
    if (m_dayFile.write(text.data(), text.size())) return;
    LOG_WARN("write contract index file failed %s, msg:%s. It stays without its end tag, the next start won't load it.",
             m_strDayPath.c_str(), std::strerror(errno));
}

int CBrixBinFile::CheckOrLoadBinFile() {
    const std::string path = dayFilePath();
    std::string content;
    std::string refusal;
    if (!safe_file::readWhole(path, content, refusal)) {
        if (!refusal.empty()) LOG_WARN("contract index file %s is not used, %s.", path.c_str(), refusal.c_str());
        LOG_INFO("bin file is not exists , [%s].", path.c_str());
        return -1;
    }
    const bool tagSeen = loadDayLines(content);
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
bool CBrixBinFile::loadDayLines(const std::string& content) {
    bool tagSeen = false;
    std::vector<DayLine> insts;
    for (std::string_view rest = content; !rest.empty();) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));

        const std::size_t comma = line.find(',');
        if (line == kEndTag) {
            LOG_INFO("Get file end flag is success.");
            tagSeen = true;
        } else if (line != kHeader && comma != std::string_view::npos) {
            // The comma ends the number: it is read in place.
            insts.push_back({line.substr(comma + 1), leadingDecimal<unsigned short>(line.data())});
            if (insts.size() == kPortion) insert(insts, m_Intrade_AllInstMap);
        }
    }
    insert(insts, m_Intrade_AllInstMap);
    return tagSeen;
}
