#pragma once

#include <cstdint>
#include <string>

namespace tap {

/// Writes one line to standard error, because standard output is the application's: a line of text, or of JSON if the
/// environment asks for it.
void report(const std::string& line);

/// The last line: what is in the files.
void reportResult(std::uint64_t packets, std::uint64_t files, std::uint64_t lost);

}  // namespace tap
