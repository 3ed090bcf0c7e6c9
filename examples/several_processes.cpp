// Several channels of the card, each in a process of its own: one that crashes does not take the others with it.
//
//     several_processes INI...
//
// The log lies in the working directory. So each process works in one of its own, named after its ini file.

#include <VexoZceMdApi.h>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <string>

#include "program.h"

namespace {

constexpr char kUsage[] =
    "usage: several_processes INI...\n"
    "Starts a process for each channel, and ends when they have ended. Ctrl-C ends them all.\n"
    "  INI        configuration of a channel; the one of the master, channel 0, comes first\n"
    "  --help     show this help and end\n"
    "  --version  show the version of the library and end\n"
    "Exit status: 0 when all ended after a stop signal, 1 when one failed, 2 for wrong usage.\n";

struct Counter : IVexoZceMdSpi {
    void print() const { std::printf("%s: %lu quotes\n", name.c_str(), received); }
    int OnUpSubsResult17(const unsigned char*) override { return count(); }
    int OnUpSubsResult18(const unsigned char*) override { return count(); }
    int OnUpSubsResult19(const unsigned char*) override { return count(); }
    int OnUpSubsResult20(const unsigned char*) override { return count(); }
    int count() {
        if (++received % 5000 == 0) print();
        return 0;
    }
    std::string name;
    unsigned long received = 0;
};

// All that a child does. Writes a byte to @p started once its channel has started. @return the exit status
int receive(const std::filesystem::path& ini, int started) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);  // no child stays behind when the parent is killed
    const sigset_t none{};
    sigprocmask(SIG_SETMASK, &none, nullptr);  // the parent's mask is not for the child
    const std::filesystem::path path = std::filesystem::absolute(ini);
    std::filesystem::create_directories(ini.stem());
    std::filesystem::current_path(ini.stem());
    Counter counter;
    counter.name = ini.stem();
    const example::Api api = example::createApi();
    {
        const example::FailedStart failed;
        if (api->VexoStart(counter, path.c_str()) != 0) return 1;
    }
    if (::write(started, "", 1) != 1) return 1;
    while (api->VexoRecv() != -1) {
    }
    counter.print();
    return example::finish(0);
}

// @return the child, or 0 when its start-up failed. The parent's standard output is buffered: it complains on stderr.
pid_t startChild(const char* ini) {
    int ends[2];
    if (::pipe(ends) != 0) return 0;
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(ends[0]);
        std::exit(receive(ini, ends[1]));
    }
    ::close(ends[1]);
    char byte;
    const bool started = child > 0 && ::read(ends[0], &byte, 1) == 1;  // nothing to read: the child has ended
    ::close(ends[0]);
    if (!started)
        std::fprintf(stderr, "%s: the start-up failed, see %s/fpga_*.log\n", ini,
                     std::filesystem::path(ini).stem().c_str());
    return started ? child : 0;
}

}  // namespace

int main(int argc, char** argv) {
    const auto inis = example::arguments(argc, argv, kUsage, 1, 16);
    for (const char* ini : inis) example::requireFile(ini);
    sigset_t awaited;
    sigemptyset(&awaited);
    for (const int signal : {SIGINT, SIGTERM, SIGCHLD}) sigaddset(&awaited, signal);
    sigprocmask(SIG_BLOCK, &awaited, nullptr);  // sigwait takes them; none is lost in between

    std::map<pid_t, std::string> running;
    bool allStarted = true;
    for (std::size_t i = 0; i < inis.size() && allStarted; ++i) {  // the master first: it programs the card for all
        const pid_t child = startChild(inis[i]);
        allStarted = child != 0;
        if (allStarted) running[child] = inis[i];
    }
    bool success = allStarted, stopping = false;
    while (!running.empty()) {
        int signal = SIGTERM, status = 0;
        if (allStarted || stopping) sigwait(&awaited, &signal);
        if (signal != SIGCHLD) {
            stopping = true;
            for (const auto& entry : running) ::kill(entry.first, SIGTERM);
        }
        for (pid_t child; (child = ::waitpid(-1, &status, WNOHANG)) > 0; running.erase(child)) {
            // Before its first quote, a stop signal ends a child at once.
            const int by = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
            const bool orderly = stopping && (status == 0 || by == SIGINT || by == SIGTERM);
            success = success && orderly;
            if (!orderly) std::fprintf(stderr, "%s ended, the others go on\n", running[child].c_str());
        }
    }
    return success ? 0 : 1;
}
