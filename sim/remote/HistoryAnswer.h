#pragma once

#include <cstddef>
#include <vector>

#include "sim/remote/Wire.h"

namespace vexo_sim::remote {

/// The messages of one answer of an archive, as they come. They are of use when all of them are there: a message that
/// was lost on the way would be a gap, and the archive has its packets. Whatever else comes to the same place is left
/// out.
class HistoryAnswer {
public:
    /// No archive's answer to a receiver is longer. A stranger's might have no end.
    static constexpr std::size_t kMostBytes = 32 << 20;
    using Messages = std::vector<std::vector<unsigned char>>;

    explicit HistoryAnswer(std::size_t mostBytes = kMostBytes) : m_mostBytes(mostBytes) {}

    /// @return whether nothing more is wanted: this was the end, or it was too much
    bool take(const void* data, std::size_t size);
    /// The end has come, and all messages before it.
    bool isWhole() const { return m_isWhole; }
    const wire::HistoryEnd& end() const { return m_end; }
    /// All of them are without a problem.
    const Messages& messages() const { return m_messages; }

private:
    std::size_t m_mostBytes;
    std::size_t m_bytes = 0;
    Messages m_messages;
    wire::HistoryEnd m_end;
    bool m_isWhole = false;
};

}  // namespace vexo_sim::remote
