// Quotes a second from a hosted card at the pace "max" to one program on the library; and a copy of the same bytes
// through the same ring by a thread of this program, without a card. Host or thread have a CPU of their own.

#include <VexoZceMdApi.h>
#include <enyx-hw-c/enyx_hw.h>
#include <enyx-sim/md_payload.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/Host.h"
#include "bench/support/Rounds.h"
#include "sim/card/StreamRing.h"
#include "sim/card/ZeroedMemory.h"

namespace {

constexpr unsigned int kQuotes = 100000;  // a round
constexpr std::size_t kRecorded = 4096;
constexpr std::size_t kHead = sizeof(enyx_sim::PacketHead);
constexpr std::uint32_t kRingBytes = 256 * 1024;  // a hosted card's default

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "hosted card: %s\n", what);
    std::_Exit(2);
}

using Packet = std::vector<unsigned char>;

std::uint64_t SequenceOf(const unsigned char* payload) {
    std::uint64_t sequence;
    std::memcpy(&sequence, payload, sizeof sequence);
    return sequence;
}

// Counts quotes and those that are missing; keeps the first ones.
class Reader : public IVexoZceMdSpi {
public:
    int OnUpSubsResult17(const unsigned char* data) override { return Take(17, data, sizeof(enyx_sim::Level1Quote)); }
    int OnUpSubsResult18(const unsigned char* data) override { return Take(18, data, sizeof(enyx_sim::Level5Quote)); }
    int OnUpSubsResult19(const unsigned char* data) override { return Take(19, data, sizeof(enyx_sim::Level1Quote)); }
    int OnUpSubsResult20(const unsigned char* data) override { return Take(20, data, sizeof(enyx_sim::Level5Quote)); }

    unsigned long quotes = 0;
    unsigned long lost = 0;
    std::vector<Packet> recorded;

private:
    int Take(std::uint32_t type, const unsigned char* data, std::size_t size) {
        const std::uint64_t sequence = SequenceOf(data);
        if (quotes++ != 0) lost += sequence - m_last - 1;
        m_last = sequence;
        if (recorded.size() < kRecorded) Record(type, data, size);
        return 0;
    }
    [[gnu::noinline]] void Record(std::uint32_t type, const unsigned char* data, std::size_t size) {
        Packet packet(kHead + size);
        std::memcpy(packet.data(), &type, sizeof type);
        std::memcpy(packet.data() + kHead, data, size);
        recorded.push_back(std::move(packet));
    }

    std::uint64_t m_last = 0;
};

// ---- the host ----

class Host {
public:
    Host() {
        ::setenv("VEXO_SIM_DIR", ".", 1);
        ::setenv("VEXO_SIM_CARD", "hosted", 1);
        m_process = ::fork();
        if (m_process == 0) Become();
        if (m_process < 0) Fail("no process");
    }
    ~Host() {
        Go();
        ::kill(m_process, SIGTERM);
        ::waitpid(m_process, nullptr, 0);
    }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    void Stop() const { ::kill(m_process, SIGSTOP); }
    void Go() const { ::kill(m_process, SIGCONT); }

    // Of all its threads.
    bench::Usage Used() const {
        bench::Usage used;
        for (const auto& thread : std::filesystem::directory_iterator("/proc/" + std::to_string(m_process) + "/task")) {
            std::ifstream status(thread.path() / "status");
            for (std::string line; std::getline(status, line);) {
                if (line.rfind("nonvoluntary_ctxt_switches:", 0) == 0)
                    used.involuntarySwitches += std::stoull(line.substr(27));
            }
        }
        std::timespec cpu{};
        clockid_t clock;
        if (::clock_getcpuclockid(m_process, &clock) == 0) ::clock_gettime(clock, &cpu);
        used.cpuSeconds = static_cast<double>(cpu.tv_sec) + static_cast<double>(cpu.tv_nsec) / 1e9;
        return used;
    }

private:
    [[noreturn]] static void Become() {
        bench::pinTo(*bench::otherCpu());
        const int null = ::open("/dev/null", O_RDWR);
        ::dup2(null, STDOUT_FILENO);
        ::execl(VEXO_SIMCARD, "vexo-simcard", "--pace", "max", "--quiet", nullptr);
        ::_exit(127);
    }

    pid_t m_process = -1;
};

// The card appears some milliseconds after its host has started.
void WaitForCard() {
    for (int attempt = 0; attempt < 1000; ++attempt) {
        enyx_hw_filter* const filter = enyx_hw_filter_create();
        enyx_hw_filter_set_index(filter, 0);
        enyx_hw_accelerator_descriptor* descriptor = nullptr;
        const bool found = enyx_hw_enumerate_accelerators(filter, &descriptor, 1) == 1;
        enyx_hw_filter_destroy(filter);
        if (found) {
            enyx_hw_free_accelerator_descriptors(&descriptor, 1);
            return;
        }
        ::usleep(20000);
    }
    Fail("no card appeared");
}

