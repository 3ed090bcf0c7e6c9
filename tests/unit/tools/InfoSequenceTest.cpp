// The sequence numbers of one stream in several captures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "tests/support/TempDir.h"
#include "tests/unit/tools/QuoteSample.h"
#include "tools/vexo/info/Collector.h"
#include "tools/vexo/info/Views.h"

using namespace vexo;
using capture::QuoteSample;
using namespace vexo::info;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;

namespace {

constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::uint64_t kNine = 1'736'902'800 * kSecond;  // 2025-01-15 09:00 of the exchange

using Numbers = std::vector<std::uint32_t>;

Numbers Span(std::uint32_t first, std::uint32_t last) {
    Numbers numbers(last - first + 1);
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}
Numbers operator+(Numbers one, const Numbers& other) {
    one.insert(one.end(), other.begin(), other.end());
    return one;
}

struct Numbered {
    std::uint32_t number;
    std::uint32_t type;
};
using Stream = std::vector<Numbered>;

/// Captures of one stream whose packets have numbers, a millisecond apart.
class Captures {
public:
    explicit Captures(const std::string& layout = "simulated") : m_layouts({layout}) {}

    void Take(const Numbers& numbers) {
        for (const std::uint32_t number : numbers) TakeFrom(m_file, {number, 17});
    }
    void Take(const Stream& stream) {
        for (const Numbered& one : stream) TakeFrom(m_file, one);
    }
    void TakeFrom(std::size_t file, const Numbered& one) {
        QuoteSample quote(one.type, "SR505");
        quote.quote.common.sequence = one.number;
        std::string bytes = quote.packet();
        std::memcpy(bytes.data() + 8, &one.number, sizeof one.number);
        m_timeNs += 1'000'000;
        m_collector.take(file, {&m_interfaces.front(), m_timeNs, reinterpret_cast<const unsigned char*>(bytes.data()),
                                static_cast<std::uint32_t>(bytes.size()), static_cast<std::uint32_t>(bytes.size()), 0});
    }
    void End() { EndOf(m_file++); }
    /// The next capture begins while this one is open.
    void Leave() { ++m_file; }
    void EndOf(std::size_t file) {
        m_interfaces.front().counts = capture::InterfaceCounts{m_startNs, m_timeNs, 0, 0, {}};
        m_collector.end(file, m_interfaces, "");
        m_startNs = m_timeNs;
    }
    /// The next capture is not one of the same rotation.
    void Pause() { m_startNs = m_timeNs += 1'000'000; }
    std::size_t Open() const { return m_file; }
    std::uint64_t NowNs() const { return m_timeNs; }
    Summary Finish() { return m_collector.finish(std::vector<std::string>(m_file)); }

private:
    data::Layouts m_layouts;
    std::deque<capture::Interface> m_interfaces{{{capture::kStreamLink, "channel 0", ""}, kSecond, {}}};
    Collector m_collector{m_layouts, 1000};
    std::uint64_t m_timeNs = kNine;
    std::uint64_t m_startNs = kNine;
    std::size_t m_file = 0;
};

using Counts = std::array<std::uint64_t, 5>;

// What the bars of the stream show together.
std::uint64_t ShownOf(const Summary& summary) {
    std::uint64_t shown = 0;
    for (const auto& [bin, lost] : summary.timeline.lane(0)) shown += lost;
    return shown;
}

// Gaps, missing numbers, those that came late, restarts, jumps between captures. Nothing is shown that is not lost.
Counts CountsOf(const Summary& summary) {
    const auto sequence = summary.streams.at(0).sequence.value_or(SequenceCounts{});
    EXPECT_EQ(ShownOf(summary), sequence.lost);
    return {sequence.gaps, sequence.lost, sequence.late, sequence.restarts, sequence.unrecorded};
}

}  // namespace

TEST(InfoSequence, AShortRecordingAfterAnotherHasItsOwnGapsAndIsNotLate) {
    Captures captures;
    captures.Take(Span(1, 300));
    captures.End();
    captures.Pause();
    captures.Take(Span(1, 100) + Span(103, 103));
    const std::uint64_t gapNs = captures.NowNs();
    captures.Take(Span(104, 200));
    captures.End();
    captures.Pause();
    captures.Take(Span(7, 9));
    captures.End();
    const Summary summary = captures.Finish();
    EXPECT_EQ(CountsOf(summary), (Counts{1, 2, 0, 0, 2}));
    const Timeline& timeline = summary.timeline;
    EXPECT_THAT(timeline.lane(0), ElementsAre(Pair((gapNs - timeline.startNs()) / timeline.widthNs(), 2)));
    EXPECT_THAT(notesOf(summary), ElementsAre(HasSubstr("the sequence jumps 2 times between captures")));
}

