#include "tools/cli/Manner.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>

#include "tools/cli/OptionText.h"
#include "tools/cli/Spelling.h"

namespace cli {

namespace {

constexpr char kStatusTitle[] = "Exit status:";
constexpr std::size_t kHelpWidth = 110;

// Breaks the lines of a text between words.
std::string wrapped(const std::string& text, std::size_t width) {
    std::string out;
    std::size_t begin = 0;  // of the line that grows
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find_first_of(" \n", at), text.size());
        const std::size_t space = out.find_last_not_of(' ') + 1;
        if (out.size() - begin + (end - at) > width && space > begin) {
            out.replace(space, std::string::npos, "\n");
            begin = out.size();
        }
        out.append(text, at, end - at + (end < text.size() ? 1 : 0));
        if (end < text.size() && text[end] == '\n') begin = out.size();
        at = end + 1;
    }
    return out;
}

std::string defaultOf(const CLI::Option& option) {
    const std::string value = option.get_default_str();
    return value.empty() ? "" : "default " + value;
}

// Long texts of the help take several lines. What an option takes and what it goes with stands behind its description.
class Formatter : public CLI::Formatter {
public:
    std::string make_option_opts(const CLI::Option* option) const override {
        const std::string value = valueOf(*option);
        // The commas of "N,..." say already that there may be several.
        const bool isList = value.find(",...") != std::string::npos;
        const bool repeats = !isList && option->get_expected_max() == CLI::detail::expected_max_vector_size;
        return (value.empty() ? "" : " " + value) + (repeats ? " ..." : "");
    }
    std::string make_option_desc(const CLI::Option* option) const override {
        std::string more;
        for (const std::string& part : {rangeOf(*option), defaultOf(*option), conditionsOf(*option)})
            if (!part.empty()) more += (more.empty() ? " (" : "; ") + part;
        if (!more.empty()) more += ")";
        return wrapped(option->get_description() + more, kHelpWidth - get_column_width());
    }
    std::string make_footer(const CLI::App* app) const override {
        return app->get_footer().empty() ? "" : wrapped(app->get_footer(), kHelpWidth) + "\n";
    }
    std::string make_description(const CLI::App* app) const override {
        return app->get_description().empty() ? "" : wrapped(app->get_description(), kHelpWidth) + "\n";
    }
};

bool isOption(const std::string& word) { return word.size() > 1 && word.front() == '-'; }

// The name that was probably meant; empty when none is near.
std::string nearest(const std::string& word, const std::vector<std::string>& names) {
    constexpr std::size_t kLongest = 64;  // a longer word is no slip of the hand
    std::string meant;
    std::size_t best = 3;  // from here on it is another word
    for (const std::string& name : names) {
        const bool isCutOff = word.size() > 3 && name.compare(0, word.size(), word) == 0;
        const std::size_t far = isCutOff ? 0 : word.size() > kLongest ? best : distance(word, name);
        if (far < best) meant = name;
        best = std::min(best, far);
    }
    return meant;
}

std::vector<std::string> optionsOf(const CLI::App& command) {
    std::vector<std::string> names;
    for (const CLI::Option* option : command.get_options())
        for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    return names;
}

