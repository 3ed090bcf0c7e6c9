#include "tools/data/LayoutFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "tools/data/LayoutText.h"
#include "tools/data/Simulated.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo::data {
namespace {

constexpr std::size_t kMostFileBytes = 1U << 20;
constexpr std::uint32_t kMostPayload = 65536;
constexpr std::uint32_t kMostValues = 64;  // of a list
constexpr std::uint32_t kMostText = 1024;  // bytes of a text
constexpr std::uint32_t kMostScale = 1'000'000'000;
constexpr std::size_t kMostName = 32;
// Far more than a card needs. A file that asks for more would take minutes, or all the memory.
constexpr std::size_t kMostTypes = 256;
constexpr std::size_t kMostGroups = 64;    // of fields, in a type
constexpr std::size_t kMostFields = 1024;  // of a type
constexpr std::size_t kMostFixed = 64;     // of a type
constexpr std::size_t kMostColumns = 4096;

struct TypeName {
    const char* name;
    FieldKind kind;
    std::uint32_t width;
};
constexpr TypeName kTypeNames[] = {
    {"u8", FieldKind::kUnsigned, 1},  {"u16", FieldKind::kUnsigned, 2}, {"u32", FieldKind::kUnsigned, 4},
    {"u64", FieldKind::kUnsigned, 8}, {"i8", FieldKind::kSigned, 1},    {"i16", FieldKind::kSigned, 2},
    {"i32", FieldKind::kSigned, 4},   {"i64", FieldKind::kSigned, 8},   {"f32", FieldKind::kFloat, 4},
    {"f64", FieldKind::kFloat, 8},    {"char", FieldKind::kText, 0},    {"bytes", FieldKind::kBytes, 0},
};
constexpr char kTypeHelp[] =
    "types are u8, u16, u32, u64, i8, i16, i32, i64, f32, f64, each with be for big-endian, such as u16be, and with [N] "
    "for a list; char[N] and bytes[N]";

bool isName(const std::string& text) {
    return !text.empty() && text.size() <= kMostName && text.front() >= 'a' && text.front() <= 'z' &&
           text.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_") == std::string::npos;
}

class LayoutMaker {
public:
    explicit LayoutMaker(const LayoutText& text) : m_text(text), m_layout(std::make_unique<Layout>()) {}

    std::unique_ptr<Layout> make() {
        checkSections();
        const LayoutSection* head = m_text.find("layout", "");
        if (head == nullptr) m_text.reject(0, "there is no section [layout]; add one with name and meaning");
        takeHead(*head);
        for (const LayoutSection& section : m_text.sections()) {
            if (section.kind == "type") takeType(section, *head);
            if (section.kind == "values") takeValues(section);
        }
        if (m_layout->payloads.empty()) {
            m_text.reject(0, "there is no section [type N]; add one for each packet type with its size and fields");
        }
        for (const LayoutSection& section : m_text.sections()) requireUse(section);
        takeNumbering(*head);
        return std::move(m_layout);
    }

private:
    /// A field, and the first packet type that has it.
    struct Known {
        Field field;
        std::uint32_t type = 0;
    };

    void checkSections() const {
        for (const LayoutSection& section : m_text.sections()) {
            const bool isKnown = section.kind == "type" || section.kind == "fields" || section.kind == "values";
            if (!isKnown && section.kind != "layout") {
                m_text.reject(section.line,
                              "unknown section; there are [layout], [type N], [fields NAME], [values FIELD]");
            }
            if (section.name.empty() == isKnown)
                m_text.reject(section.line, "the section's name is missing, or too much");
        }
    }

    void allowOnly(const LayoutSection& section, const std::vector<std::string>& keys) const {
        for (const LayoutEntry& entry : section.entries) {
            if (std::find(keys.begin(), keys.end(), entry.key) != keys.end()) continue;
            std::string known;
            for (const std::string& key : keys) known += (known.empty() ? "" : ", ") + key;
            m_text.reject(entry.line, "unknown key " + entry.key + "; this section has " + known);
        }
    }

