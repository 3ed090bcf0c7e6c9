#pragma once

#include <ctime>
#include <string>
#include <vector>

namespace vexo::report {

/// One file of an archive.
struct Part {
    std::string name;  ///< relative, at most 99 bytes
    std::string what;  ///< for people
    std::string content;
};

/// The parts as one tar archive (ustar). Each file can be read by its owner only.
/// @param folder  that the parts are in
std::string tarOf(const std::vector<Part>& parts, const std::string& folder, std::time_t time);

/// Writes a new file that only its owner can read. Throws Failure, and leaves nothing behind, when that fails or a file
/// of that name is there.
void writeNew(const std::string& path, const std::string& content);

}  // namespace vexo::report
