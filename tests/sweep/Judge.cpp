#include "tests/sweep/Judge.h"

#include <dirent.h>
#include <sys/wait.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>

namespace sweep {

namespace {

using HwCall = hw_calls::Call;

constexpr char kTagLine[] = "bin_file_over_tag";
constexpr char kLostLines[] = "[log]Lines lost in the log file: ";
constexpr std::size_t kLevelSize = 9;
constexpr std::size_t kTimeSize = 19;  // with its brackets

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

bool EndsWithLine(const std::string& text) { return text.empty() || text.back() == '\n'; }

std::vector<std::string> LogFiles(const std::string& directory) {
    std::set<std::string> names;
    if (DIR* const all = ::opendir(directory.c_str())) {
        while (const dirent* entry = ::readdir(all)) {
            const std::string name = entry->d_name;
            if (name.rfind("fpga_", 0) == 0) names.insert(directory + "/" + name);
        }
        ::closedir(all);
    }
    return {names.begin(), names.end()};
}

// Empty when the C library cannot break the time down.
constexpr char kNoTime[] = "[]";

bool IsTime(const std::string& text) {
    constexpr char kForm[] = "[dddddddd-dd:dd:dd]";
    for (std::size_t n = 0; n < kTimeSize; ++n) {
        const bool isDigit = std::isdigit(static_cast<unsigned char>(text[n])) != 0;
        if (kForm[n] == 'd' ? !isDigit : text[n] != kForm[n]) return false;
    }
    return true;
}

// A line of the log from its level to its tag, once. A merged line has a second tag.
bool IsLogLine(const std::string& line) {
    if (line.size() < kLevelSize + sizeof kNoTime + 5) return false;
    const std::string level = line.substr(0, kLevelSize);
    if (level != "[INFO   ]" && level != "[WARN   ]" && level != "[ERROR  ]") return false;
    const bool isTimed = line.compare(kLevelSize, sizeof kNoTime - 1, kNoTime) != 0;
    if (isTimed && (line.size() < kLevelSize + kTimeSize || !IsTime(line.substr(kLevelSize, kTimeSize)))) return false;
    const std::string rest = line.substr(kLevelSize + (isTimed ? kTimeSize : sizeof kNoTime - 1));
    if (rest.rfind("[fpga]", 0) != 0 && rest.rfind("[log]", 0) != 0) return false;
    return rest.find("][fpga]") == std::string::npos && rest.find("][log]") == std::string::npos;
}

// The lines of the log among all that was printed.
std::vector<std::string> LogLines(const std::string& out) {
    std::vector<std::string> log;
    for (const std::string& line : Lines(out)) {
        if (IsLogLine(line)) log.push_back(line);
    }
    return log;
}

bool IsOfHandler(const std::string& line) { return line.find("[fpga]Received signal ") != std::string::npos; }

void EraseHandlersLine(std::vector<std::string>& lines) {
    lines.erase(std::remove_if(lines.begin(), lines.end(), IsOfHandler), lines.end());
}

bool BeginsWith(const std::string& text, const std::string& start) { return text.rfind(start, 0) == 0; }

// The file has the lines that were printed, in their order. After a gap comes a line that counts what is missing,
// perhaps behind the beginning of the first missing line. At the end, as many lines may be missing as @p lastLost.
std::string JudgeLog(std::vector<std::string> file, std::vector<std::string> printed, std::size_t lastLost) {
    // The handler writes no warning: its line may come before the one that counts earlier losses.
    if (std::any_of(file.begin(), file.end(), IsOfHandler)) {
        EraseHandlersLine(file);
        EraseHandlersLine(printed);
    }
    std::size_t next = 0;
    for (std::size_t n = 0; n < file.size(); ++n) {
        const std::string& line = file[n];
        const std::size_t count = line.find(kLostLines);
        if (IsLogLine(line) && count != std::string::npos) {
            next += std::strtoul(line.c_str() + count + sizeof kLostLines - 1, nullptr, 10);
            if (next > printed.size()) return "the log counts more lost lines than there were";
        } else if (next < printed.size() && line == printed[next]) {
            ++next;
        } else if (next >= printed.size() || line.size() >= printed[next].size() || !BeginsWith(printed[next], line)) {
            return "the log has \"" + line + "\" where \"" + (next < printed.size() ? printed[next] : "nothing") +
                   "\" is due";
        } else if (n + 1 < file.size() && file[n + 1].find(kLostLines) == std::string::npos &&
                   !IsLogLine(file[n + 1])) {
            return "a cut line is not followed by a whole one: \"" + file[n + 1] + "\"";
        }
    }
    if (printed.size() - next > lastLost)
        return "the log ends " + std::to_string(printed.size() - next) + " lines early, without a warning";
    return {};
}

// Calls whose failure may end a start, by what the library does without their result.
bool MayEndStart(std::size_t call) {
    if (call >= kFirstHardwareCall) {
        const auto hardware = static_cast<HwCall>(call - kFirstHardwareCall);
        return hardware != HwCall::kCoreLock && hardware != HwCall::kCoreUnlock;
    }
    return call == kAccess || call == kStat || call == kGetpwuid || call == kMkdir || call == kOpen ||
           call == kFdopen || call == kRead || call == kFcntl || call == kLocaltimeR || call == kAllocation;
}

bool SaysWhy(const Remains& run) {
    std::string all = run.out + run.err;
    for (const std::string& line : run.log) all += line;
    return all.find("[ERROR  ]") != std::string::npos || all.find("rror!") != std::string::npos ||
           all.find("fail") != std::string::npos;
}

std::string JudgeEnd(const Remains& run, unsigned int closed, const FaultOfRun* fault) {
    if (WIFSIGNALED(run.waitStatus)) return "ended by signal " + std::to_string(WTERMSIG(run.waitStatus));
    if (WEXITSTATUS(run.waitStatus) != 0) return "ended with status " + std::to_string(WEXITSTATUS(run.waitStatus));
    if (!run.hasReport) return "ended without a report";
    const Report& report = run.report;
    if (report.thrown > 0 && (fault == nullptr || fault->call != kAllocation)) return "threw bad_alloc";
    if (report.phase != Phase::kDone && report.phase != Phase::kStart) return "ended behind the start";
    if (report.started) return {};
    if (fault == nullptr || !MayEndStart(fault->call)) return "did not start";
    const bool isMute = (closed & 6) == 6;  // and perhaps it is the log that failed
    const bool saysWhy = SaysWhy(run) || report.thrown > 0 || !report.created || isMute;
    return saysWhy ? std::string() : "did not start and does not say why";
}

std::string JudgeWhatIsLeft(const Report& report) {
    if (report.lowTaken > 0) return "a standard stream was changed or taken";
    if (report.misuses > 0) return "used a handle that is none, " + std::to_string(report.misuses) + " times";
    if (report.thrown > 0 && !report.started) return {};
    if (report.forgotten > 0) return std::to_string(report.forgotten) + " descriptors left open";
    if (report.handles > 0) return std::to_string(report.handles) + " handles of the card left";
    return {};
}

std::string JudgeQuotes(const Report& report, const FaultOfRun* fault) {
    if (!report.started) return {};
    if (report.outOfTurn > 0) return std::to_string(report.outOfTurn) + " quotes out of turn, or a late stop";
    const bool noPolls = fault != nullptr && fault->kind->forGood &&
                         fault->call == HardwareCall(HwCall::kA2cStreamPollOnce);
    if (report.quotes != kQuotes && !noPolls) return std::to_string(report.quotes) + " quotes arrived";
    return {};
}

// A file without an end tag has lines of the map, each once, and perhaps the beginning of one more at its end. An
// instrument that was lost and announced again may come late.
std::string JudgeIncompleteDayFile(const std::vector<std::string>& lines) {
    const std::vector<std::string> complete = Lines(CompleteDayFile());
    std::set<std::string> due(complete.begin(), complete.end());
    for (std::size_t n = 0; n < lines.size(); ++n) {
        if (due.erase(lines[n]) > 0) continue;
        const bool isBeginning = std::any_of(due.begin(), due.end(),
                                             [&](const std::string& line) { return BeginsWith(line, lines[n]); });
        if (n + 1 != lines.size() || !isBeginning) return "the day file has the line \"" + lines[n] + "\"";
    }
    return {};
}

std::string JudgeDayFile(const Remains& run, unsigned int closed, const FaultOfRun* fault) {
    const std::vector<std::string> lines = Lines(run.dayFile);
    const auto tag = std::find(lines.begin(), lines.end(), kTagLine);
    const std::vector<std::string> complete = Lines(CompleteDayFile());
    if (tag == lines.end()) {
        if (const std::string wrong = JudgeIncompleteDayFile(lines); !wrong.empty()) return wrong;
        const bool inLog = std::any_of(run.log.begin(), run.log.end(), [](const std::string& line) {
            return line.find("contract index file ") != std::string::npos;
        });
        const bool saysWhy = inLog || run.out.find("contract index file ") != std::string::npos;
        const bool wasHeard = run.report.phase == Phase::kDone && run.report.started && run.report.quotes == kQuotes;
        // Without a clock the wait before the tag does not end, and without a calendar the file has another name.
        const bool isTimeless = fault != nullptr && (fault->call == kClockGettime || fault->call == kLocaltimeR);
        const bool isMute = (closed & 2) != 0 && fault != nullptr && fault->call == kWrite;
        return wasHeard && !saysWhy && !isTimeless && !isMute ? "the day file has no end tag, and no line says why"
                                                              : std::string();
    }
    if (std::any_of(tag, lines.end(), [](const std::string& line) { return line != kTagLine; }))
        return "the day file goes on behind its end tag";
    std::vector<std::string> before(lines.begin(), tag);
    before.emplace_back(kTagLine);
    return before == complete ? std::string() : "the day file has an end tag and lacks instruments";
}

// After the stop signal, the C library's calls write to standard output too. A line that they do not write is in the
// file alone.
bool MayCutStop(const Report& report, const FaultOfRun* fault) {
    if (fault == nullptr) return false;
    constexpr Call kOfOutput[] = {kClose, kFcntl, kFstat, kIsatty, kOpen, kPoll, kSend, kWrite};
    if (std::find(std::begin(kOfOutput), std::end(kOfOutput), fault->call) == std::end(kOfOutput)) return false;
    return report.struckWhileStopping || fault->kind->forGood;
}

// The lines that stop a process, as another run has them.
void TakeStopFrom(const std::vector<std::string>& sound, std::vector<std::string>& printed) {
    const auto isOfStop = [](const std::string& line) {
        return IsOfHandler(line) || line.find("[fpga][channel:0] DMA count info: ") != std::string::npos ||
               line.find("[fpga]dma channel ") != std::string::npos;
    };
    printed.erase(std::find_if(printed.begin(), printed.end(), isOfStop), printed.end());
    std::copy(std::find_if(sound.begin(), sound.end(), isOfStop), sound.end(), std::back_inserter(printed));
}

std::string JudgePrinted(const Remains& run) {
    if (!EndsWithLine(run.out)) return "standard output ends in the middle of a line";
    for (const std::string& line : Lines(run.out)) {
        if (!IsLogLine(line) && line.find("][fpga]") != std::string::npos)
            return "standard output has the line \"" + line + "\"";
    }
    return {};
}

bool HasTimes(const std::vector<std::string>& log) {
    return std::none_of(log.begin(), log.end(),
                        [](const std::string& line) { return line.compare(kLevelSize, 2, kNoTime) == 0; });
}

// How many lines the file may lack at its end, where no later line could count them.
std::size_t LostAtTheEnd(const FaultOfRun* fault) {
    if (fault == nullptr) return 0;
    // Without memory, no file of a new day can be opened.
    if (fault->call == kAllocation && fault->kind->forGood) return std::size_t(-1);
    const bool isOfFile = fault->call == kWrite || fault->call == kOpen || fault->call == kFcntl ||
                          fault->call == kFdopen || fault->call == kLocaltimeR;
    if (!isOfFile) return 0;
    return fault->kind->forGood ? std::size_t(-1) : 1;
}

// A log with nothing to compare it with: its lines are whole, but for the beginning of one before a warning.
std::string JudgeAlone(const std::vector<std::string>& log, std::size_t lastLost) {
    for (std::size_t n = 0; n < log.size(); ++n) {
        if (IsLogLine(log[n])) continue;
        const bool isLast = n + 1 == log.size();
        const bool isCounted = !isLast && (log[n + 1].find(kLostLines) != std::string::npos || IsOfHandler(log[n + 1]));
        if (!isCounted && !(isLast && lastLost > 0)) return "the log has the line \"" + log[n] + "\"";
    }
    return {};
}

// Whether the work is done all the same when it is tried again.
bool IsHarmless(const FaultOfRun* fault) {
    if (fault == nullptr) return false;
    const auto harmless = [](Effect effect) { return effect != Effect::kFail && effect != Effect::kNothing; };
    return harmless(fault->kind->first) && harmless(fault->kind->then);
}

std::string JudgeOutputs(const Remains& run, const Remains& sound, unsigned int closed, const FaultOfRun* fault) {
    // What cannot be printed is lost there, and is in the file all the same.
    const bool isPrinted = (closed & 2) == 0 && (fault == nullptr || fault->call != kStandardOutput);
    const bool isOfOutput = fault != nullptr && fault->call == kStandardOutput;
    if (isOfOutput && IsHarmless(fault) && LogLines(run.out) != LogLines(sound.out))
        return "standard output lacks lines";
    if (!isPrinted && (fault == nullptr || fault->call == kStandardOutput)) return JudgeLog(run.log, sound.log, 0);
    if (!isPrinted) return JudgeAlone(run.log, LostAtTheEnd(fault));
    std::vector<std::string> printed = LogLines(run.out);
    if (MayCutStop(run.report, fault) && run.report.stopped) {
        TakeStopFrom(sound.log, printed);
    } else if (const std::string wrong = JudgePrinted(run); !wrong.empty()) {
        return wrong;
    }
    if (!HasTimes(printed) && (fault == nullptr || fault->call != kLocaltimeR)) return "a line has no time";
    const std::size_t lastLost = LostAtTheEnd(fault);
    if (!run.logEndsWithLine && lastLost == 0) return "a log file ends in the middle of a line";
    return JudgeLog(run.log, printed, lastLost);
}

}  // namespace

Remains ReadRemains(Scene scene, int waitStatus, const std::string& directory) {
    Remains run;
    run.waitStatus = waitStatus;
    const std::string report = ReadFile(directory + "/report");
    run.hasReport = report.size() == sizeof run.report;
    if (run.hasReport) std::copy(report.begin(), report.end(), reinterpret_cast<char*>(&run.report));
    run.out = ReadFile(directory + "/out");
    run.err = ReadFile(directory + "/err");
    run.dayFile = ReadFile(directory + "/" + DayFileOf(scene));
    for (const std::string& path : LogFiles(directory)) {
        const std::string content = ReadFile(path);
        const std::vector<std::string> lines = Lines(content);
        run.log.insert(run.log.end(), lines.begin(), lines.end());
        run.logEndsWithLine = run.logEndsWithLine && EndsWithLine(content);
    }
    return run;
}

std::string Judge(const Remains& run, const Remains& sound, unsigned int closed, const FaultOfRun* fault) {
    std::string wrong = JudgeEnd(run, closed, fault);
    if (wrong.empty()) wrong = JudgeWhatIsLeft(run.report);
    if (wrong.empty()) wrong = JudgeOutputs(run, sound, closed, fault);
    if (wrong.empty()) wrong = JudgeQuotes(run.report, fault);
    if (wrong.empty()) wrong = JudgeDayFile(run, closed, fault);
    // A packet that could not be read waits for the card's next round of the map.
    const bool isOfCard = fault != nullptr && GroupOf(fault->call) == Group::kHardware;
    const bool learned = run.report.started && run.report.thrown == 0 && !isOfCard;
    if (wrong.empty() && learned && run.report.wrongRows > 0)
        wrong = std::to_string(run.report.wrongRows) + " rows of the card are wrong";
    return wrong;
}

}  // namespace sweep
