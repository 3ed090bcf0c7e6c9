#pragma once

#include <cstdio>
#include <string>

namespace tap {

/// Writes one line to standard error. Standard output is the application's.
inline void report(const std::string& line) { std::fprintf(stderr, "vexo tap: %s\n", line.c_str()); }

}  // namespace tap