    const LayoutEntry& required(const LayoutSection& section, const std::string& key) const {
        const LayoutEntry* entry = section.find(key);
        if (entry == nullptr) m_text.reject(section.line, "the section has no " + key + "; add the key");
        return *entry;
    }

    std::uint32_t number(unsigned line, const std::string& text, std::uint32_t least, std::uint32_t most,
                         const std::string& what) const {
        unsigned long long value = 0;
        if (!readNumber(text, most, value) || value < least) {
            m_text.reject(line, what + " is a number from " + std::to_string(least) + " to " + std::to_string(most) +
                                    ", not " + text);
        }
        return static_cast<std::uint32_t>(value);
    }

    void takeHead(const LayoutSection& head) {
        allowOnly(head, {"name", "meaning", "length_at", "sequence_at", "sequence_field", "sequence_scope", "id_field",
                         "time_field", "millis_field"});
        const LayoutEntry& name = required(head, "name");
        if (!isName(name.value)) m_text.reject(name.line, nameRule("the layout"));
        m_layout->name = name.value;
        m_layout->meaning = required(head, "meaning").value;
        if (const LayoutEntry* at = head.find("length_at")) {
            m_layout->lengthAt = number(at->line, at->value, 4, kHeadBytes - 4, "the byte of the packet's length");
        }
    }

    void takeNumbering(const LayoutSection& head) {
        Numbering& numbering = m_layout->numbering;
        if (const LayoutEntry* scope = head.find("sequence_scope")) {
            if (scope->value != "stream" && scope->value != "type") {
                m_text.reject(scope->line,
                              "the numbers count in the whole stream or for each type; write stream or type");
            }
            numbering.isByType = scope->value == "type";
        }
        if (const LayoutEntry* at = head.find("sequence_at")) {
            numbering.place = Numbering::Place::kHead;
            numbering.headAt = number(at->line, at->value, 4, kHeadBytes - 4, "the byte of the packet's number");
            if (m_layout->lengthAt && numbering.headAt < *m_layout->lengthAt + 4 &&
                *m_layout->lengthAt < numbering.headAt + 4) {
                m_text.reject(at->line, "sequence_at and length_at lie on the same bytes; correct one of them");
            }
            if (numbering.isByType) {
                m_text.reject(head.find("sequence_scope")->line,
                              "sequence_at counts all packets of a stream; leave out sequence_at or sequence_scope");
            }
        } else if (const LayoutEntry* field = head.find("sequence_field")) {
            takeNumberFields(*field);
        } else if (const LayoutEntry* scope = head.find("sequence_scope")) {
            m_text.reject(scope->line, "there are no numbers; add sequence_field, or leave out sequence_scope");
        }
    }

    void takeNumberFields(const LayoutEntry& entry) {
        Numbering& numbering = m_layout->numbering;
        for (const Payload& payload : m_layout->payloads) {
            const Field& field = payload.fields[payload.sequence];
            if (numbering.place != Numbering::Place::kNone && field.isBigEndian != numbering.isBigEndian) {
                m_text.reject(entry.line, field.name + " has another byte order in type " +
                                              std::to_string(payload.type) +
                                              "; number the packets by a field that is the same everywhere");
            }
            numbering.place = Numbering::Place::kField;
            numbering.width = field.width;
            numbering.isBigEndian = field.isBigEndian;
            if (payload.type < Numbering::kTypes) {
                numbering.fields[payload.type] = {kHeadBytes + payload.size, kHeadBytes + field.offset};
            }
        }
    }

    static std::string nameRule(const std::string& what) {
        return "the name of " + what + " has a-z, 0-9 and _, begins with a letter and is not longer than " +
               std::to_string(kMostName);
    }

