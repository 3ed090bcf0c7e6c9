#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace vexo::check {

/// A line of an ini file, together with those that continue it, as the library takes it.
struct IniLine {
    enum class Kind { kNothing, kSection, kKey, kNonsense };
    Kind kind = Kind::kNothing;
    std::size_t line = 0;      ///< number of the first line
    std::size_t lastLine = 0;  ///< of the last line that belongs to it
    std::string text;          ///< without the backslashes
    std::string section;       ///< that it opens or is in, in lower case
    std::string key;           ///< in lower case
    std::string value;         ///< as the library reads it
};

/// An ini file line by line. The library's own reader decides what a line is; this class only adds the numbers of the
/// lines, which the library's reader does not report.
class IniText {
public:
    /// Reads the file. Throws std::runtime_error when the library could not read it to its end.
    explicit IniText(const std::string& path);

    const std::vector<IniLine>& lines() const { return m_lines; }
    std::size_t lineThatIsTooLong() const { return m_tooLong; }  ///< the library refuses the file; 0 = none
    std::size_t lineWithoutEnd() const { return m_unread; }      ///< at the end, the library drops it; 0 = none

private:
    void take(const std::string& text, std::size_t first, std::size_t last);

    std::vector<IniLine> m_lines;
    std::string m_section;
    std::size_t m_tooLong = 0;
    std::size_t m_unread = 0;
};

}  // namespace vexo::check
