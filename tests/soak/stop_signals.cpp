// Sends SIGINT and SIGTERM to programs on the library at random instants: one signal must end the process, and every
// line of the log file must be whole.
//
//     stop_signals COUNT SEED
//
// Works in a new directory below the current one, which it removes when it finds nothing. VEXO_SOAK_MINUTES ends it
// earlier. Start-ups are whole ones. For all other moments this program starts the library once,
// receives its first quotes, and then makes a copy of itself for each signal. Ends with one line of figures; status 1
// when something was found. Its clock shows a day of its own, so that it meets no day file of another program.

#include <VexoZceMdApi.h>
#include <enyx-sim/enyx_sim.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <string>

#include "tests/support/MovedClock.h"
#include "tests/support/QuoteCallbacks.h"

namespace {

using moved_clock::g_offset;
using moved_clock::kMorning;
using moved_clock::RealTime;

constexpr const char* kIni =
    "[config]\ndevice = xilinx0:0\nBIN_DELAY_TIME = 0\nL5_IPA = 239.3.50.1\nL5_IPB = 239.3.51.1\nL5_PORT = 18501\n"
    "L1_IPA = 239.3.10.1\nL1_IPB = 239.3.11.1\nL1_PORT = 18101\n[version]\n1.1.2.12 = 11\n1.1.2.13 = 12\n"
    "[channel0]\ninsts = SR, CF\noptions = norecv\nips = recv\nspd = recv\n";
constexpr const char* kCard = "card.learning_ms=1\ncard.map_round_ms=5\npace.pace=max";
constexpr std::time_t kDay = 86400;
constexpr int kLongest = 120'000;  // milliseconds until a process counts as one that does not end

enum Moment { kStartUp, kPolling, kCallbacks, kLogging, kDaySwitch, kFullPipe, kStalledTerminal, kMoments };
constexpr const char* kNames[kMoments] = {"start-ups",    "polls",      "callbacks",        "log lines",
                                          "day switches", "full pipes", "stalled terminals"};

class Application : public QuoteCallbacks {
public:
    unsigned long quotes = 0;

private:
    int OnQuote(int, const unsigned char* data) override {
        ++quotes;
        for (int n = 0; n < 100; ++n) m_work = m_work + data[n % 16];
        return 0;
    }
    volatile unsigned m_work = 0;
};

Application g_application;
IVexoZceMdApi* g_api = nullptr;

void Start() {
    g_api = IVexoZceMdApi::CreateVexoZceMdApi();
    if (g_api->VexoStart(g_application, "zce.ini") != 0) std::_Exit(3);
}

[[noreturn]] void ReceiveUntilStopped() {
    while (g_api->VexoRecv() != -1) {
    }
    IVexoZceMdApi::DestroyVexoZceMdApi(*g_api);
    std::exit(0);
}

// A packet of a type that the library does not know: it logs a line.
void PushStrange() {
    unsigned char packet[64] = {};
    const std::uint32_t type = 99;
    std::memcpy(packet, &type, sizeof type);
    enyx_sim_push(0, 0, packet, sizeof packet, 0);
}

[[noreturn]] void LogUntilStopped(bool switchesDays) {
    enyx_sim_pause_feed(0, 1);
    for (std::time_t other = kDay;; other = -other) {
        PushStrange();
        if (switchesDays) g_offset += other;
        for (int result = 1; result != 0;)
            if ((result = g_api->VexoRecv()) == -1) ReceiveUntilStopped();
    }
}

// The two ends of a pipe or a terminal. The second one has a description of its own in `filler`, which does not block.
struct Channel {
    int reader = -1;
    int writer = -1;
    int filler = -1;

    bool IsOpen() const { return writer >= 0; }
    void FillBut(std::size_t bytes) const {
        const std::string block(512, '.');
        while (write(filler, block.data(), block.size()) > 0) {
        }
        while (write(filler, ".", 1) > 0) {
        }
        std::string taken(bytes, '\0');
        if (bytes > 0 && read(reader, taken.data(), bytes) < 0) std::perror("read");
    }
    void Close() const {
        for (const int end : {reader, writer, filler}) close(end);
    }
};

Channel OpenPipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return {};
    fcntl(ends[1], F_SETPIPE_SZ, 4096);
    const std::string self = "/proc/self/fd/" + std::to_string(ends[1]);
    return {ends[0], ends[1], open(self.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)};
}

