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

// Names that iniparser reads without surprises. A colon is its own separator.
bool isName(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '_' || c == '-' || c == ' ' || c == '.';
    });
}

}  // namespace

void Value::reject(const std::string& what) const { throw Rejected(file, line, key + ": " + what); }

void Section::reject(const std::string& what) const { throw Rejected(file, line, what); }

SettingParts partsOf(const KeySettings& settings, const std::string& text) {
    if (!isPlainText(text)) throw Rejected(settings.option, 0, "a setting has a control character; write plain text");
    if (text.size() > kLongestLine)
        throw Rejected(settings.option, 0, "a setting is too long; keep it below 1,000 characters");
    const std::size_t equals = text.find('=');
    const std::string name = lowered(text.substr(0, equals));
    const std::size_t dot = name.rfind('.');  // the name of a fault may have one too
    if (equals == std::string::npos || dot == std::string::npos)
        throw Rejected(settings.placeOf(text), 0, "this sets no key; write section.key=value");
    SettingParts parts{trimmed(name.substr(0, dot)), trimmed(name.substr(dot + 1)), trimmed(text.substr(equals + 1))};
    if (!isName(parts.section) || !isName(parts.key))
        throw Rejected(settings.placeOf(text), 0, "this sets no key; write section.key=value");
    return parts;
}

IniFile::IniFile(const std::string& path, const KeySettings& settings) : m_path(path) {
    if (!path.empty()) {
        scan(readLines(path));
        readValues();
    }
    for (const std::string& text : settings.texts) apply(settings, text);
}

void IniFile::apply(const KeySettings& settings, const std::string& text) {
    const SettingParts parts = partsOf(settings, text);
    const auto sameName = [&](const Section& section) { return section.name == parts.section; };
    auto section = std::find_if(m_sections.begin(), m_sections.end(), sameName);
    if (section == m_sections.end())
        section = m_sections.insert(section, {parts.section, settings.placeOf(text), 0, {}});
    Value& value = section->values[parts.key];
    if (!value.key.empty() && value.isSetting())
        throw Rejected(settings.placeOf(text), 0, value.file + " sets the same key; remove one of the two");
    value = {parts.value, settings.placeOf(text), 0, parts.key};
    if (value.text.empty()) value.reject("there is no value; give one, or remove the setting");
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
    m_sections.push_back({name, m_path, number, {}});
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
