// vexo info, over captures whose truth the test knows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <sstream>
#include <vector>

#include "tests/support/TempDir.h"
#include "tests/unit/capture/CaptureSample.h"
#include "tests/unit/tools/Program.h"
#include "tests/unit/tools/QuoteSample.h"

using namespace capture;
using nlohmann::json;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::uint64_t kNine = 1'736'902'800 * kSecond;  // 2025-01-15 09:00 of the exchange
constexpr const char* kStreams[] = {"channel 0", "channel 3", "card 1 channel 3", "stream odd"};

std::string Seconds(std::uint64_t ns) {
    char text[48];
    std::snprintf(text, sizeof text, "%llu.%09llu", static_cast<unsigned long long>(ns / kSecond),
                  static_cast<unsigned long long>(ns % kSecond));
    return text;
}

std::string Quote(std::uint32_t type, const std::string& id, std::uint64_t sequence) {
    std::string packet = QuoteSample(type, id).packet();
    const auto number = static_cast<std::uint32_t>(sequence);  // of the packet in its stream, in its head
    std::memcpy(&packet[8], &number, sizeof number);
    return packet;
}

/// A packet as the test wrote it.
struct Written {
    std::uint32_t interface;
    std::uint64_t timeNs;
    std::uint32_t type;
    std::string id;
    std::string bytes;
};

class InfoCommand : public ::testing::Test {
protected:
    ProgramResult Info(const std::string& arguments, const std::string& before = "") {
        return runProgram("exec 2>err; export HOME=" + word(dir.Path()) + "; " + before + word(VEXO_COMMAND) +
                          " info " + arguments);
    }
    std::string Text(const std::string& arguments) {
        const ProgramResult result = Info(arguments);
        EXPECT_EQ(result.status, 0) << dir.Read("err");
        return result.output;
    }
    json Json(const std::string& arguments, int status = 0) {
        const ProgramResult result = Info("--json " + arguments);
        EXPECT_EQ(result.status, status) << dir.Read("err");
        return json::parse(result.output, nullptr, false);
    }
    std::string Fault(const std::string& arguments, int status = 2) {
        EXPECT_EQ(Info(arguments).status, status);
        return dir.Read("err");
    }
    /// What the check of pages says of one.
    std::string PageOf(const std::string& arguments, const std::string& texts = "") {
        std::filesystem::remove("page.html");
        Text(arguments + " --html page.html");
        const ProgramResult checked = runProgram(word(VEXO_PYTHON) + " " + word(VEXO_PAGE_CHECK) + " page.html " +
                                                 texts);
        EXPECT_EQ(checked.status, 0) << checked.output;
        return checked.output;
    }
    /// A capture of channel 0 with these sequence numbers, a millisecond apart.
    void WriteSequence(const std::string& name, std::uint64_t startNs, const std::vector<std::uint64_t>& numbers,
                       std::optional<InterfaceCounts> counts = {}) {
        BlockBuffer blocks = emptyCapture();
        std::uint64_t timeNs = startNs;
        for (const std::uint64_t number : numbers)
            appendPacket(blocks, 0, timeNs += 1'000'000, Quote(17, "SR505", number));
        if (counts) appendStatistics(blocks, 0, *counts);
        dir.Write(name, text(blocks));
    }

    test_support::TempDir dir;
};

/// Random packets of four streams, and what is true of them, counted in the plainest way.
class InfoTruth : public InfoCommand {
protected:
    void SetUp() override {
        std::mt19937_64 random(20261122);
        std::uint64_t timeNs = kNine + 123'456'789;
        BlockBuffer blocks = emptyCapture();
        for (std::size_t i = 0; i < kPackets; ++i) {
            timeNs += random() % 50 == 0 ? random() % (2 * kSecond) : random() % 3'000'000;
            Written one;
            one.interface = static_cast<std::uint32_t>(random() % 4);
            one.timeNs = timeNs;
            QuoteSample quote = randomQuote(random);
            quote.quote.common.id[6] = static_cast<char>('0' + random() % 30 % 7);
            quote.quote.common.id[7] = '\0';
            one.type = quote.type;
            one.id = quote.quote.common.id;
            one.bytes = quote.packet();
            appendPacket(blocks, one.interface, one.timeNs, one.bytes);
            packets.push_back(one);
        }
        dir.Write("a.pcapng", text(blocks));
    }
    template <typename Key>
    std::map<std::uint64_t, std::uint64_t> CountBy(const Key& key) const {
        std::map<std::uint64_t, std::uint64_t> counts;
        for (const Written& one : packets) ++counts[key(one)];
        return counts;
    }
    static std::uint64_t Most(const std::map<std::uint64_t, std::uint64_t>& counts) {
        std::uint64_t most = 0;
        for (const auto& [key, count] : counts) most = std::max(most, count);
        return most;
    }

