#pragma once

#include <string>
#include <vector>

#include "tools/cardtest/Runner.h"

namespace cardtest {

/// The names and promises of all checks, as --list shows them.
std::string listText();
std::string listJson();

/// The first lines: which card it is, and what is done to it.
std::string headText(const MetCard& met);
/// One result, under the heading of its group when @p before is of another one.
std::string resultText(const CheckResult& result, const CheckResult* before, bool colored);
/// The last lines: the sums, and what a writing run could not put back.
std::string footText(const std::vector<CheckResult>& results);

std::string toJson(const MetCard& met, const std::vector<CheckResult>& results);

unsigned count(const std::vector<CheckResult>& results, Verdict verdict);

}  // namespace cardtest