TEST(InfoSequence, WhatComesLateAtTheBeginningOfTheNextFileOfARotationIsLate) {
    Captures captures;
    captures.Take(Span(1, 300));
    captures.End();
    captures.Take({296, 298, 297, 302, 303});  // 301 is missing
    const std::uint64_t gapNs = captures.NowNs();
    captures.Take(Span(305, 400));
    captures.End();
    const Summary summary = captures.Finish();
    EXPECT_EQ(CountsOf(summary), (Counts{2, 2, 3, 0, 0}));
    for (const auto& [bin, lost] : summary.timeline.lane(0))
        EXPECT_LE(bin, (gapNs + 1'000'000 - summary.timeline.startNs()) / summary.timeline.widthNs());
}

// A file of many recordings: their ends come together.
TEST(InfoSequence, AnyNumberOfRecordingsMayBeginBehindTheEndOfTheOneBefore) {
    Captures captures;
    captures.Take(Span(1, 300));
    captures.End();
    captures.Pause();
    const std::size_t first = captures.Open();
    constexpr std::size_t kRecordings = 200;
    for (std::size_t i = 0; i < kRecordings; ++i) {
        captures.Take({5, 6, 8});
        captures.Leave();
    }
    for (std::size_t i = 0; i < kRecordings; ++i) {
        captures.Pause();
        captures.EndOf(first + i);
    }
    const Summary summary = captures.Finish();
    EXPECT_EQ(CountsOf(summary), (Counts{kRecordings, kRecordings, 0, 0, kRecordings}));
}

// The same feed, recorded by two machines. The packets of the second one come three packets later.
TEST(InfoSequence, TwoCapturesOfOneStreamAtTheSameTimeLoseNothing) {
    Captures captures;
    for (std::uint32_t i = 1; i <= 303; ++i) {
        if (i <= 300) captures.TakeFrom(0, {i, 17});
        if (i >= 53) captures.TakeFrom(1, {i - 3, 17});
        if (i == 300) captures.EndOf(0);
    }
    captures.Pause();
    captures.EndOf(1);
    EXPECT_EQ(CountsOf(captures.Finish()), (Counts{0, 0, 251, 0, 0}));
}

TEST(InfoSequence, ARestartAtTheBeginningOfTheNextFileOfARotationIsARestart) {
    Captures captures;
    captures.Take(Span(5'000'000, 5'000'100));
    captures.End();
    captures.Take(Span(1, 100));
    captures.End();
    EXPECT_EQ(CountsOf(captures.Finish()), (Counts{0, 0, 0, 1, 0}));
}

namespace {

constexpr char kByType[] =
    "[layout]\nname = by_type\nmeaning = x\nsequence_field = n\nsequence_scope = type\n[type 17]\nmeaning = A\n"
    "size = 128\nfields = all\n[type 19]\nmeaning = B\nsize = 128\nfields = all\n[fields all]\n"
    "n = 0, u64, 1, Number\n";

}  // namespace

TEST(InfoSequence, ALateNumberAndARestartOfAnotherTypeInTheNextFileOfARotationAreNoNewRecording) {
    const test_support::TempDir dir;
    dir.Write("type.ini", kByType);
    Captures captures("type.ini");
    captures.Take(Span(1, 300));
    captures.Take(Stream{{5'000'000, 19}});
    captures.End();
    captures.Take(Stream{{298, 17}, {1, 19}, {301, 17}, {2, 19}});
    captures.End();
    EXPECT_EQ(CountsOf(captures.Finish()), (Counts{0, 0, 1, 1, 0}));
}

namespace {

/// Streams of any kind, of one type or of two whose numbers count by themselves.
class InfoSequences : public ::testing::TestWithParam<const char*> {
protected:
    InfoSequences() { dir.Write("type.ini", kByType); }

