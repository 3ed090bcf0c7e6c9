#pragma once

#include <cstddef>
#include <set>
#include <string>

namespace vexo_sim::remote {

/// Which refusals of the servers to tell: each once, and no more than some. Who asks a relay chooses the subject of the
/// answer, and so the words with which a server refuses it.
class Refusals {
public:
    bool isWorthTelling(const std::string& words) { return m_told.size() < kMost && m_told.insert(words).second; }

private:
    static constexpr std::size_t kMost = 16;
    std::set<std::string> m_told;
};

}  // namespace vexo_sim::remote
