#pragma once

#include <optional>
#include <string>

#include "tools/vexo/check/IniText.h"
#include "tools/vexo/check/KeyTable.h"
#include "tools/vexo/check/Report.h"

namespace vexo::check {

/// What is wrong with a value.
struct Problem {
    Level level;
    std::string what;
    std::string todo;
};

/// What the library would make of the value that the text does not say; empty when the value is sound.
std::optional<Problem> checkValue(const Key& key, const IniLine& line);

/// What the library reads from `device`.
struct Device {
    bool valid = false;
    unsigned int card = 0;
    unsigned int channel = 0;
};
Device deviceOf(const std::string& value);

/// A whole number as the library reads it: the digits at the front, decimal, octal or hexadecimal.
long numberOf(const std::string& value);

}  // namespace vexo::check
