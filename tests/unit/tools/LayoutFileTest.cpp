#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TempDir.h"
#include "tools/data/LayoutFile.h"

using namespace vexo::data;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

// A layout with one of everything. Line numbers matter.
constexpr char kSound[] =
    "; comment\n"                             // 1
    "[layout]\n"                              // 2
    "name = card7\n"                          // 3
    "meaning = A card, with \"marks\"\n"      // 4
    "length_at = 8\n"                         // 5
    "id_field = id\n"                         // 6
    "time_field = clock\n"                    // 7
    "\n"                                      // 8
    "[type 17]\n"                             // 9
    "meaning = One\n"                         // 10
    "size = 0x40\n"                           // 11
    "fields = a , b\n"                        // 12
    "fixed = mark 0x55AA\n"                   // 13
    "[fields a]\n"                            // 14
    "id = 0, char[8], 1, Id, with a comma\n"  // 15
    "mark = 8, u16be, 1, Mark\n"              // 16
    "clock = 10, char[12], 1, Time\n"         // 17
    "[fields b]\n"                            // 18
    "price = 32, i32be[2], 100, Prices\n"     // 19
    "ratio = 24, f64, 1, Ratio\n"             // 20
    "rest = 40, bytes[24], 1, Rest\n"         // 21
    "[values mark]\n"                         // 22
    "0x55aa = sound\n";                       // 23

std::string LinesOf(unsigned number, const std::string& replacement) {
    std::istringstream lines(kSound);
    std::string text;
    unsigned at = 0;
    for (std::string line; std::getline(lines, line);) text += (++at == number ? replacement : line) + "\n";
    return text;
}

/// What is said of a text; empty if it is a layout.
std::string FaultOf(const std::string& text) {
    try {
        parseLayout(text, "card7.ini");
        return "";
    } catch (const LayoutError& error) {
        return error.what();
    }
}

}  // namespace

TEST(LayoutFile, IsReadWithAllThatItSays) {
    const std::unique_ptr<Layout> layout = parseLayout(kSound, "card7.ini");
    EXPECT_EQ(layout->name, "card7");
    EXPECT_EQ(layout->meaning, "A card, with \"marks\"");
    EXPECT_EQ(layout->lengthAt, 8U);
    ASSERT_EQ(layout->payloads.size(), 1U);
    const Payload& payload = layout->payloads.front();
    EXPECT_EQ(payload.layout, layout.get());
    EXPECT_EQ(payload.type, 17U);
    EXPECT_EQ(payload.size, 64U);
    ASSERT_EQ(payload.fields.size(), 6U);
    EXPECT_EQ(payload.id, 0U);
    EXPECT_EQ(payload.fields[0].meaning, "Id, with a comma");
    EXPECT_EQ(payload.fields[0].bytes(), 8U);
    EXPECT_EQ(payload.time, 2U);
    EXPECT_EQ(payload.millis, kNoField);
    EXPECT_EQ(payload.sequence, kNoField);
    EXPECT_EQ(payload.fields[3].name, "ratio");  // by offset
    const Field& price = payload.fields[4];
    EXPECT_EQ(price.kind, FieldKind::kSigned);
    EXPECT_TRUE(price.isBigEndian);
    EXPECT_EQ(price.width, 4U);
    EXPECT_EQ(price.count, 2U);
    EXPECT_EQ(price.decimals, 2U);
    ASSERT_EQ(payload.fixed.size(), 1U);
    EXPECT_EQ(payload.fixed[0].value, 0x55AAU);
    EXPECT_EQ(layout->values.at("mark").at(0x55AA), "sound");
}

TEST(LayoutFile, KnowsAPacketByItsMarkInTheOrderOfItsBytes) {
    const std::unique_ptr<Layout> layout = parseLayout(kSound, "card7.ini");
    std::string packet(76, '\0');
    packet[0] = 17;
    packet[8] = 76;
    packet[12 + 8] = '\x55';
    packet[12 + 9] = '\xAA';
    const auto* data = reinterpret_cast<const unsigned char*>(packet.data());
    EXPECT_EQ(payloadOf(*layout, data, packet.size()), &layout->payloads.front());
    std::swap(packet[12 + 8], packet[12 + 9]);
    EXPECT_EQ(payloadOf(*layout, data, packet.size()), nullptr);
}

