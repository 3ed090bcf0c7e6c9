#pragma once

#include <string>
#include <vector>

#include "tools/vexo/check/Report.h"

namespace vexo::check {

/// A log line after which a start-up ends. The table is in StartLines.cpp.
struct StartLine {
    const char* text;  ///< as docs/troubleshooting.md quotes it: "..." stands for what differs
    const char* step;  ///< of the start-up
    const char* why;
    const char* todo;
};
const std::vector<StartLine>& startLines();

/// A log line that shows that a step of the start-up was reached.
struct StepLine {
    const char* text;
    const char* step;
};
const std::vector<StepLine>& stepLines();

/// Whether a log line has the text of the tables in it.
bool matches(const std::string& line, const char* text);

/// Adds what became of the last start-up in a day log: a note when it succeeded, otherwise the step that failed. Throws
/// std::runtime_error when the file cannot be read.
void checkLog(const std::string& path, Report& report);

}  // namespace vexo::check
