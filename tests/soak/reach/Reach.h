#pragma once

#include <cstdint>

/// Which functions of the library a test enters, for the mutation campaign: it then runs only the tests that come by a
/// changed line. The library is compiled with -fsanitize-coverage=func,trace-pc-guard. Its processes, also those that a
/// test starts, note the functions in a file that they share.
namespace reach {

constexpr std::uint32_t kMostFunctions = 8192;

/// The file of VEXO_REACH, mapped. Functions have numbers from 1.
struct Functions {
    std::uint64_t place[kMostFunctions];  ///< in the module, once it has been entered; 0 before
    std::uint8_t entered[kMostFunctions];
};

/// @return null without VEXO_REACH
Functions* functions();

}  // namespace reach