    static constexpr std::size_t kPackets = 3000;
    std::vector<Written> packets;
};

}  // namespace

TEST_F(InfoTruth, TheNumbersAreThoseOfThePackets) {
    const json all = Json("a.pcapng --top 100");
    std::uint64_t bytes = 0;
    for (const Written& one : packets) bytes += one.bytes.size();
    EXPECT_EQ(all["packets"], kPackets);
    EXPECT_EQ(all["bytes"], bytes);
    EXPECT_EQ(all["from"], Seconds(packets.front().timeNs));
    EXPECT_EQ(all["to"], Seconds(packets.back().timeNs));
    const std::uint64_t span = packets.back().timeNs - packets.front().timeNs;
    EXPECT_EQ(all["seconds"], Seconds(span));
    EXPECT_NEAR(all["packets_per_second"].get<double>(), kPackets * 1e9 / static_cast<double>(span), 1e-6);
    const auto perSecond = CountBy([](const Written& one) { return one.timeNs / kSecond; });
    const auto perMilli = CountBy([](const Written& one) { return one.timeNs / 1'000'000; });
    EXPECT_EQ(all["peak_second"]["packets"], Most(perSecond));
    EXPECT_EQ(all["peak_millisecond"]["packets"], Most(perMilli));
    std::uint64_t longest = 0;
    for (std::size_t i = 1; i < packets.size(); ++i)
        longest = std::max(longest, packets[i].timeNs - packets[i - 1].timeNs);
    EXPECT_EQ(all["largest_gaps"][0]["seconds"], Seconds(longest));

    std::map<std::string, std::uint64_t> ids;
    for (const Written& one : packets) ++ids[one.id];
    ASSERT_EQ(all["instruments"].size(), ids.size());
    EXPECT_EQ(all["instrument_count"], ids.size());
    std::uint64_t before = ~std::uint64_t{0};
    for (const json& instrument : all["instruments"]) {
        EXPECT_EQ(instrument["packets"], ids.at(instrument["id"]));
        EXPECT_LE(instrument["packets"], before);
        before = instrument["packets"];
    }
    // The timeline: each bin, and nothing beside them.
    const json& timeline = all["timeline"];
    const auto width = static_cast<std::uint64_t>(
        std::llround(std::stod(timeline["seconds"].get<std::string>()) * 1e9));
    const auto perBin = CountBy([&](const Written& one) { return one.timeNs / width; });
    ASSERT_EQ(timeline["bins"].size(), perBin.size());
    std::size_t i = 0;
    for (const auto& [bin, count] : perBin) {
        EXPECT_EQ(timeline["bins"][i]["from"], Seconds(bin * width));
        EXPECT_EQ(timeline["bins"][i++]["packets"], count);
    }
}