TEST(LayoutFile, NumbersAreReadInBothOrdersAndAllWidths) {
    const unsigned char bytes[] = {0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10};
    EXPECT_EQ(loadUnsigned(bytes, 1, false), 0xFEU);
    EXPECT_EQ(loadUnsigned(bytes, 2, false), 0xDCFEU);
    EXPECT_EQ(loadUnsigned(bytes, 2, true), 0xFEDCU);
    EXPECT_EQ(loadUnsigned(bytes, 4, true), 0xFEDCBA98U);
    EXPECT_EQ(loadUnsigned(bytes, 8, false), 0x1032547698BADCFEU);
    EXPECT_EQ(loadUnsigned(bytes, 8, true), 0xFEDCBA9876543210U);
    EXPECT_EQ(loadSigned(bytes, 1, false), -2);
    EXPECT_EQ(loadSigned(bytes, 2, true), -292);
    EXPECT_EQ(loadSigned(bytes, 4, true), -19088744);
    EXPECT_EQ(loadSigned(bytes, 8, false), 0x1032547698BADCFE);
    const unsigned char half[] = {0xC0, 0x20, 0, 0};
    EXPECT_EQ(loadFloat(half, 4, true), -2.5);
    const unsigned char one[] = {0, 0, 0, 0, 0, 0, 0xF0, 0x3F};
    EXPECT_EQ(loadFloat(one, 8, false), 1.0);
}

TEST(LayoutFile, EveryMistakeIsNamedWithItsLineAndWhatToDo) {
    const std::vector<std::pair<std::pair<unsigned, std::string>, std::string>> mistakes = {
        {{1, "name = x"}, ":1: a key before the first section; begin with [layout]"},
        {{2, "[layout"}, ":2: the section's line does not end with ]"},
        {{2, "[layout 7]"}, ":2: the section's name is missing, or too much"},
        {{2, "[lay out]"}, ":2: unknown section; there are [layout], [type N], [fields NAME], [values FIELD]"},
        {{3, "name = Card 7"}, ":3: the name of the layout has a-z, 0-9 and _, begins with a letter"},
        {{3, "; none"}, ":2: the section has no name; add the key"},
        {{4, "meaning"}, ":4: no KEY = VALUE; begin a comment with ; or #"},
        {{4, "meaning ="}, ":4: key or value is missing; write KEY = VALUE"},
        {{4, "name = two"}, ":4: name is in this section twice; remove one of the two lines"},
        {{5, "length_at = 9"}, ":5: the byte of the packet's length is a number from 4 to 8, not 9"},
        {{5, "sequence_at = 3"}, ":5: the byte of the packet's number is a number from 4 to 8, not 3"},
        {{5, "length_at = 6\nsequence_at = 8"}, ":6: sequence_at and length_at lie on the same bytes; correct one"},
        {{5, "sequence_at = 8\nsequence_scope = type"}, ":6: sequence_at counts all packets of a stream; leave out"},
        {{5, "sequence_scope = day\nsequence_field = mark"}, ":5: the numbers count in the whole stream or for each"},
        {{5, "sequence_scope = type"}, ":5: there are no numbers; add sequence_field, or leave out sequence_scope"},
        {{5, "sequence_field = price"}, ":5: price has a type that sequence_field cannot have; it is one unsigned"},
        {{6, "id_feld = id"}, ":6: unknown key id_feld; this section has name, meaning, length_at, "},
        {{6, "id_field = name"}, ":6: type 17 has no field name; add it, or leave out id_field"},
        {{6, "id_field = mark"}, ":6: mark has a type that id_field cannot have; it is char[N]"},
        {{7, "time_field = ratio"},
         ":7: ratio has a type that time_field cannot have; it is one unsigned number HHMMSS, or"},
        {{7, "millis_field = clock"}, ":7: clock has a type that millis_field cannot have; it is one unsigned number"},
        {{8, "[type 0x11]\nmeaning = One\nsize = 64\nfields = a"}, ":12: the type is there twice; remove one section"},
        {{9, "[type]"}, ":9: the section's name is missing, or too much"},
        {{9, "[type seventeen]"}, ":9: the packet type is a number from 0 to 4294967295, not seventeen"},
        {{11, "size = 0"}, ":11: the size of the payload in bytes is a number from 1 to 65536, not 0"},
        {{11, "size = 99999999999999999999"}, ":11: the size of the payload in bytes is a number"},
        {{11, "size = 63"}, ":21: rest ends at byte 64, past the payload of type 17 with 63 bytes"},
        {{12, "fields = a, c"}, ":12: there is no section [fields c]; add it"},
        {{12, "fields = a"}, ":18: no type uses these fields; name the section in the fields of a type"},
        {{12, "fields = a, b, a"}, ":15: type 17 has two fields id; give them different names"},
        {{13, "fixed = mark"}, ":13: write FIELD VALUE, such as level 1, with a field of this type, not mark"},
        {{13, "fixed = level 5"}, ":13: write FIELD VALUE"},
        {{13, "fixed = price 5"}, ":13: price cannot be fixed; only one of u8, u16, u32 can"},
        {{13, "fixed = mark 65536"}, ":13: the value of mark is no number that the field can hold"},
        {{14, "[fields b]"}, ":18: the section [fields b] is there twice; join the two"},
        {{15, "Id = 0, char[8], 1, Id"}, ":15: the name of a field has a-z"},
        {{15, "id = 0, char[8], 1"}, ":15: write NAME = OFFSET, TYPE, SCALE, MEANING"},
        {{15, "id = -1, char[8], 1, Id"}, ":15: the offset is a number from 0 to 65536, not -1"},
        {{15, "id = 0, char, 1, Id"}, ":15: unknown type char; types are u8, u16"},
        {{15, "id = 0, char[0], 1, Id"}, ":15: the number in brackets is a number from 1 to 1024, not 0"},
        {{15, "id = 0, charbe[8], 1, Id"}, ":15: unknown type charbe[8]; types are"},
        {{15, "id = 0, char[8, 1, Id"}, ":15: unknown type char[8; types are"},
        {{15, "id = 0, char[9], 1, Id"},
         ":12: in type 17, id and mark lie on the same bytes; correct an offset or a type"},
        {{15, "id = 0, char[8], 10, Id"}, ":15: only whole numbers have a scale; write 1"},
        {{16, "mark = 8, u17, 1, Mark"}, ":16: unknown type u17; types are"},
        {{16, "mark = 8, u8be, 1, Mark"}, ":16: one byte has no order; leave out be"},
        {{19, "price = 32, i32be[65], 1, Prices"}, ":19: the number in brackets is a number from 1 to 64, not 65"},
        {{19, "price = 32, i32be[2], 50, Prices"}, ":19: the scale is 1, 10, 100 and so on, not 50"},
        {{19, "price = 32, i32be[2], 10000000000, Prices"}, ":19: the scale is a number from 1 to 1000000000, not"},
        {{22, "[values price]"}, ":22: there is no unsigned field price; correct the name"},
        {{23, "sound = 1"}, ":23: write VALUE = NAME, such as 0 = call"},
        {{23, "0 = a\x01"}, ":23: the line has control characters; a layout file is plain text"},
        {{9,
          "[type 18]\nmeaning = Two\nsize = 64\nfields = c\n[fields c]\nid = 0, u8, 1, Id\nclock = 1, u32, 1, Time\n"
          "[type 17]"},
         ":22: id has another type or scale in type 18; give one of them another name"},
    };
    for (const auto& [line, fault] : mistakes) {
        const bool isIdOfNumber = line.second.find("[type 18]") == 0;
        std::string text = LinesOf(line.first, line.second);
        if (isIdOfNumber) text.replace(text.find("id_field = id"), 13, "; no id_field");
        EXPECT_THAT(FaultOf(text), AllOf(StartsWith("card7.ini:"), HasSubstr(fault))) << line.second;
    }
}