    void takeType(const LayoutSection& section, const LayoutSection& head) {
        allowOnly(section, {"meaning", "size", "fields", "fixed"});
        Payload payload;
        payload.layout = m_layout.get();
        limit(m_layout->payloads.size() + 1, kMostTypes, section.line, "types");
        payload.type = number(section.line, section.name, 0, 0xFFFFFFFF, "the packet type");
        for (const Payload& other : m_layout->payloads) {
            if (other.type == payload.type) m_text.reject(section.line, "the type is there twice; remove one section");
        }
        payload.meaning = required(section, "meaning").value;
        const LayoutEntry& size = required(section, "size");
        payload.size = number(size.line, size.value, 1, kMostPayload, "the size of the payload in bytes");
        const LayoutEntry& groups = required(section, "fields");
        takeGroups(payload, groups);
        sortFields(payload, groups.line);
        if (const LayoutEntry* fixed = section.find("fixed")) takeFixed(payload, *fixed);
        payload.sequence = role(head, "sequence_field", payload);
        payload.id = role(head, "id_field", payload);
        payload.time = role(head, "time_field", payload);
        payload.millis = role(head, "millis_field", payload);
        checkRoles(payload, head);
        m_layout->payloads.push_back(std::move(payload));
    }

    void takeGroups(Payload& payload, const LayoutEntry& groups) {
        const std::vector<std::string> names = splitAtCommas(groups.value);
        limit(names.size(), kMostGroups, groups.line, "groups of fields in a type");
        std::unordered_set<std::string> seen;  // names of fields
        for (const std::string& name : names) {
            const LayoutSection* group = m_text.find("fields", name);
            if (group == nullptr) m_text.reject(groups.line, "there is no section [fields " + name + "]; add it");
            m_used.insert(group);
            for (const LayoutEntry& entry : group->entries) {
                limit(payload.fields.size() + 1, kMostFields, entry.line, "fields in a type");
                addField(payload, entry, seen);
            }
        }
    }

    void limit(std::size_t count, std::size_t most, unsigned line, const char* what) const {
        if (count > most) m_text.reject(line, "more than " + std::to_string(most) + " " + what + "; leave some out");
    }

    void addField(Payload& payload, const LayoutEntry& entry, std::unordered_set<std::string>& seen) {
        if (!isName(entry.key)) m_text.reject(entry.line, nameRule("a field"));
        const std::vector<std::string> parts = splitAtCommas(entry.value, 4);
        if (parts.size() != 4) m_text.reject(entry.line, "write NAME = OFFSET, TYPE, SCALE, MEANING");
        Field field;
        field.name = entry.key;
        field.meaning = parts[3];
        field.offset = number(entry.line, parts[0], 0, kMostPayload, "the offset");
        takeFieldType(field, parts[1], entry.line);
        takeScale(field, parts[2], entry.line);
        if (field.offset + field.bytes() > payload.size) {
            m_text.reject(entry.line, field.name + " ends at byte " + std::to_string(field.offset + field.bytes()) +
                                          ", past the payload of type " + std::to_string(payload.type) + " with " +
                                          std::to_string(payload.size) + " bytes; correct offset, type or size");
        }
        if (!seen.insert(field.name).second) {
            m_text.reject(entry.line, "type " + std::to_string(payload.type) + " has two fields " + field.name +
                                          "; give them different names");
        }
        requireSameEverywhere(field, payload, entry.line);
        payload.fields.push_back(std::move(field));
    }

    // A field of one name is one column, whatever the packet type.
    void requireSameEverywhere(const Field& field, const Payload& payload, unsigned line) {
        const auto [known, isNew] = m_known.try_emplace(field.name, Known{field, payload.type});
        const Field& other = known->second.field;
        if (other.kind != field.kind || other.width != field.width || other.decimals != field.decimals ||
            (other.count == 0) != (field.count == 0)) {
            m_text.reject(line, field.name + " has another type or scale in type " +
                                    std::to_string(known->second.type) + "; give one of them another name");
        }
        const std::uint32_t before = isNew ? 0 : other.values();
        if (field.values() <= before) return;
        m_columns += field.values() - before;
        known->second.field.count = field.count;
        limit(m_columns, kMostColumns, line, "columns");
    }

