#pragma once

#include <string>
#include <vector>

#include "tests/sweep/FaultPoints.h"
#include "tests/sweep/Judge.h"
#include "tests/sweep/Scene.h"

namespace sweep {

/// Which points a sweep takes.
struct Choice {
    Group group = Group::kHost;
    std::size_t perCall = 16;  // of one call at most: the first, the last, and some between
    bool all = false;          // every point, but for register accesses, of which there are a hundred thousand
    unsigned int closed = 0;   // standard streams that are closed, bit n: descriptor n
};

struct Result {
    std::size_t points = 0;
    std::vector<std::string> findings;
    std::vector<std::string> dayFiles;  // the different ones that the runs left
};

/// Plays the scene once, and at each chosen call splits off a process for each way in which the call can fail. That
/// process plays the scene to its end and is judged. So a point costs only what comes behind it.
Result Explore(Scene scene, const Choice& choice);

/// Plays the scene without a fault. @p dayFile: what the day file holds before, if not null.
Remains PlayOnce(Scene scene, unsigned int closed, const std::string* dayFile);

}  // namespace sweep
