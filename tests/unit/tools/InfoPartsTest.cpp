// What vexo info is made of.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>

#include "tests/support/TempDir.h"
#include "tests/unit/capture/CaptureSample.h"
#include "tests/unit/tools/QuoteSample.h"
#include "tools/data/CaptureSource.h"
#include "tools/vexo/info/Charts.h"
#include "tools/vexo/info/Collector.h"
#include "tools/vexo/info/Views.h"
#include "tools/vexo/info/Words.h"

using namespace vexo;
using capture::appendPacket;
using capture::appendStatistics;
using capture::QuoteSample;
using capture::text;
using namespace vexo::info;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;

namespace {

constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::uint64_t kNine = 1'736'902'800 * kSecond;  // 2025-01-15 09:00 of the exchange

std::uint64_t PacketsOf(const Timeline& timeline) {
    return std::accumulate(timeline.bins().begin(), timeline.bins().end(), std::uint64_t{0},
                           [](std::uint64_t sum, const Timeline::Bin& bin) { return sum + bin.packets; });
}

/// Packets in memory, without a file.
class Feed {
public:
    explicit Feed(std::uint64_t burstNs = 1000) : collector(layouts, burstNs) { AddInterface("channel 0"); }

    const capture::Interface& AddInterface(const std::string& name) {
        interfaces.push_back({{capture::kStreamLink, name, ""}, kSecond, {}});
        return interfaces.back();
    }
    void Take(const capture::Interface& interface, std::uint64_t timeNs, const std::string& bytes,
              std::uint32_t trueSize = 0) {
        const auto size = static_cast<std::uint32_t>(bytes.size());
        collector.take(0, {&interface, timeNs, reinterpret_cast<const unsigned char*>(bytes.data()), size,
                           std::max(size, trueSize), 0});
    }
    void TakeAt(std::uint64_t timeNs) { Take(interfaces.front(), timeNs, std::string({17, 0, 0, 0, 0, 0, 0, 0})); }
    Summary Finish() {
        collector.end(0, interfaces, "");
        return collector.finish({"memory"});
    }

    data::Layouts layouts{{"simulated"}};
    std::deque<capture::Interface> interfaces;
    Collector collector;
};

}  // namespace

TEST(InfoTimeline, ABinBeginsAtAWholeMultipleOfItsWidth) {
    Timeline timeline;
    EXPECT_TRUE(timeline.bins().empty());
    timeline.add(kNine + 1'500'000, 100, 1);
    timeline.add(kNine + 3'999'999, 50, 2);
    EXPECT_EQ(timeline.widthNs(), 1'000'000U);
    EXPECT_EQ(timeline.startNs(), kNine + 1'000'000);
    ASSERT_EQ(timeline.bins().size(), 3U);
    EXPECT_EQ(timeline.bins()[0].packets, 1U);
    EXPECT_EQ(timeline.bins()[1].packets, 0U);
    EXPECT_EQ(timeline.bins()[2].bytes, 50U);
}

TEST(InfoTimeline, BinsAreJoinedAndNothingIsLostWhenTheSpanGrows) {
    Timeline timeline;
    std::mt19937_64 random(20261122);
    std::vector<std::uint64_t> times;
    for (std::uint64_t span = kSecond; span < 100'000'000 * kSecond; span *= 3) {
        for (int i = 0; i < 50; ++i) times.push_back(kNine + random() % span);
        // Backwards, too: captures of which nobody knows the order.
        times.push_back(kNine - random() % span);
    }
    for (const std::uint64_t time : times) {
        timeline.add(time, 10, 1);
        timeline.addLost(3, time, 2);
        ASSERT_LE(timeline.bins().size(), Timeline::kMostBins);
    }
    EXPECT_EQ(PacketsOf(timeline), times.size());
    std::vector<std::uint64_t> expected(timeline.bins().size());
    for (const std::uint64_t time : times) ++expected.at((time - timeline.startNs()) / timeline.widthNs());
    const Timeline::Lane lane = timeline.lane(3);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(timeline.bins()[i].packets, expected[i]) << i;
        const auto lost = lane.find(i);
        ASSERT_EQ(lost == lane.end() ? 0 : lost->second, 2 * expected[i]) << i;
    }
    EXPECT_TRUE(timeline.lane(2).empty());
}

