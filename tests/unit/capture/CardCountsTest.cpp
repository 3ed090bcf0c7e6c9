// The card's counters in the comment of an interface's statistics.

#include "capture/CardCounts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capture/CaptureFiles.h"
#include "capture/Format.h"
#include "tests/support/TempDir.h"
#include "tests/unit/capture/CaptureSample.h"

using namespace capture;

namespace {

constexpr std::uint64_t kMost = ~std::uint64_t{0};

CardCounts counted(std::uint64_t packets, std::uint64_t backPressure) {
    CardCounts counts;
    counts.packets = packets;
    counts.backPressure = backPressure;
    return counts;
}

std::string withComment(const std::string& comment) {
    BlockBuffer blocks;
    appendSection(blocks, {});
    appendInterface(blocks, {kStreamLink, "channel 0", ""});
    const std::uint32_t padded = format::padded(static_cast<std::uint32_t>(comment.size()));
    const auto length = static_cast<std::uint32_t>(sizeof(format::StatisticsHead) + sizeof(format::OptionHead) +
                                                   padded + sizeof(std::uint32_t));
    const format::StatisticsHead head = {format::kInterfaceStatistics, length, 0, 0, 0};
    const format::OptionHead option = {format::kComment, static_cast<std::uint16_t>(comment.size())};
    std::string bytes = text(blocks);
    bytes.append(reinterpret_cast<const char*>(&head), sizeof head);
    bytes.append(reinterpret_cast<const char*>(&option), sizeof option);
    bytes += comment + std::string(padded - comment.size(), '\0');
    bytes.append(reinterpret_cast<const char*>(&length), sizeof length);
    return bytes;
}

}  // namespace

TEST(CardCounts, TheTextIsTheOneOnThePage) {
    EXPECT_EQ(textOf({1, 2, 3, 4, 5, 6}),
              "card: packets=1 back_pressure=2 fifo_errors=3 errors=4 by_application=5 before_card=6");
    EXPECT_EQ(textOf({}), "card: packets=- back_pressure=- fifo_errors=- errors=- by_application=- before_card=-");
    EXPECT_LE(textOf({kMost, kMost, kMost, kMost, kMost, kMost}).size(), kMostCardText);
}

TEST(CardCounts, ComeBackFromTheText) {
    for (const CardCounts& counts : {CardCounts{}, CardCounts{1, 2, 3, 4, 5, 6},
                                     CardCounts{kMost, kMost, kMost, kMost, kMost, kMost}, counted(7, 0)}) {
        const auto read = cardCountsOf(textOf(counts));
        ASSERT_TRUE(read);
        EXPECT_EQ(*read, counts);
    }
}

// Numbers that were missing may turn out to be none in the next file.
TEST(CardCounts, ACountThatFellHasAddedNothing) {
    EXPECT_EQ((CardCounts{10, 20, 0, 0, 5, 7} - CardCounts{4, {}, 0, 0, 5, 9}), (CardCounts{6, 20, 0, 0, 0, 0}));
}

TEST(CardCounts, KeysOfALaterVersionAreLeftOut) {
    EXPECT_EQ(cardCountsOf("card: packets=1 heat=99 back_pressure=2"), counted(1, 2));
    EXPECT_EQ(cardCountsOf("card:"), CardCounts{});
}

TEST(CardCounts, AnotherCommentIsNone) {
    for (const char* text :
         {"", "card", "cards: packets=1", "card: ", "card: packets", "card: packets=", "card: packets=1 ",
          "card: packets=1  errors=2", "card: packets=-1", "card: packets=0x1", "card:packets=1", "card: packets=+1",
          "card: packets=18446744073709551616", "card: packets=1\n", "CARD: packets=1"}) {
        EXPECT_FALSE(cardCountsOf(text)) << text;
    }
}

TEST(CardCounts, AreInTheStatisticsOfAnInterface) {
    BlockBuffer blocks;
    appendSection(blocks, {});
    appendInterface(blocks, {kStreamLink, "channel 0", ""});
    appendStatistics(blocks, 0, {1, 2, 3, 4, CardCounts{kMost, kMost, kMost, kMost, kMost, kMost}});
    const std::size_t before = blocks.size();
    appendStatistics(blocks, 0, {1, 2, 3, 4, CardCounts{kMost, kMost, kMost, kMost, kMost, kMost}});
    EXPECT_LE(blocks.size() - before, statisticsBlockBytes());
    const ReadFile file = readBytes(text(blocks));
    EXPECT_FALSE(file.damage);
    EXPECT_EQ(file.interfaces[0].counts->dropped, 4U);
    EXPECT_EQ(file.interfaces[0].counts->card->beforeCard, kMost);
}

TEST(CardCounts, AreUnknownWithoutTheCommentAndWithAnotherOne) {
    BlockBuffer blocks;
    appendSection(blocks, {});
    appendInterface(blocks, {kStreamLink, "channel 0", ""});
    EXPECT_FALSE(readBytes(text(blocks)).interfaces[0].counts) << "read live, or after a kill";
    appendStatistics(blocks, 0, {1, 2, 3, 4, {}});
    EXPECT_FALSE(readBytes(text(blocks)).interfaces[0].counts->card);
    EXPECT_FALSE(readBytes(withComment("a quiet morning")).interfaces[0].counts->card);
    EXPECT_EQ(readBytes(withComment("card: errors=4")).interfaces[0].counts->card->errors, 4U);
}

TEST(CardCounts, EachFileHasWhatWasAddedInItsTime) {
    const test_support::TempDir dir;
    {
        CaptureFiles::Settings settings;
        settings.path = dir.Path("a.pcapng");
        settings.rotateBytes = 1000;
        settings.report = [](const std::string&) {};
        CaptureFiles files(settings);
        const std::uint32_t channel = files.addInterface({kStreamLink, "channel 0", ""}, 0);
        const std::string bytes(600, 'x');
        files.setCard(channel, counted(1, 0));
        files.addPacket(channel, 1, bytes.data(), 600);
        files.setCard(channel, counted(10, 5));
        files.addPacket(channel, 2, bytes.data(), 600);
        files.setCard(channel, counted(12, 9));
        files.close(3);
    }
    EXPECT_EQ(readPath(dir.Path("a.pcapng")).interfaces[0].counts->card, counted(10, 5));
    EXPECT_EQ(readPath(dir.Path("a.1.pcapng")).interfaces[0].counts->card, counted(2, 4));
}