TEST_F(InfoTruth, EachChannelHasItsOwnNumbers) {
    const json all = Json("a.pcapng");
    ASSERT_EQ(all["streams"].size(), 4U);
    for (const json& stream : all["streams"]) {
        std::vector<Written> own;
        std::map<std::string, std::pair<std::uint64_t, std::uint64_t>> types;
        for (const Written& one : packets) {
            if (kStreams[one.interface] != stream["stream"]) continue;
            own.push_back(one);
            ++types[std::to_string(one.type)].first;
            types[std::to_string(one.type)].second += one.bytes.size();
        }
        EXPECT_EQ(stream["packets"], own.size());
        ASSERT_EQ(stream["types"].size(), types.size());
        for (const auto& [type, counts] : types) {
            EXPECT_EQ(stream["types"][type]["packets"], counts.first);
            EXPECT_EQ(stream["types"][type]["bytes"], counts.second);
        }
        std::map<double, std::uint64_t> buckets;
        std::uint64_t longest = 0;
        for (std::size_t i = 1; i < own.size(); ++i) {
            const std::uint64_t gap = own[i].timeNs - own[i - 1].timeNs;
            longest = std::max(longest, gap);
            double below = 2e-9;
            while (static_cast<double>(gap) >= std::round(below * 1e9)) below *= 2;
            ++buckets[below];
        }
        EXPECT_EQ(stream["largest_gap"]["seconds"], Seconds(longest));
        ASSERT_EQ(stream["gaps"].size(), buckets.size());
        std::size_t i = 0;
        for (const auto& [below, count] : buckets) {
            EXPECT_DOUBLE_EQ(stream["gaps"][i]["below_seconds"].get<double>(), below);
            EXPECT_EQ(stream["gaps"][i++]["count"], count);
        }
    }
    EXPECT_EQ(all["streams"][0]["card"].is_null(), all["streams"][0]["stream"] == "stream odd");
}

TEST_F(InfoTruth, PacketsAndBytesAreTsharksByChannelAndType) {
    const ProgramResult theirs = runProgram(
        "exec 2>/dev/null; export HOME=" + word(dir.Path()) + "; " + word(VEXO_TSHARK) +
        " -X lua_script:" + word(VEXO_DISSECTOR) +
        " -r a.pcapng -T fields -E separator=';' -e frame.interface_name -e vexo.type -e frame.len");
    std::map<std::string, std::pair<std::uint64_t, std::uint64_t>> expected;
    std::istringstream lines(theirs.output);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t last = line.rfind(';');
        auto& counts = expected[line.substr(0, last)];
        ++counts.first;
        counts.second += std::stoull(line.substr(last + 1));
    }
    ASSERT_EQ(expected.size(), 16U) << theirs.output.substr(0, 500);
    const json all = Json("a.pcapng");
    for (const json& stream : all["streams"]) {
        for (const auto& [type, counts] : stream["types"].items()) {
            const auto& same = expected[stream["stream"].get<std::string>() + ";" + type];
            EXPECT_EQ(counts["packets"], same.first);
            EXPECT_EQ(counts["bytes"], same.second);
        }
    }
}

TEST_F(InfoTruth, CompressedAndDividedCapturesAreTheSame) {
    json whole = Json("a.pcapng");
    whole.erase("captures");
    ASSERT_EQ(runProgram("zstd -q a.pcapng -o b.zst").status, 0);
    // Packets of one time after the other, divided at any packet.
    std::map<std::size_t, BlockBuffer> parts;
    for (std::size_t i = 0; i < packets.size(); ++i) {
        BlockBuffer& blocks = parts.try_emplace(i / 700, emptyCapture()).first->second;
        appendPacket(blocks, packets[i].interface, packets[i].timeNs, packets[i].bytes);
    }
    std::string names;
    for (const auto& [number, blocks] : parts) {
        const std::string name = "part." + std::to_string(9 - number);
        dir.Write(name, text(blocks));
        names += name + " ";
    }
    for (const std::string& captures : {std::string("b.zst"), std::string("- <b.zst"), std::string("part.*"), names}) {
        json same = Json(captures);
        ASSERT_EQ(same["captures"].size(), captures[0] == 'p' ? 5 : 1);
        same.erase("captures");
        // Between captures a jump of the random numbers is not taken for a loss.
        for (json* one : {&whole, &same}) {
            one->erase("lost");
            one->erase("notes");
            (*one)["timeline"].erase("bins");
            for (json& stream : (*one)["streams"]) stream.erase("sequence");
        }
        EXPECT_EQ(same, whole) << captures;
    }
}