Channel OpenTerminal() {
    const int leader = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    const char* name = leader >= 0 && grantpt(leader) == 0 && unlockpt(leader) == 0 ? ptsname(leader) : nullptr;
    const int end = name != nullptr ? open(name, O_RDWR | O_NOCTTY | O_CLOEXEC) : -1;
    if (end < 0) close(leader);
    if (end < 0) return {};
    return {leader, end, open(name, O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)};
}

[[noreturn]] void Run(Moment moment, const Channel& output) {
    if (output.IsOpen()) dup2(output.writer, STDOUT_FILENO);
    switch (moment) {
        case kStartUp: Start(); ReceiveUntilStopped();
        case kPolling: enyx_sim_pause_feed(0, 1); ReceiveUntilStopped();
        case kCallbacks: ReceiveUntilStopped();
        default: LogUntilStopped(moment == kDaySwitch);
    }
}

struct End {
    bool inTime = true;
    int status = -1;
};

End WaitFor(pid_t pid) {
    End end;
    for (int ms = 0; ms < kLongest; ++ms) {
        if (waitpid(pid, &end.status, WNOHANG) == pid) return end;
        usleep(1000);
    }
    end.inTime = false;
    kill(pid, SIGKILL);
    waitpid(pid, &end.status, 0);
    return end;
}

class Campaign {
public:
    explicit Campaign(unsigned seed) : m_random(seed) {}

    bool IsOver() const {
        const char* minutes = std::getenv("VEXO_SOAK_MINUTES");
        return minutes != nullptr && *minutes != '\0' && RealTime() - m_begin > std::atol(minutes) * 60;
    }

    void Send(Moment moment, unsigned longestWaitUs) {
        Channel output;
        if (moment == kFullPipe) output = OpenPipe();
        if (moment == kStalledTerminal) output = OpenTerminal();
        if (output.IsOpen()) output.FillBut(m_random() % 600);
        std::fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) Run(moment, output);
        const int signal = m_random() % 2 == 0 ? SIGINT : SIGTERM;
        usleep(static_cast<useconds_t>(m_random() % longestWaitUs));
        kill(pid, signal);
        Judge(moment, signal, WaitFor(pid));
        if (output.IsOpen()) output.Close();
        ++m_sent[moment];
    }

    // Until the library has its handlers, a signal has its ordinary effect.
    void Judge(Moment moment, int signal, const End& end) {
        const bool orderly = WIFEXITED(end.status) && WEXITSTATUS(end.status) == 0;
        const bool byDefault = moment == kStartUp && WIFSIGNALED(end.status) && WTERMSIG(end.status) == signal;
        if (orderly) ++m_orderly;
        if (end.inTime && (orderly || byDefault)) return;
        ++m_findings;
        std::fprintf(stderr, "FOUND: signal %d among %s: %s, status 0x%x\n", signal, kNames[moment],
                     end.inTime ? "the process did not end as it should" : "one signal did not end the process",
                     static_cast<unsigned>(end.status));
    }

    void ReadLogs() {
        const std::regex whole(
            R"(\[(ERROR  |WARN   |INFO   |DEBUG  )\]\[\d{8}-\d\d:\d\d:\d\d\]\[(fpga|log)\](?!.*\]\[\d{8}-).*)");
        unsigned long told = 0;
        for (const auto& entry : std::filesystem::directory_iterator(".")) {
            const std::string name = entry.path().filename();
            if (name.rfind("fpga_", 0) != 0) continue;
            std::ifstream file(name);
            for (std::string line; std::getline(file, line); ++m_lines) {
                if (!std::regex_match(line, whole) || file.eof()) Torn(name, line);
                if (line.find("Received signal ") != std::string::npos) ++told;
            }
        }
        if (told == m_orderly) return;
        ++m_findings;
        std::fprintf(stderr, "FOUND: %lu processes ended in order, and %lu lines tell of a signal\n", m_orderly, told);
    }

    int Report() const {
        unsigned long all = 0;
        std::string parts;
        for (int moment = 0; moment < kMoments; ++moment) {
            all += m_sent[moment];
            parts += std::string(moment == 0 ? "" : ", ") + std::to_string(m_sent[moment]) + " " + kNames[moment];
        }
        if (m_sent[kStalledTerminal] == 0) parts += " (skipped: there are no terminals here)";
        std::printf("%lu signals (%s); %lu orderly ends; %lu log lines; %lu findings\n", all, parts.c_str(), m_orderly,
                    m_lines, m_findings);
        return m_findings == 0 ? 0 : 1;
    }

