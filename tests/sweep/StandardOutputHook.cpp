// The log writes to standard output with a system call of its own, which no definition of write() replaces. A filter of
// the kernel turns each such call into a signal, whose handler does the call or lets it fail.

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>

#include "tests/sweep/FaultPoints.h"

// The one write that the filter lets pass.
asm(R"(
    .pushsection .text
    .globl sweep_plain_write
    .type sweep_plain_write, @function
sweep_plain_write:
    movl $1, %eax
    syscall
    .globl sweep_plain_write_end
sweep_plain_write_end:
    ret
    .size sweep_plain_write, .-sweep_plain_write
    .popsection
)");

extern "C" long sweep_plain_write(int fd, const void* text, std::size_t size);
extern "C" const char sweep_plain_write_end[];

namespace sweep {

namespace {

long Answer(Effect effect, const void* text, std::size_t size) {
    switch (effect) {
        case Effect::kFail: return -ENOSPC;
        case Effect::kInterrupted: return -EINTR;
        case Effect::kNothing: return 0;
        case Effect::kHalf: return sweep_plain_write(STDOUT_FILENO, text, (size + 1) / 2);
        case Effect::kOneByte: return sweep_plain_write(STDOUT_FILENO, text, size < 1 ? size : 1);
        default: return sweep_plain_write(STDOUT_FILENO, text, size);
    }
}

void OnWrite(int, siginfo_t*, void* context) {
    greg_t* const registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    const auto* const text = reinterpret_cast<const void*>(registers[REG_RSI]);
    const Effect effect = Ask(kStandardOutput);
    registers[REG_RAX] = Answer(effect, text, static_cast<std::size_t>(registers[REG_RDX]));
}

}  // namespace

bool WatchStandardOutput() {
    struct sigaction action {};
    action.sa_sigaction = OnWrite;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    ::sigaction(SIGSYS, &action, nullptr);

    const auto own = reinterpret_cast<std::uintptr_t>(sweep_plain_write_end);
    const auto low = static_cast<std::uint32_t>(own);
    const auto high = static_cast<std::uint32_t>(own >> 32);
    constexpr std::uint32_t kAddress = offsetof(seccomp_data, instruction_pointer);
    constexpr std::uint32_t kFirst = offsetof(seccomp_data, args);
    // The last two numbers of a jump: how many lines it skips when the values are equal, and when they are not.
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 0, 9),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_write, 0, 7),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kFirst),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, STDOUT_FILENO, 0, 5),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kAddress),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, low, 0, 2),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kAddress + 4),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, high, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{sizeof filter / sizeof *filter, filter};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace sweep