TEST_F(InfoTruth, ThePageStandsAloneAndHasWordsForItsPictures) {
    const std::string one = PageOf("a.pcapng",
                                   "'Busiest second' 'channel 3' 'time of the exchange (UTC+8), 2025-01-15'");
    EXPECT_THAT(one, HasSubstr("pictures"));
    PageOf("a.pcapng --compare a.pcapng", "'Comparison' 'a.pcapng compared with a.pcapng' 'same'");
    EXPECT_THAT(Text("a.pcapng --html -"), AllOf(HasSubstr("<!DOCTYPE html>"), HasSubstr("</html>\n")));
}

TEST_F(InfoCommand, NumbersThatAreMissingAreLostAndThoseThatComeAgainAreNot) {
    WriteSequence("a.pcapng", kNine, {7, 8, 9, 15, 16, 14, 16, 17, 20, 5'000'000, 5'000'001, 3, 4, 5});
    const json sequence = Json("a.pcapng")["streams"][0]["sequence"];
    EXPECT_EQ(sequence["gaps"], 2);
    EXPECT_EQ(sequence["lost"], 7);
    EXPECT_EQ(sequence["late"], 2);
    EXPECT_EQ(sequence["restarts"], 2);
    std::uint64_t lost = 0;
    const json timeline = Json("a.pcapng")["timeline"];
    for (const json& bin : timeline["bins"]) lost += bin["lost"].get<std::uint64_t>();
    EXPECT_EQ(lost, 7U);
    PageOf("a.pcapng", "'channel 0: packets missing in each 1.00 ms' '09:00:00.004 to 09:00:00.005: 5 missing'");
}

TEST_F(InfoCommand, AJumpBetweenCapturesIsALossOnlyIfTheyFollowOn) {
    WriteSequence("a.pcapng", kNine, {1, 2, 3}, InterfaceCounts{kNine, kNine + kSecond, 3, 0});
    WriteSequence("a.1.pcapng", kNine + kSecond, {6, 7}, InterfaceCounts{kNine + kSecond, kNine + 2 * kSecond, 2, 0});
    WriteSequence("a.2.pcapng", kNine + 2 * kSecond, {10}, {});
    WriteSequence("a.3.pcapng", kNine + 3 * kSecond, {20, 22}, InterfaceCounts{kNine, kNine + 4 * kSecond, 2, 0});
    const json both = Json("a.pcapng a.1.pcapng")["streams"][0]["sequence"];
    EXPECT_EQ(both["lost"], 2);
    EXPECT_EQ(both["gaps"], 1);
    EXPECT_EQ(both["unrecorded"], 0);
    const json hole = Json("a.pcapng a.2.pcapng")["streams"][0]["sequence"];
    EXPECT_EQ(hole["lost"], 0);
    EXPECT_EQ(hole["unrecorded"], 1);
    const json all = Json("a.1.pcapng a.2.pcapng a.3.pcapng a.pcapng");
    EXPECT_EQ(all["streams"][0]["sequence"]["lost"], 3);
    EXPECT_EQ(all["streams"][0]["sequence"]["unrecorded"], 2);
    EXPECT_EQ(all["captures"][1]["file"], "a.1.pcapng");
    EXPECT_THAT(dir.Read("err"), HasSubstr("the sequence jumps 2 times between captures that do not follow on"));
    // The same captures as one file with several sections.
    ASSERT_EQ(runProgram("cat a.pcapng a.1.pcapng >joined").status, 0);
    EXPECT_EQ(Json("joined")["streams"][0]["sequence"], both);
}

TEST_F(InfoCommand, WhatTheTapDidNotRecordIsKnownFromTheEndOfTheCapturesOnly) {
    WriteSequence("a.pcapng", kNine, {1, 2}, InterfaceCounts{kNine, kNine + kSecond, 7, 5});
    WriteSequence("a.1.pcapng", kNine + kSecond, {9, 10}, InterfaceCounts{kNine + kSecond, kNine + 2 * kSecond, 3, 1});
    WriteSequence("killed.pcapng", kNine + 2 * kSecond, {11});
    EXPECT_EQ(Json("a.pcapng")["lost"]["by_tap"], 5);
    EXPECT_EQ(Json("a.pcapng a.1.pcapng")["lost"]["by_tap"], 6);
    EXPECT_TRUE(Json("a.pcapng a.1.pcapng killed.pcapng")["lost"]["by_tap"].is_null());
    EXPECT_TRUE(Json("killed.pcapng")["streams"][0]["lost"]["by_tap"].is_null());
}

