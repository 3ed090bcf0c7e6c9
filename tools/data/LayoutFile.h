#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/data/Layout.h"

namespace vexo::data {

/// What is wrong with a layout file: "FILE:LINE: what; what to do".
struct LayoutError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Reads the text of a layout file.
/// @param name  of the file, for the messages
/// Throws LayoutError, whatever the bytes are.
std::unique_ptr<Layout> parseLayout(const std::string& text, const std::string& name);
/// Reads a layout file. Throws LayoutError.
std::unique_ptr<Layout> readLayout(const std::string& path);

/// The environment variable that names the layouts to use: files with colons between them, or the word "simulated" for
/// the simulated card's own. The dissector reads it, too.
inline constexpr char kLayoutVariable[] = "VEXO_LAYOUT";
inline constexpr char kSimulated[] = "simulated";

/// Layouts, the first of which that describes a packet holds.
class Layouts {
public:
    /// @param names  files, or "simulated"; without any, those of kLayoutVariable; without that, "simulated".
    /// Throws LayoutError.
    explicit Layouts(std::vector<std::string> names);

    /// @return the packet's payload, or null when no layout describes it
    const Payload* find(const unsigned char* packet, std::size_t size) const {
        for (const auto& layout : m_layouts) {
            if (const Payload* payload = payloadOf(*layout, packet, size)) return payload;
        }
        return nullptr;
    }
    const std::vector<std::unique_ptr<Layout>>& all() const { return m_layouts; }

private:
    std::vector<std::unique_ptr<Layout>> m_layouts;
};

}  // namespace vexo::data
