// The layout file of the simulated card against the header that declares its payloads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <type_traits>

#include "enyx-sim/md_payload.h"
#include "tools/data/LayoutFile.h"

using namespace vexo::data;

namespace {

/// What the header says of a member.
struct Declared {
    std::size_t offset;
    std::size_t bytes;
    FieldKind kind;
    std::uint32_t width;
    std::uint32_t count;  // 0 = no list
};

template <typename Member>
Declared DeclaredAs(std::size_t offset, bool isList) {
    using Value = std::remove_extent_t<Member>;
    if (std::is_same_v<Value, char>) return {offset, sizeof(Member), FieldKind::kText, sizeof(Member), 0};
    const FieldKind kind = std::is_signed_v<Value> ? FieldKind::kSigned : FieldKind::kUnsigned;
    const auto count = static_cast<std::uint32_t>(sizeof(Member) / sizeof(Value));
    return {offset, sizeof(Member), kind, sizeof(Value), isList ? count : 0};
}

#define COMMON(member) \
    DeclaredAs<decltype(enyx_sim::QuoteCommon::member)>(offsetof(enyx_sim::QuoteCommon, member), false)
#define OWN(quote, member) DeclaredAs<decltype(enyx_sim::quote::member)>(offsetof(enyx_sim::quote, member), true)

using Members = std::map<std::string, Declared>;

Members CommonMembers() {
    return {{"sequence", COMMON(sequence)},
            {"id", COMMON(id)},
            {"row", COMMON(instrumentIndex)},
            {"table", COMMON(table)},
            {"level", COMMON(level)},
            {"date", COMMON(exchangeDate)},
            {"time", COMMON(exchangeTime)},
            {"millis", COMMON(exchangeMillis)},
            {"last", COMMON(lastPrice)},
            {"upper_limit", COMMON(upperLimit)},
            {"lower_limit", COMMON(lowerLimit)},
            {"turnover", COMMON(turnover)},
            {"volume", COMMON(totalVolume)},
            {"open_interest", COMMON(openInterest)}};
}

Members MembersOfLevel(int level) {
    Members members = CommonMembers();
    if (level == 1) {
        members.insert({{"bid_price", OWN(Level1Quote, bidPrice)},
                        {"ask_price", OWN(Level1Quote, askPrice)},
                        {"bid_volume", OWN(Level1Quote, bidVolume)},
                        {"ask_volume", OWN(Level1Quote, askVolume)}});
    } else {
        members.insert({{"bid_price", OWN(Level5Quote, bidPrice)},
                        {"ask_price", OWN(Level5Quote, askPrice)},
                        {"bid_volume", OWN(Level5Quote, bidVolume)},
                        {"ask_volume", OWN(Level5Quote, askVolume)}});
    }
    return members;
}

bool IsMoney(const std::string& name) {
    return name == "last" || name == "turnover" || name.find("limit") != std::string::npos ||
           name.find("price") != std::string::npos;
}

std::uint32_t ScaleOf(const Field& field) {
    std::uint32_t scale = 1;
    for (std::uint32_t i = 0; i < field.decimals; ++i) scale *= 10;
    return scale;
}

}  // namespace

TEST(SimulatedLayout, HasEveryMemberOfTheHeaderAtItsPlace) {
    const Layouts layouts({kSimulated});
    ASSERT_EQ(layouts.all().front()->payloads.size(), 4U);
    for (const Payload& payload : layouts.all().front()->payloads) {
        const int level = payload.type == 17 || payload.type == 19 ? 1 : 5;
        EXPECT_EQ(payload.size, level == 1 ? sizeof(enyx_sim::Level1Quote) : sizeof(enyx_sim::Level5Quote));
        const Members members = MembersOfLevel(level);
        EXPECT_EQ(payload.fields.size(), members.size());
        std::size_t bytes = 0;  // the header's structs are packed: all bytes belong to a member
        for (const Field& field : payload.fields) {
            ASSERT_EQ(members.count(field.name), 1U) << field.name;
            const Declared& member = members.at(field.name);
            EXPECT_EQ(field.offset, member.offset) << field.name;
            EXPECT_EQ(field.kind, member.kind) << field.name;
            EXPECT_EQ(field.width, member.width) << field.name;
            EXPECT_EQ(field.count, member.count) << field.name;
            EXPECT_EQ(field.isBigEndian, false) << field.name;
            EXPECT_EQ(ScaleOf(field), IsMoney(field.name) ? enyx_sim::kPriceScale : 1) << field.name;
            bytes += member.bytes;
        }
        EXPECT_EQ(bytes, payload.size);
    }
}

TEST(SimulatedLayout, KnowsItsPacketsByTypeSizeLengthAndMarks) {
    const Layouts layouts({kSimulated});
    std::string packet(sizeof(enyx_sim::PacketHead) + sizeof(enyx_sim::Level5Quote), '\0');
    enyx_sim::PacketHead head{20, static_cast<std::uint32_t>(packet.size()), 1};
    enyx_sim::Level5Quote quote{};
    quote.common.table = 1;
    quote.common.level = 5;
    const auto found = [&](std::size_t size) {
        std::memcpy(packet.data(), &head, sizeof head);
        std::memcpy(packet.data() + sizeof head, &quote, sizeof quote);
        return layouts.find(reinterpret_cast<const unsigned char*>(packet.data()), size);
    };
    ASSERT_NE(found(packet.size()), nullptr);
    EXPECT_EQ(found(packet.size())->type, 20U);
    for (std::size_t size = 0; size < packet.size(); ++size) EXPECT_EQ(found(size), nullptr) << size;
    head.type = 18;  // of table 0
    EXPECT_EQ(found(packet.size()), nullptr);
    head.type = 2;
    EXPECT_EQ(found(packet.size()), nullptr);
    head.type = 20;
    head.length = 235;
    EXPECT_EQ(found(packet.size()), nullptr);
    head.length = 236;
    quote.common.level = 1;
    EXPECT_EQ(found(packet.size()), nullptr);
}

TEST(SimulatedLayout, NumbersPacketsInTheirHead) {
    const Layouts layouts({kSimulated});
    const Layout& layout = *layouts.all().front();
    EXPECT_EQ(layout.numbering.place, Numbering::Place::kHead);
    EXPECT_EQ(layout.numbering.headAt, offsetof(enyx_sim::PacketHead, sequence));
    EXPECT_EQ(layout.numbering.width, sizeof(enyx_sim::PacketHead::sequence));
    EXPECT_EQ(layout.lengthAt, offsetof(enyx_sim::PacketHead, length));
}

TEST(SimulatedLayout, IsInTheProgramAsItsFileSays) {
    std::ostringstream text;
    text << std::ifstream(VEXO_SIMULATED_LAYOUT).rdbuf();
    const std::unique_ptr<Layout> file = parseLayout(text.str(), "simulated.ini");
    const Layouts layouts({kSimulated});
    const Layout& own = *layouts.all().front();
    EXPECT_EQ(own.name, file->name);
    EXPECT_EQ(own.values, file->values);
    ASSERT_EQ(own.payloads.size(), file->payloads.size());
    for (std::size_t i = 0; i < own.payloads.size(); ++i) {
        ASSERT_EQ(own.payloads[i].fields.size(), file->payloads[i].fields.size());
        for (std::size_t n = 0; n < own.payloads[i].fields.size(); ++n) {
            EXPECT_EQ(own.payloads[i].fields[n].name, file->payloads[i].fields[n].name);
            EXPECT_EQ(own.payloads[i].fields[n].offset, file->payloads[i].fields[n].offset);
        }
    }
}
