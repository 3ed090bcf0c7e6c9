#include "sim/scenario/IniFile.h"

#include <iniparser/iniparser.h>
#include <algorithm>
#include <cctype>
#include <memory>

#include "sim/scenario/TextFile.h"

namespace vexo_sim::scenario {
namespace {

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// What iniparser takes for a name without surprises: a colon would be its own separator.
bool isName(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '_' || c == '-' || c == ' ' || c == '.';
    });
}

}  // namespace

void Value::reject(const std::string& what) const { throw Rejected(file, line, key + ": " + what); }

IniFile::IniFile(const std::string& path) : m_path(path) {
    scan(readLines(path));
    readValues();
}

void IniFile::scan(const std::vector<std::string>& lines) {
    for (std::size_t n = 0; n < lines.size(); ++n) {
        const std::string line = trimmed(lines[n]);
        if (line.empty() || line[0] == '#' || line[0] == ';') continue;
        if (line.back() == '\\')
            throw Rejected(m_path, n + 1, "the line ends in a backslash; write a value in one line");
        if (line[0] == '[')
            openSection(line, n + 1);
        else
            addKey(line, n + 1);
    }
}

void IniFile::openSection(const std::string& line, std::size_t number) {
    const std::size_t end = line.find(']');
    const std::string rest = end != std::string::npos ? trimmed(line.substr(end + 1)) : std::string();
    const std::string name = end != std::string::npos ? lowered(trimmed(line.substr(1, end - 1))) : std::string();
    if (!isName(name) || !(rest.empty() || rest[0] == '#' || rest[0] == ';'))
        throw Rejected(m_path, number, "this is no section; write [name]");
    for (const Section& other : m_sections)
        if (other.name == name)
            throw Rejected(m_path, number,
                           "section [" + name + "] begins in line " + std::to_string(other.line) +
                               " already; put its keys together, or choose another name");
    m_sections.push_back({name, number, {}});
}

void IniFile::addKey(const std::string& line, std::size_t number) {
    const std::size_t equals = line.find('=');
    const std::string key = lowered(trimmed(line.substr(0, equals)));
    if (equals == std::string::npos || !isName(key))
        throw Rejected(m_path, number, "this is neither a section nor a key; write [section], or key = value");
    if (m_sections.empty()) throw Rejected(m_path, number, "key " + key + " belongs to no section; write one above it");
    Section& section = m_sections.back();
    const auto [entry, isNew] = section.values.insert({key, {{}, m_path, number, key}});
    if (!isNew)
        throw Rejected(
            m_path, number,
            "key " + key + " is in line " + std::to_string(entry->second.line) + " already; remove one of the two");
}

void IniFile::readValues() {
    const std::unique_ptr<dictionary, void (*)(dictionary*)> ini(iniparser_load(m_path.c_str()), &iniparser_freedict);
    if (ini == nullptr) throw Rejected(m_path, 0, "the file cannot be parsed; see the line above");
    for (Section& section : m_sections) {
        for (auto& [key, value] : section.values) {
            const char* text = iniparser_getstring(ini.get(), (section.name + ':' + key).c_str(), nullptr);
            value.text = text != nullptr ? text : "";
            if (value.text.empty()) value.reject("there is no value; give one, or remove the key");
        }
    }
}

}  // namespace vexo_sim::scenario
