#pragma once

#include <stdexcept>
#include <string>

#include "tools/cli/Manner.h"

namespace vexo {

/// Thrown to end vexo with a message on standard error.
struct Failure : std::runtime_error {
    Failure(int exitStatus, const std::string& text) : std::runtime_error(text), status(exitStatus) {}
    int status;
};

// Exit statuses of vexo itself. Once vexo has become the program, the status is the program's. 126 and 127 mean the
// same as in a shell, but what fails for the moment only is kFinding: another start may help.
inline constexpr int kFinding = cli::kFinding;
inline constexpr int kUsage = cli::kUsage;
inline constexpr int kNoCard = cli::kNoCard;
inline constexpr int kCannotRun = 126;
inline constexpr int kNotFound = 127;

}  // namespace vexo
