#include "tests/sweep/Scene.h"

#include <enyx-sim/enyx_sim.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "VexoZceMdApi.h"
#include "VexoZceUtil.h"
#include "tests/support/FakeTime.h"
#include "tests/support/MapPacket.h"
#include "tests/support/QuoteCallbacks.h"
#include "tests/sweep/FaultPoints.h"

namespace sweep {

namespace {

constexpr char kIni[] =
    "[version]\n1.1.2.12 = 1\n1.1.2.13 = 13\n"
    "[config]\ndevice = xilinx0:0\nBIN_DELAY_TIME = 0\ncpucore = 0\nczce_level1 = enabled\n"
    "L5_IPA = 224.0.1.2\nL5_PORT = 5001\nL1_IPA = 224.0.2.2\nL1_PORT = 5002\n"
    "L5_DSTMAC = 00:11:22:33:44:55\nL5_DSTIP = 10.0.0.1\nL5_DSTPORT = 6001\n"
    "[channel0]\ninsts = SR, CF705, TA, CF709\noptions = recv\nips = recv\nspd = recv\n"
    "[channel2]\ninsts = SR705\noptions = norecv\n";

struct Instrument {
    const char* id;
    std::uint16_t index;
    std::uint32_t table;
    std::uint32_t mask;  // which channels the rules above give it to
};

// In the order in which the card announces them. Three packets hold four each.
constexpr Instrument kInstruments[] = {
    {"SR705", 0, 0, 5},
    {"SR705C6000", 1, 0, 1},
    {"CF705", 2, 0, 1},
    {"TA705", 4094, 0, 1},
    {"SPD-SR705/SR709", 0, 1, 1},
    {"IPS-SF705/SM705", 9, 1, 1},
    {"MA705", 11, 0, 0},
    {"SR709", 12, 0, 1},
    {"LONG-NAME-OF-THIRTY-CHARACTERS", 13, 0, 0},
    {"TA705P4800", 14, 0, 1},
    {"TA709", 15, 0, 1},
    {"CF709", 16, 0, 1},  // configured: the map is complete with it
};
constexpr std::size_t kPerPacket = 4;
constexpr std::size_t kMapPackets = sizeof kInstruments / sizeof *kInstruments / kPerPacket;

struct Moment {
    int day, hour, minute, second;
};
// No reset is due at these times, as the card has the right date and does not decode.
constexpr int kYear = 2064, kMonth = 5;
constexpr Moment kEvening = {6, 23, 29, 0};
constexpr Moment kMorning = {6, 9, 30, 0};

Report g_report;
std::set<int> g_descriptors;  // before the library opened any
struct stat g_streams[3];     // what they were at the beginning
unsigned int g_closedStreams = 0;

// Counts what it gets; each quote has its number in its payload.
class CountingSpi : public QuoteCallbacks {
    int OnQuote(int type, const unsigned char* data) override {
        std::uint64_t number = 0;
        std::memcpy(&number, data, sizeof number);
        const std::uint64_t expected = ++g_report.quotes;
        if (number != expected || type != static_cast<int>(17 + number % 4)) ++g_report.outOfTurn;
        return 0;
    }
};

std::set<int> OpenDescriptors() {
    std::set<int> open;
    for (int fd = 0; fd < 256; ++fd) {
        if (::fcntl(fd, F_GETFD) >= 0) open.insert(fd);
    }
    return open;
}

bool Names(int fd, const char* start) {
    char link[32], target[512] = "";
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    return ::readlink(link, target, sizeof target - 1) > 0 && std::strstr(target, start) != nullptr;
}

// The library keeps its log file and its day file open until the process ends, and nothing else.
std::uint64_t ForgottenDescriptors() {
    std::uint64_t logs = 0, dayFiles = 0, others = 0;
    for (const int fd : OpenDescriptors()) {
        if (g_descriptors.count(fd) != 0) continue;
        ++(Names(fd, "/fpga_") ? logs : Names(fd, "/.zce_") ? dayFiles : others);
    }
    return others + (logs > 1 ? logs - 1 : 0) + (dayFiles > 1 ? dayFiles - 1 : 0);
}

void CheckStandardStreams() {
    for (int fd = 0; fd < 3; ++fd) {
        struct stat now {};
        const bool isOpen = ::fstat(fd, &now) == 0;
        const bool wasClosed = (g_closedStreams >> fd & 1) != 0;
        const bool same = wasClosed ? !isOpen : isOpen && now.st_ino == g_streams[fd].st_ino;
        if (!same) ++g_report.lowTaken;
    }
}

void CountHandles() {
    enyx_sim_handles handles;
    enyx_sim_count_handles(&handles);
    // The library caches the register space. When the accelerator cannot be got, one descriptor stays.
    const std::uint32_t descriptors = handles.accelerator_descriptors > 0 ? handles.accelerator_descriptors - 1 : 0;
    g_report.handles = handles.filters + descriptors + handles.mmio_descriptors + handles.a2c_descriptors +
                       handles.c2a_descriptors;
    // A start that fails leaves the streams that it has opened to the end of the process.
    if (g_report.phase == Phase::kDone) g_report.handles += handles.a2c_streams + handles.c2a_streams;
    g_report.misuses = handles.misuses;
}

void CheckRows() {
    for (const Instrument& one : kInstruments) {
        std::uint32_t mask = 0;
        if (enyx_sim_table_word(0, one.table, one.index, 0, &mask) != 0 || mask != one.mask) ++g_report.wrongRows;
    }
}

void WriteReport() {
    const int fd = ::open("report", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, &g_report, sizeof g_report) != sizeof g_report) std::abort();
    ::close(fd);
}

[[noreturn]] void End(int status) {
    const Disarmed pause;
    std::fflush(stdout);
    g_report.forgotten = ForgottenDescriptors();
    CheckStandardStreams();
    CountHandles();
    if (g_report.phase == Phase::kDone) CheckRows();
    WriteReport();
    if (g_atEnd != nullptr) g_atEnd();
    ::_exit(status);
}

// The library ends the process when a start fails.
void OnExit(int status, void*) { End(status); }

void OpenStreams(unsigned int closed) {
    g_closedStreams = closed;
    for (const auto& [name, fd] : {std::pair{"out", 1}, std::pair{"err", 2}}) {
        const int file = ::open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        ::dup2(file, fd);
        ::close(file);
    }
    for (int fd = 0; fd < 3; ++fd) {
        if ((closed >> fd & 1) != 0) ::close(fd);
    }
    NoteStandardStreams();
}

void PowerOn(Scene scene) {
    enyx_sim_config config;
    enyx_sim_default_config(&config);
    config.instruments = ENYX_SIM_INSTRUMENTS_NONE;
    enyx_sim_power_cycle(&config);
    std::vector<enyx_sim_instrument> list;
    for (const Instrument& one : kInstruments) {
        enyx_sim_instrument entry{};
        entry.table = one.table;
        entry.row = one.index;
        std::snprintf(entry.id, sizeof entry.id, "%s", one.id);
        list.push_back(entry);
    }
    enyx_sim_set_instruments(0, list.data(), list.size());
    enyx_sim_pause_feed(0, 1);
    constexpr std::uint32_t kTradingDate = 0x106;
    constexpr std::uint32_t kToday = kYear * 10000 + kMonth * 100 + kEvening.day;
    enyx_sim_poke_register(0, kTradingDate, scene == Scene::kReset ? kToday - 1 : kToday);
}

void Push(const void* packet, std::size_t size) { enyx_sim_push(0, 0, packet, static_cast<std::uint32_t>(size), 0); }

void PushMap(std::size_t number) {
    MapPacket packet;
    for (std::size_t n = number * kPerPacket; n < (number + 1) * kPerPacket; ++n)
        packet.Add(kInstruments[n].id, kInstruments[n].index);
    Push(packet.Bytes().data(), packet.Bytes().size());
}

void PushQuote(std::uint64_t number) {
    unsigned char packet[12 + 200] = {static_cast<unsigned char>(17 + number % 4)};
    std::memcpy(packet + 12, &number, sizeof number);
    Push(packet, sizeof packet);
}

int Receive(IVexoZceMdApi& api) {
    const Armed library;
    try {
        return api.VexoRecv();
    } catch (const std::bad_alloc&) {
        const Disarmed application;
        ++g_report.thrown;
        return 0;
    }
}

void ReceiveTimes(IVexoZceMdApi& api, std::size_t times) {
    for (std::size_t n = 0; n < times; ++n) Receive(api);
    CheckStandardStreams();
}

void ReceiveOddPackets(IVexoZceMdApi& api) {
    const unsigned char unknown[40] = {99};
    const unsigned char brief[3] = {17};
    const unsigned char headless[8] = {18};
    const std::vector<unsigned char> wrong = MapPacket().Add("SR705", 0).AddRaw(2000, 21, "SR712").Bytes();
    Push(unknown, sizeof unknown);
    Push(brief, sizeof brief);
    Push(headless, sizeof headless);
    Push(wrong.data(), wrong.size());
    ReceiveTimes(api, 6);
}

void ReceiveQuotes(IVexoZceMdApi& api, std::uint64_t from, std::uint64_t to) {
    constexpr std::uint64_t kBatch = 10;  // fits into the ring
    for (std::uint64_t n = from; n <= to; n += kBatch) {
        for (std::uint64_t one = n; one < n + kBatch; ++one) PushQuote(one);
        ReceiveTimes(api, kBatch + 1);  // one more: a poll may fail
    }
}

// As a supervisor ends the program. Without the handler, which may not have been installed, there is nothing to see.
void StopBySignal(IVexoZceMdApi& api) {
    struct sigaction now {};
    ::sigaction(SIGTERM, nullptr, &now);
    if (now.sa_handler == SIG_DFL) return;
    g_report.stopped = true;
    {
        const Armed handler;
        ::kill(::getpid(), SIGTERM);
    }
    if (Receive(api) != -1) ++g_report.outOfTurn;
}

void ReceiveAll(IVexoZceMdApi& api, Scene scene, test_support::FakeTime& clock) {
    ReceiveQuotes(api, 1, 20);
    for (std::size_t n = 0; n < kMapPackets; ++n) {
        if (n == 1 && scene != Scene::kRestart) clock.SetLocal(kYear, kMonth, kEvening.day + 1, 0, 0, 5);
        PushMap(n);
        ReceiveTimes(api, 2);
    }
    clock.Advance(2);
    PushMap(0);
    ReceiveTimes(api, 2);
    ReceiveQuotes(api, 21, kQuotes);
    ReceiveOddPackets(api);
    clock.Advance(1);
    StopBySignal(api);
}

void CheckHost() {
    const Armed library;
    CheckBeforeRun();
    IsProdProgRunning();
    GetCurUserName();
    if (bind_to_cpu(0) != 0 && (g_closedStreams & 2) == 0) std::printf("\n");  // the message does not end its line
    Uti_GetFileSize("zce.ini");
}

IVexoZceMdApi* Create() {
    try {
        const Armed library;
        return IVexoZceMdApi::CreateVexoZceMdApi();
    } catch (const std::runtime_error&) {
        return nullptr;
    } catch (const std::bad_alloc&) {
        ++g_report.thrown;
        return nullptr;
    }
}

bool Start(IVexoZceMdApi& api, IVexoZceMdSpi& spi) {
    try {
        const Armed library;
        g_report.startResult = api.VexoStart(spi, "zce.ini");
    } catch (const std::bad_alloc&) {
        ++g_report.thrown;
    }
    return g_report.startResult == 0;
}

}  // namespace

