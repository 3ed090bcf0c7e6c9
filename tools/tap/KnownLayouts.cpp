#include "tools/tap/KnownLayouts.h"

#include <dlfcn.h>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "tools/tap/Report.h"

namespace tap {

std::unique_ptr<vexo::data::Layouts> knownLayouts() {
    const char* const named = std::getenv(vexo::data::kLayoutVariable);
    const bool isNamed = named != nullptr && *named != '\0';
    if (!isNamed && ::dlsym(RTLD_DEFAULT, "enyx_sim_is_simulated") == nullptr) return nullptr;
    try {
        return std::make_unique<vexo::data::Layouts>(std::vector<std::string>());
    } catch (const std::exception& error) {
        report(std::string(error.what()) + "; sequence numbers are not looked at");
        return nullptr;
    }
}

}  // namespace tap
