#pragma once

/// Runs code one machine instruction at a time, with the processor's trap flag, and interrupts it as a signal would.
namespace SingleStep {

/// False in a build whose sanitizer runtime itself must not be interrupted (thread sanitizer: it takes locks that
/// every instrumented function, a handler too, needs).
bool Works();

/// Runs @p code; before each of its instructions @p handler is called inside a signal handler on the same thread.
/// @return how many instructions that were
unsigned long Run(void (*code)(), void (*handler)());

/// Inside @p handler: what a signal handler gets as its third argument.
void* Context();

}  // namespace SingleStep
