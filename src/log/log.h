#pragma once

#include "src/log/elog.h"

/// Every message of the library goes through these, with the tag "fpga" and the source name that the including file
/// defines as kLogFile.
#define LOG_AT(level, ...) elog_output(level, "fpga", kLogFile, __func__, __LINE__, __VA_ARGS__)
#define LOG_ERROR(...) LOG_AT(ELOG_LVL_ERROR, __VA_ARGS__)
#define LOG_WARN(...) LOG_AT(ELOG_LVL_WARN, __VA_ARGS__)
#define LOG_INFO(...) LOG_AT(ELOG_LVL_INFO, __VA_ARGS__)