TEST(InfoTimeline, WidthsAreThoseOfAClock) {
    Timeline timeline;
    std::vector<std::uint64_t> widths;
    timeline.add(0, 1, 1);
    for (std::uint64_t time = 1'000'000; time < 400 * 86400 * kSecond; time += time / 8) {
        timeline.add(time, 1, 1);
        const std::uint64_t width = timeline.widthNs() / 1'000'000;
        if (widths.empty() || widths.back() != width) widths.push_back(width);
    }
    EXPECT_THAT(widths, ElementsAre(1, 2, 10, 20, 100, 200, 1'000, 2'000, 10'000, 20'000, 60'000, 120'000, 600'000,
                                    1'200'000, 3'600'000, 7'200'000, 14'400'000, 86'400'000));
}

TEST(InfoTimeline, TheBusiestSecondOfABinIsThatOfTheClock) {
    Feed feed;
    for (std::uint64_t second = 0; second < 3000; ++second) {
        for (std::uint64_t i = 0; i <= (second == 1234 ? 40 : second % 7); ++i)
            feed.TakeAt(kNine + second * kSecond + i * 20'000'000);
    }
    const Summary summary = feed.Finish();
    EXPECT_EQ(summary.timeline.widthNs(), 10 * kSecond);
    EXPECT_EQ(summary.timeline.bins()[123].peakSecond, 41U);
    EXPECT_EQ(summary.timeline.bins()[124].peakSecond, 7U);
    EXPECT_EQ(summary.second.packets, 41U);
    EXPECT_EQ(summary.second.startNs, kNine + 1234 * kSecond);
}

TEST(InfoTimeline, AnyTimeHasAPlace) {
    Timeline timeline;
    for (const std::uint64_t time :
         {kNine, ~std::uint64_t{0}, std::uint64_t{0}, kNine + 1, ~std::uint64_t{0} - kSecond})
        timeline.add(time, 1, 1);
    EXPECT_EQ(PacketsOf(timeline), 5U);
    EXPECT_LE(timeline.bins().size(), Timeline::kMostBins);
}

TEST(InfoCollector, LossesOfAnyNumberOfCapturesTakeLittleMemoryAndNoneIsForgotten) {
    Feed feed;
    feed.TakeAt(kNine);
    constexpr std::uint64_t kCaptures = 5000;
    for (std::uint64_t i = 0; i < kCaptures; ++i) {
        capture::InterfaceCounts counts;
        counts.startNs = kNine + i * kSecond;
        counts.endNs = counts.startNs + kSecond;
        counts.dropped = 3;
        feed.interfaces.front().counts = counts;
        feed.collector.end(i + 1, feed.interfaces, "");
    }
    feed.interfaces.front().counts.reset();
    const Summary summary = feed.Finish();
    const std::vector<CountedLoss>& counted = summary.streams.at(0).counted;
    ASSERT_EQ(counted.size(), Collector::kMostCounted);
    EXPECT_EQ(counted.back().fromNs, kNine + (Collector::kMostCounted - 1) * kSecond);
    EXPECT_EQ(counted.back().untilNs, kNine + kCaptures * kSecond);
    std::uint64_t lost = 0;
    for (const CountedLoss& loss : counted) lost += data::totalOf(loss.lost);
    EXPECT_EQ(lost, 3 * kCaptures);
}

// Nothing wraps around, and no bar leaves the picture.
TEST(InfoCharts, CountsAndTimesOfAHostileCaptureHaveAPlace) {
    Feed feed;
    feed.TakeAt(kNine);
    feed.TakeAt(kNine + kSecond);
    capture::InterfaceCounts counts;
    counts.startNs = 1;
    counts.endNs = ~std::uint64_t{0};
    counts.dropped = ~std::uint64_t{0};
    counts.card = capture::CardCounts{{}, ~std::uint64_t{0}, ~std::uint64_t{0}, ~std::uint64_t{0}, 0, {}};
    feed.interfaces.front().counts = counts;
    feed.collector.end(1, feed.interfaces, "");
    const Summary summary = feed.Finish();
    EXPECT_EQ(summary.streams.at(0).lost.byTap, ~std::uint64_t{0});
    EXPECT_EQ(mostLostOf(summary), ~std::uint64_t{0});
    const std::string chart = lossChart(summary, kSecond, mostLostOf(summary));
    EXPECT_THAT(chart, HasSubstr("x=\"0\" y=\"0.50"));
    EXPECT_THAT(chart, HasSubstr("width=\"1000\""));
}

