#include "src/dayfile/DayFile.h"

#include <endian.h>
#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <string_view>
#include <vector>

#include "src/dayfile/DayLines.h"
#include "src/log/log.h"
#include "src/util/LocalTime.h"

namespace {

constexpr char kLogFile[] = "VexoZceBinFile";

constexpr int kFirstEveningHour = 17;
constexpr std::size_t kIndexDigits = 5;
constexpr std::size_t kUsualLine = 128;  // an id of the card has up to 63 characters

// Lines are sorted in portions, each larger than the number of instruments of the exchange. Without the limit, a file
// of only short lines would take many times its size in memory.
constexpr std::size_t kPortion = 32768;

// The first bytes of an id as a number that orders as the text does. A shorter id is filled up with zeros.
std::uint64_t orderOf(std::string_view text) {
    unsigned char bytes[sizeof(std::uint64_t)] = {};
    std::memcpy(bytes, text.data(), std::min(text.size(), sizeof bytes));
    std::uint64_t order;
    std::memcpy(&order, bytes, sizeof order);
    return be64toh(order);
}

// Nearly all ids have up to 16 characters, so two numbers decide most comparisons.
struct DayLine {
    DayLine(std::string_view text, unsigned short number)
        : begin(orderOf(text)),
          middle(text.size() > sizeof begin ? orderOf(text.substr(sizeof begin)) : 0),
          id(text),
          index(number) {}
    bool operator<(const DayLine& other) const {
        if (begin != other.begin) return begin < other.begin;
        if (middle != other.middle) return middle < other.middle;
        return id < other.id;
    }

    std::uint64_t begin;
    std::uint64_t middle;
    std::string_view id;
    unsigned short index;
};

// The file has the order in which the card announced the instruments. A map takes its entries fastest in its own order.
// The sort keeps lines of one id in their order: the first one wins.
void insert(std::vector<DayLine>& insts, std::map<std::string, unsigned short>& map) {
    std::stable_sort(insts.begin(), insts.end());
    auto near = map.end();
    for (const DayLine& inst : insts) near = map.emplace_hint(near, inst.id, inst.index);
    insts.clear();
}

// Path of the current half-day's file.
std::string dayFilePath() { return day_file::pathAt(local_time::now()); }

}  // namespace

std::string day_file::pathAt(const std::tm& local) {
    char path[64];
    std::snprintf(path, sizeof path, "/tmp/.zce_%04d%02d%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
    return std::string(path) + (local.tm_hour < kFirstEveningHour ? "_am" : "_pm");
}

CBrixBinFile::CBrixBinFile(std::map<std::string, unsigned short>& map, unsigned int channel)
    : m_Intrade_AllInstMap(map), m_uiChannel(channel) {}

CBrixBinFile::~CBrixBinFile() {
    closeIntraday();
    reportLostLines();
    m_dayFile.close();
}

int CBrixBinFile::InstBinFileInit() {
    reportLostLines();
    m_strDayPath = dayFilePath();
    m_incomplete = false;
    m_sizeBeforeEndTag = 0;
    std::string refusal;
    m_begun = m_dayFile.open(m_strDayPath, refusal);
    if (!m_begun) {
        if (!refusal.empty())
            LOG_WARN("contract index file %s is not written, %s.", m_strDayPath.c_str(), refusal.c_str());
        LOG_WARN("open contract index file failed %s.", m_strDayPath.c_str());
        return -1;
    }
    writeToDayFile(day_file::kHeaderLine);
    return 0;
}

void CBrixBinFile::WriteBinFileInst(std::string id, unsigned short index) {
    if (!m_begun) return;
    if (id.find('\n') != std::string::npos) {
        ++m_lostLines;
        // No id of the exchange has a line feed. Such an id would forge lines of the file, even the end tag.
        markIncomplete("its id has a line feed");
        return;
    }
    char line[kUsualLine];
    char* const behindIndex = std::to_chars(line, line + kIndexDigits, index).ptr;
    const auto indexLength = static_cast<std::size_t>(behindIndex - line);
    if (indexLength + id.size() + 2 > sizeof line) {
        writeInstLine(std::string(line, indexLength) + ',' + id + '\n');
        return;
    }
    *behindIndex = ',';
    id.copy(behindIndex + 1, id.size());
    behindIndex[1 + id.size()] = '\n';
    writeInstLine({line, indexLength + id.size() + 2});
}

void CBrixBinFile::writeInstLine(std::string_view line) {
    if (!writeToDayFile(line)) ++m_lostLines;
}

void CBrixBinFile::WriteBinFileEnd() {
    if (!m_begun) return;
    if (m_incomplete) {
        reportLostLines();
        return;
    }
    const std::size_t before = m_dayFile.size();
    if (writeToDayFile(day_file::kEndTagLine) && m_sizeBeforeEndTag == 0) m_sizeBeforeEndTag = before;
}

// Nothing is written after a gap: the first failure closes the file.
bool CBrixBinFile::writeToDayFile(std::string_view text) {
    if (!m_dayFile.isOpen()) return false;
    const char* const why = m_dayFile.write(text.data(), text.size());
    if (why == nullptr) return true;
    LOG_WARN("write contract index file failed %s, msg:%s. It stays without its end tag, the next start won't load it.",
             m_strDayPath.c_str(), why);
    m_incomplete = true;
    withdrawEndTag();
    m_dayFile.close();
    return false;
}

void CBrixBinFile::markIncomplete(const char* why) {
    if (!m_begun || m_incomplete) return;
    m_incomplete = true;
    LOG_WARN(
        "contract index file %s lacks an instrument, %s. It stays without its end tag, the next start won't load it.",
        m_strDayPath.c_str(), why);
    withdrawEndTag();
}

// Contract-map packets may still arrive after the end tag is written. Their instruments may then fail to be written.
void CBrixBinFile::withdrawEndTag() {
    if (m_sizeBeforeEndTag == 0) return;
    if (!m_dayFile.cut(m_sizeBeforeEndTag)) {
        LOG_WARN("contract index file %s keeps the end tag that it has already, remove it.", m_strDayPath.c_str());
    }
    m_sizeBeforeEndTag = 0;
}

void CBrixBinFile::reportLostLines() {
    if (m_lostLines == 0) return;
    LOG_WARN("contract index file %s is not complete, lost lines: %lu.", m_strDayPath.c_str(), m_lostLines);
    m_lostLines = 0;
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

// Puts every line of a day file into the map, also those behind an end tag. Returns whether there was an end tag.
bool CBrixBinFile::loadDayLines(const std::string& content) {
    bool tagSeen = false;
    std::vector<DayLine> insts;
    insts.reserve(std::min(kPortion, content.size() / 8));
    const auto onInst = [&](std::string_view, std::string_view id, unsigned short index) {
        insts.emplace_back(id, index);
        if (insts.size() == kPortion) insert(insts, m_Intrade_AllInstMap);
    };
    const auto onEndTag = [&] {
        LOG_INFO_IN("CheckOrLoadBinFile", "Get file end flag is success.");
        tagSeen = true;
    };
    day_file::forEachLine(content, onInst, onEndTag, [](std::string_view) {});
    insert(insts, m_Intrade_AllInstMap);
    return tagSeen;
}
