#include "tools/vexo/show/DayFileReport.h"

#include <pwd.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "interface/CardRegisters.h"
#include "src/dayfile/DayLines.h"
#include "src/instruments/InstId.h"
#include "src/util/LocalTime.h"
#include "src/util/SafeFile.h"
#include "tools/vexo/Failure.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo {
namespace {

constexpr std::size_t kMostOfAKind = 5;
constexpr std::string_view kDayFileName = ".zce_dddddddd_?m";

// Keeps the first findings of each kind, and counts the others.
class Findings {
public:
    explicit Findings(std::vector<DayFileFinding>& list) : m_list(list) {}
    ~Findings() {
        for (const auto& [kind, count] : m_counts) {
            if (count > kMostOfAKind)
                m_list.push_back({0, std::to_string(count - kMostOfAKind) + " more lines: " + kind});
        }
    }
    Findings(const Findings&) = delete;
    Findings& operator=(const Findings&) = delete;

    void add(const std::string& kind, std::size_t line, const std::string& text) {
        if (++m_counts[kind] <= kMostOfAKind) m_list.push_back({line, text});
    }

private:
    std::vector<DayFileFinding>& m_list;
    std::map<std::string, std::size_t> m_counts;
};

bool isNumber(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool isPlain(std::string_view id) {
    return !id.empty() && std::all_of(id.begin(), id.end(), [](char c) { return c > ' ' && c < '\x7F'; });
}

// Without commas and line feeds, a file of another kind is one id of megabytes.
std::string shortened(const std::string& id) {
    constexpr std::size_t kMost = 64;
    return id.size() > kMost ? id.substr(0, kMost) + "..." : id;
}

void checkIndex(std::string_view text, unsigned short index, std::size_t line, Findings& findings) {
    const std::string shown(text.substr(0, 32));
    if (!isNumber(text)) {
        findings.add("the index is no number", line,
                     "the index \"" + shown + "\" is no number; it counts as " + std::to_string(index));
    } else if (text.size() > 5 || std::stoul(shown) != index) {
        findings.add("the index does not fit", line,
                     "the index " + shown + " does not fit; it counts as " + std::to_string(index));
    } else if (index >= card_reg::kRows) {
        findings.add("the card has no such row", line,
                     "the index " + shown + ": the card has the rows 0 to " + std::to_string(card_reg::kRows - 1));
    }
}

class Reader {
public:
    explicit Reader(DayFileReport& report) : m_report(report), m_findings(report.findings) {}

    void read(const std::string& content) {
        const std::string_view header = day_file::kHeaderLine;
        m_isLikeDayFile = content.compare(0, header.size(), header) == 0;
        if (!m_isLikeDayFile) m_findings.add("header", 1, "the header \"inst_index,inst_id\" is missing");
        day_file::forEachLine(
            content, [this](std::string_view line, std::string_view id, unsigned short index) { add(line, id, index); },
            [this] {
                ++m_line;
                m_report.complete = true;
            },
            [this](std::string_view line) { skip(line); });
        if (!content.empty() && content.back() != '\n') m_findings.add("cut", m_line, "the file ends within this line");
        if (!m_report.complete)
            m_findings.add("end", 0, "the end tag is missing: the map was not complete, so a start does not load it");
        if (m_report.instruments.empty())
            m_findings.add("none", 0, "there are no instruments: a start does not load it");
    }
    /// It has the header, or at least one line of an instrument.
    bool isLikeDayFile() const { return m_isLikeDayFile; }

private:
    void add(std::string_view line, std::string_view idText, unsigned short index) {
        ++m_line;
        const std::string id(idText);
        if (!isPlain(id))
            m_findings.add("the id is none of an instrument", m_line,
                           "the id \"" + shortened(id) + "\" is none of an instrument");
        const std::string_view indexText = line.substr(0, line.size() - id.size() - 1);
        checkIndex(indexText, index, m_line, m_findings);
        m_isLikeDayFile = m_isLikeDayFile || (isPlain(id) && isNumber(indexText));
        const auto [place, isNew] = m_report.instruments.try_emplace(id, index);
        if (!isNew) {
            m_findings.add(
                "an id comes again", m_line,
                shortened(id) + " comes again; its first index, " + std::to_string(place->second) + ", counts");
            return;
        }
        const auto [row, isFree] = m_rows.try_emplace({tableOf(id), index}, id);
        if (!isFree)
            m_findings.add("an index comes again", m_line,
                           shortened(id) + " has the index of " + shortened(row->second));
    }

    void skip(std::string_view line) {
        ++m_line;
        if (line != day_file::withoutLineFeed(day_file::kHeaderLine))
            m_findings.add("no comma", m_line, "there is no comma; the line is skipped");
    }

    DayFileReport& m_report;
    Findings m_findings;
    std::size_t m_line = 0;
    bool m_isLikeDayFile = false;
    std::map<std::pair<std::uint8_t, unsigned short>, std::string> m_rows;
};

std::string nameOf(uid_t user) {
    const passwd* const entry = ::getpwuid(user);
    return entry != nullptr ? entry->pw_name : std::to_string(user);
}

void readName(DayFileReport& report) {
    const std::string name = std::filesystem::path(report.path).filename().string();
    if (name.size() != kDayFileName.size()) return;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char form = kDayFileName[i];
        const bool fits = form == 'd'   ? name[i] >= '0' && name[i] <= '9'
                          : form == '?' ? name[i] == 'a' || name[i] == 'p'
                                        : name[i] == form;
        if (!fits) return;
    }
    report.date = name.substr(5, 4) + "-" + name.substr(9, 2) + "-" + name.substr(11, 2);
    report.evening = name[name.size() - 2] == 'p';
}

}  // namespace

