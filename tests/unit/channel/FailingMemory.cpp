#include "tests/unit/channel/FailingMemory.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t g_untilFailure = 0;  // calls that still succeed, counted while g_armed
thread_local std::size_t g_failures = 0;      // calls that fail after these
thread_local bool g_armed = false;
thread_local bool g_failed = false;

bool Fails() {
    if (!g_armed) return false;
    if (g_untilFailure > 0) {
        --g_untilFailure;
        return false;
    }
    if (g_failures == 0) return false;
    --g_failures;
    g_failed = true;
    return true;
}

}  // namespace

void* operator new(std::size_t size) {
    void* const memory = Fails() ? nullptr : std::malloc(size != 0 ? size : 1);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

FailingMemory::FailingMemory(std::size_t nth, std::size_t calls) {
    g_untilFailure = nth - 1;
    g_failures = calls;
    g_failed = false;
    g_armed = true;
}

FailingMemory::~FailingMemory() { g_armed = false; }

bool FailingMemory::HasFailed() const { return g_failed; }
