#include <algorithm>
#include <cmath>

#include "tools/data/NumberText.h"
#include "tools/vexo/export/RowWriter.h"

namespace vexo::exporting {
namespace {

constexpr char kHexadecimal[] = "0123456789abcdef";

char* putBytes(char* at, std::string_view bytes) {
    for (const char byte : bytes) {
        *at++ = kHexadecimal[static_cast<unsigned char>(byte) >> 4];
        *at++ = kHexadecimal[static_cast<unsigned char>(byte) & 15];
    }
    return at;
}

// Ids are plain ASCII; other bytes become dots, as in the dissector.
char shown(char c) { return c >= ' ' && c <= '~' ? c : '.'; }

// Room for what putPlain() or a text writes, quotes and escapes included.
std::size_t roomFor(const Value& value) { return data::kNumberRoom + 2 * value.text.size(); }

/// Every kind but text, without quotes.
char* putPlain(char* at, const Value& value) {
    switch (value.kind) {
        case ValueKind::kUnsigned: return data::putNumber(at, value.number);
        case ValueKind::kSigned: return data::putNumber(at, static_cast<std::int64_t>(value.number));
        case ValueKind::kDecimal:
            return data::putDecimal(at, value.isNegative, value.number, value.scale, value.decimals);
        case ValueKind::kFloat: return data::putNumber(at, value.real);
        case ValueKind::kSeconds: return data::putSeconds(at, value.number);
        case ValueKind::kBytes: return putBytes(at, value.text);
        default: return at;
    }
}

class CsvWriter : public RowWriter {
public:
    CsvWriter(OutputFile& file, const std::vector<Column>& columns) : m_out(file), m_columns(columns.size()) {
        for (std::size_t i = 0; i < columns.size(); ++i) {
            const std::string& name = columns[i].name;
            char* at = std::copy(name.begin(), name.end(), m_out.room(name.size() + 1));
            *at++ = i + 1 < columns.size() ? ',' : '\n';
            m_out.usedUntil(at);
        }
    }

    void add(const RowMaker& maker, const Row& row) override {
        for (std::size_t i = 0; i < m_columns; ++i) {
            const Value value = maker.valueOf(row, i);
            char* const begin = m_out.room(roomFor(value));
            char* at = value.kind == ValueKind::kText ? putText(begin, value.text) : putPlain(begin, value);
            if (at == begin && m_columns == 1) at = std::fill_n(at, 2, '"');  // readers skip a line that is blank
            *at++ = i + 1 < m_columns ? ',' : '\n';
            m_out.usedUntil(at);
        }
    }

    void finish(std::uint64_t) override { m_out.flush(); }

private:
    static char* putText(char* at, std::string_view text) {
        const bool needsQuotes = text.find_first_of(",\"") != std::string_view::npos;
        if (needsQuotes) *at++ = '"';
        for (const char c : text) {
            if (c == '"') *at++ = '"';
            *at++ = shown(c);
        }
        if (needsQuotes) *at++ = '"';
        return at;
    }

    OutputBuffer m_out;
    std::size_t m_columns;
};

class JsonWriter : public RowWriter {
public:
    JsonWriter(OutputFile& file, const std::vector<Column>& columns) : m_out(file) {
        for (const Column& column : columns) m_names.push_back("\"" + column.name + "\":");
    }

    void add(const RowMaker& maker, const Row& row) override {
        char next = '{';
        for (std::size_t i = 0; i < m_names.size(); ++i) {
            const Value value = maker.valueOf(row, i);
            if (value.kind == ValueKind::kNone) continue;
            const std::string& name = m_names[i];
            char* at = m_out.room(roomFor(value) + name.size());
            *at++ = next;
            next = ',';
            at = std::copy(name.begin(), name.end(), at);
            m_out.usedUntil(putValue(at, value));
        }
        char* at = m_out.room(3);
        if (next == '{') *at++ = '{';
        *at++ = '}';
        *at++ = '\n';
        m_out.usedUntil(at);
    }

    void finish(std::uint64_t) override { m_out.flush(); }

private:
    static char* putValue(char* at, const Value& value) {
        const bool isInteger = value.kind == ValueKind::kUnsigned || value.kind == ValueKind::kSigned;
        const bool isString = (isInteger && value.isWide) || value.kind == ValueKind::kSeconds ||
                              value.kind == ValueKind::kBytes || value.kind == ValueKind::kText;
        if (value.kind == ValueKind::kFloat && !std::isfinite(value.real)) {
            const std::string_view null = "null";
            return std::copy(null.begin(), null.end(), at);
        }
        if (isString) *at++ = '"';
        if (value.kind == ValueKind::kText) {
            for (const char c : value.text) {
                if (c == '"' || c == '\\') *at++ = '\\';
                *at++ = shown(c);
            }
        } else {
            at = putPlain(at, value);
        }
        if (isString) *at++ = '"';
        return at;
    }

    OutputBuffer m_out;
    std::vector<std::string> m_names;
};

}  // namespace

std::unique_ptr<RowWriter> makeCsvWriter(OutputFile& file, const std::vector<Column>& columns) {
    return std::make_unique<CsvWriter>(file, columns);
}

std::unique_ptr<RowWriter> makeJsonWriter(OutputFile& file, const std::vector<Column>& columns) {
    return std::make_unique<JsonWriter>(file, columns);
}

}  // namespace vexo::exporting
