#include "tools/vexo/check/ConfigCheck.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "VexoZceUtil.h"
#include "tools/vexo/check/ChannelRules.h"
#include "tools/vexo/check/IniText.h"
#include "tools/vexo/check/KeyTable.h"

namespace vexo::check {

namespace {

constexpr std::size_t kItemsPerFeed = 6;

std::string listed(const std::vector<std::string>& words, const char* last) {
    std::string text;
    for (std::size_t i = 0; i < words.size(); ++i)
        text += (i == 0 ? "" : i + 1 < words.size() ? ", " : last) + words[i];
    return text;
}

class ConfigCheck {
public:
    ConfigCheck(const std::string& path, Report& report) : m_path(path), m_report(report), m_text(path) {}

    ConfigFacts run();

private:
    using Name = std::pair<std::string, std::string>;  // section and key, in lower case

    void add(std::size_t line, Level level, const std::string& what, const std::string& todo) {
        m_report.add({level, m_path, line, what, todo});
    }
    bool checkForm();  // @return false when the library refuses the file
    void checkSwallowed(const IniLine& line);
    void checkWhole();
    void collect();
    std::string openSection(const IniLine& line);
    void takeKey(const std::string& section, const IniLine& line);
    void checkUnknownSections();
    void checkUnknown();
    bool belongsElsewhere(const std::string& section, const IniLine& line);
    void checkValues();
    void checkMissing();
    void requireKey(const Key& key);
    void checkOutputs();
    void checkFeeds();
    std::string laterChannels(const std::string& section) const;
    void checkChannels();

    const IniLine* find(const std::string& section, const std::string& key) const {
        const auto found = m_keys.find({section, lowered(key)});
        return found != m_keys.end() ? found->second : nullptr;
    }
    std::size_t lineOf(const std::string& section) const {
        const auto found = m_sections.find(section);
        return found != m_sections.end() ? found->second : 0;
    }
    bool isMaster() const { return !m_facts.device.valid || m_facts.device.channel == 0; }
    // What it means that a key is not there.
    Level levelWithout(const Key& key) const;