TEST(LayoutFile, WithoutWhatItNeedsIsRefused) {
    EXPECT_EQ(FaultOf(""), "card7.ini: there is no section [layout]; add one with name and meaning");
    EXPECT_EQ(FaultOf("[layout]\nname = a\nmeaning = b\n"),
              "card7.ini: there is no section [type N]; add one for each packet type with its size and fields");
    EXPECT_EQ(FaultOf(kSound), "");
}

TEST(LayoutFile, ThatCannotBeReadIsNamed) {
    const test_support::TempDir dir;
    const auto faultOfFile = [](const std::string& path) -> std::string {
        try {
            readLayout(path);
            return "";
        } catch (const LayoutError& error) {
            return error.what();
        }
    };
    EXPECT_EQ(faultOfFile("none.ini"), "none.ini: No such file or directory; name a layout file, or simulated");
    EXPECT_EQ(faultOfFile("."), ".: this is a directory, not a layout file");
    dir.Write("long.ini", std::string((1U << 20) + 1, '\n'));
    EXPECT_EQ(faultOfFile("long.ini"), "long.ini: longer than a megabyte; this is no layout file");
    dir.Write("a b.ini", kSound);
    EXPECT_EQ(faultOfFile("a b.ini"), "");
}

TEST(LayoutFile, OfAnyBytesIsReadOrRefusedWithItsName) {
    std::ostringstream file;
    file << std::ifstream(VEXO_SIMULATED_LAYOUT).rdbuf();
    std::mt19937 random(20261122);
    unsigned refused = 0;
    for (const std::string& sound : {std::string(kSound), file.str()}) {
        ASSERT_EQ(FaultOf(sound), "");
        for (std::size_t cut = 0; cut < sound.size(); cut += 7) FaultOf(sound.substr(0, cut));
        for (int round = 0; round < 2000; ++round) {
            std::string text = sound;
            for (int change = 0; change < 1 + round % 3; ++change) {
                const std::size_t at = random() % text.size();
                const auto byte = static_cast<char>(round % 2 == 0 ? "0123456789[],=\n be"[random() % 18]
                                                                   : random() % 256);
                if (random() % 3 == 0) text.erase(at, 1 + random() % 20);
                text.insert(std::min(at, text.size()), 1, byte);
            }
            const std::string fault = FaultOf(text);
            if (!fault.empty()) {
                ++refused;
                ASSERT_THAT(fault, StartsWith("card7.ini:"));
            }
        }
    }
    EXPECT_GT(refused, 1000U);
}

