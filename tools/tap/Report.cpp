#include "tools/tap/Report.h"

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "capture/StandardStreams.h"
#include "tools/tap/Settings.h"

namespace tap {

namespace {

using Json = nlohmann::ordered_json;

bool wantsJson() {
    const char* const text = std::getenv(kJsonVariable);
    return text != nullptr && std::string(text) == "1";
}

// A reader of JSON may keep numbers as doubles, which are exact up to here.
Json number(std::uint64_t value) {
    constexpr std::uint64_t kExact = std::uint64_t{1} << 53;
    return value <= kExact ? Json(value) : Json(std::to_string(value));
}

// The name of a file may be any bytes.
void write(const Json& object) {
    capture::printError("%s\n", object.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
}

}  // namespace

void report(const std::string& line) {
    if (wantsJson()) {
        write({{"tap", "notice"}, {"text", line}});
    } else {
        capture::printError("vexo tap: %s\n", line.c_str());
    }
}

void reportResult(std::uint64_t packets, std::uint64_t files, std::uint64_t lost) {
    if (wantsJson()) {
        write({{"tap", "result"}, {"packets", number(packets)}, {"files", number(files)}, {"lost", number(lost)}});
    } else {
        report(std::to_string(packets) + " packets in " + std::to_string(files) + " file(s), " + std::to_string(lost) +
               " lost");
    }
}

}  // namespace tap
