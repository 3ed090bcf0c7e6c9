#pragma once

#include <string>
#include <vector>

namespace vexo::data {

/// A line "KEY = VALUE" of a layout file.
struct LayoutEntry {
    std::string key;
    std::string value;
    unsigned line = 0;
};

/// A line "[KIND NAME]" with the entries after it.
struct LayoutSection {
    std::string kind;
    std::string name;  // empty if there is none
    unsigned line = 0;
    std::vector<LayoutEntry> entries;

    const LayoutEntry* find(const std::string& key) const;
};

/// The sections of a layout file. Blank lines, and lines that begin with ; or #, are left out.
class LayoutText {
public:
    /// @param file  its name, for messages. Throws LayoutError for a line of another form, and for a section or a key
    /// that
    ///              is there twice.
    LayoutText(const std::string& text, std::string file);

    const std::vector<LayoutSection>& sections() const { return m_sections; }
    const LayoutSection* find(const std::string& kind, const std::string& name) const;
    /// Throws LayoutError. @param line  0 = none
    [[noreturn]] void reject(unsigned line, const std::string& what) const;

private:
    void takeLine(const std::string& line, unsigned number);
    void takeSection(const std::string& line, unsigned number);

    std::string m_file;
    std::vector<LayoutSection> m_sections;
    std::size_t m_entries = 0;  // of all of them
};

/// The pieces between commas, without blanks around them. @param most  the last of so many pieces may have commas
std::vector<std::string> splitAtCommas(const std::string& text, std::size_t most = ~std::size_t{0});
/// @return false unless the text is a decimal number, or a hexadecimal one with 0x
bool readNumber(const std::string& text, unsigned long long most, unsigned long long& number);

}  // namespace vexo::data
