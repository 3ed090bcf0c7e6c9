#pragma once

#include <cstdio>
#include <string>

namespace tap {

/// One line on standard error: the application's own output stays as it is.
inline void report(const std::string& line) { std::fprintf(stderr, "vexo tap: %s\n", line.c_str()); }

}  // namespace tap
