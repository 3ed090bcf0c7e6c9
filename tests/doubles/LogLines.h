#pragma once

#include <string>
#include <vector>

#include "tests/support/CaptureOutput.h"

namespace test_support {

/// Collects the library's log lines while it lives: "ERROR text", "WARN text", "INFO text", without tag and time. No
/// log file is open. Whatever else reaches standard output is collected as it stands.
class LogLines {
public:
    LogLines();
    ~LogLines();
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;

    /// The lines since the last Take, oldest first.
    std::vector<std::string> Take();
    /// The same as one text, each line ended by a newline.
    std::string TakeText();

private:
    CaptureOutput m_output;
    std::size_t m_taken = 0;
};

}  // namespace test_support
