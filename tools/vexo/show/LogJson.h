#pragma once

#include <string>
#include <vector>

#include "tools/vexo/show/LogSource.h"
#include "tools/vexo/show/MessageTable.h"

namespace vexo {

/// A line of a log as one line of JSON. A line without brackets of its own has the level of the one before it, and no
/// time. @param name  of the log
std::string asJson(const std::string& name, const ShownLine& line);

/// Messages of the library, with their explanation.
std::string asJson(const std::vector<Message>& messages);

}  // namespace vexo