private:
    void Torn(const std::string& name, const std::string& line) {
        ++m_findings;
        std::fprintf(stderr, "FOUND: torn line in %s: %s\n", name.c_str(), line.c_str());
    }

    std::mt19937 m_random;
    std::time_t m_begin = RealTime();
    unsigned long m_sent[kMoments] = {};
    unsigned long m_orderly = 0;
    unsigned long m_lines = 0;
    unsigned long m_findings = 0;
};

std::string DayFile(std::time_t day) {
    std::tm local{};
    localtime_r(&day, &local);
    char name[64];
    std::strftime(name, sizeof name, "/tmp/.zce_%Y%m%d_am", &local);
    return name;
}

// @return how long a start-up takes up to its first quote, in microseconds
unsigned MeasureStartUp() {
    timespec begin{};
    clock_gettime(CLOCK_MONOTONIC, &begin);
    const pid_t pid = fork();
    if (pid == 0) {
        Start();
        while (g_application.quotes == 0) g_api->VexoRecv();
        std::_Exit(0);
    }
    waitpid(pid, nullptr, 0);
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    return static_cast<unsigned>((end.tv_sec - begin.tv_sec) * 1'000'000 + (end.tv_nsec - begin.tv_nsec) / 1000);
}

void StartUps(Campaign& campaign, unsigned count, const std::string& dayFile) {
    const unsigned longest = MeasureStartUp() * 6 / 5;
    for (unsigned n = 0; n < count && !campaign.IsOver(); ++n) {
        if (n % 2 == 0) unlink(dayFile.c_str());
        campaign.Send(kStartUp, longest);
    }
}

void AllOtherMoments(Campaign& campaign, unsigned count) {
    Start();
    while (g_application.quotes < 10) g_api->VexoRecv();
    const Channel terminal = OpenTerminal();
    if (terminal.IsOpen()) terminal.Close();
    for (unsigned n = 0; n < count && (n < kMoments || !campaign.IsOver()); ++n) {
        const Moment moment = static_cast<Moment>(kPolling + n % (kMoments - 1));
        campaign.Send(moment == kStalledTerminal && !terminal.IsOpen() ? kFullPipe : moment, 4000);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    // A shell that starts a command in the background lets it ignore SIGINT.
    ::signal(SIGINT, SIG_DFL);
    const unsigned count = static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10));
    setenv("TZ", "Asia/Shanghai", 1);
    setenv("VEXO_SIM_CARD", "embedded", 1);
    setenv("VEXO_SIM_SET", kCard, 1);
    char directory[] = "signals.XXXXXX";
    if (mkdtemp(directory) == nullptr || chdir(directory) != 0) return 2;
    std::ofstream("zce.ini") << kIni;
    const std::time_t morning = kMorning + (2 + getpid() % 4000) * kDay;
    g_offset = morning - RealTime();
    const int real = dup(STDOUT_FILENO);
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 2;
    Campaign campaign(static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)));
    StartUps(campaign, count / 5, DayFile(morning));
    AllOtherMoments(campaign, count - count / 5);
    unlink(DayFile(morning).c_str());
    campaign.ReadLogs();
    std::fflush(stdout);
    dup2(real, STDOUT_FILENO);
    const int status = campaign.Report();
    if (status == 0 && chdir("..") == 0) std::filesystem::remove_all(directory);
    return status;
}
