#pragma once

#include <cstddef>

/// Formats one WARN line of the log core itself, with the tag "log", into @p buf. Writes nothing. The caller holds the
/// log lock.
/// @return its length, newline included; 0 when output is disabled or the filter leaves warnings out
std::size_t ownWarning(char* buf, std::size_t size, const char* func, long line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));
