#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capture/Format.h"
#include "tests/unit/capture/CaptureSample.h"

using namespace capture;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr std::uint64_t kMorning = 1'736'906'400'123'456'789;  // nanoseconds since 1970

/// A file of seven blocks, and where each of them ends.
struct Sample {
    BlockBuffer blocks;
    std::vector<std::size_t> ends;

    Sample() {
        appendSection(blocks, {"a card", "an operating system", "a test"});
        end();
        appendInterface(blocks, {kStreamLink, "channel 0", "stream CUSTOM_CHAN0_DATA"});
        end();
        appendInterface(blocks, {kRegisterLink, "registers", ""});
        end();
        appendPacket(blocks, 0, kMorning, "hello", 5);
        end();
        appendPacket(blocks, 1, kMorning + 1, "", 0);
        end();
        appendPacket(blocks, 0, kMorning + 2, "a packet of 28 bytes, no pad", 28);
        end();
        appendStatistics(blocks, 0, {kMorning, kMorning + 5, 9, 7, {}});
        end();
    }

    void end() { ends.push_back(blocks.size()); }
    std::string bytes() const { return text(blocks); }
    /// Which block a byte of the file belongs to.
    std::size_t blockOf(std::size_t byte) const {
        std::size_t block = 0;
        while (ends[block] <= byte) ++block;
        return block;
    }
    std::size_t startOf(std::size_t block) const { return block == 0 ? 0 : ends[block - 1]; }
    /// How many packets the first blocks of the file hold.
    static std::size_t packetsBefore(std::size_t block) { return block <= 3 ? 0 : block >= 6 ? 3 : block - 3; }
};

void append(std::string& to, const BlockBuffer& blocks) { to += text(blocks); }

template <typename Value>
void put(std::string& bytes, std::size_t offset, Value value) {
    bytes.replace(offset, sizeof value, reinterpret_cast<const char*>(&value), sizeof value);
}

}  // namespace

TEST(CaptureReader, ReturnsWhatWasWritten) {
    const ReadFile file = readBytes(Sample().bytes());
    EXPECT_FALSE(file.damage);
    ASSERT_THAT(file.packets, SizeIs(3));
    EXPECT_EQ(file.packets[0].interface, "channel 0");
    EXPECT_EQ(file.packets[0].timeNs, kMorning);
    EXPECT_EQ(file.packets[0].bytes, "hello");
    EXPECT_EQ(file.packets[1].interface, "registers");
    EXPECT_EQ(file.packets[1].bytes, "");
    EXPECT_EQ(file.packets[2].bytes, "a packet of 28 bytes, no pad");
}

TEST(CaptureReader, KnowsTheInterfacesAndTheirCounts) {
    const ReadFile file = readBytes(Sample().bytes());
    ASSERT_THAT(file.interfaces, SizeIs(2));
    EXPECT_EQ(file.interfaces[0].info.linkType, kStreamLink);
    EXPECT_EQ(file.interfaces[0].info.description, "stream CUSTOM_CHAN0_DATA");
    ASSERT_TRUE(file.interfaces[0].counts);
    EXPECT_EQ(file.interfaces[0].counts->startNs, kMorning);
    EXPECT_EQ(file.interfaces[0].counts->endNs, kMorning + 5);
    EXPECT_EQ(file.interfaces[0].counts->received, 9U);
    EXPECT_EQ(file.interfaces[0].counts->dropped, 7U);
    EXPECT_EQ(file.interfaces[1].info.linkType, kRegisterLink);
    EXPECT_FALSE(file.interfaces[1].counts);
}

TEST(CaptureReader, WhereverAFileIsCutOffTheOffsetIsToldAndWhatPrecedesIsRead) {
    const Sample sample;
    const std::string whole = sample.bytes();
    const ReadFile expected = readBytes(whole);
    for (std::size_t size = 1; size < whole.size(); ++size) {
        const ReadFile file = readBytes(whole.substr(0, size));
        const std::size_t block = sample.blockOf(size);
        ASSERT_THAT(file.packets, SizeIs(Sample::packetsBefore(block))) << size;
        for (std::size_t i = 0; i < file.packets.size(); ++i) ASSERT_EQ(file.packets[i], expected.packets[i]) << size;
        ASSERT_EQ(file.damage.has_value(), sample.startOf(block) != size) << size;
        if (!file.damage) continue;
        ASSERT_EQ(file.damage->offset, sample.startOf(block)) << size;
        ASSERT_THAT(file.damage->text,
                    HasSubstr("at byte " + std::to_string(file.damage->offset) + ": the file ends inside a block: "));
    }
}

