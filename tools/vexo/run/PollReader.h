#pragma once

#include <cstdint>
#include <vector>

#include "tools/polls/PollPage.h"

namespace vexo::run {

/// A stream of the application at one moment.
struct StreamPolls {
    std::uint32_t owner = 0;  ///< 0 = no stream is open in this slot, or its process is gone
    std::uint64_t polls = 0;
};

/// The supervisor's side of the page that an application counts its polls in. Each start has a page of its own.
class PollReader {
public:
    PollReader();  ///< Throws Failure when the system gives no memory.
    ~PollReader();
    PollReader(const PollReader&) = delete;
    PollReader& operator=(const PollReader&) = delete;

    int descriptor() const { return m_fd; }  ///< closed by exec, unless that is changed
    bool isAttached() const { return m_page->attached.load() != 0; }
    bool isReady() const { return m_page->ready.load() != 0; }
    std::vector<StreamPolls> streams() const;

private:
    bool isThere(const polls::StreamSlot& slot, std::uint32_t owner) const;

    int m_fd = -1;
    polls::PollPage* m_page = nullptr;
};

}  // namespace vexo::run
