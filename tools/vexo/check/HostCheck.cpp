#include "tools/vexo/check/HostCheck.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "VexoZceSession.h"
#include "VexoZceUtil.h"
#include "tools/vexo/check/DayFileState.h"
#include "tools/vexo/check/Quiet.h"
#include "tools/vexo/check/SimRun.h"

namespace vexo::check {

namespace {

constexpr char kHost[] = "host";
constexpr std::uintmax_t kMegabyte = 1'000'000;

std::string firstLineOf(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

bool isAllowed(const char* path, int how) { return ::faccessat(AT_FDCWD, path, how, AT_EACCESS) == 0; }

std::string todaysLog() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char name[32];
    std::strftime(name, sizeof name, "fpga_%Y%m%d.log", &local);
    return name;
}

long utcOffsetNow() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    return local.tm_gmtoff;
}

// UTC+8, UTC-3:30
std::string zoneName(long utcOffset) {
    const long minutes = std::labs(utcOffset) / 60;
    char text[32];
    std::snprintf(text, sizeof text, minutes % 60 == 0 ? "UTC%c%ld" : "UTC%c%ld:%02ld", utcOffset < 0 ? '-' : '+',
                  minutes / 60, minutes % 60);
    return text;
}

// Asks the kernel as the library does, then puts everything back. Empty when the thread can be pinned.
std::string whyNotPinned(long cpu) {
    cpu_set_t before;
    if (::sched_getaffinity(0, sizeof before, &before) != 0) return {};
    cpu_set_t one;
    CPU_ZERO(&one);
    if (cpu >= 0 && cpu < CPU_SETSIZE) CPU_SET(static_cast<std::size_t>(cpu), &one);
    const std::string why = ::sched_setaffinity(0, sizeof one, &one) == 0 ? "" : std::strerror(errno);
    ::sched_setaffinity(0, sizeof before, &before);
    return why;
}

}  // namespace

bool listHas(const std::string& list, long number) {
    std::istringstream text(list);
    for (std::string part; std::getline(text, part, ',');) {
        char* end = nullptr;
        const long first = std::strtol(part.c_str(), &end, 10);
        if (end == part.c_str()) continue;
        const long last = *end == '-' ? std::strtol(end + 1, nullptr, 10) : first;
        if (number >= first && number <= last) return true;
    }
    return false;
}

bool checkBoard(Report& report) {
    const Quiet quiet;  // a host without lspci has no board for the library either
    const auto add = [&](Level level, const std::string& what, const std::string& todo) {
        report.add({level, kHost, 0, what, todo});
    };
    std::string simulated = isUnderSimRun() ? simulatedLibrary() : "";
    const int board = simulated.empty() ? CheckEnvBoard() : 0;
    if (board == 0) {
        if (simulated.empty()) simulated = simulatedLibrary();
        if (simulated.empty())
            add(Level::kError, "lspci shows no card",
                "look at the card and at whether lspci is installed; for the simulated card, put vexo sim run -- "
                "before the command");
        else
            add(Level::kNote, "a start from here gets the simulated card of " + simulated, "");
        return false;
    }
    add(Level::kNote, board >= 3 ? "lspci shows several cards" : "lspci shows a card", "");
    const bool needsXi = board == 2 || board == 4 || board == 5;
    if (needsXi && !IsXiDriverInstalled())
        add(Level::kError, "lsmod shows no driver xdma, which a Xilinx card needs", "load it: modprobe xdma");
    if (board == 5) add(Level::kNote, "cards of both makes are present", "device counts the cards of its driver alone");
    if (IsProdProgRunning())
        add(Level::kNote, "the process RwDeliverDmaServer is running", "it may hold streams of the card");
    return true;
}

void checkCpu(const ConfigFacts& facts, const HostPlaces& places, Report& report) {
    if (facts.cpu == -1) return;
    const std::string cpu = "CPU " + std::to_string(facts.cpu);
    const auto add = [&](Level level, const std::string& what, const std::string& todo) {
        report.add({level, facts.file, facts.cpuLine, "[config] cpucore: " + what, todo});
    };
    const std::string online = firstLineOf(places.cpus + "/online");
    if (!online.empty() && !listHas(online, facts.cpu)) {
        add(Level::kError, cpu + " is not online; the thread is not pinned", "give one of " + online);
        return;
    }
    const std::string why = whyNotPinned(facts.cpu);
    if (!why.empty()) {
        add(Level::kError, "a thread cannot be pinned to " + cpu + " here: " + why,
            "give a CPU that this user's processes may use");
        return;
    }
    const std::string isolated = firstLineOf(places.cpus + "/isolated");
    if (!listHas(isolated, facts.cpu))
        add(Level::kWarning, cpu + " is not isolated; other work may delay the thread",
            isolated.empty() ? "boot with isolcpus=" + std::to_string(facts.cpu) : "give one of " + isolated);
}