std::vector<std::string> subcommandsOf(const CLI::App& command) {
    std::vector<std::string> names;
    for (const CLI::App* below : command.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(below->get_name());
    return names;
}

const CLI::Option* findOption(const CLI::App& command, const std::string& name) {
    for (const CLI::Option* option : command.get_options())
        if (option->check_name(name)) return option;
    return nullptr;
}

// What is wrong with the first word of @p words, an option that has no place where it stands; empty if nobody knows it.
std::string explainPlace(const Command& command, const std::vector<std::string>& words) {
    const std::string name = words.front().substr(0, words.front().find('='));
    if (const CLI::Option* const option = findOption(command.app(), name)) {
        const bool hasValue = words.size() > 1 && option->get_items_expected_max() > 0 && name == words.front();
        return "put " + name + " behind the subcommand: " + nameOf(command) + " " + words.front() +
               (hasValue ? " " + words[1] : "");
    }
    std::vector<std::string> owners;
    for (CLI::App* below : command.app().get_subcommands([](const CLI::App*) { return true; }))
        if (findOption(*below, name) != nullptr) owners.push_back(nameOf(Command(below)));
    return owners.size() == 1 ? "is it " + owners.front() + "?" : "";
}

// An option that does not exist leaves its value behind, which then takes the place of another word. So the words after
// it say nothing.
std::string explainExtras(const Command& program, const std::string& help, const Advice& advice) {
    const Command command = chosen(program);
    const std::vector<std::string> words = program.app().remaining(true);
    const std::string one = "unexpected argument: ";
    const std::string all = words.size() == 1 ? one : "unexpected arguments: ";
    if (const std::string more = advice ? advice(words) : ""; !more.empty()) return all + joined(words) + "\n" + more;
    const auto option = std::find_if(words.begin(), words.end(), isOption);
    const bool isOptionWrong = option != words.end();
    const std::string wrong = isOptionWrong ? *option : joined(words);
    const std::string place = isOptionWrong ? explainPlace(command, {option, words.end()}) : "";
    if (!place.empty()) return one + wrong + "; " + place + help;
    const std::string meant = isOptionWrong ? nearest(wrong.substr(0, wrong.find('=')), optionsOf(command.app()))
                                            : nearest(words.front(), subcommandsOf(command.app()));
    return (isOptionWrong ? one : all) + wrong + (meant.empty() ? "" : "; is it " + meant + "?") + help;
}

// The mistake, and where the help is that says how it is right.
std::string explain(const Command& program, const CLI::ParseError& error, const Advice& advice) {
    const std::string help = "\nSee " + nameOf(chosen(program)) + " --help";
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) return explainExtras(program, help, advice);
    const std::string text = error.what();
    // CLI11 says "--lines: 1 required N missing".
    const std::size_t missing = text.find(": 1 required ");
    return (missing == std::string::npos ? text : text.substr(0, missing) + ": its value is missing") + help;
}

}  // namespace

void tellStatuses(const Command& command, const std::vector<ExitStatus>& statuses) {
    std::string text = command.app().get_footer();
    if (!text.empty()) text += "\n\n";
    text += kStatusTitle;
    for (const ExitStatus& one : statuses) {
        const std::string number = one.status == kElse ? "else" : std::to_string(one.status);
        text += "\n  " + number + std::string(5 - std::min<std::size_t>(4, number.size()), ' ') + one.meaning;
    }
    command.footer(text);
}

void complete(const Command& program, const char* version) {
    CLI::App& app = program.app();
    std::string name = app.get_name();
    for (const CLI::App* at = app.get_parent(); at != nullptr; at = at->get_parent()) name = at->get_name();
    app.formatter(std::make_shared<Formatter>());
    app.get_help_ptr()->description("Show this text and end");
    app.set_version_flag("--version", name + " " + version, "Show the version and end");
    const std::vector<CLI::App*> commands = app.get_subcommands([](const CLI::App*) { return true; });
    if (commands.empty() && app.get_footer().find(kStatusTitle) == std::string::npos) {
        tellStatuses(program, {{kFine, "fine"}, {kFinding, "a finding, or a failure"}, {kUsage, "wrong usage"}});
    }
    for (CLI::App* command : commands) complete(Command(command), version);
}

std::optional<int> parse(const Command& program, std::vector<std::string> words, const Advice& advice) {
    CLI::App& app = program.app();
    std::reverse(words.begin(), words.end());  // CLI11 takes them last one first
    try {
        app.parse(words);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != 0) return fail(app.get_name(), kUsage, explain(program, error, advice));
        app.exit(error);
        return finish(app.get_name(), kFine);
    }
    return std::nullopt;
}

std::vector<std::string> wordsOf(int argc, const char* const* argv) {
    return argc > 1 ? std::vector<std::string>(argv + 1, argv + argc) : std::vector<std::string>();
}

Command chosen(const Command& program) {
    const std::vector<CLI::App*> next = program.app().get_subcommands();
    return next.empty() ? program : chosen(Command(next.front()));
}

std::string nameOf(const Command& command) {
    CLI::App* const above = command.app().get_parent();
    return (above != nullptr ? nameOf(Command(above)) + " " : "") + command.app().get_name();
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

int fail(const std::string& program, int status, const std::string& text) {
    std::fprintf(stderr, "%s: %s\n", program.c_str(), text.c_str());
    return status;
}

int finish(const std::string& program, int status) {
    const std::string fault = faultOfOutput();
    return fault.empty() ? status : fail(program, kFinding, fault);
}

}  // namespace cli
