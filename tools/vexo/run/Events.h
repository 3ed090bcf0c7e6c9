#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace vexo::run {

/// Says what happens to an application, while it happens: as text for people on standard error, or as JSON on standard
/// output, one object a line.
class Events {
public:
    explicit Events(bool json) : m_json(json) {}

    /// @param event  its name in JSON: "start", "ready", ...
    /// @param text   for people
    void tell(const char* event, const std::string& text) const;
    /// @param more   what JSON says besides the event, its time and the text
    void tell(const char* event, const std::string& text, const nlohmann::ordered_json& more) const;

    bool isJson() const { return m_json; }

private:
    bool m_json;
};

}  // namespace vexo::run
