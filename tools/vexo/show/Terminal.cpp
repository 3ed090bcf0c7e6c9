#include "tools/vexo/show/Terminal.h"

#include "tools/cli/Manner.h"
#include "tools/vexo/Command.h"

namespace vexo::terminal {

int statusOfOutput(int status) {
    const std::string fault = cli::faultOfOutput();
    if (!fault.empty()) throw Failure(kFinding, fault);
    return status;
}

}  // namespace vexo::terminal