TEST_F(InfoCommand, LossesByCauseAreTheSumsOfTheEndsOfTheCaptures) {
    const CardCounts first = {100, 30, 2, 1, 10, 4};
    const CardCounts second = {50, 3, 1, 0, 0, 0};
    WriteSequence("a.pcapng", kNine, {1, 2}, InterfaceCounts{kNine, kNine + kSecond, 7, 5, first});
    WriteSequence("a.1.pcapng", kNine + kSecond, {50},
                  InterfaceCounts{kNine + kSecond, kNine + 2 * kSecond, 1, 0, second});
    WriteSequence("b.pcapng", kNine + 3 * kSecond, {51},
                  InterfaceCounts{kNine + 3 * kSecond, kNine + 4 * kSecond, 1, 2});
    const json lost = {{"before_card", 4}, {"by_card", 4},        {"by_ring", 23},
                       {"by_tap", 5},      {"by_relay", nullptr}, {"by_application", 10}};
    const json all = Json("a.pcapng a.1.pcapng");
    EXPECT_EQ(all["lost"], lost);
    EXPECT_EQ(all["streams"][0]["lost"], lost);
    EXPECT_EQ(all["streams"][0]["sequence"]["lost"], 47);
    EXPECT_THAT(
        Text("a.1.pcapng a.pcapng"),
        HasSubstr("  channel 0                       4            4           23           5           -            "
                  "      10\n"));
    PageOf("a.pcapng a.1.pcapng", "'lost by the ring' '23'");
    // One capture whose writer did not ask the card: the sums are not known.
    EXPECT_EQ(Json("a.pcapng b.pcapng")["streams"][0]["lost"], json({{"before_card", nullptr},
                                                                     {"by_card", nullptr},
                                                                     {"by_ring", nullptr},
                                                                     {"by_tap", 7},
                                                                     {"by_relay", nullptr},
                                                                     {"by_application", nullptr}}));
}

// Channel 0 has packets whose numbers nobody knows.
TEST_F(InfoCommand, LossesWithoutSequenceNumbersStandInTheTimeOfTheirCapture) {
    const auto write = [&](const std::string& name, std::uint64_t second, const InterfaceCounts& counts) {
        BlockBuffer blocks = emptyCapture();
        appendPacket(blocks, 0, kNine + second * kSecond + 1, std::string({21, 0, 0, 0}) + std::string(20, '\0'));
        appendPacket(blocks, 3, kNine + (second + 1) * kSecond - 1, Quote(17, "SR505", second));
        appendStatistics(blocks, 0, counts);
        appendStatistics(blocks, 3, {counts.startNs, counts.endNs, 1, 0});
        dir.Write(name, text(blocks));
    };
    write("a.pcapng", 0, {kNine, kNine + kSecond, 9, 5, CardCounts{100, 30, 2, 1, 10, {}}});
    write("a.1.pcapng", 1, {kNine + kSecond, kNine + 2 * kSecond, 9, 0, CardCounts{100, 0, 0, 0, 0, {}}});
    write("a.2.pcapng", 2, {kNine + 2 * kSecond, kNine + 3 * kSecond, 9, 0, CardCounts{100, 7, 0, 0, 0, {}}});
    write("sound.pcapng", 3, {kNine + 3 * kSecond, kNine + 4 * kSecond, 9, 0, CardCounts{100, 0, 0, 0, 0, {}}});
    write("backwards.pcapng", 4, {kNine + 5 * kSecond, kNine + 4 * kSecond, 9, 6, CardCounts{100, 0, 0, 0, 0, {}}});
    const json lost = Json("a.2.pcapng a.1.pcapng a.pcapng")["streams"][0]["counted_losses"];
    ASSERT_EQ(lost.size(), 2U);
    EXPECT_EQ(lost[0]["from"], Seconds(kNine));
    EXPECT_EQ(lost[0]["to"], Seconds(kNine + kSecond));
    EXPECT_EQ(lost[0]["lost"]["by_ring"], 20);
    EXPECT_EQ(lost[0]["lost"]["by_tap"], 5);
    EXPECT_EQ(lost[1]["from"], Seconds(kNine + 2 * kSecond));
    EXPECT_EQ(lost[1]["lost"]["by_ring"], 7);
    const std::string first =
        "'2025-01-15 09:00:00.000 to 2025-01-15 09:00:01.000: lost before the card -, by the card 3, by the ring 20, "
        "by the tap 5, by a relay -, by the application 10'";
    PageOf("a.pcapng a.1.pcapng a.2.pcapng",
           first +
               " 'No number is missing in the sequence: stream odd.' "
               "'channel 0: packets lost and errors of the card, as counted in the time of each capture' "
               "'When in that time is not known: no layout says where the sequence number is'");
    PageOf("sound.pcapng", "'No layout says where the sequence number is, and no loss was counted: channel 0.'");
    PageOf("sound.pcapng --compare a.pcapng", first);
    PageOf("backwards.pcapng",
           "'channel 0: 6 packets were lost in captures that do not say from when to when they are' "
           "'When packets were lost is not known, because no layout says where the sequence number is: channel 0.'");
}

