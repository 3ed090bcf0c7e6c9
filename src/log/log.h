#pragma once

#include "src/log/elog.h"

/// Every message of the library goes through these, with the tag "fpga" and the source name that the including file
/// defines as kLogFile.
#define LOG_AT(level, function, ...) elog_output(level, "fpga", kLogFile, function, __LINE__, __VA_ARGS__)
#define LOG_ERROR(...) LOG_AT(ELOG_LVL_ERROR, __func__, __VA_ARGS__)
#define LOG_WARN(...) LOG_AT(ELOG_LVL_WARN, __func__, __VA_ARGS__)
#define LOG_INFO(...) LOG_AT(ELOG_LVL_INFO, __func__, __VA_ARGS__)

/// For a step of an operation. The line names the operation, which its readers know, and not the function of the step.
#define LOG_ERROR_IN(operation, ...) LOG_AT(ELOG_LVL_ERROR, operation, __VA_ARGS__)
#define LOG_WARN_IN(operation, ...) LOG_AT(ELOG_LVL_WARN, operation, __VA_ARGS__)
#define LOG_INFO_IN(operation, ...) LOG_AT(ELOG_LVL_INFO, operation, __VA_ARGS__)
