#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace vexo::check {

/// How much a finding matters to a start-up.
enum class Level {
    kNote,     ///< a state worth knowing; does not count as a finding
    kWarning,  ///< works, but is probably not what was meant
    kError,    ///< the start-up goes on, but the program does not get what the file asks for
    kFatal     ///< the start-up ends here
};

struct Finding {
    Level level;
    std::string place;  ///< a file, "host", or a directory
    std::size_t line;   ///< 0 = the whole place
    std::string what;
    std::string todo;
};

/// Everything that was found.
class Report {
public:
    void add(Finding finding) { m_findings.push_back(std::move(finding)); }
    const std::vector<Finding>& findings() const { return m_findings; }
    /// Orders the findings of the last file by their lines, those from @p first on.
    void sortFrom(std::size_t first);
    /// Notes do not count.
    std::size_t count() const;
    std::size_t countFatal() const;

private:
    std::vector<Finding> m_findings;
};

/// One line a finding: "FILE:LINE: level: what; what to do", then a line with the total.
std::string asText(const Report& report, bool colored);
std::string asJson(const Report& report);

}  // namespace vexo::check
