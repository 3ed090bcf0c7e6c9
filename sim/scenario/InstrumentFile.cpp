#include "sim/scenario/InstrumentFile.h"

#include <charconv>
#include <map>
#include <optional>

#include "sim/scenario/TextFile.h"

namespace vexo_sim::scenario {
namespace {

class ListBuilder {
public:
    explicit ListBuilder(const std::string& path) : m_path(path) {}

    void add(std::size_t line, const std::string& index, std::uint32_t table, const std::string& id) {
        Instrument instrument;
        instrument.table = static_cast<std::uint8_t>(table);
        instrument.row = row(line, index);
        requireId(line, id);
        id.copy(instrument.id, sizeof instrument.id - 1);
        const auto [earlier, isNew] = m_lineOf.insert({{table, instrument.row}, line});
        if (!isNew)
            throw Rejected(m_path, line,
                           "index " + index + " of this table is in line " + std::to_string(earlier->second) +
                               " already; give each its own");
        m_list.push_back(instrument);
    }

    std::vector<Instrument> take() {
        if (m_list.empty()) throw Rejected(m_path, 0, "the file names no instrument; add some, or write list = none");
        return std::move(m_list);
    }

private:
    std::uint16_t row(std::size_t line, const std::string& text) const {
        std::uint32_t index = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), index);
        if (error != std::errc() || end != text.data() + text.size() || index >= card_reg::kRows)
            throw Rejected(m_path, line, "\"" + text + "\" is no index; give a number from 0 to 8191");
        return static_cast<std::uint16_t>(index);
    }

    void requireId(std::size_t line, const std::string& id) const {
        bool plain = !id.empty() && id.size() < kIdCapacity;
        for (const char c : id) plain = plain && c > ' ' && c <= '~' && c != ',';
        if (!plain)
            throw Rejected(m_path, line, "\"" + id + "\" is no instrument id; give 1 to 31 characters without blanks");
    }

    std::string m_path;
    std::vector<Instrument> m_list;
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::size_t> m_lineOf;  // by table and row
};

std::vector<std::string> fieldsOf(const std::string& line) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t comma; (comma = line.find(',', start)) != std::string::npos; start = comma + 1)
        fields.push_back(trimmed(line.substr(start, comma - start)));
    fields.push_back(trimmed(line.substr(start)));
    return fields;
}

std::optional<std::uint32_t> tableOf(const std::string& text) {
    if (text == "0" || text == "single") return card_reg::kSingleLegTable;
    if (text == "1" || text == "combination") return card_reg::kCombinationTable;
    return std::nullopt;
}

bool isCombination(const std::string& id) { return id.rfind("SPD-", 0) == 0 || id.rfind("IPS-", 0) == 0; }

}  // namespace

std::vector<Instrument> readInstrumentList(const std::string& path) {
    const std::vector<std::string> lines = readLines(path);
    ListBuilder list(path);
    for (std::size_t n = 0; n < lines.size(); ++n) {
        const std::string line = trimmed(lines[n]);
        if (line.empty() || line[0] == '#') continue;
        const std::vector<std::string> fields = fieldsOf(line);
        if (fields.size() != 3) throw Rejected(path, n + 1, "this is no instrument; write index,table,id");
        const std::optional<std::uint32_t> table = tableOf(fields[1]);
        if (!table)
            throw Rejected(path, n + 1, "\"" + fields[1] + "\" is no table; write 0 (single) or 1 (combination)");
        list.add(n + 1, fields[0], *table, fields[2]);
    }
    return list.take();
}

std::vector<Instrument> readDayFile(const std::string& path) {
    const std::vector<std::string> lines = readLines(path);
    if (lines.empty() || lines[0] != "inst_index,inst_id")
        throw Rejected(path, 1, "this is no day file; it begins with inst_index,inst_id");
    if (lines.back() != "bin_file_over_tag")
        throw Rejected(path, lines.size(), "the day file has no end tag, so it is not whole; take another");
    ListBuilder list(path);
    for (std::size_t n = 1; n + 1 < lines.size(); ++n) {
        const std::vector<std::string> fields = fieldsOf(lines[n]);
        if (fields.size() != 2) throw Rejected(path, n + 1, "this is no line of a day file; it is index,id");
        list.add(n + 1, fields[0], isCombination(fields[1]) ? 1 : 0, fields[1]);
    }
    return list.take();
}

}  // namespace vexo_sim::scenario
