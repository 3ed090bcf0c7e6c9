#include "tests/support/FailingNew.h"

#include <cstddef>
#include <new>

namespace {

int g_callsUntilFailure = 0;  // 0 = none fails

}  // namespace

// Memory still comes from the ordinary operator, which the sanitizer watches.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (g_callsUntilFailure > 0 && --g_callsUntilFailure == 0) return nullptr;
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

FailingNew::FailingNew(int nth) { g_callsUntilFailure = nth; }
FailingNew::~FailingNew() { g_callsUntilFailure = 0; }
