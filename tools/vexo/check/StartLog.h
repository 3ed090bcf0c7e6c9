#pragma once

#include <string>
#include <vector>

#include "tools/vexo/check/Report.h"

namespace vexo::check {

/// What another start would bring.
enum class Again {
    kMayHelp,
    kUseless,       ///< the same end
    kUnlessMaster,  ///< may help; but a master does harm, because it resets the card before it gets to this line
    kNoCard         ///< the same end until there is a card
};

/// A log line after which a start-up ends. The table is in StartLines.cpp.
struct StartLine {
    const char* text;  ///< as docs/troubleshooting.md quotes it: "..." stands for what differs
    const char* step;  ///< of the start-up
    const char* why;
    const char* todo;
    Again again = Again::kUseless;
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

/// Where a start-up ended.
struct StartEnd {
    const StartLine* line = nullptr;  ///< null: nowhere
    std::size_t number = 0;           ///< of the line in the file
    bool opened = false;              ///< the last start-up, or one before it in the process, succeeded
};

/// What became of the last start-up in the output of one process. Unlike a day log, it may begin with anything, and a
/// start-up of a second channel may follow the first. Throws std::runtime_error when the file cannot be read.
StartEnd endOfStart(const std::string& path);

}  // namespace vexo::check
