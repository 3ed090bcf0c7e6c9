#pragma once

#include <string>
#include <vector>

#include "tools/vexo/info/Summary.h"

/// The same summary, for different readers.
namespace vexo::info {

struct View {
    const Summary* summary = nullptr;
    const Summary* other = nullptr;  // to compare it with; null for none
    std::size_t top = 0;             // instruments to show at most
};

/// For people, on a terminal.
std::string asText(const View& view);
/// One object.
std::string asJson(const View& view);
/// A page that needs nothing else: no other file, no network, no script.
std::string asHtml(const View& view);

// What the views share.

/// A line of a comparison: two numbers, as text.
struct Compared {
    std::string name;
    std::string one;
    std::string other;
    std::string change;  // from the other one to this one
};
std::vector<Compared> compare(const Summary& one, const Summary& other);

/// What a reader has to know of the numbers: damaged captures, payloads without a layout, times that run backwards.
std::vector<std::string> notesOf(const Summary& summary);

/// By id, among those that are kept apart; null if it is not there.
const InstrumentCounts* findInstrument(const Summary& summary, const std::string& id);

}  // namespace vexo::info
