#pragma once

#include <stdexcept>
#include <string>

namespace relay {

/// Thrown to end the relay with a message on standard error.
struct Failure : std::runtime_error {
    // Exit statuses of vexo.
    static constexpr int kFinding = 1;
    static constexpr int kUsage = 2;
    static constexpr int kNoCard = 3;

    Failure(int exitStatus, const std::string& text) : std::runtime_error(text), status(exitStatus) {}
    int status;
};

}  // namespace relay
