#include "src/config/IniFile.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <new>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "src/config/IniSource.h"
#include "src/util/StandardStreams.h"

namespace {

constexpr std::size_t kLineSize = 1024;  // a line and those that continue it, line feed and terminator included
constexpr int kMostErrors = 100;         // do not print all of a file that is not an ini file

bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

std::string_view withoutLeadingSpace(std::string_view text) {
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    return text;
}

std::string_view stripped(std::string_view text) {
    text = withoutLeadingSpace(text);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return text;
}

std::string lower(std::string_view text) {
    std::string result(text);
    for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return result;
}

// The value behind the first "=" of a line. Quotes protect blanks and comment signs; the closing one may be missing,
// and what follows it is ignored. Without quotes a comment ends the value.
std::string_view valueOf(std::string_view text) {
    text = withoutLeadingSpace(text);
    if (text.size() > 1 && (text[0] == '"' || text[0] == '\'') && text[1] != text[0]) {
        const std::string_view quoted = text.substr(1);
        return quoted.substr(0, quoted.find(text[0]));
    }
    text = stripped(text.substr(0, text.find_first_of(";#")));
    return text == "\"\"" || text == "''" ? std::string_view() : text;
}

/// Sections and keys in the order of their first appearance. A section has no value. A later value replaces an earlier
/// one.
class Entries {
public:
    void set(std::string key, const std::string_view* value) {
        Entry& entry = find(std::move(key));
        entry.hasValue = value != nullptr;
        entry.value = value != nullptr ? *value : std::string_view();
    }
    /// Null when memory is short.
    dictionary* toDictionary() const;

private:
    struct Entry {
        std::string key;
        std::string value;
        bool hasValue;
    };

    Entry& find(std::string key) {
        const auto known = m_byKey.find(key);
        if (known != m_byKey.end()) return *known->second;
        m_entries.push_back({std::move(key), {}, false});
        Entry& entry = m_entries.back();
        m_byKey.emplace(entry.key, &entry);
        return entry;
    }

    std::deque<Entry> m_entries;  // a deque does not move them
    std::unordered_map<std::string_view, Entry*> m_byKey;
};

// iniparser's own dictionary_del() needs all three arrays.
void freeUnfinished(dictionary* dict) {
    std::free(dict->val);
    std::free(dict->key);
    std::free(dict->hash);
    std::free(dict);
}

// Does not use dictionary_set(): that hides failed allocations, and compares a new key with every existing one.
dictionary* Entries::toDictionary() const {
    dictionary* const dict = dictionary_new(m_entries.size());
    if (dict == nullptr) return nullptr;
    if (dict->val == nullptr || dict->key == nullptr || dict->hash == nullptr) {
        freeUnfinished(dict);
        return nullptr;
    }
    for (const Entry& entry : m_entries) {
        const int place = dict->n++;
        dict->key[place] = ::strdup(entry.key.c_str());
        dict->val[place] = entry.hasValue ? ::strdup(entry.value.c_str()) : nullptr;
        dict->hash[place] = dictionary_hash(entry.key.c_str());
        if (dict->key[place] == nullptr || (entry.hasValue && dict->val[place] == nullptr)) {
            dictionary_del(dict);
            return nullptr;
        }
    }
    return dict;
}

/// Reads a text line by line into entries.
class Reader {
public:
    Reader(const std::string& path, IniSource& source) : m_path(path), m_source(source) {}

    /// @return whether the text is well-formed. Errors are on standard error, in iniparser's words.
    bool read();
    const Entries& entries() const { return m_entries; }

private:
    bool isTooLong(std::size_t length);
    bool takeLine(std::string_view line);
    bool takeEntry(std::string_view line);

    const std::string& m_path;
    IniSource& m_source;
    int m_number = 0;  // of the line
    char m_line[kLineSize];
    std::string m_section;
    Entries m_entries;
};

bool Reader::read() {
    int errors = 0;
    std::size_t kept = 0;  // characters of the lines that this one continues
    while (errors < kMostErrors && m_source.readLine(m_line + kept, sizeof m_line - kept)) {
        ++m_number;
        const std::size_t length = std::strlen(m_line);
        if (length < 2) continue;  // an empty line, or a last line of one character, which iniparser ignores
        if (isTooLong(length)) return false;
        std::string_view line(m_line, length);
        while (!line.empty() && isSpace(line.back())) line.remove_suffix(1);
        if (!line.empty() && line.back() == '\\') {
            kept = line.size() - 1;
            continue;
        }
        kept = 0;
        if (!takeLine(line)) ++errors;
    }
    return errors == 0;
}

bool Reader::isTooLong(std::size_t length) {
    if (m_line[length - 1] == '\n' || m_source.isAtEnd()) return false;
    standard_streams::printError("iniparser: input line too long in %s (%d)\n", m_path.c_str(), m_number);
    return true;
}

bool Reader::takeLine(std::string_view line) {
    const std::string_view text = stripped(line);
    if (text.empty() || text[0] == '#' || text[0] == ';' || takeEntry(text)) return true;
    standard_streams::printError("iniparser: syntax error in %s (%d):\n-> %.*s\n", m_path.c_str(), m_number,
                                 static_cast<int>(line.size()), line.data());
    return false;
}

bool Reader::takeEntry(std::string_view line) {
    if (line.front() == '[' && line.back() == ']') {
        const std::string_view name = line.substr(1, line.find(']') - 1);
        // "[]" keeps the first letter of the section before it: no section name is longer than its line.
        m_section = lower(stripped(name.empty() ? std::string_view(m_section) : name)).substr(0, line.size() - 1);
        m_entries.set(m_section, nullptr);
        return true;
    }
    const std::size_t equals = line.find('=');
    if (equals == 0 || equals == std::string_view::npos) return false;
    const std::string_view value = valueOf(line.substr(equals + 1));
    m_entries.set(m_section + ':' + lower(stripped(line.substr(0, equals))), &value);
    return true;
}

}  // namespace

dictionary* loadIniFile(const std::string& path, const char*& refusal) {
    refusal = nullptr;
    IniSource source;
    if (!source.open(path.c_str())) {
        standard_streams::printError("iniparser: cannot open %s\n", path.c_str());
        return nullptr;
    }
    Reader reader(path, source);
    const bool wellFormed = reader.read();
    refusal = source.failure();
    if (!wellFormed || refusal != nullptr) return nullptr;
    dictionary* const dict = reader.entries().toDictionary();
    if (dict == nullptr) throw std::bad_alloc();
    return dict;
}
