#include "tools/vexo/run/Events.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace vexo::run {
namespace {

using Json = nlohmann::ordered_json;

// Seconds since 1970, to the millisecond.
double timeOfDay() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::round(std::chrono::duration<double>(now).count() * 1000) / 1000;
}

}  // namespace

void Events::tell(const char* event, const std::string& text) const { tell(event, text, Json::object()); }

void Events::tell(const char* event, const std::string& text, const Json& more) const {
    if (!m_json) {
        std::fprintf(stderr, "vexo run: %s\n", text.c_str());
        return;
    }
    Json object = {{"event", event}, {"time", timeOfDay()}};
    object.update(more);
    object["text"] = text;
    // Whoever reads it is not to wait for a full buffer. A name may be any bytes.
    std::puts(object.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
    std::fflush(stdout);
}

}  // namespace vexo::run
