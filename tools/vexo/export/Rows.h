#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "VexoZceInstrument.h"
#include "VexoZceSession.h"
#include "capture/Reader.h"
#include "tools/data/LayoutFile.h"

namespace vexo::exporting {

/// Where the values of a column come from.
enum class Source {
    kTime,
    kChannel,
    kType,
    kField,
    kCard,
    kStream,
    kLayout,
    kPayload,
    kClock,
    kExchangeTime,
    kNaturalDay,
    kTradingDay,
    kSession,
    kKey,
    kKind,
    kProduct,
    kYear,
    kMonth,
    kRight,
    kStrike,
};

/// A column of the output.
struct Column {
    std::string name;
    std::string meaning;
    Source source = Source::kField;
    data::Field field;          // of kField: its name, and its type, which is the same in all payloads of a layout
    std::uint32_t element = 0;  // of a list
    bool isDefault = false;
};

/// All columns that there are: those of every packet, then the fields of the layouts, then those made from other
/// columns. Throws vexo::Failure when two layouts have a field of one name and different types.
std::vector<Column> allColumns(const data::Layouts& layouts);
/// The columns with these names, in their order; without names the default ones. Throws vexo::Failure.
std::vector<Column> chosenColumns(const data::Layouts& layouts, const std::vector<std::string>& names);

/// One packet on its way to the output. Valid until the next packet is read.
struct Row {
    const capture::Packet* packet = nullptr;
    const data::Payload* payload = nullptr;  // null if no layout describes it
    std::size_t kind = 0;                    // of the payload, for RowMaker
    bool hasType = false;
    std::uint32_t type = 0;
    std::int32_t channel = -1;  // -1: the stream has no number
    std::int32_t card = -1;
    std::string_view id;
    bool hasInstrument = false;
    vexo_zce::Instrument instrument{};
    char key[vexo_zce::kIdRoom] = "";
    bool hasLookedForTime = false;
    bool hasQuoteTime = false;
    vexo_zce::QuoteTime quoteTime{};
    char clock[48] = "";
};

enum class ValueKind { kNone, kUnsigned, kSigned, kDecimal, kFloat, kSeconds, kText, kBytes };

/// What a row has in a column.
struct Value {
    ValueKind kind = ValueKind::kNone;
    bool isWide = false;      // of more than 32 bits
    bool isNegative = false;  // a decimal
    std::uint32_t decimals = 0;
    std::uint64_t scale = 1;
    std::uint64_t number = 0;  // two's complement of a signed one; magnitude of a decimal; nanoseconds since 1970
    double real = 0;
    std::string_view text;  // also of bytes, which are shown in hexadecimal
};

/// Makes rows from packets, and values from rows.
class RowMaker {
public:
    /// @param needsSession  a filter asks for it, whether or not a column does
    RowMaker(const data::Layouts& layouts, const std::vector<Column>& columns, bool needsSession);

    vexo_zce::HolidayList& holidays() { return m_clock.holidays(); }
    /// Before the first packet of each capture: another one may describe its interfaces at the same addresses.
    void beginCapture() { m_lastInterface = nullptr; }
    /// The cheap parts of a row, for the filters. @return false for a packet that is none of a stream
    bool begin(const capture::Packet& packet, Row& row);
    /// The session, which a filter may want. Only with needsSession.
    void addQuoteTime(Row& row);
    /// The rest.
    void complete(Row& row);

    Value valueOf(const Row& row, std::size_t column) const;
    /// Quotes whose exchange time is no time. Counted only if a column or a filter needs it.
    std::uint64_t nonsenseTimes() const { return m_clock.dropped(); }

private:
    /// A field of a column in one kind of payload; null if it is not there.
    struct Cell {
        const data::Field* field = nullptr;
        std::uint32_t offset = 0;  // in the packet
        std::uint64_t scale = 1;
    };
    using Cells = std::vector<Cell>;  // by column

    void prepareCells(const data::Payload& payload);
    std::size_t kindOf(const data::Payload* payload) const;
    bool needs(Source first, Source last) const;
    Value derivedValueOf(const Row& row, Source source) const;
    static Value fieldValueOf(const Row& row, const Cell& cell);

    const data::Layouts& m_layouts;
    const std::vector<Column>& m_columns;
    bool m_needsClock;
    bool m_needsQuoteTime;
    bool m_needsInstrument;
    vexo_zce::SessionClock m_clock;
    std::vector<std::pair<const data::Payload*, Cells>> m_kinds;
    const capture::Interface* m_lastInterface = nullptr;
    std::int32_t m_lastChannel = -1;
    std::int32_t m_lastCard = -1;
};

}  // namespace vexo::exporting
