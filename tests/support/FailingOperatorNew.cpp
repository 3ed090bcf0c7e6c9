// operator new that a FailingMemory makes fail. Works in builds with a sanitizer too.

#include <cstdlib>
#include <new>

#include "tests/support/FailingMemory.h"

void* operator new(std::size_t size) {
    void* const memory = test_support::FailingMemory::Fails() ? nullptr : std::malloc(size != 0 ? size : 1);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
