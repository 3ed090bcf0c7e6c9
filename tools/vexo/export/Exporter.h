#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "capture/Reader.h"
#include "tools/data/CaptureSource.h"
#include "tools/vexo/export/Filter.h"
#include "tools/vexo/export/Progress.h"
#include "tools/vexo/export/RowWriter.h"

namespace vexo::exporting {

/// What has been exported, and what not. Each packet counts once.
struct Outcome {
    static constexpr std::size_t kMostTypes = 16;  // a hostile capture may have any number of them

    std::uint64_t packets = 0;  // of streams
    std::uint64_t firstNs = 0;  // the earliest of them, and the latest
    std::uint64_t lastNs = 0;
    std::uint64_t rows = 0;
    std::uint64_t maps = 0;                          // contract maps, which have no quotes
    std::uint64_t tooShort = 0;                      // packets without a type
    std::map<std::uint32_t, std::uint64_t> unknown;  // packets that no layout describes, by type
    std::uint64_t unknownOfOtherTypes = 0;
    std::array<std::uint64_t, kRejections> rejected{};  // by the filter that rejected them first
    bool isDamaged = false;
    std::vector<std::string> idsWithoutRow;  // of --id; those that no row has
};

/// Reads captures, one after the other, into one output.
class Exporter {
public:
    /// @param limit  ends after so many rows; 0 = no limit
    Exporter(const Filter& filter, std::uint64_t limit, RowMaker& maker, RowWriter& writer)
        : m_filter(filter), m_limit(limit), m_maker(maker), m_writer(writer) {
        m_outcome.idsWithoutRow = filter.ids;
    }

    /// Says on standard error what is wrong with a capture, and exports what precedes it.
    /// @param bytesBefore  of all captures before this one, for the progress
    /// @return bytes of this one
    std::uint64_t take(const std::string& path, Progress& progress, std::uint64_t bytesBefore);
    bool isFull() const { return m_limit > 0 && m_outcome.rows >= m_limit; }
    const Outcome& outcome() const { return m_outcome; }

private:
    void takeAll(const std::string& path, data::CaptureSource& source, Progress& progress, std::uint64_t bytesBefore);
    void takePacket(const capture::Packet& packet, Row& row);
    void countUnknown(const Row& row);
    bool isRejected(Rejection why);
    void noteId(const Row& row);

    const Filter& m_filter;
    const std::uint64_t m_limit;
    RowMaker& m_maker;
    RowWriter& m_writer;
    Outcome m_outcome;
};

/// Why there is no row: "of 150 packets, 120 of type 2 (contract maps, without quotes), 30 left out by --id".
std::string whyNoRow(const Outcome& outcome);
/// Says on standard error what a user could miss in the output.
void sayWhatIsMissing(const Outcome& outcome, const RowMaker& maker);

}  // namespace vexo::exporting