    std::string m_path;
    Report& m_report;
    IniText m_text;
    ConfigFacts m_facts;
    std::map<std::string, std::size_t> m_sections;                          // first lines; also those of misspelt names
    std::map<Name, const IniLine*> m_keys;                                  // the ones that count
    std::vector<std::pair<const IniLine*, std::string>> m_unknownSections;  // with the one that is meant, if clear
    std::vector<std::pair<std::string, const IniLine*>> m_unknown;          // with the section that they are in
    std::set<Name> m_explained;                                             // missing, and already reported as misspelt
};

ConfigFacts ConfigCheck::run() {
    const std::size_t before = m_report.findings().size();
    const bool isRead = checkForm();
    collect();
    m_facts.file = m_path;
    for (const auto& [name, line] : m_keys) m_facts.lines.emplace(name.first + ":" + name.second, line->line);
    if (const IniLine* device = find("config", "device")) {
        m_facts.device = deviceOf(device->value);
        m_facts.deviceLine = device->line;
    }
    if (const IniLine* cpu = find("config", "cpucore")) {
        m_facts.cpu = numberOf(cpu->value);
        m_facts.cpuLine = cpu->line;
    }
    if (const IniLine* hardware = find("version", GetUpDmaLibVersion())) {
        m_facts.hardware = numberOf(hardware->value);
        m_facts.hardwareLine = hardware->line;
    }
    checkValues();
    // What is unknown or missing may be so because of the line that the library refuses.
    if (isRead) checkWhole();
    m_report.sortFrom(before);
    return m_facts;
}

void ConfigCheck::checkWhole() {
    checkUnknownSections();
    checkUnknown();
    checkMissing();
    checkOutputs();
    checkFeeds();
    checkChannels();
}

bool ConfigCheck::checkForm() {
    bool isRead = m_text.lineThatIsTooLong() == 0;
    if (!isRead)
        add(m_text.lineThatIsTooLong(), Level::kFatal,
            "the line, with those that it continues, is too long; the library refuses the file",
            "keep it below 1,000 characters, without NUL");
    if (m_text.lineWithoutEnd() != 0)
        add(m_text.lineWithoutEnd(), Level::kError, "the library drops this end of the file",
            "remove a backslash at the end, and end the last line with a line feed");
    for (const IniLine& line : m_text.lines()) {
        if (line.line == 1 && line.text.compare(0, 3, "\xEF\xBB\xBF") == 0)
            add(1, line.kind == IniLine::Kind::kNonsense ? Level::kFatal : Level::kError,
                "the file begins with a byte-order mark, which the library takes as part of the first line",
                "save it as UTF-8 without one");
        else if (line.kind == IniLine::Kind::kNonsense)
            add(line.line, Level::kFatal,
                "this is neither a section nor a key nor a comment; the library refuses the file",
                "write [section], key = value, or put ; in front");
        isRead = isRead && line.kind != IniLine::Kind::kNonsense;
        checkSwallowed(line);
    }
    return isRead;
}

// A backslash at the end of a line joins the next line to it, also to a comment.
void ConfigCheck::checkSwallowed(const IniLine& line) {
    if (line.kind == IniLine::Kind::kNothing && line.lastLine > line.line)
        add(line.line, Level::kError, "the backslash at its end makes the next line part of this comment",
            "remove the backslash");
}

void ConfigCheck::collect() {
    std::string section;
    for (const IniLine& line : m_text.lines()) {
        if (line.kind == IniLine::Kind::kSection) section = openSection(line);
        if (line.kind == IniLine::Kind::kKey) takeKey(section, line);
    }
}

// Returns the section that the line stands for: of a misspelt name the one that is meant, if it is clear.
std::string ConfigCheck::openSection(const IniLine& line) {
    if (!tableSection(line.section).empty()) {
        const auto [first, isNew] = m_sections.emplace(line.section, line.line);
        if (!isNew)
            add(line.line, Level::kWarning,
                "section [" + line.section + "] begins in line " + std::to_string(first->second) + " already",
                "put its keys together");
        return line.section;
    }
    const std::vector<std::string> meant = nearest(line.section, allSections());
    const bool isClear = meant.size() == 1 && m_sections.count(meant.front()) == 0;
    m_unknownSections.emplace_back(&line, isClear ? meant.front() : "");
    if (!isClear) return {};
    m_sections.emplace(meant.front(), line.line);
    return meant.front();
}

void ConfigCheck::checkUnknownSections() {
    for (const auto& [line, meant] : m_unknownSections) {
        const bool isNeeded = meant == "config" || (meant == "version" && isMaster());
        add(line->line, isNeeded ? Level::kFatal : Level::kError,
            "there is no section [" + line->section + "]; the library reads none of its keys",
            meant.empty() ? "use config, version, or channel0 to channel15" : "write [" + meant + "]");
    }
}

void ConfigCheck::takeKey(const std::string& section, const IniLine& line) {
    const bool isBeforeSections = line.section.empty() && section.empty();
    if (section.empty() && !isBeforeSections) return;  // the section itself is reported
    if (isBeforeSections || findKey(tableSection(section), line.key) == nullptr) {
        m_unknown.emplace_back(section, &line);
        return;
    }
    const IniLine*& known = m_keys[{section, line.key}];
    if (known != nullptr)
        add(line.line, Level::kError,
            "[" + section + "] " + line.key + " is in line " + std::to_string(known->line) +
                " already; the library takes this one, the last",
            "remove one of the two");
    known = &line;
}

Level ConfigCheck::levelWithout(const Key& key) const {
    const bool fatal = key.type == Type::kDevice || (key.type == Type::kVersion && isMaster());
    return fatal ? Level::kFatal : Level::kError;
}

// A key that the library reads in another section.
bool ConfigCheck::belongsElsewhere(const std::string& section, const IniLine& line) {
    for (const Key& key : allKeys()) {
        if (lowered(key.name) != line.key || key.section == tableSection(section)) continue;
        const bool missing = key.section != std::string("channelN") && find(key.section, key.name) == nullptr;
        if (missing) m_explained.emplace(key.section, line.key);
        add(line.line, missing ? levelWithout(key) : Level::kError,
            (section.empty() ? "no section is above " : "[" + section + "] has no key ") + line.key +
                "; the library does not read it",
            "move it to [" + std::string(key.section) + "]");
        return true;
    }
    return false;
}

void ConfigCheck::checkUnknown() {
    for (const auto& [section, line] : m_unknown) {
        if (belongsElsewhere(section, *line)) continue;
        std::vector<std::string> absent;
        std::vector<std::string> all;
        for (const Key& key : allKeys()) {
            if (!section.empty() && key.section != tableSection(section)) continue;
            all.emplace_back(key.name);
            if (find(section, key.name) == nullptr) absent.emplace_back(key.name);
        }
        std::vector<std::string> meant = nearest(line->key, absent);
        Level level = Level::kError;
        for (const std::string& name : meant) {
            m_explained.emplace(section, lowered(name));
            const Key* key = findKey(tableSection(section), lowered(name));
            if (key != nullptr && levelWithout(*key) == Level::kFatal) level = Level::kFatal;
        }
        if (meant.empty()) meant = nearest(line->key, all);
        add(line->line, level,
            (section.empty() ? "no section is above " : "[" + section + "] has no key ") + line->key +
                "; the library does not read it",
            meant.empty() ? "remove it, or use " + listed(all, " or ") : "write " + listed(meant, " or "));
    }
}

void ConfigCheck::checkValues() {
    for (const auto& [name, line] : m_keys) {
        const Key& key = *findKey(tableSection(name.first), name.second);
        if (const std::optional<Problem> wrong = checkValue(key, *line))
            add(line->line, wrong->level, "[" + name.first + "] " + key.name + ": " + wrong->what, wrong->todo);
    }
}

void ConfigCheck::requireKey(const Key& key) {
    if (find(key.section, key.name) != nullptr || m_explained.count({key.section, lowered(key.name)}) != 0) return;
    const std::size_t line = lineOf(key.section);
    add(line, levelWithout(key),
        std::string("[") + key.section + "] " + key.name + " is missing; " +
            (key.type == Type::kPort || key.type == Type::kMulticast ? "the card keeps what it had"
                                                                     : "the start-up ends"),
        std::string(line != 0 ? "add " : "add the section with ") + key.name + " = " + key.example);
}

// What the process of another channel does not read may be missing there.
void ConfigCheck::checkMissing() {
    for (const Key& key : allKeys()) {
        const bool isOutput = std::string(key.byDefault) == "no output";
        const bool needed = key.type == Type::kVersion || key.type == Type::kMulticast ||
                            (key.type == Type::kPort && !isOutput);
        if (key.type == Type::kDevice || (needed && isMaster())) requireKey(key);
    }
}

// All six items of a feed switch the card's own output on; fewer do nothing but are logged.
void ConfigCheck::checkOutputs() {
    for (const char* feed : {"L5", "L1"}) {
        std::vector<std::string> missing;
        std::size_t first = 0;
        for (const Key& key : allKeys()) {
            if (std::string(key.byDefault) != "no output" || std::string(key.name).compare(0, 2, feed) != 0) continue;
            const IniLine* line = find("config", key.name);
            const bool present = line != nullptr && !(key.type == Type::kPort && numberOf(line->value) == 0);
            if (line != nullptr && (first == 0 || line->line < first)) first = line->line;
            if (!present && m_explained.count({"config", lowered(key.name)}) == 0) missing.emplace_back(key.name);
        }
        if (first == 0 || missing.empty()) continue;
        add(first, Level::kError,
            std::string("the card's ") + feed + " output has " + std::to_string(kItemsPerFeed - missing.size()) +
                " of 6 items and stays off",
            "add " + listed(missing, " and ") + ", or remove the others");
    }
}

void ConfigCheck::checkFeeds() {
    const IniLine* level1 = find("config", "czce_level1");
    const IniLine* level2 = find("config", "czce_level2");
    if (level1 != nullptr && level2 != nullptr && level1->value == "disabled" && level2->value == "disabled")
        add(level2->line, Level::kError, "both feeds are disabled; the program gets no data", "enable one of them");
    for (const char* feed : {"L5_IP", "L1_IP"}) {
        const IniLine* a = find("config", feed + std::string("A"));
        const IniLine* b = find("config", feed + std::string("B"));
        if (a != nullptr && b != nullptr && !a->value.empty() && a->value == b->value)
            add(std::max(a->line, b->line), Level::kWarning,
                std::string(feed) + "A and " + feed +
                    "B have the same address; one of the two channels is not received",
                "give the address of each channel");
    }
}

// In the order in which the library reads them, that of their numbers.
std::string ConfigCheck::laterChannels(const std::string& section) const {
    const std::vector<std::string> all = allSections();
    std::vector<std::string> later;
    for (auto one = std::find(all.begin(), all.end(), section) + 1; one != all.end(); ++one)
        if (lineOf(*one) != 0) later.push_back("[" + *one + "] (line " + std::to_string(lineOf(*one)) + ")");
    return listed(later, " and ");
}

void ConfigCheck::checkChannels() {
    bool anyRule = false;
    for (const std::string& section : allSections()) {
        if (tableSection(section) != "channelN" || m_sections.count(section) == 0) continue;
        const ChannelRules rules{section,
                                 m_sections.at(section),
                                 find(section, "insts"),
                                 find(section, "options"),
                                 find(section, "ips"),
                                 find(section, "spd"),
                                 laterChannels(section)};
        anyRule = true;
        for (const LineProblem& wrong : checkRules(rules)) {
            if (wrong.missingKey.empty() || m_explained.count({section, wrong.missingKey}) == 0)
                add(wrong.line, wrong.problem.level, "[" + section + "] " + wrong.problem.what, wrong.problem.todo);
        }
    }
    if (!anyRule && isMaster() && m_facts.device.valid)
        add(lineOf("config"), Level::kError, "no section [channel0] to [channel15] is there; no channel gets anything",
            "add a section for each channel that a program uses");
}

}  // namespace

ConfigFacts checkConfig(const std::string& path, Report& report) { return ConfigCheck(path, report).run(); }

void checkTogether(const std::vector<ConfigFacts>& programs, Report& report) {
    for (auto one = programs.begin(); one != programs.end(); ++one) {
        for (auto other = programs.begin(); other != one; ++other) {
            const bool sameCard = one->device.valid && other->device.valid && one->device.card == other->device.card;
            if (sameCard && one->device.channel == other->device.channel)
                report.add({Level::kFatal, one->file, one->deviceLine,
                            other->file + " has the same card and channel; the second of the two starts ends",
                            "give each program a channel of its own"});
            if (one->cpu >= 0 && one->cpu == other->cpu)
                report.add(
                    {Level::kWarning, one->file, one->cpuLine,
                     other->file + " has the same cpucore; the two threads share CPU " + std::to_string(one->cpu),
                     "give each program a CPU of its own"});
        }
    }
}

}  // namespace vexo::check
