#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "sim/scenario/KeySettings.h"

namespace vexo_sim::scenario {

/// A value and where it was written: a line of the file, or a setting.
struct Value {
    std::string text;
    std::string file;      // of a setting: option and text, as in "--set card.seed=7"
    std::size_t line = 0;  // 0 for a setting
    std::string key;

    bool isSetting() const { return line == 0; }
    /// Throws Rejected with this place.
    [[noreturn]] void reject(const std::string& what) const;
};

struct Section {
    std::string name;                     // lower case
    std::string file;                     // as in Value
    std::size_t line = 0;                 // 0 when only settings name the section
    std::map<std::string, Value> values;  // by lower-case key

    /// Throws Rejected with the place where the section begins.
    [[noreturn]] void reject(const std::string& what) const;
};

/// The sections and keys of a scenario: those of a file, then single settings on top of them. iniparser reads the
/// values. It reports no line numbers, keeps the last of two equal keys and ignores unknown ones, so a line scan checks
/// the file first.
class IniFile {
public:
    /// @param path  empty = no file. Throws Rejected.
    IniFile(const std::string& path, const KeySettings& settings);

    const std::vector<Section>& sections() const { return m_sections; }

private:
    void scan(const std::vector<std::string>& lines);
    void openSection(const std::string& line, std::size_t number);
    void addKey(const std::string& line, std::size_t number);
    void readValues();
    void apply(const KeySettings& settings, const std::string& text);

    std::string m_path;
    std::vector<Section> m_sections;
};

/// A setting taken apart. Section and key are lower case.
struct SettingParts {
    std::string section;
    std::string key;
    std::string value;
};
/// Throws Rejected when @p text is not section.key=value. Only the form is checked, not whether the key exists.
SettingParts partsOf(const KeySettings& settings, const std::string& text);

}  // namespace vexo_sim::scenario
