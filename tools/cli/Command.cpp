#include "tools/cli/Command.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <utility>

#include "tools/cli/Values.h"

namespace cli {

Option::Option(CLI::Option* option) : m_option(option) {}

const Option& Option::takes(const std::string& value) const {
    m_option->type_name(value);
    return *this;
}

const Option& Option::check(const Check& check) const {
    m_option->transform(CLI::Validator(check.fault, check.range));
    return *this;
}

const Option& Option::showsDefault() const {
    m_option->capture_default_str();
    return *this;
}

const Option& Option::mayStandAlone(const std::string& value) const {
    m_option->expected(0, 1)->default_str(value);
    return *this;
}

const Option& Option::takesOneEach() const {
    m_option->allow_extra_args(false);
    return *this;
}

const Option& Option::takesList() const {
    const auto withoutBlanks = [](std::string& text) {
        const std::size_t begin = text.find_first_not_of(" \t");
        text = begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
        return notEmpty().fault(text);
    };
    m_option->delimiter(',')->transform(CLI::Validator(withoutBlanks, ""));
    return takesOneEach();
}

const Option& Option::needs(const Option& other) const {
    m_option->needs(other.m_option);
    return *this;
}

const Option& Option::excludes(const Option& other) const {
    m_option->excludes(other.m_option);
    return *this;
}

bool Option::isGiven() const { return m_option->count() > 0; }

Command::Command(CLI::App* app) : m_app(app) {}

Command Command::addCommand(const std::string& name, const std::string& description) const {
    return Command(m_app->add_subcommand(name, description));
}

template <typename T>
Option Command::addOption(const std::string& names, T& value, const std::string& description) const {
    return Option(m_app->add_option(names, value, description));
}

// What the programs use. Another type is another line here.
template Option Command::addOption(const std::string&, std::string&, const std::string&) const;
template Option Command::addOption(const std::string&, int&, const std::string&) const;
template Option Command::addOption(const std::string&, std::uint32_t&, const std::string&) const;
template Option Command::addOption(const std::string&, std::uint64_t&, const std::string&) const;
template Option Command::addOption(const std::string&, double&, const std::string&) const;
template Option Command::addOption(const std::string&, std::optional<int>&, const std::string&) const;
template Option Command::addOption(const std::string&, std::optional<std::uint16_t>&, const std::string&) const;
template Option Command::addOption(const std::string&, std::optional<std::uint32_t>&, const std::string&) const;
template Option Command::addOption(const std::string&, std::optional<std::uint64_t>&, const std::string&) const;
template Option Command::addOption(const std::string&, std::optional<double>&, const std::string&) const;
template Option Command::addOption(const std::string&, std::vector<int>&, const std::string&) const;
template Option Command::addOption(const std::string&, std::vector<std::uint32_t>&, const std::string&) const;
template Option Command::addOption(const std::string&, std::vector<std::string>&, const std::string&) const;

Option Command::addFlag(const std::string& names, bool& value, const std::string& description) const {
    return Option(m_app->add_flag(names, value, description));
}

void Command::footer(const std::string& text) const { m_app->footer(text); }

void Command::whenChosen(std::function<void()> call) const { m_app->callback(std::move(call)); }

CommandLine::CommandLine(const std::string& name, const std::string& description)
    : m_app(std::make_unique<CLI::App>(description, name)) {}

CommandLine::~CommandLine() = default;

}  // namespace cli
