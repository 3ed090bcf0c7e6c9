#pragma once

#include <cstddef>

namespace test_support {

/// While it lives, allocations of this thread get no memory: from the @p nth on (1 = the next), as many as @p calls. To
/// choose the kind of allocation, a test program adds FailingOperatorNew.cpp (operator new) or FailingMalloc.cpp
/// (malloc, calloc) of this folder to its sources.
class FailingMemory {
public:
    explicit FailingMemory(std::size_t nth, std::size_t calls = 1);
    ~FailingMemory();
    FailingMemory(const FailingMemory&) = delete;
    FailingMemory& operator=(const FailingMemory&) = delete;

    bool HasFailed() const;  ///< whether one got no memory

    static bool Fails();  ///< asked by every allocation

    /// From now on @p fails decides on each allocation first, in whatever thread makes it.
    static void AskFirst(bool (*fails)());
};

}  // namespace test_support
