#include "tools/tap/Settings.h"

#include <cerrno>
#include <cstdlib>

#include "tools/tap/Report.h"

namespace tap {
namespace {

std::uint64_t megabytes(const char* variable, std::uint64_t least, std::uint64_t most, std::uint64_t otherwise) {
    const char* text = std::getenv(variable);
    if (text == nullptr || *text == '\0') return otherwise * kMegabyte;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (*text >= '0' && *text <= '9' && *end == '\0' && errno == 0 && value >= least && value <= most) {
        return value * kMegabyte;
    }
    report(std::string(variable) + "=" + text + " is not a number from " + std::to_string(least) + " to " +
           std::to_string(most) + ": " + std::to_string(otherwise) + " is used");
    return otherwise * kMegabyte;
}

bool isOne(const char* variable) {
    const char* text = std::getenv(variable);
    return text != nullptr && std::string(text) == "1";
}

}  // namespace

Settings settingsFromEnvironment() {
    Settings settings;
    const char* file = std::getenv(kFileVariable);
    if (file != nullptr && *file != '\0') settings.file = file;
    settings.registers = isOne(kRegistersVariable);
    settings.rotateBytes = megabytes(kRotateVariable, 0, kMaxRotateMb, 0);
    settings.ringBytes = megabytes(kRingVariable, 1, kMaxRingMb, kDefaultRingMb);
    return settings;
}

}  // namespace tap
