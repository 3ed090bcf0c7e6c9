#include <algorithm>
#include <cstring>
#include <limits>

#include "tools/data/NumberText.h"
#include "tools/vexo/Failure.h"
#include "tools/vexo/export/RowWriter.h"

namespace vexo::exporting {
namespace {

constexpr std::size_t kAlignment = 64;  // of the first row, so that mapped rows begin there
constexpr std::size_t kCountRoom = 20;
constexpr std::uint32_t kStreamText = 64;
constexpr std::uint64_t kExactDouble = std::uint64_t{1} << 53;

enum class Place { kNumber, kReal, kTime, kText, kHexadecimal };

// How a column is stored in a row.
struct Slot {
    Place place = Place::kNumber;
    char kind = 'u';  // of numpy
    std::uint32_t bytes = 0;
    std::int64_t none = 0;  // the number for what a packet does not have

    std::string type() const {
        if (place == Place::kTime) return "<M8[ns]";
        if (place == Place::kText || place == Place::kHexadecimal) return "S" + std::to_string(bytes);
        return (bytes == 1 ? "|" : "<") + std::string(1, kind) + std::to_string(bytes);
    }
};

Slot slotOfField(const data::Field& field) {
    if (field.decimals > 0) return {Place::kReal, 'f', 8};
    switch (field.kind) {
        case data::FieldKind::kUnsigned: return {Place::kNumber, 'u', field.width};
        case data::FieldKind::kSigned: return {Place::kNumber, 'i', field.width};
        case data::FieldKind::kFloat: return {Place::kReal, 'f', field.width};
        case data::FieldKind::kText: return {Place::kText, 'S', field.width};
        case data::FieldKind::kBytes: break;
    }
    return {Place::kHexadecimal, 'S', 2 * field.width};
}

Slot slotOf(const Column& column) {
    switch (column.source) {
        case Source::kField: return slotOfField(column.field);
        case Source::kTime:
        case Source::kExchangeTime: return {Place::kTime, 'M', 8};
        case Source::kChannel:
        case Source::kCard: return {Place::kNumber, 'i', 4, -1};
        case Source::kYear: return {Place::kNumber, 'u', 2};
        case Source::kMonth: return {Place::kNumber, 'u', 1};
        case Source::kType:
        case Source::kNaturalDay:
        case Source::kTradingDay:
        case Source::kStrike: return {Place::kNumber, 'u', 4};
        case Source::kProduct: return {Place::kText, 'S', 2};
        case Source::kRight: return {Place::kText, 'S', 1};
        case Source::kKey:
        case Source::kSession: return {Place::kText, 'S', 16};
        case Source::kKind: return {Place::kText, 'S', 20};
        case Source::kLayout: return {Place::kText, 'S', 32};
        case Source::kClock: return {Place::kText, 'S', 35};
        case Source::kStream: return {Place::kText, 'S', kStreamText};
        case Source::kPayload: break;
    }
    throw Failure(kUsage,
                  "an array of numpy cannot hold the column " + column.name + "; leave it out, or use csv or jsonl");
}

// The number that the decimal text of the value names: what a reader of the CSV gets.
double realOf(const Value& value) {
    if (value.kind == ValueKind::kFloat) return value.real;
    if (value.number < kExactDouble) {
        const double real = static_cast<double>(value.number) / static_cast<double>(value.scale);
        return value.isNegative ? -real : real;
    }
    char text[data::kNumberRoom];
    const char* end = data::putDecimal(text, value.isNegative, value.number, value.scale, value.decimals);
    double real = 0;
    std::from_chars(text, end, real);
    return real;
}

void storeText(char* to, std::string_view text, std::uint32_t room) {
    for (std::size_t i = 0; i < text.size() && i < room; ++i) to[i] = text[i] >= ' ' && text[i] <= '~' ? text[i] : '.';
}

void storeHexadecimal(char* to, std::string_view bytes) {
    for (const char byte : bytes) {
        *to++ = "0123456789abcdef"[static_cast<unsigned char>(byte) >> 4];
        *to++ = "0123456789abcdef"[static_cast<unsigned char>(byte) & 15];
    }
}

class NpyWriter : public RowWriter {
public:
    NpyWriter(OutputFile& file, const std::vector<Column>& columns) : m_file(file), m_out(file) {
        std::string fields;
        for (const Column& column : columns) {
            m_slots.push_back(slotOf(column));
            m_rowBytes += m_slots.back().bytes;
            fields += "('" + column.name + "', '" + m_slots.back().type() + "'), ";
        }
        m_description = "{'descr': [" + fields + "], 'fortran_order': False, 'shape': (";
        const std::string head = headOf(0);
        m_out.usedUntil(std::copy(head.begin(), head.end(), m_out.room(head.size())));
    }

    void add(const RowMaker& maker, const Row& row) override {
        char* at = m_out.room(m_rowBytes);
        std::memset(at, 0, m_rowBytes);
        for (std::size_t i = 0; i < m_slots.size(); ++i) {
            store(at, m_slots[i], maker.valueOf(row, i));
            at += m_slots[i].bytes;
        }
        m_out.usedUntil(at);
    }

    void finish(std::uint64_t rows) override {
        m_out.flush();
        const std::string head = headOf(rows);
        m_file.rewriteHead(head.data(), head.size());
    }

private:
    // The same length for any number of rows.
    std::string headOf(std::uint64_t rows) const {
        std::string count = std::to_string(rows);
        count.resize(kCountRoom, ' ');
        std::string text = m_description + count + ",), }";
        const bool isLong = text.size() + kAlignment > 65535;
        const std::size_t before = isLong ? 12 : 10;
        text.append(kAlignment - (before + text.size() + 1) % kAlignment, ' ');
        text += '\n';
        std::string head("\x93NUMPY", 6);
        head += isLong ? '\2' : '\1';
        head += '\0';
        for (std::size_t i = 0; i < before - 8; ++i) head += static_cast<char>(text.size() >> (8 * i) & 0xFF);
        return head + text;
    }

    static void store(char* at, const Slot& slot, const Value& value) {
        switch (slot.place) {
            case Place::kNumber: {
                const auto none = static_cast<std::uint64_t>(slot.none);
                const std::uint64_t number = value.kind == ValueKind::kNone ? none : value.number;
                std::memcpy(at, &number, slot.bytes);
                break;
            }
            case Place::kReal: {
                const double real = value.kind == ValueKind::kNone ? std::numeric_limits<double>::quiet_NaN()
                                                                   : realOf(value);
                const auto half = static_cast<float>(real);
                std::memcpy(at, slot.bytes == 8 ? static_cast<const void*>(&real) : &half, slot.bytes);
                break;
            }
            case Place::kTime: {
                const std::int64_t none = std::numeric_limits<std::int64_t>::min();  // NaT
                const void* from = value.kind == ValueKind::kNone ? static_cast<const void*>(&none) : &value.number;
                std::memcpy(at, from, slot.bytes);
                break;
            }
            case Place::kText: storeText(at, value.text, slot.bytes); break;
            case Place::kHexadecimal: storeHexadecimal(at, value.text); break;
        }
    }

    OutputFile& m_file;
    OutputBuffer m_out;
    std::vector<Slot> m_slots;
    std::size_t m_rowBytes = 0;
    std::string m_description;
};

}  // namespace

std::unique_ptr<RowWriter> makeNpyWriter(OutputFile& file, const std::vector<Column>& columns) {
    return std::make_unique<NpyWriter>(file, columns);
}

}  // namespace vexo::exporting
