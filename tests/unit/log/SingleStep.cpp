#include "tests/unit/log/SingleStep.h"

#include <signal.h>

#include "tests/support/Sanitizers.h"

namespace {

// Only the one thread that steps touches them, its own handler included.
volatile unsigned long g_steps = 0;
void (*volatile g_handler)() = nullptr;
void* volatile g_context = nullptr;

void OnTrap(int, siginfo_t*, void* context) {
    g_steps = g_steps + 1;
    g_context = context;
    g_handler();
}

// Below the red zone, which the compiler may be using.
void TrapFlagOn() {
    asm volatile("lea -128(%%rsp), %%rsp\n pushfq\n orq $0x100, (%%rsp)\n popfq\n lea 128(%%rsp), %%rsp" ::
                     : "cc", "memory");
}

void TrapFlagOff() {
    asm volatile("lea -128(%%rsp), %%rsp\n pushfq\n andq $~0x100, (%%rsp)\n popfq\n lea 128(%%rsp), %%rsp" ::
                     : "cc", "memory");
}

}  // namespace

namespace SingleStep {

bool Works() { return !kWithThreadSanitizer; }

unsigned long Run(void (*code)(), void (*handler)()) {
    g_steps = 0;
    g_handler = handler;
    struct sigaction action {};
    struct sigaction before {};
    action.sa_sigaction = OnTrap;
    action.sa_flags = SA_SIGINFO;
    ::sigaction(SIGTRAP, &action, &before);
    TrapFlagOn();
    code();
    TrapFlagOff();
    ::sigaction(SIGTRAP, &before, nullptr);
    return g_steps;
}

void* Context() { return g_context; }

}  // namespace SingleStep
