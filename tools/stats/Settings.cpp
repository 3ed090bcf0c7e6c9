#include "tools/stats/Settings.h"

#include <cerrno>
#include <cstdlib>
#include <string>

#include "tools/tap/Report.h"

namespace stats {

std::uint64_t ringLastsMicroseconds() {
    const char* text = std::getenv(kRingLastsVariable);
    if (text == nullptr || *text == '\0') return kDefaultRingLastsUs;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (*text >= '0' && *text <= '9' && *end == '\0' && errno == 0 && value >= 1 && value <= kMaxRingLastsUs) {
        return value;
    }
    tap::report(std::string(kRingLastsVariable) + "=" + text + " is not a number from 1 to " +
                std::to_string(kMaxRingLastsUs) + ": " + std::to_string(kDefaultRingLastsUs) + " is used");
    return kDefaultRingLastsUs;
}

}  // namespace stats
