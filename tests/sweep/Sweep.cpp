#include "tests/sweep/Sweep.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/support/TempDir.h"

namespace sweep {

namespace {

// The run that explores, in its own process.
struct Explorer {
    Scene scene = Scene::kFresh;
    Choice choice;
    std::string root;  // the run is in root/run, each point in root/point
    Remains sound;
    std::vector<std::size_t> chosen[kCallCount];  // numbers of the calls, ascending
    std::size_t points = 0;
    std::ofstream result;
    std::set<std::string> dayFiles;
};
Explorer* g_explorer = nullptr;

void CopyFile(const std::string& from, const std::string& to) {
    const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    char block[65536];
    for (ssize_t got = 0; (got = ::read(in, block, sizeof block)) > 0;) {
        if (::write(out, block, static_cast<std::size_t>(got)) != got) std::abort();
    }
    ::close(in);
    ::close(out);
}

template <typename Use>
void ForEachEntry(const char* directory, Use use) {
    DIR* const all = ::opendir(directory);
    if (all == nullptr) std::abort();
    while (const dirent* entry = ::readdir(all)) {
        if (entry->d_name[0] != '.' || entry->d_name[1] == 'z') use(entry->d_name);
    }
    ::closedir(all);
}

// Gives an open file of the run's directory to the same file of the new directory.
void Reopen(int fd, const std::string& oldDirectory, const std::string& newDirectory) {
    char path[PATH_MAX] = "";
    if (::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path - 1) <= 0) return;
    const std::string target = path;
    if (target.rfind(oldDirectory + "/", 0) != 0) return;
    const int flags = ::fcntl(fd, F_GETFL) & (O_ACCMODE | O_APPEND | O_NONBLOCK);
    const int closes = ::fcntl(fd, F_GETFD) & FD_CLOEXEC;
    const off_t place = ::lseek(fd, 0, SEEK_CUR);
    const int own = ::open((newDirectory + target.substr(oldDirectory.size())).c_str(), flags | O_CLOEXEC);
    if (own < 0) std::abort();
    ::lseek(own, place, SEEK_SET);
    ::dup3(own, fd, closes != 0 ? O_CLOEXEC : 0);
    ::close(own);
}

// The process that has been split off continues with files of its own.
void MoveTo(const std::string& oldDirectory, const std::string& newDirectory) {
    ForEachEntry(".", [&](const char* name) { CopyFile(name, newDirectory + "/" + name); });
    std::vector<int> open;
    ForEachEntry("/proc/self/fd", [&](const char* name) { open.push_back(std::atoi(name)); });
    for (const int fd : open) Reopen(fd, oldDirectory, newDirectory);
    if (::chdir(newDirectory.c_str()) != 0) std::abort();
    NoteStandardStreams();
    NoteFault();
}

// Seconds after which a process counts as hanging; 0: this program waits as long as it takes, and ctest has a limit.
int Patience() {
    const char* const seconds = std::getenv("VEXO_SWEEP_PATIENCE");
    return seconds != nullptr ? std::atoi(seconds) : 0;
}

int WaitFor(pid_t child, bool& hung) {
    const int patience = Patience();
    int status = 0;
    hung = false;
    for (long waited = 0;; ++waited) {
        const pid_t ended = ::waitpid(child, &status, patience > 0 ? WNOHANG : 0);
        if (ended == child) return status;
        if (ended < 0 && errno != EINTR) std::abort();
        if (patience == 0) continue;
        if (waited == patience * 1000L) {
            hung = true;
            ::kill(child, SIGKILL);
        }
        const timespec millisecond{0, 1'000'000};
        ::nanosleep(&millisecond, nullptr);
    }
}

// Not fork(): its handlers wait for locks of the library, which this thread may hold. The thread keeps them.
pid_t Split() { return static_cast<pid_t>(::syscall(SYS_fork)); }

void Keep(const std::string& directory, std::size_t number) {
    const char* const place = std::getenv("VEXO_SOAK_DIR");
    if (place == nullptr) return;
    std::error_code ignored;
    const auto to = std::filesystem::path(place) /
                    ("sweep-" + std::to_string(::getpid()) + "-" + std::to_string(number));
    std::filesystem::copy(directory, to, std::filesystem::copy_options::recursive, ignored);
}

// @return true in the process that has been split off
bool TakePoint(std::size_t call, std::size_t number, const FaultKind& kind) {
    Explorer& x = *g_explorer;
    const std::string directory = x.root + "/point";
    std::filesystem::remove_all(directory);
    std::filesystem::create_directory(directory);
    const pid_t child = Split();
    if (child < 0) std::abort();
    if (child == 0) {
        g_atEnd = nullptr;
        MoveTo(x.root + "/run", directory);
        return true;
    }
    bool hung = false;
    const int status = WaitFor(child, hung);
    ++x.points;
    const Remains run = ReadRemains(x.scene, status, directory);
    const FaultOfRun fault{call, &kind};
    const std::string wrong = hung ? "hangs" : Judge(run, x.sound, x.choice.closed, &fault);
    x.dayFiles.insert(run.dayFile);
    if (wrong.empty()) return false;
    x.result << "finding " << NameOf(x.scene) << ", " << NameOf(call) << " number " << number << ", " << kind.name
             << ": " << wrong << std::endl;
    Keep(directory, x.points);
    return false;
}

bool IsRegisterCall(std::size_t call) {
    using hw_calls::Call;
    return call == HardwareCall(Call::kCoreLock) || call == HardwareCall(Call::kCoreUnlock) ||
           call == HardwareCall(Call::kRead) || call == HardwareCall(Call::kWrite);
}

// A register that fails for good from the long runs on writes hundreds of thousands of lines, and millions where the
// card is cleared: a few such points do.
bool IsTooLong(std::size_t call, std::size_t place, const FaultKind& kind) {
    const auto& chosen = g_explorer->chosen[call];
    if (!IsRegisterCall(call) || !kind.forGood || 2 * place >= chosen.size()) return false;
    return g_explorer->scene == Scene::kReset || !g_explorer->choice.all || place % 40 != 20;
}

Effect TakeCall(std::size_t call, std::size_t number) {
    const auto& chosen = g_explorer->chosen[call];
    const auto found = std::lower_bound(chosen.begin(), chosen.end(), number);
    if (found == chosen.end() || *found != number) return Effect::kPass;
    const auto place = static_cast<std::size_t>(found - chosen.begin());
    for (const FaultKind& kind : KindsOf(call)) {
        if (!IsTooLong(call, place, kind) && TakePoint(call, number, kind)) return Begin(call, kind);
    }
    return Effect::kPass;
}

// The first and the last calls, and as many evenly between them.
std::vector<std::size_t> Some(std::size_t count, std::size_t most) {
    std::set<std::size_t> numbers;
    if (count <= most) {
        for (std::size_t n = 1; n <= count; ++n) numbers.insert(n);
    } else {
        const std::size_t third = std::max<std::size_t>(most / 3, 1);
        for (std::size_t n = 0; n < third; ++n) {
            numbers.insert(n + 1);
            numbers.insert(count - n);
            numbers.insert(1 + n * (count - 1) / third);
        }
    }
    return {numbers.begin(), numbers.end()};
}

// Runs @p body in a process of its own with the working directory @p directory.
template <typename Body>
int InProcess(const std::string& directory, Body body) {
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child < 0) std::abort();
    if (child == 0) {
        if (::chdir(directory.c_str()) != 0) std::abort();
        body();
    }
    bool hung = false;
    return WaitFor(child, hung);
}

