// A program on the card, which does what the lines of its standard input say and answers each with one line:
//
//     card BUS              looks for the card at that bus
//     open CHANNEL          opens the stream
//     close CHANNEL
//     receive CHANNEL N     polls until N packets came; says which numbers, "0-9 12", and what was wrong with them
//     idle CHANNEL          polls a thousand times; says how many packets came
//     counters CHANNEL      "packets 5 lost 2 fifo 0 errors 0"
//     account CHANNEL N     polls until packets received and lost are N together; "received 7 lost 3"
//     numbers CHANNEL N     the same; says which numbers came, as receive does
//     mtu CHANNEL
//     registers             opens the register space
//     fork CHANNEL          opens the stream in a child of fork(), which then ends
//     signals               "blocked" when all threads but this one block all signals that can be
//     sigpipe               "default", "ignored" or "handled"
//     loaded NAME           "yes" when the process has a file of such a name mapped
//
// An answer to what failed is "failed" with the name of the error.

#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <enyx-hw-c/enyx_hw.h>

#include "tests/hosted/CardAccess.h"
#include "tests/unit/sim/remote/Messages.h"

namespace {

std::map<std::uint32_t, enyx_hw_a2c_stream*> g_streams;
std::uint32_t g_bus = 0;

std::string Failed() { return std::string("failed ") + ::strerrorname_np(errno); }
std::string Outcome(bool isFine) { return isFine ? "ok" : Failed(); }

// What came, as ranges of numbers. Packets must be those that Messages.h makes.
class Received {
public:
    static void Take(const std::uint8_t* data, std::uint32_t size, void* context) {
        static_cast<Received*>(context)->Add(data, size);
    }
    std::uint64_t Count() const { return m_count; }
    std::string Text() const { return m_text + Range() + (m_wrong != 0 ? " wrong " + std::to_string(m_wrong) : ""); }

private:
    void Add(const std::uint8_t* data, std::uint32_t size) {
        std::uint64_t number = 0;
        std::memcpy(&number, data, std::min<std::size_t>(size, sizeof number));
        if (std::vector<unsigned char>(data, data + size) != vexo_sim::wire::PacketOf(number)) ++m_wrong;
        if (m_count++ > 0 && number != m_last + 1) {
            m_text += Range() + " ";
            m_first = number;
        }
        if (m_count == 1) m_first = number;
        m_last = number;
    }
    std::string Range() const {
        if (m_count == 0) return "nothing";
        return std::to_string(m_first) + (m_last != m_first ? "-" + std::to_string(m_last) : "");
    }

