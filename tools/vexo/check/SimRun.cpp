#include "tools/vexo/check/SimRun.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/cardtest/CardUnderTest.h"
#include "tools/vexo/Failure.h"
#include "tools/vexo/show/DayFileReport.h"

namespace vexo::check {
namespace {

constexpr char kDayFilesVariable[] = "VEXO_SIM_DAY_FILES";  // set by `vexo sim run`, empty with --shared-day-file
constexpr std::uint32_t kCards = 5;

// What a process that loads the card's library finds. Plain data: it comes through a pipe.
struct Answer {
    char library[PATH_MAX] = "";  // empty: the loader finds none
    bool isSimulated = false;
    bool hasCard = false;
    std::uint64_t key = 0;  // of the card; names the directory of its day files
};

// In a process of its own: the card's key counts all cards that the process has opened.
Answer look(std::optional<std::uint32_t> bus) {
    Answer answer;
    std::string error;
    if (!cardtest::loadCardLibrary(error)) return answer;
    std::snprintf(answer.library, sizeof answer.library, "%s", cardtest::libraryInUse().c_str());
    answer.isSimulated = ::dlsym(RTLD_DEFAULT, "enyx_sim_is_simulated") != nullptr;
    const auto keyOf = reinterpret_cast<int (*)(std::uint64_t*)>(::dlsym(RTLD_DEFAULT, "enyx_sim_card_key"));
    if (!bus || keyOf == nullptr) return answer;
    try {
        cardtest::openCard(*bus);
        answer.hasCard = keyOf(&answer.key) == 0;
    } catch (const cardtest::Untestable&) {
        // there is no card at this bus
    }
    return answer;
}

[[noreturn]] void lookAndTell(std::optional<std::uint32_t> bus, int pipe) {
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere >= 0) ::dup2(nowhere, STDERR_FILENO);  // the library greets there
    const Answer answer = look(bus);
    ::_exit(::write(pipe, &answer, sizeof answer) == sizeof answer ? 0 : 1);
}

bool readWhole(int pipe, Answer& answer) {
    std::size_t done = 0;
    while (done < sizeof answer) {
        const ssize_t n = ::read(pipe, reinterpret_cast<char*>(&answer) + done, sizeof answer - done);
        if (n == 0 || (n < 0 && errno != EINTR)) return false;
        if (n > 0) done += static_cast<std::size_t>(n);
    }
    return true;
}

Answer ask(std::optional<std::uint32_t> bus) {
    int ends[2];
    Answer answer;
    if (::pipe2(ends, O_CLOEXEC) != 0) return answer;
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) lookAndTell(bus, ends[1]);
    ::close(ends[1]);
    if (child < 0 || !readWhole(ends[0], answer)) answer = {};
    ::close(ends[0]);
    while (child > 0 && ::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    return answer;
}

std::string directoryOf(const std::string& all, std::uint64_t key) {
    char name[32];
    std::snprintf(name, sizeof name, "/card-%016" PRIx64, key);
    return all + name;
}

}  // namespace

bool isUnderSimRun() { return std::getenv(kDayFilesVariable) != nullptr; }

std::string simulatedLibrary() {
    const Answer answer = ask(std::nullopt);
    return answer.isSimulated ? answer.library : "";
}

bool hasSimulatedCard(std::uint32_t bus) {
    const Answer answer = ask(bus);
    return answer.isSimulated && answer.hasCard;
}

std::string dayFileDirectory(std::optional<std::uint32_t> bus) {
    const char* const all = std::getenv(kDayFilesVariable);
    if (all == nullptr || *all == '\0') return kSharedDayFiles;
    for (std::uint32_t at = bus.value_or(0); at < kCards; ++at) {
        const Answer answer = ask(at);
        if (*answer.library != '\0' && !answer.isSimulated) {
            // What `vexo sim run` loads into each program leaves the files of a real card where they are, once it sees
            // the real card's library in the process.
            std::string ignored;
            cardtest::loadCardLibrary(ignored);
            return kSharedDayFiles;
        }
        if (answer.hasCard) return directoryOf(all, answer.key);
        if (bus) break;
    }
    return {};
}

std::string dayFileOfStart() {
    const std::string directory = dayFileDirectory(std::nullopt);
    if (directory.empty())
        throw Failure(kFinding,
                      "vexo sim run has no simulated card here, so a start looks for no day file\n"
                      "vexo index --sim shows the day files of all simulated cards.");
    return currentDayFile(directory);
}

}  // namespace vexo::check
