#include "tools/cardtest/Runner.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>

#include "tools/cardtest/CardUnderTest.h"
#include "tools/cardtest/Helper.h"

namespace cardtest {
namespace {

constexpr std::int64_t kBetweenLooksMs = 250;

using Words = std::vector<std::string>;

// The answer of a child process: its words, or how it ended when it has none.
struct Answer {
    Words words;
    std::string end;
};

void writeAll(int file, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = write(file, text.data() + done, text.size() - done);
        if (written <= 0) return;
        done += static_cast<std::size_t>(written);
    }
}

[[noreturn]] void answer(int file, const std::function<Words()>& work, bool silent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (silent) {
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (nowhere >= 0) dup2(nowhere, STDERR_FILENO);
    }
    std::string text;
    for (const std::string& word : work()) text += word + '\0';
    writeAll(file, text);
    _exit(0);
}

// False when the time is over.
bool readAll(int file, std::uint32_t seconds, std::string& text, const std::function<void()>& waiting) {
    for (const std::int64_t end = nowMs() + std::int64_t{seconds} * 1000;;) {
        const std::int64_t left = end - nowMs();
        if (left <= 0) return false;
        pollfd ready{file, POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(std::min(left, kBetweenLooksMs))) == 0) {
            if (waiting) waiting();
            continue;
        }
        char part[512];
        const ssize_t length = read(file, part, sizeof part);
        if (length == 0) return true;
        if (length > 0) text.append(part, static_cast<std::size_t>(length));
    }
}

std::string howItEnded(int status) {
    if (!WIFSIGNALED(status)) return "the process ended with status " + std::to_string(WEXITSTATUS(status));
    return "the process died of signal " + std::to_string(WTERMSIG(status)) + " (" + strsignal(WTERMSIG(status)) + ")";
}

Answer askChild(const std::function<Words()>& work, std::uint32_t seconds, bool silent,
                const std::function<void()>& waiting = {}) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return {{}, "no pipe: " + errnoText(errno)};
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) answer(ends[1], work, silent);
    close(ends[1]);
    std::string text;
    const bool finished = child > 0 && readAll(ends[0], seconds, text, waiting);
    close(ends[0]);
    if (child < 0) return {{}, "no process: " + errnoText(errno)};
    if (!finished) kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    Answer result;
    for (std::size_t at = 0; at < text.size(); at += result.words.back().size() + 1)
        result.words.emplace_back(text.c_str() + at);
    if (!finished)
        result = {{}, "no end within " + std::to_string(seconds) + " s"};
    else if (result.words.empty())
        result.end = howItEnded(status);
    return result;
}

// A simulated card that shares no memory belongs to this process alone.
bool sharesMemory() {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        if (line.find(" rw-s ") != std::string::npos) return true;
    return false;
}

bool isSimulated() { return dlsym(RTLD_DEFAULT, "enyx_sim_is_simulated") != nullptr; }

bool isFree(enyx_hw_accelerator* card, std::uint32_t channel) {
    try {
        return tryOpenUp(card, channel) != nullptr;
    } catch (const Untestable&) {  // the card has no stream of that name: another check reports it
        errno = 0;
        return false;
    }
}

struct Streams {
    std::int32_t lastFree = -1;
    std::string held;
};

// Opens each stream at most once: otherwise a card whose streams do not close would look like one in use. The search
// begins with the last stream, because other programs are most likely to want the first ones. Only a run that writes
// needs to know them all.
Streams lookAtStreams(enyx_hw_accelerator* card, bool all) {
    Streams streams;
    for (std::int32_t channel = kChannels - 1; channel >= 0 && (all || streams.lastFree < 0); --channel) {
        if (isFree(card, static_cast<std::uint32_t>(channel))) {
            streams.lastFree = std::max(streams.lastFree, channel);
        } else if (errno == EBUSY) {
            streams.held = std::to_string(channel) + (streams.held.empty() ? "" : ", ") + streams.held;
        }
    }
    return streams;
}

Words lookAtCard(const TestPlan& plan) {
    try {
        enyx_hw_accelerator* card = openCard(plan.bus);
        const bool shared = !isSimulated() || sharesMemory();
        const Streams streams = plan.write || plan.channel < 0 ? lookAtStreams(card, plan.write) : Streams{};
        const std::int32_t channel = plan.channel >= 0 ? plan.channel : streams.lastFree;
        return {"", shared ? "shared" : "own", std::to_string(channel), plan.write ? streams.held : ""};
    } catch (const Untestable& barred) {
        return {barred.reason};
    }
}

Words wordsOf(const Check& check, const TestPlan& plan) {
    try {
        check.run(plan);
        return {"pass"};
    } catch (const Failed& failed) {
        return {"fail", failed.expected, failed.seen};
    } catch (const Untestable& untestable) {
        return {"untestable", untestable.reason};
    }
}

}  // namespace

std::optional<MetCard> meetCard(const TestPlan& plan, std::string& error) {
    constexpr std::uint32_t kLimit = 60;
    const Answer found = askChild([&] { return lookAtCard(plan); }, kLimit, false);
    if (found.words.size() != 4) {
        error = found.words.empty() ? found.end : found.words.front();
        return std::nullopt;
    }
    MetCard met{isSimulated(), libraryInUse(), plan, found.words[3]};
    met.plan.shared = found.words[1] == "shared";
    met.plan.channel = std::atoi(found.words[2].c_str());
    return met;
}

CheckResult runCheck(const Check& check, const TestPlan& plan, const CheckLimits& limits,
                     const std::function<void()>& waiting) {
    if (check.writes && !plan.write) return {&check, Verdict::kUntestable, {}, {}, "needs --write"};
    const Answer answer = askChild([&] { return wordsOf(check, plan); }, limits.seconds, !limits.verbose, waiting);
    const Words& words = answer.words;
    if (words.empty()) return {&check, Verdict::kFail, "an end of the check", answer.end, {}};
    if (words[0] == "fail") return {&check, Verdict::kFail, words.at(1), words.at(2), {}};
    if (words[0] == "untestable") return {&check, Verdict::kUntestable, {}, {}, words.at(1)};
    return {&check, Verdict::kPass, {}, {}, {}};
}

}  // namespace cardtest
