#include "tools/tap/Settings.h"

#include <cerrno>
#include <cstdlib>

#include "tools/tap/Report.h"

namespace tap {
namespace {

struct Range {
    std::uint64_t least, most, otherwise;
};

std::uint64_t number(const char* variable, const Range& range) {
    const char* text = std::getenv(variable);
    if (text == nullptr || *text == '\0') return range.otherwise;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 10);
    const bool isNumber = *text >= '0' && *text <= '9' && *end == '\0' && errno == 0;
    if (isNumber && (value == range.otherwise || (value >= range.least && value <= range.most))) return value;
    report(std::string(variable) + "=" + text + " is not a number from " + std::to_string(range.least) + " to " +
           std::to_string(range.most) + ": " + std::to_string(range.otherwise) + " is used");
    return range.otherwise;
}

bool isOne(const char* variable) {
    const char* text = std::getenv(variable);
    return text != nullptr && std::string(text) == "1";
}

}  // namespace

bool wantsRegisters() { return isOne(kRegistersVariable); }

Settings settingsFromEnvironment() {
    Settings settings;
    const char* file = std::getenv(kFileVariable);
    if (file != nullptr && *file != '\0') settings.file = file;
    settings.registers = wantsRegisters();
    settings.rotateBytes = number(kRotateVariable, {0, kMaxRotateMb, 0}) * kMegabyte;
    settings.rotateSeconds = number(kRotateEveryVariable, {0, kMaxSeconds, 0});
    settings.keep = number(kKeepVariable, {kLeastKeptFiles, kMostKeptFiles, 0});
    settings.keepFreeBytes = number(kKeepSpaceVariable, {0, kMaxKeepSpaceMb, kDefaultKeepSpaceMb}) * kMegabyte;
    settings.durationSeconds = number(kDurationVariable, {0, kMaxSeconds, 0});
    settings.ringBytes = number(kRingVariable, {1, kMaxRingMb, kDefaultRingMb}) * kMegabyte;
    if (settings.keep > 0 && settings.rotateBytes == 0 && settings.rotateSeconds == 0) {
        report(std::string(kKeepVariable) + " has no effect without " + kRotateVariable + " or " +
               kRotateEveryVariable + ": one file grows without a limit");
        settings.keep = 0;
    }
    return settings;
}

}  // namespace tap