TEST_F(InfoCommand, SequenceNumbersAreWhereTheLayoutSays) {
    dir.Write("odd.ini",
              "[layout]\nname = odd\nmeaning = x\nid_field = name\nsequence_field = n\n[type 21]\nmeaning = Odd ones\n"
              "size = 6\nfields = all\n[fields all]\nname = 0, char[4], 1, Name\nn = 4, u16be, 1, N\n");
    BlockBuffer blocks = emptyCapture();
    const auto add = [&](std::uint64_t ns, const std::string& payload) {
        appendPacket(blocks, 0, kNine + ns, std::string({21, 0, 0, 0}) + std::string(8, '\0') + payload);
    };
    add(1, "ABCD\xFF\xFE");
    add(2, "ABCD\xFF\xFF");
    add(3, std::string("ABCE\x00\x00", 6));  // goes on behind the largest number
    add(4, std::string("AB\0D\x00\x04", 6));
    dir.Write("odd.pcapng", text(blocks));
    const json unknown = Json("odd.pcapng");
    EXPECT_TRUE(unknown["streams"][0]["sequence"].is_null());
    EXPECT_EQ(unknown["instrument_count"], 0);
    EXPECT_THAT(unknown["notes"][0],
                "4 packets of type 21 have no layout: their instruments and sequence numbers are not known");
    PageOf("odd.pcapng",
           "'When packets were lost is not known, because no layout says where the sequence number is: channel 0.'");
    const json known = Json("odd.pcapng --layout odd.ini");
    EXPECT_EQ(known["streams"][0]["sequence"]["lost"], 3);
    EXPECT_EQ(known["streams"][0]["sequence"]["restarts"], 0);
    EXPECT_EQ(known["instruments"][0], json({{"id", "ABCD"}, {"packets", 2}, {"bytes", 36}}));
    EXPECT_EQ(known["instruments"][1]["id"], "AB");
    EXPECT_THAT(Text("odd.pcapng --layout odd.ini"), HasSubstr("Odd ones"));
    EXPECT_EQ(Info("odd.pcapng", "export VEXO_LAYOUT=simulated:odd.ini; ").output, Text("odd.pcapng --layout odd.ini"));
}

