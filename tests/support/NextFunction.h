#pragma once

#include <dlfcn.h>

#include <atomic>

namespace test_support {

/// The definition of @p name after the test binary's own: a library's, or a sanitizer's in front of it. May be asked
/// before main and from signal handlers.
template <typename Function>
Function* NextFunction(std::atomic<Function*>& cache, const char* name) {
    Function* next = cache.load(std::memory_order_relaxed);
    if (next == nullptr) {
        next = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
        cache.store(next, std::memory_order_relaxed);
    }
    return next;
}

}  // namespace test_support