    void takeFieldType(Field& field, const std::string& text, unsigned line) const {
        std::string base = text.substr(0, text.find('['));
        std::string rest = text.substr(base.size());
        if (base.size() > 2 && base.compare(base.size() - 2, 2, "be") == 0) {
            field.isBigEndian = true;
            base.resize(base.size() - 2);
        }
        const auto* found = std::find_if(std::begin(kTypeNames), std::end(kTypeNames),
                                         [&](const TypeName& one) { return base == one.name; });
        if (found == std::end(kTypeNames)) m_text.reject(line, "unknown type " + text + "; " + kTypeHelp);
        field.kind = found->kind;
        field.width = found->width;
        std::uint32_t count = 0;
        if (!rest.empty()) {
            if (rest.size() < 3 || rest.back() != ']') m_text.reject(line, "unknown type " + text + "; " + kTypeHelp);
            rest = rest.substr(1, rest.size() - 2);
            count = number(line, rest, 1, field.isNumber() ? kMostValues : kMostText, "the number in brackets");
        }
        if (field.isNumber()) {
            if (field.isBigEndian && field.width == 1) m_text.reject(line, "one byte has no order; leave out be");
            field.count = count;
        } else if (count == 0 || field.isBigEndian) {
            m_text.reject(line, "unknown type " + text + "; " + kTypeHelp);
        } else {
            field.width = count;
        }
    }

    void takeScale(Field& field, const std::string& text, unsigned line) const {
        const std::uint32_t scale = number(line, text, 1, kMostScale, "the scale");
        std::uint32_t power = 1;
        for (; power < scale; power *= 10) ++field.decimals;
        if (power != scale) m_text.reject(line, "the scale is 1, 10, 100 and so on, not " + text);
        if (scale != 1 && field.kind != FieldKind::kUnsigned && field.kind != FieldKind::kSigned) {
            m_text.reject(line, "only whole numbers have a scale; write 1");
        }
    }

    void sortFields(Payload& payload, unsigned line) const {
        std::stable_sort(payload.fields.begin(), payload.fields.end(),
                         [](const Field& one, const Field& other) { return one.offset < other.offset; });
        for (std::size_t i = 1; i < payload.fields.size(); ++i) {
            const Field& before = payload.fields[i - 1];
            if (before.offset + before.bytes() <= payload.fields[i].offset) continue;
            m_text.reject(line, "in type " + std::to_string(payload.type) + ", " + before.name + " and " +
                                    payload.fields[i].name + " lie on the same bytes; correct an offset or a type");
        }
    }

    void takeFixed(Payload& payload, const LayoutEntry& entry) const {
        const std::vector<std::string> values = splitAtCommas(entry.value);
        limit(values.size(), kMostFixed, entry.line, "fixed values");
        for (const std::string& text : values) {
            const std::size_t blank = text.find(' ');
            const std::size_t index = payload.indexOf(text.substr(0, blank));
            if (blank == std::string::npos || index == kNoField) {
                m_text.reject(entry.line, "write FIELD VALUE, such as level 1, with a field of this type, not " + text);
            }
            const Field& field = payload.fields[index];
            if (field.kind != FieldKind::kUnsigned || field.count > 0 || field.width > 4) {
                m_text.reject(entry.line, field.name + " cannot be fixed; only one of u8, u16, u32 can");
            }
            unsigned long long value = 0;
            if (!readNumber(text.substr(text.find_first_not_of(' ', blank)), ~0ULL >> (64 - 8 * field.width), value)) {
                m_text.reject(entry.line, "the value of " + field.name + " is no number that the field can hold");
            }
            payload.fixed.push_back({index, value});
        }
    }

    std::size_t role(const LayoutSection& head, const char* key, const Payload& payload) const {
        const LayoutEntry* entry = head.find(key);
        if (entry == nullptr) return kNoField;
        const std::size_t index = payload.indexOf(entry->value);
        if (index == kNoField) {
            m_text.reject(entry->line, "type " + std::to_string(payload.type) + " has no field " + entry->value +
                                           "; add it, or leave out " + key);
        }
        return index;
    }

