#include <algorithm>
#include <unordered_map>

#include "tools/vexo/Failure.h"
#include "tools/vexo/export/Rows.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo::exporting {
namespace {

Column column(const char* name, Source source, const char* meaning, bool isDefault = false) {
    Column made;
    made.name = name;
    made.meaning = meaning;
    made.source = source;
    made.isDefault = isDefault;
    return made;
}

std::vector<Column> ownColumns() {
    return {column("time", Source::kTime, "Time of the packet, seconds since 1970", true),
            column("channel", Source::kChannel, "Channel of the stream", true),
            column("type", Source::kType, "Packet type", true)};
}

std::vector<Column> otherColumns() {
    return {column("card", Source::kCard, "Bus number of the card"),
            column("stream", Source::kStream, "Name of the stream in the capture"),
            column("layout", Source::kLayout, "Layout that describes the payload"),
            column("payload", Source::kPayload, "All bytes after the packet's head, in hexadecimal"),
            column("clock", Source::kClock, "Time of the packet, as date and time of the exchange's zone"),
            column("exchange_time", Source::kExchangeTime, "Exchange's time of the quote, seconds since 1970"),
            column("natural_day", Source::kNaturalDay, "Day of the exchange's time, YYYYMMDD"),
            column("trading_day", Source::kTradingDay, "Trading day of the quote, YYYYMMDD"),
            column("session", Source::kSession, "night, morning, afternoon; empty outside of all"),
            column("key", Source::kKey, "Id without blanks and slashes"),
            column("kind", Source::kKind, "future, option, calendar-spread, inter-product-spread"),
            column("product", Source::kProduct, "Product, such as SR; of the first leg"),
            column("year", Source::kYear, "Delivery year, such as 2027; of the first leg"),
            column("month", Source::kMonth, "Delivery month; of the first leg"),
            column("right", Source::kRight, "C call, P put; empty if it is no option"),
            column("strike", Source::kStrike, "Strike; empty if it is no option")};
}

std::vector<Column>::iterator find(std::vector<Column>& columns, const std::string& name) {
    return std::find_if(columns.begin(), columns.end(), [&](const Column& one) { return one.name == name; });
}

bool haveOneType(const data::Field& one, const data::Field& other) {
    return one.kind == other.kind && one.width == other.width && one.decimals == other.decimals &&
           (one.count == 0) == (other.count == 0);
}

// A field that has the name of another column, such as the time of the exchange, has quote_ in front.
std::string columnNameOf(const data::Field& field, std::vector<Column>& reserved) {
    return find(reserved, field.name) != reserved.end() ? "quote_" + field.name : field.name;
}

/// The columns of all fields, each name once.
struct FieldColumns {
    std::vector<Column> columns;
    std::unordered_map<std::string, std::size_t> places;  // by name
};

void addField(FieldColumns& fields, const data::Field& field, std::vector<Column>& reserved) {
    const std::string name = columnNameOf(field, reserved);
    for (std::uint32_t element = 0; element < field.values(); ++element) {
        Column made;
        made.name = name + (field.count > 0 ? "_" + std::to_string(element + 1) : "");
        made.meaning = field.meaning;
        made.field = field;
        made.element = element;
        made.isDefault = true;
        const auto [place, isNew] = fields.places.try_emplace(made.name, fields.columns.size());
        if (isNew) {
            fields.columns.push_back(made);
            continue;
        }
        const data::Field& known = fields.columns[place->second].field;
        if (known.name != field.name || !haveOneType(known, field)) {
            throw Failure(kUsage, "the column " + made.name +
                                      " is there twice, with different types; give the layout's field another name");
        }
    }
}

}  // namespace

std::vector<Column> allColumns(const data::Layouts& layouts) {
    std::vector<Column> all = ownColumns();
    const std::vector<Column> others = otherColumns();
    std::vector<Column> reserved = all;
    reserved.insert(reserved.end(), others.begin(), others.end());
    FieldColumns fields;
    for (const auto& layout : layouts.all()) {
        for (const data::Payload& payload : layout->payloads) {
            for (const data::Field& field : payload.fields) addField(fields, field, reserved);
        }
    }
    for (const Column& one : fields.columns) {
        if (find(all, one.name) != all.end()) continue;  // of a list that is there already
        // The elements of a list stay together, also if another payload has more of them.
        for (const Column& other : fields.columns) {
            if (other.field.name == one.field.name) all.push_back(other);
        }
    }
    all.insert(all.end(), others.begin(), others.end());
    return all;
}

std::vector<Column> chosenColumns(const data::Layouts& layouts, const std::vector<std::string>& names) {
    std::vector<Column> all = allColumns(layouts);
    std::vector<Column> chosen;
    if (names.empty()) {
        std::copy_if(all.begin(), all.end(), std::back_inserter(chosen),
                     [](const Column& one) { return one.isDefault; });
        return chosen;
    }
    for (const std::string& name : names) {
        const auto found = find(all, name);
        if (found == all.end()) {
            throw Failure(kUsage, "--columns: there is no column " + harmless(name) +
                                      "\nvexo export --list-columns shows all, with those of the layouts.");
        }
        if (find(chosen, name) != chosen.end()) throw Failure(kUsage, "--columns: " + name + " is there twice");
        chosen.push_back(*found);
    }
    return chosen;
}

}  // namespace vexo::exporting
