// malloc and calloc that a FailingMemory makes fail, also in C libraries and below operator new. Not in a build with a
// sanitizer, which has its own allocator.

#include <cerrno>

#include "tests/support/FailingMemory.h"
#include "tests/support/Sanitizers.h"

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(VEXO_WITH_ADDRESS_SANITIZER) && \
    !defined(VEXO_WITH_THREAD_SANITIZER)

namespace {

bool Fails() {
    if (!test_support::FailingMemory::Fails()) return false;
    errno = ENOMEM;
    return true;
}

}  // namespace

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);

void* malloc(std::size_t size) { return Fails() ? nullptr : __libc_malloc(size); }
void* calloc(std::size_t count, std::size_t size) { return Fails() ? nullptr : __libc_calloc(count, size); }

}  // extern "C"

#endif
