#pragma once

#include <string>

#include "tools/vexo/watch/Scene.h"

/// The same scene, without a view.
namespace vexo::watch {

/// The new lines of the log, and a line of numbers. Each begins with the time of day.
std::string asLines(const Scene& scene, bool colored);

/// What came of it, for people. @param first  the page at the first look, for the rates; null: there was none
std::string asSummary(const Scene& scene, const stat::Page* first, bool colored);

/// One line of JSON. @param kind  look or summary
std::string asJson(const Scene& scene, const char* kind);

}  // namespace vexo::watch