// ---- ours ----

class HostedFeed {
public:
    HostedFeed() {
        WaitForCard();
        std::ofstream("hosted.ini") << "[version]\n1.1.2.12 = 11\n1.1.2.13 = 12\n"
                                       "[config]\ndevice = xilinx0:0\nBIN_DELAY_TIME = 0\n"
                                       "L5_IPA = 239.3.50.1\nL5_IPB = 239.3.51.1\nL5_PORT = 18501\n"
                                       "L1_IPA = 239.3.10.1\nL1_IPB = 239.3.11.1\nL1_PORT = 18101\n"
                                       "[channel0]\ninsts = SR, CF, TA\noptions = norecv\nips = recv\nspd = recv\n";
        m_stdout.emplace();
        m_api = IVexoZceMdApi::CreateVexoZceMdApi();
        if (m_api->VexoStart(m_reader, "hosted.ini") != 0) Fail("VexoStart failed");
        Receive(10 * kQuotes);  // the contract map too
    }
    ~HostedFeed() {
        IVexoZceMdApi::DestroyVexoZceMdApi(*m_api);
        ::unlink(m_dayFile.c_str());
        m_stdout.reset();
        if (m_reader.lost != 0) Fail("quotes were lost");
    }
    HostedFeed(const HostedFeed&) = delete;
    HostedFeed& operator=(const HostedFeed&) = delete;

    void Receive(unsigned int quotes) {
        constexpr unsigned long kHopeless = 1000000000;  // idle polls in a row
        const unsigned long end = m_reader.quotes + quotes;
        for (unsigned long idle = 0; m_reader.quotes < end;) {
            idle = m_api->VexoRecv() > 0 ? 0 : idle + 1;
            if (idle == kHopeless) Fail("no quotes come");
        }
    }
    const std::vector<Packet>& Recorded() const { return m_reader.recorded; }

private:
    Reader m_reader;
    std::string m_dayFile = bench::DayFilePath();
    std::optional<bench::StdoutToFile> m_stdout;
    IVexoZceMdApi* m_api = nullptr;
};

// ---- the copy ----

class CopyingThread {
public:
    explicit CopyingThread(const std::vector<Packet>& packets) : m_packets(packets) {}
    ~CopyingThread() {
        if (m_thread.joinable()) Stop();
    }
    CopyingThread(const CopyingThread&) = delete;
    CopyingThread& operator=(const CopyingThread&) = delete;

    void Start() {
        vexo_sim::ring::init(Ring(), kRingBytes);
        m_stop = false;
        m_thread = std::thread([this] { Copy(); });
        Receive(kQuotes / 10);
    }
    void Stop() {
        m_stop = true;
        m_thread.join();
    }
    void Receive(unsigned int packets) {
        for (unsigned int n = 0; n < packets;) {
            const vexo_sim::PacketView packet = vexo_sim::ring::peek(Ring());
            if (packet.data == nullptr) continue;
            m_sum += SequenceOf(packet.data + kHead);
            vexo_sim::ring::release(Ring());
            ++n;
        }
    }

private:
    vexo_sim::RingState& Ring() const { return *m_memory.get(); }

    void Copy() {
        bench::pinTo(*bench::otherCpu());
        for (std::size_t next = 0; !m_stop.load(std::memory_order_relaxed);) {
            const Packet& packet = m_packets[next];
            const auto size = static_cast<std::uint32_t>(packet.size());
            unsigned char* const room = vexo_sim::ring::reserve(Ring(), size);
            if (room == nullptr) continue;
            std::memcpy(room, packet.data(), packet.size());
            vexo_sim::ring::commit(Ring(), size);
            next = (next + 1) % m_packets.size();
        }
    }

    const std::vector<Packet>& m_packets;
    vexo_sim::ZeroedMemory<vexo_sim::RingState> m_memory;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    volatile std::uint64_t m_sum = 0;
};

// In the order in which they begin; they end the other way round.
struct Both {
    Host host;
    HostedFeed feed;
    CopyingThread copy{feed.Recorded()};
};
std::unique_ptr<Both> g_both;

std::vector<bench::Role> Receiving() {
    g_both = std::make_unique<Both>();
    // Each role has the other CPU for itself.
    return {{"ours", [] { g_both->host.Go(), g_both->feed.Receive(kQuotes); }, [] { g_both->feed.Receive(kQuotes); },
             [] { g_both->host.Stop(); }},
            {"copy", [] { g_both->copy.Start(); }, [] { g_both->copy.Receive(kQuotes); }, [] { g_both->copy.Stop(); }}};
}

}  // namespace

std::vector<bench::Case> bench::cases() {
    Case hosted{"hosted", kQuotes, Receiving};
    hosted.elsewhere = [] { return g_both->host.Used(); };
    hosted.end = [] {
        g_both->host.Go();
        g_both.reset();
    };
    if (!otherCpu()) hosted.cannot = "needs two CPUs";
    return {hosted};
}