    void checkRoles(const Payload& payload, const LayoutSection& head) const {
        const auto wants = [&](std::size_t index, const char* key, bool maybeNumber, bool maybeText) {
            if (index == kNoField) return;
            const Field& field = payload.fields[index];
            const bool isNumber = field.kind == FieldKind::kUnsigned && field.count == 0 && field.decimals == 0;
            if ((isNumber && maybeNumber) || (field.kind == FieldKind::kText && maybeText)) return;
            m_text.reject(head.find(key)->line, field.name + " has a type that " + key + " cannot have; it is " +
                                                    (maybeNumber ? "one unsigned number" : "char[N]") +
                                                    (maybeNumber && maybeText ? " HHMMSS, or char[N]" : ""));
        };
        wants(payload.sequence, "sequence_field", true, false);
        wants(payload.id, "id_field", false, true);
        wants(payload.time, "time_field", true, true);
        wants(payload.millis, "millis_field", true, false);
    }

    void takeValues(const LayoutSection& section) {
        for (const LayoutEntry& entry : section.entries) {
            unsigned long long value = 0;
            if (!readNumber(entry.key, ~0ULL, value)) m_text.reject(entry.line, "write VALUE = NAME, such as 0 = call");
            m_layout->values[section.name][value] = entry.value;
        }
    }

    // A group that no type uses, or values of a field that is not there, is most likely a typing mistake.
    void requireUse(const LayoutSection& section) const {
        if (section.kind == "fields" && m_used.count(&section) == 0) {
            m_text.reject(section.line, "no type uses these fields; name the section in the fields of a type");
        }
        if (section.kind != "values") return;
        const auto known = m_known.find(section.name);
        if (known != m_known.end() && known->second.field.kind == FieldKind::kUnsigned) return;
        m_text.reject(section.line, "there is no unsigned field " + section.name + "; correct the name");
    }

    const LayoutText& m_text;
    std::unique_ptr<Layout> m_layout;
    std::unordered_set<const LayoutSection*> m_used;
    std::unordered_map<std::string, Known> m_known;  // by name; of a list, the longest
    std::size_t m_columns = 0;
};

std::vector<std::string> namesOfVariable() {
    const char* variable = std::getenv(kLayoutVariable);
    std::vector<std::string> names;
    for (std::string rest = variable != nullptr ? variable : ""; !rest.empty();) {
        const std::size_t colon = rest.find(':');
        if (colon != 0) names.push_back(rest.substr(0, colon));
        rest = colon == std::string::npos ? "" : rest.substr(colon + 1);
    }
    return names;
}

}  // namespace

std::unique_ptr<Layout> parseLayout(const std::string& text, const std::string& name) {
    const LayoutText parsed(text, name);
    return LayoutMaker(parsed).make();
}

std::unique_ptr<Layout> readLayout(const std::string& path) {
    std::error_code error;
    const std::string shown = harmless(path);
    if (std::filesystem::is_directory(path, error))
        throw LayoutError(shown + ": this is a directory, not a layout file");
    std::ifstream file(path, std::ios::binary);
    if (!file) throw LayoutError(shown + ": " + std::strerror(errno) + "; name a layout file, or " + kSimulated);
    std::string text(kMostFileBytes + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (file.bad()) throw LayoutError(shown + ": the file cannot be read");
    if (text.size() > kMostFileBytes) throw LayoutError(shown + ": longer than a megabyte; this is no layout file");
    return parseLayout(text, path);
}

Layouts::Layouts(std::vector<std::string> names) {
    if (names.empty()) names = namesOfVariable();
    if (names.empty()) names.emplace_back(kSimulated);
    for (const std::string& name : names) {
        m_layouts.push_back(name == kSimulated ? parseLayout(kSimulatedLayout, "simulated.ini") : readLayout(name));
    }
}

}  // namespace vexo::data
