#include "tools/vexo/run/Child.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/polls/PollPage.h"
#include "tools/vexo/Launch.h"
#include "tools/vexo/Places.h"

namespace vexo::run {
namespace {

// The application belongs to vexo, so what the service manager gave to vexo is not for it.
constexpr const char* kManagersVariables[] = {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"};

struct Pipe {
    int ends[2] = {-1, -1};
};

// For the moment: no process, memory or descriptor is left.
Failure noProcess() { return {kFinding, std::string("no process can be started: ") + std::strerror(errno)}; }

// What the program finds at its start.
void prepare(int output, int page, const Signals& signals) {
    if (::dup2(output, STDOUT_FILENO) < 0 || ::dup2(output, STDERR_FILENO) < 0 || ::fcntl(page, F_SETFD, 0) < 0)
        throw noProcess();
    for (const char* const variable : kManagersVariables) ::unsetenv(variable);
    set(polls::kVariable, std::to_string(page));
    preload(pollsLibrary());
    signals.restore();
}

[[noreturn]] void runChild(const Program& program, int output, int page, const Signals& signals, pid_t parent,
                           int errors) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(kCannotRun);  // it died before the line above
    try {
        prepare(output, page, signals);
        become(program);
    } catch (const Failure& failure) {
        const std::string text = std::to_string(failure.status) + " " + failure.what();
        [[maybe_unused]] const ssize_t written = ::write(errors, text.data(), text.size());
        ::_exit(failure.status);
    }
}

// What a child that could not become the program wrote. Empty once the program runs, because exec closes the pipe.
std::string errorOf(int pipe) {
    std::string text;
    char part[512];
    for (;;) {
        const ssize_t n = ::read(pipe, part, sizeof part);
        if (n > 0) text.append(part, static_cast<std::size_t>(n));
        if (n == 0 || (n < 0 && errno != EINTR)) return text;
    }
}

}  // namespace

pid_t startChild(const Program& program, int output, int page, const Signals& signals) {
    Pipe errors;
    if (::pipe2(errors.ends, O_CLOEXEC) != 0) throw noProcess();
    // Above the standard streams, which the child redirects.
    const int writeEnd = ::fcntl(errors.ends[1], F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const pid_t self = ::getpid();
    const pid_t child = writeEnd >= 0 ? ::fork() : -1;
    const int error = errno;
    if (child == 0) runChild(program, output, page, signals, self, writeEnd);
    ::close(errors.ends[1]);
    if (writeEnd >= 0) ::close(writeEnd);
    const std::string text = child > 0 ? errorOf(errors.ends[0]) : "";
    ::close(errors.ends[0]);
    errno = error;
    if (child < 0) throw noProcess();
    if (text.empty()) return child;
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    throw Failure(std::atoi(text.c_str()), text.substr(text.find(' ') + 1));
}

}  // namespace vexo::run