void checkDirectory(const HostPlaces& places, Report& report) {
    const auto add = [&](Level level, const std::string& what, const std::string& todo) {
        report.add({level, places.directory, 0, what, todo});
    };
    struct stat status;
    if (::stat(places.directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        add(Level::kFatal, "there is no such directory", "name the directory in which the program will run");
        return;
    }
    if (!isAllowed(places.directory.c_str(), W_OK | X_OK)) {
        add(Level::kFatal, "this user cannot write here, so there can be no log; VexoStart returns -1",
            "start in a directory that this user can write");
        return;
    }
    if (!isAllowed(places.directory.c_str(), R_OK))
        add(Level::kFatal, "this user cannot read this directory; a master ends at start-up, outside trading hours",
            "start as its owner, or in another directory");
    const std::string log = places.directory + "/" + todaysLog();
    if (isAllowed(log.c_str(), F_OK) && !isAllowed(log.c_str(), W_OK))
        add(Level::kFatal, todaysLog() + " is there, and this user cannot write it",
            "remove or move it, or start as its owner");
    std::error_code error;
    const std::filesystem::space_info space = std::filesystem::space(places.directory, error);
    // Root may use what is reserved. What has no size, as memory without a limit, does not tell what is free either.
    if (!error && space.capacity != 0)
        checkSpace(places.directory, ::geteuid() == 0 ? space.free : space.available, report);
}

void checkSpace(const std::string& directory, std::uintmax_t bytes, Report& report) {
    if (bytes < kMegabyte)
        report.add({Level::kError, directory, 0, "0 MB free; the log and the output are lost", "make room"});
}

void checkTimeZone(long utcOffset, Report& report) {
    constexpr long kExchange = vexo_zce::kExchangeUtcOffset;
    if (utcOffset == kExchange) return;
    report.add({Level::kWarning, kHost, 0,
                "the local time is " + zoneName(utcOffset) + ", the exchange's is " + zoneName(kExchange) +
                    "; the library decides reset, day file and log by the local time",
                "set the time zone of the host, or TZ=Asia/Shanghai for the program"});
}

void checkSimulatedCards(const std::vector<ConfigFacts>& programs, Report& report) {
    if (simulatedLibrary().empty()) return;
    for (const ConfigFacts& program : programs)
        if (program.device.valid && !hasSimulatedCard(program.device.card))
            report.add({Level::kFatal, program.file, program.deviceLine,
                        "vexo sim run has no simulated card with this number",
                        "correct device, or start vexo-simcard --bus " + std::to_string(program.device.card)});
}

// All real cards have one day file, each simulated card has its own.
void checkDayFiles(const std::set<std::uint32_t>& cards, bool hasCard, Report& report) {
    std::set<std::string> directories;
    for (const std::uint32_t card : cards) directories.insert(dayFileDirectory(card));
    for (const std::string& directory : directories) {
        if (directory.empty()) continue;  // there is no such card
        const bool isPrivate = directory != kSharedDayFiles;
        report.add(findingOf(stateOfDayFile(directory + todaysDayFile(std::time(nullptr))), hasCard, isPrivate));
    }
}

void checkHost(const std::vector<ConfigFacts>& programs, const HostPlaces& places, Report& report) {
    report.add({Level::kNote, kHost, 0, std::string("checked for user ") + GetCurUserName(), ""});
    checkTimeZone(utcOffsetNow(), report);
    const bool hasCard = checkBoard(report);
    std::set<std::uint32_t> mastersCards;
    for (const ConfigFacts& facts : programs) {
        checkCpu(facts, places, report);
        if (facts.device.valid && facts.device.channel == 0) mastersCards.insert(facts.device.card);
    }
    if (!places.cardIsRead && isUnderSimRun() && !hasCard) checkSimulatedCards(programs, report);
    checkDirectory(places, report);
    checkDayFiles(mastersCards, hasCard, report);
}

}  // namespace vexo::check
