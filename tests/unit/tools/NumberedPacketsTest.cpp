// The numbers of packets, wherever a layout has them: what the fast path of the statistics library counts at each
// packet and what the tap's writer counts, against a count by the layout alone.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>

#include "tests/support/TempDir.h"
#include "tests/unit/tools/Program.h"
#include "tools/data/Sequence.h"
#include "tools/vexo/stat/Pages.h"

using namespace capture;
using vexo::data::Layouts;

namespace {

struct Form {
    const char* name;
    std::string keys;   // of the section [layout]
    const char* field;  // type of the number
    unsigned width;
    bool isBigEndian;
    unsigned at;  // in the packet
    bool isByType;
};

Form inHead(const char* name, unsigned at) {
    return {name, "sequence_at = " + std::to_string(at) + "\n", "u8", 4, false, at, false};
}
Form inField(const char* name, const char* type, unsigned width, bool isByType) {
    const std::string scope = isByType ? "sequence_scope = type\n" : "";
    const bool isBigEndian = std::string(type).find("be") != std::string::npos;
    return {name, "sequence_field = number\n" + scope, type, width, isBigEndian, 12 + 3, isByType};
}

std::string layoutOf(const Form& form) {
    return "[layout]\nname = made\nmeaning = Made\n" + form.keys +
           "[type 17]\nmeaning = A\nsize = 20\nfields = f\n[type 18]\nmeaning = B\nsize = 30\nfields = f\n"
           "[fields f]\nnumber = 3, " +
           form.field + ", 1, Number\n";
}

// Packets of both types and strangers between them, with numbers that jump, repeat and wrap around.
std::vector<std::string> packetsOf(const Form& form, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<std::string> packets;
    std::uint64_t next[2] = {~std::uint64_t{0} - 500, ~std::uint64_t{0} - 90};
    for (int n = 0; n < 3000; ++n) {
        const unsigned which = static_cast<unsigned>(random() % 2);
        const std::uint32_t type = 17 + which;
        std::string packet(12 + (type == 17 ? 20 : 30), '\x01');
        std::uint64_t& number = next[form.isByType ? which : 0];
        const unsigned chance = static_cast<unsigned>(random() % 100);
        if (chance < 4) number += 1 + random() % 9;
        if (chance == 5) number += 60 + random() % 5000;
        if (chance == 6) number -= 2;
        std::memcpy(packet.data(), &type, sizeof type);
        for (unsigned byte = 0; byte < form.width; ++byte) {
            const unsigned shift = 8 * (form.isBigEndian ? form.width - 1 - byte : byte);
            packet[form.at + byte] = static_cast<char>(number >> shift);
        }
        ++number;
        if (chance == 7) packet[0] = 99;
        if (chance == 8) packet.resize(random() % 12);
        if (chance == 9) packet += "x";
        packets.push_back(packet);
    }
    return packets;
}

class NumberedPackets : public ::testing::TestWithParam<Form> {
protected:
    void write(const std::vector<std::string>& packets) {
        std::string bytes;
        for (const std::string& packet : packets) {
            const auto size = static_cast<std::uint32_t>(packet.size());
            bytes += std::string(reinterpret_cast<const char*>(&size), sizeof size) + packet;
        }
        dir.Write("packets", bytes);
    }
    // What the page says that @p library makes.
    vexo_stats::Stream counted(const char* library, const char* layout) {
        const ProgramResult program = runProgram(
            tapSettings(dir.Path("a.pcapng")) + "export VEXO_STATS_KEEP=1 VEXO_SIM_CARD=embedded VEXO_LAYOUT=" +
            layout + "; " + preloading(library) + word(VEXO_PUSH_APP) + " packets");
        EXPECT_EQ(program.status, 0) << program.output;
        const vexo::stat::Found found = vexo::stat::findPages(dir.Path("pages"));
        if (found.pages.size() != 1 || found.pages[0].streams.size() != 1) {
            ADD_FAILURE() << "no page, or not the one";
            return {};
        }
        std::filesystem::remove(found.pages[0].file);
        return found.pages[0].streams[0];
    }

    test_support::TempDir dir;
};

void expectSame(const vexo_stats::Stream& counted, const vexo_stats::Stream& expected) {
    EXPECT_EQ(counted.sequenceKnown, expected.sequenceKnown);
    EXPECT_EQ(counted.sequenceGaps, expected.sequenceGaps);
    EXPECT_EQ(counted.sequenceLost, expected.sequenceLost);
    EXPECT_EQ(counted.sequenceLate, expected.sequenceLate);
    EXPECT_EQ(counted.sequenceRestarts, expected.sequenceRestarts);
}

}  // namespace

TEST_P(NumberedPackets, AreCountedBothWaysAsTheLayoutSays) {
    const std::string layout = dir.Write("made.ini", layoutOf(GetParam()));
    const Layouts layouts(std::vector<std::string>{layout});
    const std::vector<std::string> packets = packetsOf(GetParam(), 7);
    write(packets);
    vexo_stats::Stream expected{};
    vexo::data::SequenceCounter counter(&layouts);
    for (const std::string& packet : packets) {
        counter.take(expected, reinterpret_cast<const unsigned char*>(packet.data()), packet.size());
    }
    EXPECT_EQ(expected.sequenceKnown, 1U);
    EXPECT_GT(expected.sequenceGaps, 50U);
    EXPECT_GT(expected.sequenceLate, 5U);
    expectSame(counted(VEXO_STATS_LIBRARY, "made.ini"), expected);
    expectSame(counted(VEXO_TAP_LIBRARY, "made.ini"), expected);
}

TEST_P(NumberedPackets, AreUnknownWhereNoLayoutDescribesThem) {
    write(packetsOf(GetParam(), 8));
    for (const char* library : {VEXO_STATS_LIBRARY, VEXO_TAP_LIBRARY}) {
        const vexo_stats::Stream stream = counted(library, "simulated");
        EXPECT_EQ(stream.sequenceKnown, 0U);
        EXPECT_FALSE(vexo::stat::lossOf(stream)[vexo::data::LossCause::kBeforeCard]);
        EXPECT_GT(vexo::stat::packetsOf(stream), 1000U);
    }
}

INSTANTIATE_TEST_SUITE_P(Places, NumberedPackets,
                         ::testing::Values(inHead("HeadAt4", 4), inHead("HeadAt5", 5), inHead("HeadAt8", 8),
                                           inField("Byte", "u8", 1, false), inField("Word", "u16", 2, false),
                                           inField("BigWordByType", "u16be", 2, true),
                                           inField("Number", "u32", 4, false), inField("BigNumber", "u32be", 4, false),
                                           inField("LongByType", "u64", 8, true),
                                           inField("BigLong", "u64be", 8, false)),
                         [](const auto& form) { return std::string(form.param.name); });