std::size_t DayFileReport::combinations() const {
    return static_cast<std::size_t>(std::count_if(instruments.begin(), instruments.end(), [](const auto& inst) {
        return tableOf(inst.first) == card_reg::kCombinationTable;
    }));
}

std::string currentDayFile(const std::string& directory) {
    return directory + "/" + std::filesystem::path(day_file::pathAt(local_time::now())).filename().string();
}

DayFileReport readDayFile(const std::string& path, const std::string& lookedFor) {
    DayFileReport report;
    report.path = path;
    report.lookedFor = lookedFor;
    const std::string shown = harmless(path);
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) throw Failure(kUsage, shown + ": this is a directory");
    std::string content;
    std::string refusal;
    if (!safe_file::readWhole(path, content, refusal)) {
        const int why = errno;
        if (!refusal.empty()) throw Failure(kFinding, shown + ": the library does not use this file: " + refusal);
        // That there is none yet, where a start looks for it, is what somebody wanted to know.
        const bool notYet = why == ENOENT && path == lookedFor;
        throw Failure(notYet ? kFinding : kUsage,
                      shown + ": " + std::strerror(why) +
                          (why == ENOENT ? "\nA master (channel 0) writes it while it learns the map." : ""));
    }
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0) {
        report.owner = nameOf(status.st_uid);
        report.written = status.st_mtime;
    }
    report.size = content.size();
    report.isCurrent = path == lookedFor;
    report.isOfNow = std::filesystem::path(path).filename() == std::filesystem::path(lookedFor).filename();
    readName(report);
    Reader reader(report);
    reader.read(content);
    // In its place a start takes it for a day file, whatever it is. Elsewhere it is a slip of the hand.
    if (!report.isCurrent && !content.empty() && !reader.isLikeDayFile())
        throw Failure(kUsage, shown + ":1: this is no day file: it begins with " +
                                  quotedBegin(content.substr(0, content.find('\n'))) +
                                  ", not with \"inst_index,inst_id\", and no line is an index and an id");
    return report;
}

DayFileChanges changesBetween(const DayFileReport& before, const DayFileReport& after) {
    DayFileChanges changes;
    for (const auto& [id, index] : after.instruments) {
        const auto old = before.instruments.find(id);
        if (old == before.instruments.end()) {
            changes.added.emplace(id, index);
        } else if (old->second != index) {
            changes.moved.push_back({id, old->second, index});
        }
    }
    for (const auto& [id, index] : before.instruments) {
        if (after.instruments.find(id) == after.instruments.end()) changes.removed.emplace(id, index);
    }
    return changes;
}

}  // namespace vexo
