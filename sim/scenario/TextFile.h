#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace vexo_sim::scenario {

/// Why a scenario cannot be used: "FILE:LINE: what is wrong; what to do". load() catches it.
class Rejected : public std::runtime_error {
public:
    /// @param line  0 = the whole file
    Rejected(const std::string& file, std::size_t line, const std::string& what)
        : std::runtime_error(file + (line != 0 ? ':' + std::to_string(line) : std::string()) + ": " + what) {}
};

/// The lines of a regular file without their ends. Throws Rejected when the file cannot be read, is not a regular file
/// (a FIFO or a device might not end), is far too large for a scenario, or is not text.
std::vector<std::string> readLines(const std::string& path);

/// Throws Rejected unless @p path names a regular file that this process may read.
/// @param namedIn, line  where the path was written, for the message
/// @param base           the directory that the path is relative to, in words
void requireFile(const std::string& path, const std::string& namedIn, std::size_t line, const std::string& base);

inline constexpr std::size_t kLongestLine = 1000;  // iniparser takes 1,023 characters
/// False when @p text has a control character other than a tab.
bool isPlainText(const std::string& text);

std::string trimmed(const std::string& text);

}  // namespace vexo_sim::scenario