void WriteCounts() {
    std::ofstream file("counts");
    for (const std::size_t count : g_counts) file << count << ' ';
}

void WriteResult() {
    for (const std::string& dayFile : g_explorer->dayFiles) {
        std::string oneLine = dayFile;
        std::replace(oneLine.begin(), oneLine.end(), '\n', '|');
        g_explorer->result << "dayfile " << oneLine << '\n';
    }
    g_explorer->result << "points " << g_explorer->points << std::endl;
}

void Choose(Explorer& x) {
    std::ifstream file(x.root + "/sound/counts");
    for (std::size_t call = 0; call < kCallCount; ++call) {
        std::size_t count = 0;
        file >> count;
        if (GroupOf(call) != x.choice.group) continue;
        const bool every = x.choice.all && !IsRegisterCall(call);
        x.chosen[call] = Some(count, every ? count : x.choice.perCall);
    }
}

[[noreturn]] void ExploreHere(Explorer& x) {
    Prepare(x.scene);
    x.result.open(x.root + "/result");
    g_explorer = &x;
    g_atEnd = &WriteResult;
    ShowTo(&TakeCall);
    Play(x.scene, x.choice.closed);
}

void TakeResult(const std::string& path, Result& result) {
    std::ifstream file(path);
    bool isWhole = false;
    std::string kind;
    for (std::string line; file >> kind && std::getline(file, line);) {
        line.erase(0, 1);
        if (kind == "finding") result.findings.push_back(line);
        if (kind == "points") result.points = std::stoul(line), isWhole = true;
        std::replace(line.begin(), line.end(), '|', '\n');
        if (kind == "dayfile") result.dayFiles.push_back(line);
    }
    if (!isWhole) result.findings.emplace_back("the run that explores did not come to its end");
}

bool WatchesOutput(Group group) { return group == Group::kStandardOutput; }

}  // namespace

Result Explore(Scene scene, const Choice& choice) {
    const test_support::TempDir directory;
    Explorer x;
    x.scene = scene;
    x.choice = choice;
    x.root = directory.Path();
    for (const char* name : {"/sound", "/run"}) std::filesystem::create_directory(x.root + name);
    const auto watch = [&choice] {
        if (WatchesOutput(choice.group) && !WatchStandardOutput()) std::abort();
    };
    const int status = InProcess(x.root + "/sound", [&] {
        watch();
        Prepare(scene);
        g_atEnd = &WriteCounts;
        Play(scene, choice.closed);
    });
    x.sound = ReadRemains(scene, status, x.root + "/sound");
    Result result;
    const std::string wrong = Judge(x.sound, x.sound, choice.closed, nullptr);
    if (!wrong.empty()) result.findings.push_back(std::string(NameOf(scene)) + " without a fault: " + wrong);
    Choose(x);
    InProcess(x.root + "/run", [&] {
        watch();
        ExploreHere(x);
    });
    TakeResult(x.root + "/result", result);
    return result;
}

Remains PlayOnce(Scene scene, unsigned int closed, const std::string* dayFile) {
    const test_support::TempDir directory;
    const int status = InProcess(directory.Path(), [&] {
        if (dayFile != nullptr) std::ofstream(DayFileOf(scene)) << *dayFile;
        Prepare(scene);
        Play(scene, closed);
    });
    return ReadRemains(scene, status, directory.Path());
}

}  // namespace sweep
