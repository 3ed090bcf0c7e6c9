#include "tools/cardtest/Helper.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <utility>

#include "tools/cardtest/CardLibrary.h"
#include "tools/cardtest/CardUnderTest.h"

namespace cardtest {
namespace {

constexpr char kStreamRole[] = "stream";
constexpr char kLockRole[] = "lock";

void say(const std::string& text) {
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

// Waits for a line from the checking process; "die" ends this process at once.
bool isTold() {
    char text[16];
    if (std::fgets(text, sizeof text, stdin) == nullptr) return false;
    if (std::string(text) == "die\n") _exit(0);
    return true;
}

int holdStream(std::uint32_t bus, std::uint32_t channel) {
    UpStreamHandle stream = tryOpenUp(openCard(bus), channel);
    say(stream ? "got" : errnoText(errno));
    isTold();
    stream.reset();
    say("gone");
    return 0;
}

int holdLock(std::uint32_t bus) {
    const RegisterCore registers(bus);
    say("ready");
    errno = 0;
    const int locked = enyx_hw_core_lock(registers.core());
    say(locked == 0 ? "got" : resultText(locked, errno));
    if (isTold() && locked == 0) enyx_hw_core_unlock(registers.core());
    say("gone");
    return 0;
}

int play(const std::string& role, std::uint32_t bus, std::uint32_t channel) {
    try {
        return role == kStreamRole ? holdStream(bus, channel) : holdLock(bus);
    } catch (const Untestable& barred) {
        say(barred.reason);
        return 1;
    }
}

}  // namespace

std::int64_t nowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

void restMs(int ms) {
    const timespec duration{ms / 1000, ms % 1000 * 1'000'000L};
    nanosleep(&duration, nullptr);
}

bool isAsleep(const std::string& task) {
    std::ifstream file("/proc/" + task + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t name = text.rfind(')');
    return name != std::string::npos && name + 2 < text.size() && (text[name + 2] == 'S' || text[name + 2] == 'D');
}

Helper::Helper(const std::vector<std::string>& role) {
    int in[2], out[2];
    if (pipe(in) != 0 || pipe(out) != 0) throw Untestable{"no pipe: " + errnoText(errno)};
    std::vector<std::string> words = {"/proc/self/exe", kRoleOption};
    words.insert(words.end(), role.begin(), role.end());
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    m_pid = fork();
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // it must not outlive a check that is killed
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        for (const int end : {in[0], in[1], out[0], out[1]}) close(end);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    m_in = in[1];
    m_out = out[0];
    if (m_pid < 0) throw Untestable{"no second process: " + errnoText(errno)};
}

Helper Helper::holdingStream(const TestPlan& plan, std::uint32_t channel) {
    return Helper({kStreamRole, std::to_string(plan.bus), std::to_string(channel)});
}

Helper Helper::holdingLock(const TestPlan& plan) { return Helper({kLockRole, std::to_string(plan.bus), "0"}); }

Helper::~Helper() {
    end();
    close(m_in);
    close(m_out);
}

void Helper::end() {
    if (m_pid < 0) return;
    ::kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

void Helper::kill() { end(); }

std::string Helper::line(int ms) {
    std::string text;
    for (const std::int64_t limit = nowMs() + ms;;) {
        pollfd waiting{m_out, POLLIN, 0};
        const std::int64_t left = limit - nowMs();
        if (poll(&waiting, 1, left > 0 ? static_cast<int>(left) : 0) != 1) return {};
        char c = 0;
        if (read(m_out, &c, 1) != 1) return {};
        if (c == '\n') return text;
        text += c;
    }
}

std::string Helper::demand(const char* what) {
    std::string text = line();
    if (text != what)
        throw Untestable{"a second process did not come as far as \"" + std::string(what) + "\": " + text};
    return text;
}

void Helper::tell(const std::string& text) {
    const std::string line = text + "\n";
    if (write(m_in, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        throw Untestable{"a second process has ended by itself"};
    if (text == "die") {
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
}

bool Helper::isAsleep() const { return cardtest::isAsleep(std::to_string(m_pid)); }

int runRole(int argc, char** argv) {
    if (argc != 5 || std::string(argv[1]) != kRoleOption) return -1;
    const auto number = [](const char* text) { return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10)); };
    std::string error;
    const bool loaded = loadCardLibrary(error);
    if (!loaded) say(error);
    const int status = !loaded ? 1 : play(argv[2], number(argv[3]), number(argv[4]));
    std::fflush(stdout);
    _exit(status);
}

}  // namespace cardtest
