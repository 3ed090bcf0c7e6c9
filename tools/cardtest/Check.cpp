#include "tools/cardtest/Check.h"

#include <cstdio>
#include <cstring>

namespace cardtest {

void expect(bool kept, const std::string& expected, const std::string& seen) {
    if (!kept) throw Failed{expected, seen};
}

std::string hex(std::uint64_t value) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

std::string errnoText(int error) { return "errno " + std::to_string(error) + " (" + std::strerror(error) + ")"; }

std::string resultText(long result, int error) {
    return "result " + std::to_string(result) + (result == 0 ? "" : ", " + errnoText(error));
}

}  // namespace cardtest
