#include "tests/support/FailingMemory.h"

#include <atomic>

namespace test_support {

namespace {

thread_local std::size_t g_successes = 0;  // that are left before the failures
thread_local std::size_t g_failures = 0;
thread_local bool g_armed = false;
thread_local bool g_failed = false;
std::atomic<bool (*)()> g_askedFirst{nullptr};

}  // namespace

FailingMemory::FailingMemory(std::size_t nth, std::size_t calls) {
    g_successes = nth - 1;
    g_failures = calls;
    g_failed = false;
    g_armed = true;
}

FailingMemory::~FailingMemory() { g_armed = false; }

bool FailingMemory::HasFailed() const { return g_failed; }

void FailingMemory::AskFirst(bool (*fails)()) { g_askedFirst = fails; }

bool FailingMemory::Fails() {
    if (const auto asked = g_askedFirst.load(std::memory_order_relaxed); asked != nullptr && asked()) return true;
    if (!g_armed) return false;
    if (g_successes > 0) {
        --g_successes;
        return false;
    }
    if (g_failures == 0) return false;
    --g_failures;
    g_failed = true;
    return true;
}

}  // namespace test_support
