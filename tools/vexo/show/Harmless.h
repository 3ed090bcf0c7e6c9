#pragma once

#include <string>
#include <string_view>

namespace vexo {

/// The text with every byte that could command a terminal written as \xNN. Tabs and letters of all languages stay.
std::string harmless(std::string_view text);

/// The first letters of a line, harmless and in quotes, with dots when there are more.
std::string quotedBegin(std::string_view line);

}  // namespace vexo
