#pragma once

#include <cstddef>

/// One WARN line of the log core itself, with the tag "log", in @p buf. The log lock is held. Nothing is written.
/// @return its length, newline included; 0 when output is disabled or the filter leaves warnings out
std::size_t ownWarning(char* buf, std::size_t size, const char* func, long line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));
