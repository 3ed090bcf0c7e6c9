#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "capture/RegisterAccess.h"
#include "tests/support/TempDir.h"
#include "tests/unit/capture/CaptureSample.h"
#include "tools/tap/TapWriter.h"

using namespace capture;
using tap::PacketRing;
using tap::Source;
using tap::TapWriter;
using ::testing::ElementsAre;
using ::testing::SizeIs;

namespace {

/// The writer's side with the test as the writer's thread: nothing is taken out of a ring before drain().
class TapWriterTest : public ::testing::Test {
protected:
    TapWriterTest() { tap::clock_ticks::g_counterIsEven = false; }  // ticks are nanoseconds, as the test says them

    tap::Settings settings() const {
        tap::Settings s;
        s.ringBytes = 4096;
        return s;
    }
    CaptureFiles::Settings files() {
        CaptureFiles::Settings s;
        s.path = dir.Path("a.pcapng");
        s.report = [](const std::string&) {};
        return s;
    }
    Source& add(const std::string& name) { return *writer.add({kStreamLink, name, ""}); }
    ReadFile read() { return readPath(dir.Path("a.pcapng")); }

    test_support::TempDir dir;
    TapWriter writer{settings(), files()};
};

}  // namespace

TEST_F(TapWriterTest, WhatDoesNotFitIntoTheRingIsCountedExactly) {
    Source& source = add("channel 0");
    for (std::uint64_t i = 0; i < 1000; ++i) source.ring.put(i, "0123456789", 10);
    writer.drain();
    for (std::uint64_t i = 0; i < 100; ++i) source.ring.put(i, "0123456789", 10);
    writer.finish();
    const ReadFile file = read();
    EXPECT_THAT(file.packets, SizeIs(4096 / 32 + 100));  // 16 bytes before each packet, which itself takes 16
    EXPECT_EQ(file.interfaces[0].counts->received, 1100U);
    EXPECT_EQ(file.interfaces[0].counts->dropped, 1100U - file.packets.size());
}

TEST_F(TapWriterTest, PacketsOfSeveralStreamsAreWrittenInTheOrderOfTheirTimes) {
    Source& zero = add("channel 0");
    Source& one = add("channel 1");
    for (const std::uint64_t ticks : {10, 30, 50}) zero.ring.put(ticks, "", 0);
    for (const std::uint64_t ticks : {20, 40, 60}) one.ring.put(ticks, "", 0);
    writer.finish();
    std::vector<std::uint64_t> times;
    for (const ReadPacket& packet : read().packets) times.push_back(packet.timeNs);
    EXPECT_THAT(times, ElementsAre(10, 20, 30, 40, 50, 60));
}

TEST_F(TapWriterTest, AStreamIsInTheFileAlsoWithoutPackets) {
    add("channel 7");
    writer.finish();
    ASSERT_THAT(read().interfaces, SizeIs(1));
    EXPECT_EQ(read().interfaces[0].info.name, "channel 7");
}

TEST_F(TapWriterTest, AClosedStreamLeavesItsPlaceToTheSameStreamOnly) {
    Source& first = add("channel 7");
    EXPECT_NE(&add("channel 7"), &first);
    TapWriter::release(first);
    EXPECT_NE(&add("channel 8"), &first);
    EXPECT_EQ(&add("channel 7"), &first);
    writer.finish();
}

TEST_F(TapWriterTest, ThereIsAnEndToTheStreamsOfAProcess) {
    for (std::size_t i = 0; i < TapWriter::kMaxSources; ++i) ASSERT_NE(writer.add({kStreamLink, "x", ""}), nullptr);
    EXPECT_EQ(writer.add({kStreamLink, "x", ""}), nullptr);
    writer.finish();
}

TEST(TapRing, CarriesPacketsOfEverySizeInOrderAndWhole) {
    PacketRing ring(8192);
    std::uint64_t put = 0;
    std::uint64_t taken = 0;
    std::string bytes(3000, 'x');
    for (std::uint32_t size = 0; size < 3000; size += 7) {
        for (char& byte : bytes) byte = static_cast<char>(size);
        ring.put(++put, bytes.data(), size);
        ring.put(++put, bytes.data(), size / 2);
        PacketRing::Record record;
        for (const std::uint64_t limit = ring.published(); ring.front(limit, record); ring.pop(record)) {
            ASSERT_EQ(record.ticks, ++taken);
            const std::uint32_t expected = record.ticks % 2 == 1 ? size : size / 2;
            ASSERT_EQ(record.size, expected);
            ASSERT_EQ(std::string(reinterpret_cast<const char*>(record.data), expected), bytes.substr(0, expected));
        }
    }
    EXPECT_EQ(taken, put);
    EXPECT_EQ(ring.lost(), 0U);
}

TEST(TapRing, APacketLongerThanTheRingIsCountedAsLost) {
    PacketRing ring(1U << 20);
    const std::string bytes(1U << 20, 'x');
    ring.put(1, bytes.data(), 1U << 20);
    ring.put(2, bytes.data(), (1U << 20) - 16);
    EXPECT_EQ(ring.lost(), 1U);
    PacketRing::Record record;
    ASSERT_TRUE(ring.front(ring.published(), record));
    EXPECT_EQ(record.ticks, 2U);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(record.data), record.size), bytes.substr(16));
}

TEST(TapRing, TwoThreadsLoseNothingWithoutACount) {
    constexpr std::uint64_t kPackets = 200'000;
    PacketRing ring(4096);
    std::thread producer([&ring] {
        for (std::uint64_t i = 1; i <= kPackets; ++i) ring.put(i, &i, sizeof i);
        ring.put(0, nullptr, 0);  // may be lost itself: the count tells
    });
    std::uint64_t taken = 0;
    std::uint64_t last = 0;
    const auto take = [&] {
        PacketRing::Record record;
        for (const std::uint64_t limit = ring.published(); ring.front(limit, record); ring.pop(record), ++taken) {
            if (record.size == 0) continue;
            std::uint64_t value;
            std::memcpy(&value, record.data, sizeof value);
            ASSERT_EQ(value, record.ticks);
            ASSERT_GT(value, last);
            last = value;
        }
    };
    while (taken + ring.lost() < kPackets + 1) take();
    producer.join();
    take();
    EXPECT_EQ(taken + ring.lost(), kPackets + 1);
}

TEST(TapClock, TicksBecomeTheTimeOfDay) {
    tap::clock_ticks::choose();
    tap::WallClock clock;
    for (int i = 0; i < 100; ++i) {
        clock.sample();
        const std::uint64_t until = tap::clock_ticks::timeOfDay() + 200'000;
        while (tap::clock_ticks::timeOfDay() < until) {
        }
    }
    const std::uint64_t before = tap::clock_ticks::timeOfDay();
    const std::uint64_t ticks = tap::clock_ticks::now();
    const std::uint64_t after = tap::clock_ticks::timeOfDay();
    EXPECT_GE(clock.at(ticks) + 100'000, before);
    EXPECT_LE(clock.at(ticks), after + 100'000);
}