TEST_F(InfoCommand, TheTextIsForPeople) {
    WriteSequence("a.pcapng", kNine, {1, 2, 3, 5}, InterfaceCounts{kNine, kNine + kSecond, 7, 5});
    EXPECT_THAT(
        Text("a.pcapng"),
        ::testing::StartsWith(
            "a.pcapng\n"
            "  from              2025-01-15 09:00:00.001000000 (UTC+8)\n"
            "  to                2025-01-15 09:00:00.004000000\n"
            "  span              3.00 ms\n"
            "  packets           4, 560 bytes\n"
            "  rate              1,333 packets a second\n"
            "  busiest second    4 packets, from 09:00:00\n"
            "  busiest ms        1 packets, from 09:00:00.001\n"
            "  largest burst     1 packets in 0 ns from 09:00:00.001000 on channel 0, each 10.0 us or less after the one "
            "before\n"
            "  largest gaps      1.00 ms from 2025-01-15 09:00:00.001000 to 09:00:00.002000\n"
            "                    1.00 ms from 2025-01-15 09:00:00.002000 to 09:00:00.003000\n"
            "                    1.00 ms from 2025-01-15 09:00:00.003000 to 09:00:00.004000\n"));
}

TEST_F(InfoCommand, ACapturesTextCannotCommandATerminalOrABrowser) {
    BlockBuffer blocks;
    appendSection(blocks, {});
    appendInterface(blocks, {kStreamLink, "</title><script>alert(1)</script>", ""});
    for (const std::string& id : {std::string("<img src=x onerror=a>"), std::string("\x1B[31mred"),
                                  std::string("a\"b'&c"), std::string("\xFF\xFE"), std::string("]]><!--")})
        appendPacket(blocks, 0, kNine, Quote(17, id, 1));
    dir.Write("<b>.pcapng", text(blocks));
    const std::string page = PageOf("'<b>.pcapng' --top 100",
                                    "'<b>.pcapng' '</title><script>alert(1)</script>' '<img src=x onerror=a>' "
                                    "'\\x1B[31mred' 'a\"b'\"'\"'&c' '\\xFF\\xFE' ']]><!--'");
    EXPECT_THAT(Text("'<b>.pcapng'"), AllOf(HasSubstr("\\x1B[31mred"), Not(HasSubstr("\x1B"))));
    EXPECT_EQ(Json("'<b>.pcapng'")["instruments"].size(), 5U);
}

TEST_F(InfoCommand, TwoRecordingsAreCompared) {
    WriteSequence("a.pcapng", kNine, {1, 2, 3, 5});
    WriteSequence("b.pcapng", kNine, {1, 2});
    WriteSequence("b.1.pcapng", kNine + kSecond, {3, 4, 5, 6, 7, 8});
    EXPECT_THAT(Text("a.pcapng --compare b.1.pcapng --compare b.pcapng"),
                AllOf(HasSubstr("Compared with b.pcapng and 1 more\n"), HasSubstr("-50.0 %")));
    const json both = Json("a.pcapng --compare b.pcapng --compare b.1.pcapng");
    EXPECT_EQ(both["packets"], 4);
    EXPECT_EQ(both["compared_with"]["packets"], 8);
    EXPECT_EQ(both["compared_with"]["streams"][0]["sequence"]["lost"], 0);
    EXPECT_THAT(Fault("- --compare - </dev/null"), HasSubstr("standard input cannot be compared with itself"));
    PageOf("a.pcapng --compare b.pcapng", "'this one' 'The other: b.pcapng' '+100.0 %'");
}

