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
#include "tests/unit/tools/LayoutSample.h"
#include "tools/data/LayoutFile.h"

using namespace vexo::data;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

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
    const std::unique_ptr<Layout> layout = parseLayout(layout_sample::kSound, "card7.ini");
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
    const std::unique_ptr<Layout> layout = parseLayout(layout_sample::kSound, "card7.ini");
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
    for (const auto& [text, fault] : layout_sample::Mistakes())
        EXPECT_THAT(FaultOf(text), AllOf(StartsWith("card7.ini:"), HasSubstr(fault)));
}

TEST(LayoutFile, WithoutWhatItNeedsIsRefused) {
    EXPECT_EQ(FaultOf(""), "card7.ini: there is no section [layout]; add one with name and meaning");
    EXPECT_EQ(FaultOf("[layout]\nname = a\nmeaning = b\n"),
              "card7.ini: there is no section [type N]; add one for each packet type with its size and fields");
    EXPECT_EQ(FaultOf(layout_sample::kSound), "");
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
    dir.Write("a b.ini", layout_sample::kSound);
    EXPECT_EQ(faultOfFile("a b.ini"), "");
}

TEST(LayoutFile, OfAnyBytesIsReadOrRefusedWithItsName) {
    std::ostringstream file;
    file << std::ifstream(VEXO_SIMULATED_LAYOUT).rdbuf();
    std::mt19937 random(20261122);
    unsigned refused = 0;
    for (const std::string& sound : {std::string(layout_sample::kSound), file.str()}) {
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
    dir.Write("card7.ini", layout_sample::kSound);
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
    for (const auto& [text, fault] : layout_sample::TooMuch()) EXPECT_THAT(FaultOf(text), HasSubstr(fault));
    EXPECT_EQ(parseLayout(layout_sample::TheMost(), "x.ini")->payloads.size(), 256U);
}