TEST(Layouts, AreThoseOfTheVariableUnlessNamed) {
    const test_support::TempDir dir;
    dir.Write("card7.ini", kSound);
    const auto namesOf = [](const std::vector<std::string>& files) {
        std::string names;
        const Layouts layouts(files);
        for (const auto& layout : layouts.all()) names += layout->name + " ";
        return names;
    };
    ::unsetenv(kLayoutVariable);
    EXPECT_EQ(namesOf({}), "simulated ");
    EXPECT_EQ(namesOf({"card7.ini", "simulated"}), "card7 simulated ");
    ::setenv(kLayoutVariable, "simulated::card7.ini:", 1);
    EXPECT_EQ(namesOf({}), "simulated card7 ");
    EXPECT_EQ(namesOf({"card7.ini"}), "card7 ");
    ::setenv(kLayoutVariable, "", 1);
    EXPECT_EQ(namesOf({}), "simulated ");
    ::unsetenv(kLayoutVariable);
    EXPECT_THROW(namesOf({"none.ini"}), LayoutError);
}

// Each of these took minutes, or the memory of the machine.
TEST(LayoutFile, AFileThatAsksForTooMuchIsRefusedAtOnce) {
    const auto repeated = [](std::size_t times, const std::function<std::string(std::string)>& line) {
        std::string text;
        for (std::size_t i = 0; i < times; ++i) text += line(std::to_string(i));
        return text;
    };
    const std::string head = "[layout]\nname = x\nmeaning = x\n";
    const auto type = [](const std::string& number, const std::string& fields) {
        return "[type " + number + "]\nmeaning = x\nsize = 65536\nfields = " + fields + "\n";
    };
    const auto field = [](const std::string& number) { return "f" + number + " = " + number + ",u8,1,x\n"; };
    const std::string all = "[fields all]\n";
    const struct {
        std::string text;
        const char* fault;
    } cases[] = {
        {head + repeated(20'000, [](const std::string& n) { return "k" + n + "=1\n"; }), "more than 10000 keys"},
        {head + repeated(2'000, [](const std::string& n) { return "[values v" + n + "]\n"; }),
         "more than 1000 sections"},
        {head + "k=" + std::string(5000, 'x'), "x.ini:4: the line is longer than 4096 bytes"},
        {head + type("1", "all") + all + repeated(2000, field), "more than 1024 fields in a type; leave some out"},
        {head + repeated(300, [&](const std::string& n) { return type(n, "all"); }) + all + field("0"),
         "more than 256 types; leave some out"},
        {head + type("1", "all") + all +
             repeated(100,
                      [](const std::string& n) {
                          return "f" + n + " = " + std::to_string(64 * std::stoul(n)) + ",u8[64],1,x\n";
                      }),
         "more than 4096 columns; leave some out"},
        {head + type("1", "all" + repeated(64, [](const std::string&) { return ",all"; })) + all,
         "more than 64 groups of fields in a type; leave some out"},
        {head + type("1", "all") + "fixed = f0 0" + repeated(64, [](const std::string&) { return ",f0 0"; }) + "\n" +
             all + field("0"),
         "more than 64 fixed values; leave some out"},
    };
    for (const auto& c : cases) {
        try {
            parseLayout(c.text, "x.ini");
            ADD_FAILURE() << c.fault << " was not said";
        } catch (const LayoutError& error) {
            EXPECT_THAT(error.what(), HasSubstr(c.fault));
        }
    }
    const auto most = parseLayout(
        head + repeated(256, [&](const std::string& n) { return type(n, "all"); }) + all + repeated(1024, field),
        "x.ini");
    EXPECT_EQ(most->payloads.size(), 256U);
}