TEST(CaptureReader, WhateverBitIsDamagedWhatPrecedesItsBlockIsReadAndNothingElseHappens) {
    const Sample sample;
    const ReadFile expected = readBytes(sample.bytes());
    unsigned noticed = 0;
    for (std::size_t bit = 0; bit < sample.blocks.size() * 8; ++bit) {
        std::string damaged = sample.bytes();
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ 1 << bit % 8);
        const ReadFile file = readBytes(damaged);
        const std::size_t block = sample.blockOf(bit / 8);
        // An interface's name may be what was damaged: the bytes of a packet are compared, not where it came from.
        ASSERT_GE(file.packets.size(), Sample::packetsBefore(block)) << bit;
        for (std::size_t i = 0; i < Sample::packetsBefore(block); ++i) {
            ASSERT_EQ(file.packets[i].bytes, expected.packets[i].bytes) << bit;
        }
        if (!file.damage) continue;
        ++noticed;
        ASSERT_GE(file.damage->offset, sample.startOf(block)) << bit;
    }
    EXPECT_GT(noticed, sample.ends.size() * 64);  // both lengths of every block, at least
}

TEST(CaptureReader, NamesWhatIsWrongWithABlock) {
    const Sample sample;
    const struct {
        std::size_t block, offset;
        std::uint32_t value;
        const char* text;
    } cases[] = {
        {0, 0, 0x0A0D0D0B, "at byte 0: this is not the start of a pcapng file"},
        {0, 8, format::kSwappedMagic, "at byte 0: written on a machine of the other byte order"},
        {0, 8, 0, "at byte 0: the section header has no byte-order mark"},
        {0, 12, 2, "at byte 0: pcapng version 2 is not known"},
        {3, 4, 8, ": no block is 8 bytes long"},
        {3, 4, 41, ": no block is 41 bytes long"},
        {3, 4, 1U << 30, ": no block is 1073741824 bytes long"},
        {3, 8, 2, ": interface 2 has not been described"},
        {3, 20, 9, ": a packet of 9 bytes in a block with room for 8"},
        {3, 36, 44, ": the block's two lengths differ: 40 and 44"},
    };
    for (const auto& c : cases) {
        std::string bytes = sample.bytes();
        put(bytes, sample.startOf(c.block) + c.offset, c.value);
        const ReadFile file = readBytes(bytes);
        ASSERT_TRUE(file.damage) << c.text;
        EXPECT_THAT(file.damage->text, HasSubstr(c.text));
        EXPECT_EQ(file.damage->offset, sample.startOf(c.block));
    }
}

TEST(CaptureReader, AnEmptyFileIsNoCapture) {
    const ReadFile file = readBytes("");
    ASSERT_TRUE(file.damage);
    EXPECT_EQ(file.damage->text, "at byte 0: the file is empty");
}

TEST(CaptureReader, AFileWithoutPacketsIsWhole) {
    const Sample sample;
    const ReadFile file = readBytes(sample.bytes().substr(0, sample.ends[2]));
    EXPECT_FALSE(file.damage);
    EXPECT_THAT(file.packets, IsEmpty());
}

TEST(CaptureReader, BlocksOfOtherKindsArePassedOver) {
    const Sample sample;
    std::string bytes = sample.bytes();
    std::string other(16, 'x');
    put(other, 0, std::uint32_t{0x0BAD});
    put(other, 4, std::uint32_t{16});
    put(other, 12, std::uint32_t{16});
    bytes.insert(sample.ends[3], other);
    const ReadFile file = readBytes(bytes);
    EXPECT_FALSE(file.damage);
    EXPECT_THAT(file.packets, SizeIs(3));
}

TEST(CaptureReader, ASecondSectionHasInterfacesOfItsOwn) {
    std::string bytes = Sample().bytes();
    BlockBuffer second;
    appendSection(second, {});
    appendInterface(second, {kStreamLink, "channel 9", ""});
    appendPacket(second, 0, kMorning, "second", 6);
    append(bytes, second);
    const ReadFile file = readBytes(bytes);
    EXPECT_FALSE(file.damage);
    ASSERT_THAT(file.packets, SizeIs(4));
    EXPECT_EQ(file.packets[3].interface, "channel 9");
}

