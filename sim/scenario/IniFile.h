#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace vexo_sim::scenario {

/// Where a value stands, for messages.
struct Value {
    std::string text;
    std::string file;
    std::size_t line = 0;
    std::string key;

    /// Throws Rejected with this place.
    [[noreturn]] void reject(const std::string& what) const;
};

struct Section {
    std::string name;  // lower case
    std::size_t line = 0;
    std::map<std::string, Value> values;  // by lower-case key
};

/// An ini file, read by iniparser. It tells no line numbers, keeps the last of two equal keys and says nothing of what
/// nobody asks for; a look at the lines beforehand makes up for that.
class IniFile {
public:
    /// Throws Rejected.
    explicit IniFile(const std::string& path);

    const std::string& path() const { return m_path; }
    const std::vector<Section>& sections() const { return m_sections; }

private:
    void scan(const std::vector<std::string>& lines);
    void openSection(const std::string& line, std::size_t number);
    void addKey(const std::string& line, std::size_t number);
    void readValues();

    std::string m_path;
    std::vector<Section> m_sections;
};

}  // namespace vexo_sim::scenario
