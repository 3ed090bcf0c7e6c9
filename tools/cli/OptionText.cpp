#include "tools/cli/OptionText.h"

#include <CLI/CLI.hpp>
#include <set>

namespace cli {
namespace {

constexpr char kMark = ':';  // CLI11 puts it between the name of a value and what its check says

// CLI11 has them in the order of their addresses.
std::string namesOf(const std::set<CLI::Option*>& options) {
    std::set<std::string> names;
    for (const CLI::Option* option : options) names.insert(option->get_name());
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
}

std::string typeOf(const CLI::Option& option) { return option.get_type_size() != 0 ? option.get_type_name() : ""; }

}  // namespace

std::string valueOf(const CLI::Option& option) {
    const std::string type = typeOf(option);
    const std::string name = type.substr(0, type.find(kMark));
    return option.get_positional() && name == "TEXT" ? "" : name;  // the positional has a name of its own
}

std::string rangeOf(const CLI::Option& option) {
    const std::string type = typeOf(option);
    const std::size_t mark = type.find(kMark);
    return mark == std::string::npos ? "" : type.substr(mark + 1);
}

std::string conditionsOf(const CLI::Option& option) {
    const std::string needs = namesOf(option.get_needs());
    const std::string excludes = namesOf(option.get_excludes());
    return (needs.empty() ? "" : "needs " + needs) + (needs.empty() || excludes.empty() ? "" : "; ") +
           (excludes.empty() ? "" : "not with " + excludes);
}

}  // namespace cli