void (*g_atEnd)() = nullptr;

const char* NameOf(Scene scene) {
    return scene == Scene::kFresh ? "fresh start" : scene == Scene::kRestart ? "restart" : "start with a reset";
}

void NoteStandardStreams() {
    for (int fd = 0; fd < 3; ++fd) ::fstat(fd, &g_streams[fd]);
}

void NoteFault() { g_report.struckWhileStopping = g_report.stopped; }

std::string CompleteDayFile() {
    std::string content = "inst_index,inst_id\n";
    for (const Instrument& one : kInstruments) content += std::to_string(one.index) + ',' + one.id + '\n';
    return content + "bin_file_over_tag\n";
}

std::string DayFileOf(Scene scene) { return std::string(".zce_20640506_") + (scene == Scene::kRestart ? "am" : "pm"); }

void Prepare(Scene scene) {
    const auto write = [](const std::string& name, const std::string& content) {
        std::FILE* const file = std::fopen(name.c_str(), "we");
        std::fputs(content.c_str(), file);
        std::fclose(file);
    };
    write("zce.ini", kIni);
    write("board", "01:00.0 a board\n");
    if (scene == Scene::kRestart && ::access(DayFileOf(scene).c_str(), F_OK) != 0)
        write(DayFileOf(scene), CompleteDayFile());
}

void Play(Scene scene, unsigned int closed) {
    const Moment& begin = scene == Scene::kRestart ? kMorning : kEvening;
    test_support::FakeTime clock(kYear, kMonth, begin.day, begin.hour, begin.minute, begin.second);
    PowerOn(scene);
    CountingSpi spi;
    OpenStreams(closed);
    ::on_exit(OnExit, nullptr);
    g_descriptors = OpenDescriptors();

    if (scene == Scene::kFresh) CheckHost();
    IVexoZceMdApi* const api = Create();
    g_report.created = api != nullptr;
    if (api != nullptr) {
        g_report.phase = Phase::kStart;
        g_report.started = Start(*api, spi);
        g_report.phase = Phase::kReceive;
        if (g_report.started) ReceiveAll(*api, scene, clock);
        g_report.phase = Phase::kDestroy;
        const Armed library;
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    }
    g_report.phase = Phase::kDone;
    End(0);
}

}  // namespace sweep
