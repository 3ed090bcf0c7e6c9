#include "tools/vexo/export/Rows.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <unordered_map>

#include "capture/StreamPlace.h"
#include "tools/data/NumberText.h"

namespace vexo::exporting {
namespace {

constexpr std::uint64_t kNsPerMilli = 1'000'000;

std::string_view textOf(const data::Field& field, const unsigned char* payload) {
    const auto* begin = reinterpret_cast<const char*>(payload + field.offset);
    return {begin, ::strnlen(begin, field.width)};
}

Value textValue(std::string_view text) {
    Value value;
    value.kind = ValueKind::kText;
    value.text = text;
    return value;
}

Value unsignedValue(std::uint64_t number, bool isWide = false) {
    Value value;
    value.kind = ValueKind::kUnsigned;
    value.number = number;
    value.isWide = isWide;
    return value;
}

Value secondsValue(std::uint64_t ns) {
    Value value;
    value.kind = ValueKind::kSeconds;
    value.number = ns;
    return value;
}

// 2025-01-15T09:00:00.123456789+08:00
void writeClock(std::uint64_t ns, char (&out)[48]) {
    const vexo_zce::HostTime time = vexo_zce::hostTimeOf(ns);
    std::snprintf(out, sizeof out, "%04u-%02u-%02uT%02u:%02u:%02u.%09u+08:00", time.date / 10000, time.date / 100 % 100,
                  time.date % 100, time.second / 3600, time.second / 60 % 60, time.second % 60,
                  static_cast<unsigned>(ns % 1'000'000'000));
}

}  // namespace

RowMaker::RowMaker(const data::Layouts& layouts, const std::vector<Column>& columns, bool needsSession)
    : m_layouts(layouts),
      m_columns(columns),
      m_needsClock(needs(Source::kClock, Source::kClock)),
      m_needsQuoteTime(needsSession || needs(Source::kExchangeTime, Source::kSession)),
      m_needsInstrument(needs(Source::kKey, Source::kStrike)) {
    for (const auto& layout : layouts.all()) {
        for (const data::Payload& payload : layout->payloads) prepareCells(payload);
    }
}

bool RowMaker::needs(Source first, Source last) const {
    return std::any_of(m_columns.begin(), m_columns.end(),
                       [&](const Column& one) { return one.source >= first && one.source <= last; });
}

void RowMaker::prepareCells(const data::Payload& payload) {
    Cells cells(m_columns.size());
    std::unordered_map<std::string, std::size_t> places;  // of the fields, by name
    for (const data::Field& field : payload.fields) places.emplace(field.name, places.size());
    for (std::size_t i = 0; i < m_columns.size(); ++i) {
        const Column& column = m_columns[i];
        if (column.source != Source::kField) continue;
        const auto place = places.find(column.field.name);
        if (place == places.end() || column.element >= payload.fields[place->second].values()) continue;
        const data::Field& field = payload.fields[place->second];
        cells[i] = {&field, data::kHeadBytes + field.offset + column.element * field.width,
                    data::powerOfTen(field.decimals)};
    }
    m_kinds.emplace_back(&payload, std::move(cells));
}

std::size_t RowMaker::kindOf(const data::Payload* payload) const {
    const auto found = std::find_if(m_kinds.begin(), m_kinds.end(),
                                    [&](const auto& one) { return one.first == payload; });
    return static_cast<std::size_t>(found - m_kinds.begin());
}

bool RowMaker::begin(const capture::Packet& packet, Row& row) {
    if (packet.interface->info.linkType != capture::kStreamLink) return false;
    if (packet.interface != m_lastInterface) {
        m_lastInterface = packet.interface;
        const auto place = capture::placeOf(packet.interface->info.name);
        m_lastChannel = place ? static_cast<std::int32_t>(place->channel) : -1;
        m_lastCard = place ? static_cast<std::int32_t>(place->card) : -1;
    }
    row.packet = &packet;
    row.channel = m_lastChannel;
    row.card = m_lastCard;
    row.hasType = packet.size >= 4;
    row.type = row.hasType ? static_cast<std::uint32_t>(data::loadUnsigned(packet.data, 4, false)) : 0;
    row.payload = m_layouts.find(packet.data, packet.size);
    row.kind = kindOf(row.payload);
    row.id = {};
    row.hasInstrument = false;
    row.hasLookedForTime = false;
    row.hasQuoteTime = false;
    if (row.payload != nullptr && row.payload->id != data::kNoField) {
        row.id = textOf(row.payload->fields[row.payload->id], packet.data + data::kHeadBytes);
    }
    return true;
}

void RowMaker::addQuoteTime(Row& row) {
    if (!m_needsQuoteTime || row.hasLookedForTime) return;
    row.hasLookedForTime = true;
    if (row.payload == nullptr || row.payload->time == data::kNoField) return;
    const data::Field& time = row.payload->fields[row.payload->time];
    const unsigned char* payload = row.packet->data + data::kHeadBytes;
    const vexo_zce::HostTime host = vexo_zce::hostTimeOf(row.packet->timeNs);
    if (time.kind == data::FieldKind::kText) {
        const std::string_view text = textOf(time, payload);
        row.hasQuoteTime = m_clock.place(text.data(), text.size(), host, row.quoteTime);
        return;
    }
    std::uint64_t millis = 0;
    if (row.payload->millis != data::kNoField) {
        const data::Field& field = row.payload->fields[row.payload->millis];
        millis = data::loadUnsigned(payload + field.offset, field.width, field.isBigEndian);
    }
    // Numbers that do not fit are nonsense in whatever width.
    const std::uint64_t number = data::loadUnsigned(payload + time.offset, time.width, time.isBigEndian);
    const auto nanos = static_cast<std::uint32_t>(std::min<std::uint64_t>(millis, 1000) * kNsPerMilli);
    row.hasQuoteTime = m_clock.place(static_cast<std::uint32_t>(std::min<std::uint64_t>(number, 999999)), nanos, host,
                                     row.quoteTime);
}

void RowMaker::complete(Row& row) {
    addQuoteTime(row);
    if (m_needsClock) writeClock(row.packet->timeNs, row.clock);
    if (!m_needsInstrument || row.id.empty()) return;
    const std::uint32_t date = vexo_zce::hostTimeOf(row.packet->timeNs).date;
    row.hasInstrument = vexo_zce::parseId(row.id.data(), row.id.size(), date, row.instrument) ==
                        vexo_zce::IdFault::kNone;
    if (row.hasInstrument) vexo_zce::keyOf(row.instrument, row.key);
}

Value RowMaker::fieldValueOf(const Row& row, const Cell& cell) {
    const data::Field& field = *cell.field;
    const unsigned char* from = row.packet->data + cell.offset;
    Value value;
    value.isWide = field.width > 4;
    switch (field.kind) {
        case data::FieldKind::kUnsigned:
            value.kind = field.decimals > 0 ? ValueKind::kDecimal : ValueKind::kUnsigned;
            value.number = data::loadUnsigned(from, field.width, field.isBigEndian);
            break;
        case data::FieldKind::kSigned:
            value.kind = field.decimals > 0 ? ValueKind::kDecimal : ValueKind::kSigned;
            value.number = static_cast<std::uint64_t>(data::loadSigned(from, field.width, field.isBigEndian));
            if (field.decimals > 0 && static_cast<std::int64_t>(value.number) < 0) {
                value.isNegative = true;
                value.number = 0 - value.number;
            }
            break;
        case data::FieldKind::kFloat:
            value.kind = ValueKind::kFloat;
            value.real = data::loadFloat(from, field.width, field.isBigEndian);
            break;
        case data::FieldKind::kText:
            return textValue(
                {reinterpret_cast<const char*>(from), ::strnlen(reinterpret_cast<const char*>(from), field.width)});
        case data::FieldKind::kBytes:
            value.kind = ValueKind::kBytes;
            value.text = {reinterpret_cast<const char*>(from), field.width};
            break;
    }
    value.decimals = field.decimals;
    value.scale = cell.scale;
    return value;
}

Value RowMaker::derivedValueOf(const Row& row, Source source) const {
    if (source >= Source::kExchangeTime && source <= Source::kSession) {
        if (!row.hasQuoteTime) return {};
        switch (source) {
            case Source::kNaturalDay: return unsignedValue(row.quoteTime.naturalDate);
            case Source::kTradingDay: return unsignedValue(row.quoteTime.tradingDate);
            case Source::kSession:
                return row.quoteTime.session != nullptr ? textValue(row.quoteTime.session->name) : Value{};
            default:
                return secondsValue(static_cast<std::uint64_t>(std::max<std::int64_t>(row.quoteTime.nsSince1970, 0)));
        }
    }
    if (!row.hasInstrument) return {};
    const vexo_zce::Instrument& instrument = row.instrument;
    const bool isOption = instrument.kind == vexo_zce::InstrumentKind::kOption;
    switch (source) {
        case Source::kKey: return textValue(row.key);
        case Source::kKind: return textValue(vexo_zce::nameOf(instrument.kind));
        case Source::kProduct: return textValue(instrument.legs[0].product);
        case Source::kYear: return unsignedValue(instrument.legs[0].year);
        case Source::kMonth: return unsignedValue(instrument.legs[0].month);
        case Source::kRight: return isOption ? textValue({&instrument.right, 1}) : Value{};
        default: return isOption ? unsignedValue(instrument.strike) : Value{};
    }
}

Value RowMaker::valueOf(const Row& row, std::size_t column) const {
    const capture::Packet& packet = *row.packet;
    const Source source = m_columns[column].source;
    switch (source) {
        case Source::kField: {
            if (row.payload == nullptr) return {};
            const Cell& cell = m_kinds[row.kind].second[column];
            return cell.field != nullptr ? fieldValueOf(row, cell) : Value{};
        }
        case Source::kTime: return secondsValue(packet.timeNs);
        case Source::kChannel:
            return row.channel >= 0 ? unsignedValue(static_cast<std::uint64_t>(row.channel)) : Value{};
        case Source::kCard: return row.card >= 0 ? unsignedValue(static_cast<std::uint64_t>(row.card)) : Value{};
        case Source::kType: return row.hasType ? unsignedValue(row.type) : Value{};
        case Source::kStream: return textValue(packet.interface->info.name);
        case Source::kLayout: return row.payload != nullptr ? textValue(row.payload->layout->name) : Value{};
        case Source::kClock: return textValue(row.clock);
        case Source::kPayload: {
            Value value;
            value.kind = ValueKind::kBytes;
            const std::uint32_t head = std::min(packet.size, data::kHeadBytes);
            value.text = {reinterpret_cast<const char*>(packet.data + head), packet.size - head};
            return value;
        }
        default: return derivedValueOf(row, source);
    }
}

}  // namespace vexo::exporting
