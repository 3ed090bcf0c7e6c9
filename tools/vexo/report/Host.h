#pragma once

#include <string>

namespace vexo::report {

/// Versions of the programs and of the system.
std::string versions();
/// How the host shares out its CPUs.
std::string cpus();
/// Interrupts, and the CPUs that take them.
std::string interrupts();
/// Kernel modules and devices on the PCI bus.
std::string devices();
/// Who uses a card's library, the day file or a device, and who holds locks.
std::string holders();

}  // namespace vexo::report
