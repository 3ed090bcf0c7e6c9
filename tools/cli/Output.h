#pragma once

#include <string>

namespace cli {

/// Gives the standard streams that are closed something that takes and gives nothing, so that no file that is opened
/// later gets what the program prints. Called first in main(). Programs that are started from here find them closed.
void guardStandardStreams();

/// "standard output: No space left on device". @param error  an errno
std::string faultOfOutput(int error);
/// The same: why standard output did not take everything; empty when it did. Writes
/// out what standard output still holds.
std::string faultOfOutput();

}  // namespace cli
