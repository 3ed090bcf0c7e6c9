#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/vexo/export/OutputFile.h"
#include "tools/vexo/export/Rows.h"

namespace vexo::exporting {

/// Writes rows in one format. Failures throw vexo::Failure.
class RowWriter {
public:
    virtual ~RowWriter() = default;
    RowWriter(const RowWriter&) = delete;
    RowWriter& operator=(const RowWriter&) = delete;

    virtual void add(const RowMaker& maker, const Row& row) = 0;
    /// Writes out everything. @param rows  that were added
    virtual void finish(std::uint64_t rows) = 0;

protected:
    RowWriter() = default;
};

/// Bytes on their way to the file, in large pieces.
class OutputBuffer {
public:
    explicit OutputBuffer(OutputFile& file) : m_file(file), m_bytes(kBytes) {}

    /// Where the next bytes go; there is room for @p count.
    char* room(std::size_t count) {
        if (m_bytes.size() - m_used < count) makeRoom(count);
        return m_bytes.data() + m_used;
    }
    void usedUntil(const char* end) { m_used = static_cast<std::size_t>(end - m_bytes.data()); }
    void flush() {
        m_file.write(m_bytes.data(), m_used);
        m_used = 0;
    }

private:
    static constexpr std::size_t kBytes = 1U << 20;

    void makeRoom(std::size_t count) {
        flush();
        if (m_bytes.size() < count) m_bytes.resize(count);
    }

    OutputFile& m_file;
    std::vector<char> m_bytes;
    std::size_t m_used = 0;
};

/// A line a row; the first has the names. Decimals are exact; a value that the packet does not have is empty.
std::unique_ptr<RowWriter> makeCsvWriter(OutputFile& file, const std::vector<Column>& columns);
/// A JSON object a line. Integers of 64 bits, and times, are strings. What the packet does not have is left out.
std::unique_ptr<RowWriter> makeJsonWriter(OutputFile& file, const std::vector<Column>& columns);
/// One structured array of numpy, little-endian. Throws vexo::Failure for a column that it cannot hold.
std::unique_ptr<RowWriter> makeNpyWriter(OutputFile& file, const std::vector<Column>& columns);

}  // namespace vexo::exporting
