#include "tools/cli/OptionTree.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "tools/cli/OptionText.h"

namespace cli {

namespace {

using Json = nlohmann::ordered_json;

Json namesOf(const CLI::Option& option) {
    Json names = Json::array();
    for (const std::string& name : option.get_snames()) names.push_back("-" + name);
    for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
    return names;
}

Json describe(const CLI::Option& option) {
    return {{"names", namesOf(option)},
            {"positional", option.get_positional() ? option.get_name(true) : ""},
            {"value", valueOf(option)},
            {"range", rangeOf(option)},
            {"default", option.get_default_str()},
            {"required", option.get_required()},
            {"repeats", option.get_items_expected_max() > 1},
            {"conditions", conditionsOf(option)},
            {"help", option.get_description()}};
}

// CLI11 hides what belongs to no group.
Json describe(const CLI::App& app) {
    Json options = Json::array();
    for (const CLI::Option* option : app.get_options([](const CLI::Option* one) { return !one->get_group().empty(); }))
        options.push_back(describe(*option));
    Json commands = Json::array();
    for (const CLI::App* command :
         app.get_subcommands([](const CLI::App* one) { return !one->get_group().empty() && !one->get_name().empty(); }))
        commands.push_back(describe(*command));
    return {{"name", app.get_name()},
            {"description", app.get_description()},
            {"footer", app.get_footer()},
            {"options", options},
            {"commands", commands}};
}

}  // namespace

bool isDumpWanted(int argc, const char* const* argv) {
    return argc == 2 && std::strcmp(argv[1], "--dump-options") == 0;
}

int dumpOptions(const Command& program, const char* version) {
    Json tree = describe(program.app());
    tree["version"] = version;
    return std::puts(tree.dump(1).c_str()) < 0 ? 1 : 0;
}

}  // namespace cli
