#include <algorithm>

#include "tools/cli/Color.h"
#include "tools/vexo/show/Harmless.h"
#include "tools/vexo/watch/Frame.h"

namespace vexo::watch {
namespace {

// The bytes of whole letters at the beginning of the text.
std::size_t wholeLetters(const std::string& text, std::size_t most) {
    if (text.size() <= most) return text.size();
    while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xC0) == 0x80) --most;
    return most;
}

}  // namespace

void Line::add(const std::string& text, const char* color) {
    if (text.empty()) return;
    std::string own = harmless(text);
    std::replace(own.begin(), own.end(), '\t', ' ');
    m_pieces.emplace_back(std::move(own), color);
}

std::size_t Line::width() const {
    std::size_t width = 0;
    for (const auto& [text, color] : m_pieces) width += text.size();
    return width;
}

void Line::padTo(std::size_t columns) {
    const std::size_t now = width();
    if (now < columns) m_pieces.emplace_back(std::string(columns - now, ' '), "");
}

void Line::append(const Line& other) { m_pieces.insert(m_pieces.end(), other.m_pieces.begin(), other.m_pieces.end()); }

Line Line::cutTo(std::size_t columns) const {
    if (width() <= columns) return *this;
    Line cut;
    if (columns == 0) return cut;
    std::size_t left = columns - 1;
    for (const auto& [text, color] : m_pieces) {
        const std::size_t bytes = wholeLetters(text, left);
        cut.m_pieces.emplace_back(text.substr(0, bytes), color);
        left -= bytes;
        if (bytes < text.size()) break;
    }
    cut.m_pieces.emplace_back(">", cli::kFaint);
    return cut;
}

std::string Line::shown(bool colored) const {
    std::string all;
    for (const auto& [text, color] : m_pieces) all += cli::painted(text, color, colored && *color != '\0');
    return all.substr(0, all.find_last_not_of(' ') + 1);
}

}  // namespace vexo::watch
