#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vexo {

/// A message of the library, as docs/messages.md has it.
struct Message {
    std::string format;  ///< of printf
    std::string level;
    std::string place;  ///< room and source name
    std::string when;
    std::string cure;
};

/// All rows of the tables of a page.
std::vector<Message> parseMessages(std::string_view page);

/// Those that can have given a line of the log. Of several formats, the one with the most text of its own counts. The
/// prefix of the line does not matter.
std::vector<Message> messagesOf(std::string_view line, const std::vector<Message>& messages);

/// Those whose format contains the text, in any case of its letters; "..." in the text stands for anything.
std::vector<Message> messagesWith(std::string_view text, const std::vector<Message>& messages);

}  // namespace vexo
