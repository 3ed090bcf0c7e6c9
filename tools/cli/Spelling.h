#pragma once

#include <cstddef>
#include <string>

namespace cli {

/// How many letters have to be put in, left out, replaced or swapped with the next one to make one word of the other.
std::size_t distance(const std::string& a, const std::string& b);

}  // namespace cli
