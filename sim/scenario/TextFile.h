#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace vexo_sim::scenario {

/// Why a scenario cannot be used: "FILE:LINE: what; what to do". Never leaves load().
class Rejected : public std::runtime_error {
public:
    /// @param line  0 = the whole file
    Rejected(const std::string& file, std::size_t line, const std::string& what)
        : std::runtime_error(file + (line != 0 ? ':' + std::to_string(line) : std::string()) + ": " + what) {}
};

/// The lines of a regular file without their ends. Throws Rejected for anything else than a file of text that can be
/// read: a directory, a FIFO or a device would not end, and a huge file is none of ours.
std::vector<std::string> readLines(const std::string& path);

/// Throws Rejected unless @p path names a regular file that this process may read.
/// @param namedIn, line  where the path was read, for the message
void requireFile(const std::string& path, const std::string& namedIn, std::size_t line);

std::string trimmed(const std::string& text);

}  // namespace vexo_sim::scenario
