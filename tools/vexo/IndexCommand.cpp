#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "src/instruments/InstId.h"
#include "src/util/LocalTime.h"
#include "tools/vexo/Command.h"
#include "tools/vexo/check/DayFileState.h"
#include "tools/vexo/check/SimRun.h"
#include "tools/vexo/check/SimulatedMap.h"
#include "tools/vexo/show/DayFileReport.h"
#include "tools/vexo/show/Harmless.h"
#include "tools/vexo/show/Terminal.h"

namespace vexo {
namespace {

using Json = nlohmann::ordered_json;

struct Options {
    std::string file;
    std::string other;
    std::string color;
    bool sim = false;
    bool list = false;
    bool json = false;
};

constexpr char kSeeApart[] = "Day files of simulated cards lie apart: see vexo index --sim";

std::string clock(std::time_t when) {
    std::tm local{};
    char text[64] = "";
    if (local_time::breakDown(when, local)) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

std::string age(std::time_t written) {
    const long seconds = static_cast<long>(std::time(nullptr) - written);
    if (seconds < 0) return "in the future";
    const long minutes = seconds / 60;
    if (minutes == 0) return std::to_string(seconds) + " s ago";
    if (minutes < 60) return std::to_string(minutes) + " min ago";
    if (minutes < 60 * 48) return std::to_string(minutes / 60) + " h " + std::to_string(minutes % 60) + " min ago";
    return std::to_string(minutes / 60 / 24) + " days ago";
}

const char* partOf(const DayFileReport& file) { return file.evening ? "from 17:00" : "up to 16:59:59"; }

std::string halfDay(const DayFileReport& file) {
    if (file.date.empty()) return "unknown: the name is not that of a day file";
    return file.date + " " + partOf(file) + (file.isOfNow ? ", the current one" : ", not the current one");
}

std::string use(const DayFileReport& file) {
    if (!file.isLoaded()) return "a start does not load it, and learns the map";
    return file.isCurrent ? "a start now loads it" : "a start now looks for " + file.lookedFor;
}

bool isSimulated(const DayFileReport& file) { return check::stateOfDayFile(file.path).simulated; }

// Colours of the text, if any are wanted.
class Text {
public:
    explicit Text(const Options& options) : m_colored(terminal::isColored(options.color)) {}
    std::string good(const std::string& text) const { return cli::painted(text, cli::kGreen, m_colored); }
    std::string bad(const std::string& text) const { return cli::painted(text, cli::kRed, m_colored); }
    std::string doubtful(const std::string& text) const { return cli::painted(text, cli::kYellow, m_colored); }

private:
    const bool m_colored;
};

void printSummary(const DayFileReport& file, const Text& text) {
    const std::size_t combinations = file.combinations();
    std::printf("%s\n", harmless(file.path).c_str());
    std::printf("  half-day:     %s\n", halfDay(file).c_str());
    std::printf("  complete:     %s\n", (file.complete ? text.good("yes") : text.bad("no")).c_str());
    std::printf("  instruments:  %zu (%zu single-leg, %zu combinations)\n", file.instruments.size(),
                file.instruments.size() - combinations, combinations);
    std::printf("  owner:        %s\n", harmless(file.owner).c_str());
    std::printf("  written:      %s, %s\n", clock(file.written).c_str(), age(file.written).c_str());
    std::printf("  size:         %zu bytes\n", file.size);
    std::printf("  use:          %s\n", use(file).c_str());
    if (isSimulated(file)) std::printf("  map:          %s\n", text.doubtful("that of a simulated card").c_str());
}

void printFindings(const DayFileReport& file, std::FILE* out, const Text& text) {
    for (const DayFileFinding& finding : file.findings) {
        const std::string place = harmless(file.path) + (finding.line > 0 ? ":" + std::to_string(finding.line) : "");
        std::fprintf(out, "%s: %s\n", place.c_str(), text.bad(harmless(finding.text)).c_str());
    }
}

void printList(const DayFileReport& file) {
    for (const auto& [id, index] : file.instruments) std::printf("%u %s\n", index, harmless(id).c_str());
}

void printChanges(const DayFileReport& other, const DayFileChanges& changes, const Text& text) {
    std::printf("since %s: %zu added, %zu removed, %zu moved\n", harmless(other.path).c_str(), changes.added.size(),
                changes.removed.size(), changes.moved.size());
    for (const auto& [id, index] : changes.added)
        std::printf("%s %s %u\n", text.good("+").c_str(), harmless(id).c_str(), index);
    for (const auto& [id, index] : changes.removed)
        std::printf("%s %s %u\n", text.bad("-").c_str(), harmless(id).c_str(), index);
    for (const DayFileChanges::Move& move : changes.moved)
        std::printf("%s %s %u -> %u\n", text.doubtful("~").c_str(), harmless(move.id).c_str(), move.from, move.to);
    if (!changes.moved.empty())
        std::puts("An instrument keeps its index all day: the two files are of different instrument lists of a card.");
}

Json listed(const std::map<std::string, unsigned short>& instruments) {
    Json list = Json::array();
    for (const auto& [id, index] : instruments) list.push_back({{"index", index}, {"table", tableOf(id)}, {"id", id}});
    return list;
}

Json describe(const DayFileReport& file) {
    const std::size_t combinations = file.combinations();
    Json findings = Json::array();
    for (const DayFileFinding& finding : file.findings)
        findings.push_back({{"line", finding.line}, {"text", finding.text}});
    return {{"file", file.path},
            {"date", file.date},
            {"part", file.date.empty() ? ""
                     : file.evening    ? "pm"
                                       : "am"},
            {"current", file.isCurrent},
            {"complete", file.complete},
            {"loadable", file.isLoaded()},
            {"instruments", file.instruments.size()},
            {"single_leg", file.instruments.size() - combinations},
            {"combinations", combinations},
            {"simulated", isSimulated(file)},
            {"owner", file.owner},
            {"written", clock(file.written)},
            {"age_seconds", static_cast<long>(std::time(nullptr) - file.written)},
            {"size", file.size},
            {"findings", findings}};
}

Json describe(const DayFileReport& other, const DayFileChanges& changes) {
    Json moved = Json::array();
    for (const DayFileChanges::Move& move : changes.moved)
        moved.push_back({{"id", move.id}, {"from", move.from}, {"to", move.to}});
    return {
        {"file", other.path}, {"added", listed(changes.added)}, {"removed", listed(changes.removed)}, {"moved", moved}};
}

// An id may be any bytes: what is no UTF-8 is replaced.
void printJson(const Json& all) { std::puts(all.dump(1, ' ', false, Json::error_handler_t::replace).c_str()); }

// A simulated card looks for a file of this half-day in the directory that the file is in.
DayFileReport readKept(const std::string& path) {
    return readDayFile(path, currentDayFile(std::filesystem::path(path).parent_path().string()));
}

// The day files that `vexo sim run` keeps apart, one after the other.
int showKept(const Options& options) {
    const std::vector<std::string> paths = check::keptDayFiles();
    if (paths.empty())
        throw Failure(kFinding,
                      "there is no day file of a simulated card\n"
                      "vexo sim run -- PROGRAM keeps one for each card, once the program's master has learnt the map.");
    const Text text(options);
    Json all = Json::array();
    int status = 0;
    for (const std::string& path : paths) {
        try {
            const DayFileReport file = readKept(path);
            if (!file.findings.empty()) status = kFinding;
            if (options.json) {
                all.push_back(describe(file));
                continue;
            }
            if (path != paths.front()) std::puts("");
            printSummary(file, text);
            printFindings(file, stdout, text);
        } catch (const Failure& failure) {
            status = std::max(status, cli::fail("vexo", failure.status, failure.what()));
        }
    }
    if (options.json) printJson(all);
    return terminal::statusOfOutput(status);
}

// The file that the user named, or the one that a start looks for.
DayFileReport readAsked(const Options& options) {
    const std::string lookedFor = options.file.empty() ? check::dayFileOfStart() : currentDayFile();
    try {
        return readDayFile(options.file.empty() ? lookedFor : options.file, lookedFor);
    } catch (const Failure& failure) {
        if (!options.file.empty() || check::keptDayFiles().empty()) throw;
        throw Failure(failure.status, std::string(failure.what()) + "\n" + kSeeApart);
    }
}

int run(const Options& options) {
    if (options.sim) return showKept(options);
    const DayFileReport file = readAsked(options);
    std::optional<DayFileReport> other;
    DayFileChanges changes;
    if (!options.other.empty()) {
        other = readDayFile(options.other);
        changes = changesBetween(*other, file);
    }
    const Text text(options);
    if (options.json) {
        Json all = describe(file);
        if (options.list) all["list"] = listed(file.instruments);
        if (other) all["since"] = describe(*other, changes);
        printJson(all);
    } else if (options.list) {
        printFindings(file, stderr, text);
        printList(file);
    } else {
        printSummary(file, text);
        printFindings(file, stdout, text);
        if (other) printChanges(*other, changes, text);
        if (options.file.empty() && !check::isUnderSimRun() && !check::keptDayFiles().empty()) std::puts(kSeeApart);
    }
    return terminal::statusOfOutput(file.findings.empty() && !changes.any() ? 0 : kFinding);
}

}  // namespace

void addIndex(const cli::Command& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    const cli::Command index = app.addCommand("index", "Show, check and compare day files: the maps of instruments");
    const cli::Option file = index.addOption("file", options->file,
                                             "The day file; the default is the one that a start now looks for");
    file.takes("FILE");
    const cli::Option compare = index.addOption("--compare", options->other,
                                                "Show what was added, removed or moved since this earlier file");
    compare.takes("OTHER_FILE");
    const cli::Option list = index.addFlag("--list", options->list, "Print only the instruments: index and id");
    const cli::Option json = index.addFlag("--json", options->json, "Print JSON; with --list also the instruments");
    index
        .addFlag("--sim", options->sim, "Show the day files that vexo sim run keeps apart, one for each simulated card")
        .excludes(file)
        .excludes(compare)
        .excludes(list);
    terminal::addColorOption(index, options->color);
    index.footer(
        "Run it as:  vexo index [OPTIONS] [FILE]\n"
        "Behind vexo sim run -- the default is the file of the simulated card that a program gets there.");
    cli::tellStatuses(index, {{cli::kFine, "nothing is wrong with the file, and nothing has changed"},
                              {kFinding, "something is, or has, or there is no such file yet"},
                              {kUsage, "wrong usage, or a file that was named and cannot be read"}});
    index.whenChosen([options, compare, list, json, &invocation] {
        if (compare.isGiven() && list.isGiven() && !json.isGiven())
            throw Failure(kUsage, "--list shows no comparison; leave out --list or --compare, or add --json");
        invocation.run = [options] { return run(*options); };
    });
}

}  // namespace vexo