    std::uint32_t Below(std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); }
    bool IsByType() const { return GetParam() != std::string("simulated"); }
    /// Packets that are lost, late and sent again; restarts of the numbers if they are wanted.
    Stream RandomStream(bool withRestarts) {
        std::uint32_t next[] = {1, 1000};
        Stream stream;
        for (std::uint32_t left = 2 + Below(60); left > 0; --left) {
            const std::uint32_t which = IsByType() ? Below(2) : 0;
            std::uint32_t number = next[which];
            const std::uint32_t what = Below(12);
            if (what >= 7 && what < 9) number += 1 + Below(5);
            if (what >= 9 && what < 11 && number > 6) number -= 1 + Below(6);
            if (what == 11 && withRestarts && Below(4) == 0)
                number = number > 3000 && Below(2) == 0 ? number - 3000 : number + 2'000'000;
            const bool isLate = what >= 9 && what < 11;
            if (!isLate) next[which] = number + 1;
            stream.push_back({number, which == 0 ? 17U : 19U});
        }
        return stream;
    }
    /// The stream in up to 15 packets each.
    std::vector<Stream> Cut(const Stream& stream) {
        std::vector<Stream> parts;
        for (auto at = stream.begin(); at != stream.end();) {
            const auto end = at + std::min<std::ptrdiff_t>(1 + Below(15), stream.end() - at);
            parts.emplace_back(at, end);
            at = end;
        }
        return parts;
    }
    static Counts CountsOfFiles(const std::vector<Stream>& files, bool isRotation) {
        Captures captures(GetParam());
        for (const Stream& file : files) {
            captures.Take(file);
            captures.End();
            if (!isRotation) captures.Pause();
        }
        return CountsOf(captures.Finish());
    }
    static std::string Shown(const std::vector<Stream>& files) {
        std::string text;
        for (const Stream& file : files) {
            text += "[ ";
            for (const Numbered& one : file) text += std::to_string(one.number) + (one.type == 19 ? "' " : " ");
            text += "]";
        }
        return text;
    }

    static constexpr int kRounds = 400;
    test_support::TempDir dir;
    std::mt19937 random{20261122};
};

INSTANTIATE_TEST_SUITE_P(Numbering, InfoSequences, ::testing::Values("simulated", "type.ini"), [](const auto& tested) {
    return tested.param == std::string("simulated") ? "OfStream" : "ByType";
});

}  // namespace

TEST_P(InfoSequences, ARotationCountsAsOneCaptureWhereverItIsCut) {
    for (int round = 0; round < kRounds; ++round) {
        const Stream stream = RandomStream(true);
        const std::vector<Stream> files = Cut(stream);
        ASSERT_EQ(CountsOfFiles(files, true), CountsOfFiles({stream}, true)) << Shown(files);
    }
}

TEST_P(InfoSequences, SeparateRecordingsCountAsEachByItself) {
    for (int round = 0; round < kRounds; ++round) {
        const std::vector<Stream> files = Cut(RandomStream(true));
        Counts sum{};
        for (const Stream& file : files) {
            const Counts one = CountsOfFiles({file}, false);
            std::transform(sum.begin(), sum.end(), one.begin(), sum.begin(), std::plus<>());
        }
        Counts together = CountsOfFiles(files, false);
        together.back() = 0;  // jumps between them
        ASSERT_EQ(together, sum) << Shown(files);
    }
}

// A second capture of the stream, in which each packet comes later, and which begins and ends anywhere.
TEST_P(InfoSequences, WhatAnotherCaptureHasAtTheSameTimeCameAgainAndIsNoLoss) {
    for (int round = 0; round < kRounds; ++round) {
        Stream stream = RandomStream(false);
        while (stream.size() < 4) stream = RandomStream(false);
        const auto size = static_cast<std::uint32_t>(stream.size());
        const std::uint32_t first = Below(size - 1);  // of the second capture
        const std::uint32_t end = first + 1 + Below(size - first);
        Captures captures(GetParam());
        std::uint32_t one = 0;
        std::uint32_t other = first;
        while (one < size || other < end) {
            const bool mayBeOther = other < end && other < one;
            // The times overlap: the first capture goes on when the second one has begun.
            const bool mustBeOther = one == size || (other == first && one == size - 1);
            if (mayBeOther && (mustBeOther || Below(2) == 0)) {
                captures.TakeFrom(1, stream[other++]);
            } else {
                captures.TakeFrom(0, stream[one++]);
            }
        }
        captures.EndOf(0);
        captures.Pause();
        captures.EndOf(1);
        Counts expected = CountsOfFiles({stream}, true);
        expected[2] += end - first;
        ASSERT_EQ(CountsOf(captures.Finish()), expected) << Shown({stream}) << " again from " << first << " to " << end;
    }
}
