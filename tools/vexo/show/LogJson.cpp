#include "tools/vexo/show/LogJson.h"

#include <nlohmann/json.hpp>

#include "tools/vexo/show/LogLine.h"

namespace vexo {
namespace {

using Json = nlohmann::ordered_json;

// A log may hold any bytes: what is no UTF-8 is replaced.
std::string written(const Json& json, int indent) {
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

std::string asJson(const std::string& name, const ShownLine& line) {
    const LogLine parsed = parseLogLine(line.text);
    Json object = {{"log", name}, {"level", nullptr}, {"time", nullptr}, {"text", std::string(parsed.message)}};
    if (line.level != kNoLevel) object["level"] = levelName(line.level);
    if (!parsed.time.empty()) object["time"] = std::string(parsed.time);
    return written(object, -1);
}

std::string asJson(const std::vector<Message>& messages) {
    Json all = Json::array();
    for (const Message& one : messages) {
        all.push_back({{"message", one.format},
                       {"level", one.level},
                       {"place", one.place},
                       {"when", one.when},
                       {"todo", one.cure}});
    }
    return written(Json{{"messages", all}}, 1);
}

}  // namespace vexo
