#include "tools/vexo/plan/Instruments.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <utility>

#include "interface/CardRegisters.h"
#include "sim/card/InstrumentList.h"
#include "sim/scenario/InstrumentFile.h"
#include "sim/scenario/TextFile.h"
#include "src/dayfile/DayLines.h"
#include "src/instruments/InstId.h"
#include "src/util/LocalTime.h"
#include "tools/vexo/Failure.h"
#include "tools/vexo/InputFile.h"
#include "tools/vexo/check/DayFileState.h"
#include "tools/vexo/check/SimRun.h"
#include "tools/vexo/show/DayFileReport.h"

namespace vexo::plan {

namespace {

namespace fs = std::filesystem;

constexpr int kDaysBack = 10;  // holidays are at most nine days long
constexpr int kMorning = 10;
constexpr int kEvening = 20;
constexpr std::size_t kLongestId = 63;

std::string dateOf(const std::tm& day) {
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d", &day);
    return text;
}

Instruments builtIn(bool full) {
    const std::tm today = local_time::now();
    std::vector<vexo_sim::Instrument> made(vexo_sim::kMaxInstruments);
    made.resize(
        vexo_sim::makeInstrumentList(full ? vexo_sim::InstrumentChoice::kFull : vexo_sim::InstrumentChoice::kDefault,
                                     local_time::date(today), made.data()));
    Instruments instruments;
    for (const vexo_sim::Instrument& one : made) instruments.list.push_back({one.id, one.row});
    instruments.origin = std::string("the simulated card's ") + (full ? "full list" : "list") + " of " + dateOf(today);
    return instruments;
}

Instruments takenFrom(const DayFileReport& report) {
    Instruments instruments;
    for (const auto& [id, index] : report.instruments) instruments.list.push_back({id, index});
    instruments.file = report.path;
    instruments.isLoaded = report.isLoaded() && report.isOfNow;
    const bool simulated = check::stateOfDayFile(report.path).simulated;
    instruments.origin = "day file " + report.path + (report.complete ? "" : ", which is not complete") +
                         (simulated ? ", the map of a simulated card" : "") +
                         (report.isOfNow ? "" : ", not of this half-day");
    return instruments;
}

// The newest day file that a start would have loaded.
bool findDayFile(Instruments& instruments) {
    const std::string directory = check::dayFileDirectory(std::nullopt);
    const std::tm today = local_time::now();
    for (int back = 0; back < kDaysBack; ++back) {
        for (const int hour : {kEvening, kMorning}) {
            std::tm day = today;
            day.tm_mday -= back;
            day.tm_hour = hour;
            day.tm_isdst = -1;
            if (std::mktime(&day) == -1) continue;
            try {
                const std::string name = fs::path(day_file::pathAt(day)).filename().string();
                const DayFileReport report = readDayFile(directory + "/" + name, currentDayFile(directory));
                if (!report.isLoaded()) continue;
                instruments = takenFrom(report);
                return true;
            } catch (const Failure&) {
                continue;  // there is none, or none that the library would use
            }
        }
    }
    return false;
}

class TextList {
public:
    explicit TextList(const std::string& file) : m_file(file) {}

    void read(const std::vector<std::string>& lines) {
        for (const std::string& text : lines) {
            ++m_line;
            const std::string line = vexo_sim::scenario::trimmed(text);
            if (!line.empty() && line[0] != '#') take(line);
        }
        if (m_instruments.list.empty()) fail("there is no instrument in it; write one id a line", false);
        m_instruments.file = m_file;
        m_instruments.origin = m_file;
    }
    Instruments& instruments() { return m_instruments; }

private:
    [[noreturn]] void fail(const std::string& why, bool inLine = true) const {
        throw Failure(kUsage, m_file + (inLine ? ":" + std::to_string(m_line) : "") + ": " + why);
    }

    void take(const std::string& line) {
        std::istringstream words(line);
        std::string id;
        std::string index;
        std::string more;
        words >> id >> index >> more;
        const std::size_t table = tableOf(id);
        if (!more.empty() || id.size() > kLongestId) fail("this is no instrument; write an id, or an id and its index");
        if (!index.empty()) m_next[table] = numberOf(index);
        if (m_next[table] >= card_reg::kRows) fail("the card has no more rows in this table");
        if (!m_seen.insert(id).second) fail(id + " comes again; remove one of the two lines");
        m_instruments.list.push_back({id, static_cast<unsigned short>(m_next[table]++)});
    }

    unsigned int numberOf(const std::string& text) const {
        const bool isNumber = text.size() <= 5 && std::all_of(text.begin(), text.end(),
                                                              [](unsigned char c) { return c >= '0' && c <= '9'; });
        const unsigned long number = isNumber ? std::stoul(text) : card_reg::kRows;
        if (number >= card_reg::kRows)
            fail("\"" + text + "\" is no index; the card has the rows 0 to " + std::to_string(card_reg::kRows - 1));
        return static_cast<unsigned int>(number);
    }

    std::string m_file;
    std::size_t m_line = 0;
    unsigned int m_next[2] = {};
    std::set<std::string> m_seen;
    Instruments m_instruments;
};

bool isDayFile(const std::vector<std::string>& lines) {
    return !lines.empty() && lines.front() == day_file::withoutLineFeed(day_file::kHeaderLine);
}

// The lines "index,table,id" of a scenario of the simulated card.
bool isCardList(const std::vector<std::string>& lines) {
    for (const std::string& line : lines)
        if (!line.empty() && line[0] != '#') return line.find(',') != std::string::npos;
    return false;
}

Instruments readFile(const std::string& file) {
    requireFile(file);
    try {
        const std::vector<std::string> lines = vexo_sim::scenario::readLines(file);
        if (isDayFile(lines)) return takenFrom(readDayFile(file));
        if (isCardList(lines)) {
            Instruments instruments;
            for (const vexo_sim::Instrument& one : vexo_sim::scenario::readInstrumentList(file))
                instruments.list.push_back({one.id, one.row});
            instruments.file = instruments.origin = file;
            return instruments;
        }
        TextList list(file);
        list.read(lines);
        return list.instruments();
    } catch (const vexo_sim::scenario::Rejected& why) {
        throw Failure(kUsage, why.what());
    }
}

}  // namespace

Instruments chooseInstruments(const std::string& asked) {
    if (asked == kSimulated) return builtIn(false);
    if (asked == kFull) return builtIn(true);
    if (asked == kDayFile) {
        const std::string path = check::dayFileOfStart();
        return takenFrom(readDayFile(path, path));
    }
    if (!asked.empty()) return readFile(asked);
    Instruments instruments;
    return findDayFile(instruments) ? instruments : builtIn(false);
}

}  // namespace vexo::plan
