// One INFO line through elog_output, in exact numbers.

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>

#include "bench/support/CountInstructions.h"
#include "src/log/log.h"

namespace {

constexpr char kLogFile[] = "LogLine";
constexpr unsigned int kTimes = 2000;

unsigned long g_allocations = 0;

void InfoLine() { LOG_INFO("Bin inst count:%u", 4711U); }
// The line that the library writes most.
void SubscribedLine() {
    LOG_INFO("Subscribes:Write to fpga:chanbit:0x%x, index:%u, instId:%s", 0x8001U, 4711U, "SR505C6000");
}

void StartLog() {
    if (elog_init("./", "bench") != 0) std::exit(2);
    elog_start();
    for (int n = 0; n < 16; ++n) InfoLine();
}

void Tell(const char* name, double value) { std::fprintf(stderr, "value %s %g\n", name, value); }

// A system call that the log never makes: it marks the begin and the end of what is counted.
void Mark() { ::syscall(SYS_getppid); }

[[noreturn]] void TracedChild() {
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    StartLog();
    ::raise(SIGSTOP);
    Mark();
    for (unsigned int n = 0; n < kTimes; ++n) InfoLine();
    Mark();
    ::_exit(0);
}

// The child's system calls between its two marks.
unsigned long CountSystemCalls(pid_t child) {
    int status = 0;
    ::waitpid(child, &status, 0);
    ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    unsigned long calls = 0;
    unsigned int marks = 0;
    while (marks < 2) {
        ::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        ::waitpid(child, &status, 0);
        if (!WIFSTOPPED(status)) std::exit(2);
        __ptrace_syscall_info info{};
        ::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
        if (info.op != PTRACE_SYSCALL_INFO_ENTRY) continue;
        if (info.entry.nr == SYS_getppid) {
            ++marks;
        } else if (marks == 1) {
            ++calls;
        }
    }
    ::ptrace(PTRACE_DETACH, child, nullptr, nullptr);
    ::waitpid(child, &status, 0);
    return calls;
}

void TellSystemCallsAndAllocations() {
    // Without TZ, the first line of each second also looks whether the host's time zone file is another one.
    ::setenv("TZ", "UTC0", 1);
    const pid_t child = ::fork();
    if (child == 0) TracedChild();
    Tell("log-line/system-calls", static_cast<double>(CountSystemCalls(child)) / kTimes);

    StartLog();
    if (g_allocations == 0) std::exit(2);  // opening the file takes memory: the count would not see it
    const unsigned long before = g_allocations;
    for (unsigned int n = 0; n < kTimes; ++n) InfoLine();
    Tell("log-line/allocations", static_cast<double>(g_allocations - before) / kTimes);
}

}  // namespace

extern "C" void* __libc_malloc(std::size_t size);

// Everything that takes memory in this process comes here, the C library's own calls included.
extern "C" void* malloc(std::size_t size) {
    ++g_allocations;
    return __libc_malloc(size);
}

int main() {
    if (!RUNNING_ON_VALGRIND) {
        TellSystemCallsAndAllocations();
        return 0;
    }
    StartLog();
    CountInstructions("log-line/ours", kTimes, InfoLine);
    CountInstructions("log-line/most-written-line", kTimes, SubscribedLine);
}
