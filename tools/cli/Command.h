#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

/// Command lines, on top of CLI11. Only this folder's sources see CLI11 itself: its templates take a compiler long.
namespace cli {

/// Looks at the value of an option.
struct Check {
    /// What is wrong with the value; empty if nothing is. May replace the value by another way to write it.
    std::function<std::string(std::string& value)> fault;
    /// Which values it takes, for the help: "1 to 9"; empty when that is not fixed.
    std::string range = {};
};

/// An option, a flag or a positional argument of a command. A handle, valid as long as the program's command line.
class Option {
public:
    Option() = default;
    explicit Option(CLI::Option* option);

    /// What stands for the value in the help: "N".
    const Option& takes(const std::string& value) const;
    const Option& check(const Check& check) const;
    /// The help shows what the variable holds now.
    const Option& showsDefault() const;
    /// The value may be left out, which is then taken to be @p value.
    const Option& mayStandAlone(const std::string& value) const;
    /// Takes one value each time that it is given, not all words up to the next option.
    const Option& takesOneEach() const;
    /// Takes several values with commas between them; blanks around them do not count. An empty list is refused.
    const Option& takesList() const;
    const Option& needs(const Option& other) const;
    const Option& excludes(const Option& other) const;

    /// Whether the command line has it. Valid once the command line was read.
    bool isGiven() const;

private:
    CLI::Option* m_option = nullptr;
};

/// A program or one of its subcommands. A handle, valid as long as the program's command line.
class Command {
public:
    explicit Command(CLI::App* app);

    Command addCommand(const std::string& name, const std::string& description) const;
    /// Adds an option that sets @p value: a number, a text, an std::optional or a vector of them, as far as Command.cpp
    /// lists the type.
    /// @param names  "-o,--output", or a name without dashes for a positional argument
    template <typename T>
    Option addOption(const std::string& names, T& value, const std::string& description) const;
    Option addFlag(const std::string& names, bool& value, const std::string& description) const;
    /// The end of the help.
    void footer(const std::string& text) const;
    /// Called by parse() when the command line names this command.
    void whenChosen(std::function<void()> call) const;

    CLI::App& app() const { return *m_app; }
    bool operator==(const Command& other) const { return m_app == other.m_app; }

private:
    CLI::App* m_app;
};

/// The command line of a program: owns all its commands and options.
class CommandLine {
public:
    CommandLine(const std::string& name, const std::string& description);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    Command command() const { return Command(m_app.get()); }

private:
    std::unique_ptr<CLI::App> m_app;
};

}  // namespace cli