TEST(CaptureReader, TimesAreMicrosecondsWhereTheInterfaceSaysNothing) {
    BlockBuffer blocks;
    appendSection(blocks, {});
    const struct {
        format::InterfaceHead head;
        std::uint32_t length;
    } plain{{format::kInterfaceDescription, 20, kStreamLink, 0, 0}, 20};
    const auto* bytes = reinterpret_cast<const unsigned char*>(&plain);
    blocks.insert(blocks.end(), bytes, bytes + sizeof plain);
    appendPacket(blocks, 0, 1'736'906'400'123'456, "x", 1);
    const ReadFile file = readBytes(text(blocks));
    ASSERT_THAT(file.packets, SizeIs(1));
    EXPECT_EQ(file.packets[0].timeNs, 1'736'906'400'123'456'000U);
}

TEST(CaptureReader, ATimeUnitFinerThanANanosecondIsRefused) {
    const Sample sample;
    for (const std::uint8_t unit : {std::uint8_t{10}, std::uint8_t{0x80 | 30}, std::uint8_t{0xFF}}) {
        std::string bytes = sample.bytes();
        const std::size_t at = bytes.find(std::string("\x09\x00\x01\x00\x09", 5));
        ASSERT_NE(at, std::string::npos);
        bytes[at + 4] = static_cast<char>(unit);
        const ReadFile file = readBytes(bytes);
        ASSERT_TRUE(file.damage);
        EXPECT_THAT(file.damage->text, HasSubstr("times finer than a nanosecond are not known"));
    }
}

TEST(CaptureReader, GoesOnWhereAnotherReaderFoundAPacket) {
    const Sample sample;
    std::string bytes = sample.bytes();
    bytes += sample.bytes();  // a second section: the first one's interfaces are not its own
    const ReadFile whole = readBytes(bytes);
    std::istringstream in(bytes);
    Reader first(in);
    std::vector<Place> places;
    for (Packet packet; first.next(packet);) places.push_back(first.place());
    ASSERT_THAT(places, SizeIs(6));
    for (std::size_t from = 0; from < places.size(); ++from) {
        std::istringstream again(bytes);
        Reader later(again, first.startAt(places[from]));
        std::size_t number = from;
        for (Packet packet; later.next(packet); ++number) {
            ASSERT_LT(number, whole.packets.size());
            const ReadPacket& expected = whole.packets[number];
            EXPECT_EQ(packet.interface->info.name, expected.interface);
            EXPECT_EQ(packet.timeNs, expected.timeNs);
            EXPECT_EQ(packet.offset, expected.offset);
            EXPECT_EQ(std::string(reinterpret_cast<const char*>(packet.data), packet.size), expected.bytes);
        }
        EXPECT_EQ(number, whole.packets.size());
        EXPECT_FALSE(later.damage());
    }
}

TEST(CaptureReader, TellsTheSameDamageFromTheMiddleAsFromTheStart) {
    const Sample sample;
    const std::string bytes = sample.bytes().substr(0, sample.bytes().size() - 3);
    std::istringstream in(bytes);
    Reader first(in);
    Packet packet;
    ASSERT_TRUE(first.next(packet));
    const Start start = first.startAt(first.place());
    while (first.next(packet)) continue;
    ASSERT_TRUE(first.damage());
    std::istringstream again(bytes);
    Reader later(again, start);
    while (later.next(packet)) continue;
    ASSERT_TRUE(later.damage());
    EXPECT_EQ(later.damage()->offset, first.damage()->offset);
    EXPECT_EQ(later.damage()->text, first.damage()->text);
}

TEST(CaptureReader, AStepReadsOneBlock) {
    const Sample sample;
    std::istringstream in(sample.bytes());
    Reader reader(in);
    std::vector<Reader::Step> steps;
    Packet packet;
    do steps.push_back(reader.step(packet));
    while (steps.back() != Reader::Step::kEnd);
    using S = Reader::Step;
    EXPECT_THAT(steps, ::testing::ElementsAre(S::kOther, S::kOther, S::kOther, S::kPacket, S::kPacket, S::kPacket,
                                              S::kOther, S::kEnd));
}

// A compressed file of a few kilobytes can hold millions of them.
TEST(CaptureReader, MoreInterfacesThanItsMemoryTakesAreDamage) {
    constexpr std::size_t kMost = Reader::kMostInterfaceBytes / sizeof(Interface);
    BlockBuffer section;
    appendSection(section, {});
    BlockBuffer interface;
    appendInterface(interface, {});
    BlockBuffer packet;
    appendPacket(packet, 0, kMorning, "hello", 5);
    std::string bytes = text(section);
    const std::string one = text(interface);
    for (std::size_t count = 0; count < kMost; ++count) bytes += one;
    append(bytes, packet);
    const std::size_t end = bytes.size();
    const ReadFile file = readBytes(bytes + one + text(packet));
    EXPECT_EQ(file.interfaces.size(), kMost);
    EXPECT_THAT(file.packets, SizeIs(1));
    ASSERT_TRUE(file.damage);
    EXPECT_EQ(file.damage->offset, end);
    EXPECT_THAT(file.damage->text, HasSubstr("the interfaces take more than 64 MB of memory"));
}

TEST(CaptureReader, LongNamesOfInterfacesTakeMemoryToo) {
    constexpr std::size_t kMost = Reader::kMostInterfaceBytes / (sizeof(Interface) + 8192);
    BlockBuffer section;
    appendSection(section, {});
    BlockBuffer interface;
    appendInterface(interface, {kStreamLink, std::string(4096, 'x'), std::string(4096, 'y')});
    std::string bytes = text(section);
    const std::string one = text(interface);
    for (std::size_t count = 0; count <= kMost; ++count) bytes += one;
    const ReadFile file = readBytes(bytes);
    EXPECT_EQ(file.interfaces.size(), kMost);
    EXPECT_TRUE(file.damage);
}