    std::uint64_t m_count = 0;
    std::uint64_t m_first = 0;
    std::uint64_t m_last = 0;
    std::uint64_t m_wrong = 0;
    std::string m_text;
};

std::string Open(std::uint32_t channel) {
    enyx_hw_a2c_stream* const stream = hosted::OpenStream(g_bus, channel);
    if (stream == nullptr) return Failed();
    g_streams[channel] = stream;
    return "ok";
}

std::string Close(std::uint32_t channel) {
    enyx_hw_a2c_stream_destroy(g_streams.at(channel));
    g_streams.erase(channel);
    return "ok";
}

std::string Receive(std::uint32_t channel, std::uint64_t packets) {
    Received received;
    while (received.Count() < packets) {
        const int result = enyx_hw_a2c_stream_poll_once(g_streams.at(channel), Received::Take, &received);
        if (result < 0) return Failed();
        if (result == 0) ::usleep(50);
    }
    return received.Text();
}

std::string Idle(std::uint32_t channel) {
    Received received;
    for (int poll = 0; poll < 1000; ++poll) {
        enyx_hw_a2c_stream_poll_once(g_streams.at(channel), Received::Take, &received);
        ::usleep(10);
    }
    return std::to_string(received.Count());
}

std::uint32_t Counter(std::uint32_t channel, int (*read)(const enyx_hw_a2c_stream*, std::uint32_t*)) {
    std::uint32_t value = 0;
    return read(g_streams.at(channel), &value) == 0 ? value : ~0U;
}

std::string Counters(std::uint32_t channel) {
    std::ostringstream text;
    text << "packets " << Counter(channel, enyx_hw_a2c_stream_stats_get_packet_count) << " lost "
         << Counter(channel, enyx_hw_a2c_stream_stats_get_backpressure) << " fifo "
         << Counter(channel, enyx_hw_a2c_stream_stats_get_fifo_errors) << " errors "
         << Counter(channel, enyx_hw_a2c_stream_stats_get_errors);
    return text.str();
}

/// Polls until packets received and lost are @p packets together. @return those that are lost
std::uint32_t PollForAll(std::uint32_t channel, std::uint64_t packets, Received& received) {
    std::uint32_t lost = 0;
    while (received.Count() + lost < packets) {
        if (enyx_hw_a2c_stream_poll_once(g_streams.at(channel), Received::Take, &received) == 1) continue;
        lost = Counter(channel, enyx_hw_a2c_stream_stats_get_backpressure);
        ::usleep(50);
    }
    return lost;
}

std::string Account(std::uint32_t channel, std::uint64_t packets) {
    Received received;
    const std::uint32_t lost = PollForAll(channel, packets, received);
    return "received " + std::to_string(received.Count()) + " lost " + std::to_string(lost);
}

std::string Numbers(std::uint32_t channel, std::uint64_t packets) {
    Received received;
    PollForAll(channel, packets, received);
    return received.Text();
}

std::string InChild(std::uint32_t channel) {
    int ends[2];
    if (::pipe(ends) != 0) return Failed();
    if (::fork() == 0) {
        const std::string answer = Open(channel);
        const bool isSent = ::write(ends[1], answer.data(), answer.size()) > 0;
        std::exit(isSent ? 0 : 1);  // as a program ends that knows nothing of all this
    }
    ::close(ends[1]);
    char text[64] = {};
    const bool isRead = ::read(ends[0], text, sizeof text - 1) > 0;
    ::close(ends[0]);
    int status = 0;
    ::wait(&status);
    return std::string(isRead ? text : "nothing") + ", child " + (status == 0 ? "ended" : "failed");
}

// The mask of blocked signals of a thread, without those that cannot be blocked or belong to the C library.
std::uint64_t OpenSignals(const std::string& thread) {
    std::ifstream status("/proc/self/task/" + thread + "/status");
    std::uint64_t blocked = 0;
    for (std::string line; std::getline(status, line);)
        if (line.rfind("SigBlk:", 0) == 0) blocked = std::stoull(line.substr(7), nullptr, 16);
    std::uint64_t open = ~blocked;
    for (const int signal : {SIGKILL, SIGSTOP, 32, 33}) open &= ~(std::uint64_t{1} << (signal - 1));
    return open;
}

std::string Signals() {
    std::string answer = "blocked";
    DIR* const threads = ::opendir("/proc/self/task");
    int others = 0;
    for (const dirent* entry = ::readdir(threads); entry != nullptr; entry = ::readdir(threads)) {
        const std::string thread = entry->d_name;
        if (thread[0] == '.' || thread == std::to_string(::getpid())) continue;
        ++others;
        if (OpenSignals(thread) != 0) answer = "thread " + thread + " takes signals";
    }
    ::closedir(threads);
    return others > 0 ? answer : "no other thread";
}

std::string BrokenPipe() {
    struct sigaction action {};
    ::sigaction(SIGPIPE, nullptr, &action);
    return action.sa_handler == SIG_DFL ? "default" : action.sa_handler == SIG_IGN ? "ignored" : "handled";
}

std::string Loaded(const std::string& name) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        if (line.find(name) != std::string::npos) return "yes";
    return "no";
}

std::string Answer(const std::string& line) {
    std::istringstream words(line);
    std::string command;
    std::string name;
    words >> command;
    if (command == "loaded") return words >> name, Loaded(name);
    std::uint32_t channel = 0;
    std::uint64_t packets = 0;
    words >> channel >> packets;
    if (command == "card") return g_bus = channel, Outcome(hosted::FindCard(channel) != nullptr);
    if (command == "open") return Open(channel);
    if (command == "close") return Close(channel);
    if (command == "receive") return Receive(channel, packets);
    if (command == "idle") return Idle(channel);
    if (command == "counters") return Counters(channel);
    if (command == "account") return Account(channel, packets);
    if (command == "numbers") return Numbers(channel, packets);
    if (command == "mtu") return std::to_string(Counter(channel, enyx_hw_a2c_stream_get_mtu));
    if (command == "registers") return Outcome(hosted::OpenRegisters(g_bus) != nullptr);
    if (command == "fork") return InChild(channel);
    if (command == "signals") return Signals();
    if (command == "sigpipe") return BrokenPipe();
    return "unknown";
}

}  // namespace

int main() {
    for (std::string line; std::getline(std::cin, line);) std::cout << Answer(line) << std::endl;
    return 0;
}