TEST(InfoCollector, GapsAndBurstsAreThoseOfOneChannel) {
    Feed feed(1000);
    const capture::Interface& other = feed.AddInterface("channel 3");
    const std::string packet(20, '\1');
    for (const std::uint64_t ns : {0, 1000, 1500, 9000, 9500, 10'500, 11'500, 12'501}) feed.TakeAt(kNine + ns);
    feed.Take(other, kNine + 12'502, packet);
    feed.Take(other, kNine + 20'694, packet);
    feed.TakeAt(kNine + 20'700);
    const Summary summary = feed.Finish();
    ASSERT_EQ(summary.streams.size(), 2U);
    const StreamSummary& first = summary.streams[0];
    EXPECT_EQ(first.burst.packets, 4U);
    EXPECT_EQ(first.burst.startNs, kNine + 9000);
    EXPECT_EQ(first.burst.endNs, kNine + 11'500);
    EXPECT_EQ(first.longestGap.lengthNs(), 8199U);
    EXPECT_EQ(first.gaps[8], 2U);                // 500 twice
    EXPECT_EQ(first.gaps[9], 4U);                // 1000 three times, 1001
    EXPECT_EQ(first.gaps[12], 1U);               // 7500
    EXPECT_EQ(first.gaps[13], 1U);               // 8199
    EXPECT_EQ(summary.streams[1].gaps[13], 1U);  // 8192
    EXPECT_EQ(gapsOf(summary)[13], 2U);
    // Of all streams together the longest time without a packet is another one.
    EXPECT_EQ(summary.longestGaps[0].fromNs, kNine + 12'502);
    EXPECT_EQ(summary.longestGaps[0].lengthNs(), 8192U);
    EXPECT_EQ(summary.longestGaps[1].lengthNs(), 7500U);
    EXPECT_EQ(summary.longestGaps.size(), 5U);
}

TEST(InfoCollector, ATimeThatRunsBackwardsIsCountedAndNoGap) {
    Feed feed;
    for (const std::uint64_t ns : {5000, 4000, 4500}) feed.TakeAt(kNine + ns);
    const Summary summary = feed.Finish();
    EXPECT_EQ(summary.streams[0].backwards, 1U);
    EXPECT_EQ(gapsOf(summary)[8], 1U);
    EXPECT_EQ(summary.firstNs, kNine + 4000);
    EXPECT_EQ(summary.lastNs, kNine + 5000);
    EXPECT_THAT(notesOf(summary), ElementsAre(HasSubstr("3 packets of type 17 have no layout"),
                                              "channel 0: 1 packets have an earlier time than the packet before"));
}

TEST(InfoCollector, BytesAreTheTrueLengthsAndCutPacketsAreCounted) {
    Feed feed;
    feed.Take(feed.interfaces[0], kNine, "1234", 1500);
    feed.Take(feed.interfaces[0], kNine, "12");
    const Summary summary = feed.Finish();
    EXPECT_EQ(summary.bytes, 1502U);
    EXPECT_EQ(summary.streams[0].cut, 1U);
    EXPECT_EQ(typeName(summary.streams[0].types[1].type), "none");
}

TEST(InfoCollector, WhatItKeepsDoesNotGrowWithHostilePackets) {
    Feed feed;
    for (std::uint32_t i = 0; i < 100'000; ++i) {
        const QuoteSample quote(17 + i % 4, "X" + std::to_string(i));
        feed.Take(feed.interfaces[0], kNine + i, quote.packet());
    }
    for (std::uint32_t i = 0; i < 300; ++i) {
        const char type[4] = {static_cast<char>(i), 1, static_cast<char>(i >> 4), 0};
        feed.Take(feed.AddInterface("stream " + std::to_string(i)), kNine, std::string(type, 4));
        feed.Take(feed.interfaces[0], kNine, std::string(type, 4));
    }
    const Summary summary = feed.Finish();
    EXPECT_EQ(summary.packets, 100'600U);
    EXPECT_EQ(summary.instruments.size(), Collector::kMostInstruments);
    EXPECT_EQ(summary.otherInstruments, 100'000 - Collector::kMostInstruments);
    EXPECT_LE(summary.streams.size(), Collector::kMostStreams + 1);
    EXPECT_EQ(summary.streams.back().name, "other streams");
    EXPECT_EQ(summary.streams.back().packets, 300 - (Collector::kMostStreams - 1));
    std::uint64_t packets = 0;
    for (const TypeCounts& type : summary.streams[0].types) packets += type.packets;
    EXPECT_LE(summary.streams[0].types.size(), Collector::kMostTypes + 1);
    EXPECT_EQ(packets, summary.streams[0].packets);
}

TEST(InfoWords, NumbersAndTimesAreShort) {
    EXPECT_EQ(grouped(1234567), "1,234,567");
    EXPECT_EQ(bytesText(999), "999 bytes");
    EXPECT_EQ(bytesText(3'540'000), "3.54 MB");
    EXPECT_EQ(bytesText(999'600), "1.00 MB");
    EXPECT_EQ(bytesText(~std::uint64_t{0}), "18.4 EB");
    EXPECT_EQ(rateText(0.25), "0.2");
    EXPECT_EQ(rateText(5004.4), "5,004");
    EXPECT_EQ(durationText(0), "0 ns");
    EXPECT_EQ(durationText(1230), "1.23 us");
    EXPECT_EQ(durationText(999'600), "1.00 ms");
    EXPECT_EQ(durationText(12'300'000), "12.3 ms");
    EXPECT_EQ(durationText(59'940'000'000), "59.9 s");
    EXPECT_EQ(durationText(200 * kSecond), "3 min 20 s");
    EXPECT_EQ(durationText(3600 * kSecond - 1), "1 h 0 min");
    EXPECT_EQ(durationText((6 * 3600 + 1800) * kSecond), "6 h 30 min");
    EXPECT_EQ(durationText(49 * 3600 * kSecond), "2 d 1 h");
    EXPECT_EQ(momentText(kNine + 123'456'789, 3), "2025-01-15 09:00:00.123");
    EXPECT_EQ(clockText(kNine, 0), "09:00:00");
    EXPECT_EQ(shareText(1, 3), "33.3 %");
    EXPECT_EQ(shareText(0, 0), "-");
    EXPECT_EQ(changeText(200, 150), "-25.0 %");
    EXPECT_EQ(changeText(0, 150), "-");
    EXPECT_EQ(changeText(7, 7), "same");
}

TEST(InfoCharts, TicksAreRoundTimesAndAmounts) {
    const auto labelsOf = [](const std::vector<Tick>& ticks) {
        std::vector<std::string> labels;
        for (const Tick& tick : ticks) {
            EXPECT_GE(tick.at, 0);
            EXPECT_LE(tick.at, 1);
            labels.push_back(tick.label);
        }
        return labels;
    };
    EXPECT_THAT(labelsOf(timeTicks(kNine + kSecond, 3600 * kSecond)),
                ElementsAre("09:10", "09:20", "09:30", "09:40", "09:50", "10:00"));
    EXPECT_THAT(
        labelsOf(timeTicks(kNine, 3 * kSecond)),
        ElementsAre("09:00:00.0", "09:00:00.5", "09:00:01.0", "09:00:01.5", "09:00:02.0", "09:00:02.5", "09:00:03.0"));
    EXPECT_THAT(labelsOf(timeTicks(kNine, 12 * 3600 * kSecond)),
                ElementsAre("10:00", "12:00", "14:00", "16:00", "18:00", "20:00"));
    EXPECT_THAT(labelsOf(timeTicks(kNine, 24 * 3600 * kSecond)),
                ElementsAre("01-15 12:00", "01-15 16:00", "01-15 20:00", "01-16 00:00", "01-16 04:00", "01-16 08:00"));
    EXPECT_THAT(labelsOf(timeTicks(kNine, 5 * 86400 * kSecond)),
                ElementsAre("01-16", "01-17", "01-18", "01-19", "01-20"));
    double most = 4321;
    EXPECT_THAT(labelsOf(amountTicks(most)), ElementsAre("0", "2,000", "4,000", "6,000"));
    EXPECT_EQ(most, 6000);
    most = 1'500'000;
    EXPECT_THAT(labelsOf(amountTicks(most)), ElementsAre("0", "500 k", "1 M", "1.5 M"));
    most = 0;
    EXPECT_EQ(labelsOf(amountTicks(most)).front(), "0");
    for (std::uint64_t span = 1; span < (std::uint64_t{1} << 62); span = span * 3 + 1) {
        EXPECT_LE(timeTicks(kNine, span).size(), 8U) << span;
        EXPECT_LE(timeTicks(~std::uint64_t{0} - 5, span).size(), 8U) << span;
    }
}

TEST(InfoCharts, TextOfACaptureIsNoCommandForTheBrowser) {
    EXPECT_EQ(escaped("<script>\"&'"), "&lt;script&gt;&quot;&amp;&#39;");
    EXPECT_EQ(escaped(std::string("\xE9\x01\0x", 4)), "\\xE9\\x01\\x00x");
    EXPECT_EQ(escaped("白糖"), "白糖");
}

// ---- captures as one recording ----

namespace {

struct Seen : data::CaptureSink {
    std::vector<std::pair<std::size_t, std::uint64_t>> packets;
    std::vector<std::pair<std::size_t, std::string>> ends;

    void take(std::size_t file, const capture::Packet& packet) override {
        packets.emplace_back(file, packet.timeNs - kNine);
    }
    void end(std::size_t file, const std::deque<capture::Interface>&, const std::string& fault) override {
        ends.emplace_back(file, fault);
    }
};

void Write(const std::string& name, const std::vector<std::uint64_t>& times) {
    capture::BlockBuffer blocks = capture::emptyCapture();
    for (const std::uint64_t time : times) appendPacket(blocks, 0, kNine + time, std::string({17, 0, 0, 0}));
    std::ofstream(name, std::ios::binary) << text(blocks);
}

}  // namespace

TEST(InfoCaptureSet, PacketsComeInTheOrderOfTimeWhateverTheNames) {
    const test_support::TempDir dir;
    Write("a", {50, 60});
    Write("b", {10, 20, 55});
    Write("c", {});
    Write("d", {20, 20});
    data::CaptureSet set({"a", "b", "c", "d"});
    EXPECT_THAT(set.paths(), ElementsAre("c", "b", "d", "a"));
    Seen seen;
    set.read(seen);
    EXPECT_THAT(seen.packets,
                ElementsAre(Pair(1, 10), Pair(1, 20), Pair(2, 20), Pair(2, 20), Pair(3, 50), Pair(1, 55), Pair(3, 60)));
    EXPECT_THAT(seen.ends, ElementsAre(Pair(0, ""), Pair(2, ""), Pair(1, ""), Pair(3, "")));
    EXPECT_EQ(set.readBytes(), set.fileBytes());
}

TEST(InfoCaptureSet, SeveralCapturesHaveToBeDifferentFiles) {
    const test_support::TempDir dir;
    Write("a", {50, 60});
    std::filesystem::create_symlink("a", "b");
    EXPECT_THROW(data::CaptureSet({"a", "b"}), data::SourceError);
    EXPECT_THROW(data::CaptureSet({"a", "-"}), data::SourceError);
    EXPECT_THROW(data::CaptureSet({"a", "/dev/null"}), data::SourceError);
    EXPECT_THROW(data::CaptureSet({"a", "none"}), data::SourceError);
    EXPECT_THROW(data::CaptureSet({"none"}), data::SourceError);
}

TEST(InfoCaptureSet, ManyCapturesAreNotOpenAtTheSameTime) {
    const test_support::TempDir dir;
    std::vector<std::string> names;
    for (std::uint64_t i = 0; i < 300; ++i) {
        names.push_back(std::to_string(i));
        Write(names.back(), {i * 10, i * 10 + 9});
    }
    struct CountsOpen : Seen {
        std::size_t most = 0;
        void take(std::size_t file, const capture::Packet& packet) override {
            Seen::take(file, packet);
            std::size_t open = 0;
            for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
                std::error_code error;
                open += std::filesystem::read_symlink(entry, error).string().rfind(directory, 0) == 0 ? 1 : 0;
            }
            most = std::max(most, open);
        }
        std::string directory;
    } seen;
    seen.directory = dir.Path() + "/";
    data::CaptureSet set(names);
    set.read(seen);
    EXPECT_EQ(seen.packets.size(), 600U);
    EXPECT_LE(seen.most, 2U);
    EXPECT_GE(seen.most, 1U);
}

TEST(InfoCaptureSet, ACaptureThatIsCutAtAnyByteIsShownUpToThere) {
    const test_support::TempDir dir;
    std::mt19937_64 random(20261122);
    capture::BlockBuffer blocks = capture::emptyCapture();
    for (std::uint32_t i = 0; i < 12; ++i)
        appendPacket(blocks, i % 5, kNine + i * 5'000'000, capture::randomQuote(random).packet());
    for (std::uint32_t i = 0; i < 4; ++i) appendStatistics(blocks, i, {kNine, kNine + 12 * kSecond, 10, 7});
    const std::string whole = text(blocks);
    const data::Layouts layouts({"simulated"});
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        std::ofstream("cut", std::ios::binary).write(whole.data(), static_cast<std::streamsize>(size));
        data::CaptureSet set({"cut"});
        Collector collector(layouts, 1000);
        set.read(collector);
        const Summary summary = collector.finish(set.paths());
        const capture::ReadFile read = capture::readBytes(whole.substr(0, size));
        ASSERT_EQ(summary.packets + summary.registerAccesses, read.packets.size()) << size;
        ASSERT_EQ(summary.files[0].fault, read.damage ? read.damage->text : "") << size;
        const View view{&summary, &summary, 3};
        ASSERT_FALSE(asText(view).empty() || asJson(view).empty() || asHtml(view).empty());
    }
}
