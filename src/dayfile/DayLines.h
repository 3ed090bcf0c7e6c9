#pragma once

#include <algorithm>
#include <ctime>
#include <string>
#include <string_view>

#include "src/util/Decimal.h"

/// The format of the day file, for the loader and for tools that show what the loader would take.
namespace day_file {

inline constexpr std::string_view kHeaderLine = "inst_index,inst_id\n";
inline constexpr std::string_view kEndTagLine = "bin_file_over_tag\n";

constexpr std::string_view withoutLineFeed(std::string_view line) { return line.substr(0, line.size() - 1); }

/// Path of the file of the half-day that @p local lies in.
std::string pathAt(const std::tm& local);

/// Goes through all lines of a day file, also those behind an end tag. @p content must end in a null character.
/// @param onInst    called with (line, id, index) for each instrument; the line begins with the index's text
/// @param onEndTag  called without arguments for each end tag
/// @param onSkipped called with (line) for a header and for a line without a comma
template <typename OnInst, typename OnEndTag, typename OnSkipped>
void forEachLine(std::string_view content, OnInst&& onInst, OnEndTag&& onEndTag, OnSkipped&& onSkipped) {
    while (!content.empty()) {
        const std::string_view line = content.substr(0, content.find('\n'));
        content.remove_prefix(std::min(line.size() + 1, content.size()));

        const std::size_t comma = line.find(',');
        if (line == withoutLineFeed(kEndTagLine)) {
            onEndTag();
        } else if (line != withoutLineFeed(kHeaderLine) && comma != std::string_view::npos) {
            // The comma ends the number: it is read in place.
            onInst(line, line.substr(comma + 1), leadingDecimal<unsigned short>(line.data()));
        } else {
            onSkipped(line);
        }
    }
}

}  // namespace day_file