TEST_F(InfoCommand, ADamagedCaptureIsNamedAndWhatPrecedesTheDamageIsCounted) {
    WriteSequence("a.pcapng", kNine, {1, 2, 3, 5});
    dir.Write("cut.pcapng", dir.Read("a.pcapng").substr(0, dir.Read("a.pcapng").size() - 5));
    const json cut = Json("cut.pcapng", 1);
    EXPECT_EQ(cut["packets"], 3);
    EXPECT_THAT(cut["captures"][0]["damage"], HasSubstr("the file ends inside a block"));
    EXPECT_THAT(dir.Read("err"),
                AllOf(HasSubstr("vexo: cut.pcapng: at byte "), HasSubstr("what precedes it is counted")));
    EXPECT_EQ(Info("cut.pcapng --html page.html").status, 1);
    EXPECT_THAT(dir.Read("page.html"), HasSubstr("the file ends inside a block"));
    dir.Write("empty", "");
    EXPECT_THAT(Fault("empty", 1),
                AllOf(HasSubstr("empty: at byte 0: the file is empty"), HasSubstr("there is no packet")));
    dir.Write("text", "no capture");
    EXPECT_THAT(Fault("text --html none.html", 1), HasSubstr("text: at byte 0: "));
    EXPECT_THAT(dir.Read("none.html"), HasSubstr("No packet."));
    ASSERT_EQ(runProgram("zstd -q a.pcapng -o b.zst && head -c -9 b.zst >cut.zst").status, 0);
    EXPECT_THAT(Fault("cut.zst", 1), HasSubstr("the file cannot be read: the compressed file is cut off"));
    std::string wrong = dir.Read("b.zst");
    wrong.back() = static_cast<char>(wrong.back() ^ 1);  // in the checksum
    dir.Write("wrong.zst", wrong);
    const std::string doubt = "its checksum is wrong; packets before this byte may be wrong, too, and nobody can tell";
    EXPECT_THAT(Fault("wrong.zst", 1), HasSubstr(doubt));
    const json doubtful = Json("wrong.zst", 1);
    EXPECT_EQ(doubtful["packets"], 4);
    EXPECT_THAT(doubtful["captures"][0]["damage"], HasSubstr(doubt));
    std::mt19937 random(20261122);
    for (int round = 0; round < 20; ++round) {
        std::string bytes = dir.Read("a.pcapng");
        for (int i = 0; i < 20; ++i) bytes[random() % bytes.size()] = static_cast<char>(random());
        dir.Write("bad", bytes);
        EXPECT_LE(Info("bad --html -").status, 1) << round;
    }
}

TEST_F(InfoCommand, APageIsNeverOverwrittenAndIsThereOnlyWhenItIsComplete) {
    WriteSequence("a.pcapng", kNine, {1, 2});
    dir.Write("page.html", "mine");
    EXPECT_THAT(Fault("a.pcapng --html page.html"),
                HasSubstr("--html page.html: it exists, and vexo never overwrites; give another name"));
    EXPECT_EQ(dir.Read("page.html"), "mine");
    EXPECT_THAT(Fault("none.pcapng --html new.html"), HasSubstr("none.pcapng: No such file or directory"));
    EXPECT_THAT(Fault("a.pcapng --compare none.pcapng --html new.html"), HasSubstr("No such file or directory"));
    EXPECT_EQ(runProgram("ulimit -f 1; trap '' XFSZ; " + word(VEXO_COMMAND) + " info a.pcapng --html new.html").status,
              1);
    EXPECT_FALSE(std::filesystem::exists("new.html"));
    EXPECT_EQ(Info("a.pcapng >/dev/full").status, 1);
    EXPECT_EQ(Info("a.pcapng --html - >/dev/full").status, 1);
}

TEST_F(InfoCommand, WrongUsageIsNamed) {
    WriteSequence("a.pcapng", kNine, {1, 2});
    EXPECT_THAT(Fault(""), HasSubstr("nothing to show: name a capture"));
    EXPECT_THAT(Fault("."), HasSubstr(".: this is a directory, not a capture"));
    EXPECT_THAT(Fault("a.pcapng ./a.pcapng"), HasSubstr("this capture is named twice"));
    EXPECT_THAT(Fault("a.pcapng - </dev/null"), HasSubstr("standard input: several captures have to be files"));
    EXPECT_THAT(Fault("a.pcapng --json --html x.html"), HasSubstr("--json"));
    EXPECT_THAT(Fault("a.pcapng --layout none.ini"), HasSubstr("none.ini: No such file or directory"));
    EXPECT_THAT(Fault("a.pcapng --burst 60000001"),
                HasSubstr("--burst: 60000001 is not a whole number from 0 to 60000000"));
    EXPECT_THAT(Fault("a.pcapng --html ''"), HasSubstr("vexo: --html: the value is empty; give one, or leave"));
    EXPECT_THAT(Fault("a.pcapng --layout ''"), HasSubstr("vexo: --layout: the value is empty; give one, or leave"));
    EXPECT_THAT(Text("a.pcapng --top 0"), Not(HasSubstr("Busiest instruments")));
}
