#pragma once

#include <string>
#include <vector>

#include "tests/sweep/FaultPoints.h"
#include "tests/sweep/Scene.h"

namespace sweep {

/// What a run left behind.
struct Remains {
    int waitStatus = 0;
    bool hasReport = false;
    Report report;
    std::string out, err, dayFile;
    std::vector<std::string> log;  // the lines of the log files, oldest file first
    bool logEndsWithLine = true;   // no file ends in the middle of a line
};

/// Reads them from the working directory or from @p directory.
Remains ReadRemains(Scene scene, int waitStatus, const std::string& directory);

/// The fault that a run had; null for a run without one.
struct FaultOfRun {
    std::size_t call;
    const FaultKind* kind;
};

/// Judges a run by what is promised: it ends in order or goes on; no line of the log is lost or torn without a warning
/// that counts it; the day file is complete or has no end tag; every descriptor and handle is given back.
/// @param sound  what the same scene leaves without a fault
/// @return what is wrong; empty when nothing is
std::string Judge(const Remains& run, const Remains& sound, unsigned int closed, const FaultOfRun* fault);

}  // namespace sweep
