#pragma once

#include <cstddef>

/// While it lives, `new` on this thread gets no memory: from the @p nth call on (1 = the next), for so many calls.
class FailingMemory {
public:
    explicit FailingMemory(std::size_t nth, std::size_t calls = 1);
    ~FailingMemory();
    FailingMemory(const FailingMemory&) = delete;
    FailingMemory& operator=(const FailingMemory&) = delete;

    /// Whether a call has failed.
    bool HasFailed() const;
};
