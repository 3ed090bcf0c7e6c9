#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "tests/support/TempDir.h"
#include "tests/unit/capture/CaptureSample.h"
#include "tests/unit/tools/Program.h"
#include "tests/unit/tools/QuoteSample.h"

using namespace capture;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr std::uint64_t kNine = 1'736'902'800'000'000'000;  // Wednesday 2025-01-15 09:00 of the exchange
constexpr std::uint64_t kSecond = 1'000'000'000;

// A quote at a time of that day, with the exchange's time the same.
QuoteSample At(std::uint32_t time, std::uint32_t type, const std::string& id) {
    QuoteSample sample(type, id);
    sample.quote.common.exchangeTime = time;
    return sample;
}

std::uint64_t NsAt(std::uint32_t time) {
    const std::uint64_t second = time / 10000 * 3600 + time / 100 % 100 * 60 + time % 100;
    return kNine - 9 * 3600 * kSecond + second * kSecond;
}

std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

class ExportCommand : public ::testing::Test {
protected:
    /// Five quotes, a contract map, a register access, and a packet of no known layout.
    void SetUp() override {
        BlockBuffer blocks = emptyCapture();
        const auto add = [&](std::uint32_t interface, std::uint32_t time, const QuoteSample& sample) {
            appendPacket(blocks, interface, NsAt(time), sample.packet());
        };
        appendPacket(blocks, 0, NsAt(85900), std::string({2, 0, 0, 0}) + std::string(40, '\1'));
        QuoteSample first = At(90000, 17, "SR505");
        first.quote.common.sequence = 18446744073709551615U;
        first.quote.common.lastPrice = 60005000;
        first.quote.bidPrice[0] = -5000;
        first.quote.bidVolume[0] = 7;
        add(0, 90000, first);
        QuoteSample second = At(133000, 18, "SR505C6000");
        second.quote.askPrice[4] = 123456789;
        second.quote.common.exchangeMillis = 500;
        add(1, 133000, second);
        appendPacket(blocks, 4, NsAt(133001), std::string(48, 'x'));
        add(2, 150000, At(150000, 19, "SPD-SR505/SR509"));
        appendPacket(blocks, 0, NsAt(150001), std::string("\x15\0\0\0\0\0\0\0\0\0\0\0\xCA\xFE", 14));
        add(3, 213000, At(213000, 20, "IPS-SF505/SM505"));
        add(0, 213001, At(999999, 17, "what,\"is\"this\\\xE9\x01"));
        dir.Write("a.pcapng", text(blocks));
        m_capture = text(blocks);
    }

    ProgramResult Export(const std::string& arguments, const std::string& before = "") {
        return runProgram("exec 2>err; " + before + word(VEXO_COMMAND) + " export " + arguments);
    }
    /// Lines of standard output of an export that works.
    std::vector<std::string> Rows(const std::string& arguments) {
        const ProgramResult result = Export(arguments);
        EXPECT_EQ(result.status, 0) << dir.Read("err");
        return LinesOf(result.output);
    }
    /// What is said of an export that fails.
    std::string Fault(const std::string& arguments, int status = 2) {
        const ProgramResult result = Export(arguments);
        EXPECT_EQ(result.status, status) << result.output;
        return dir.Read("err");
    }

    test_support::TempDir dir;
    std::string m_capture;
};

}  // namespace

TEST_F(ExportCommand, WritesALineForEachQuoteWithTheNamesFirst) {
    const auto rows = Rows("a.pcapng");
    ASSERT_EQ(rows.size(), 6U);
    EXPECT_EQ(
        rows[0],
        "time,channel,type,sequence,id,row,table,level,date,quote_time,millis,last,upper_limit,lower_limit,turnover,"
        "volume,open_interest,bid_price_1,bid_price_2,bid_price_3,bid_price_4,bid_price_5,ask_price_1,ask_price_2,"
        "ask_price_3,ask_price_4,ask_price_5,bid_volume_1,bid_volume_2,bid_volume_3,bid_volume_4,bid_volume_5,"
        "ask_volume_1,ask_volume_2,ask_volume_3,ask_volume_4,ask_volume_5");
    EXPECT_EQ(rows[1],
              "1736902800.000000000,0,17,18446744073709551615,SR505,0,0,1,0,90000,0,6000.5,0,0,0,0,0,-0.5,,,,,0,,,,,7,"
              ",,,,0,,,,");
}

TEST_F(ExportCommand, ColumnsAreThoseThatAreNamedInTheirOrder) {
    EXPECT_THAT(
        Rows("a.pcapng --columns id,last,bid_price_5,channel,card,stream,layout,type"),
        ElementsAre("id,last,bid_price_5,channel,card,stream,layout,type", "SR505,6000.5,,0,0,channel 0,simulated,17",
                    "SR505C6000,0,0,3,0,channel 3,simulated,18", "SPD-SR505/SR509,0,,3,1,card 1 channel 3,simulated,19",
                    "IPS-SF505/SM505,0,0,,,stream odd,simulated,20",
                    "\"what,\"\"is\"\"this\\..\",0,,0,0,channel 0,simulated,17"));
}

TEST_F(ExportCommand, DaysSessionsAndPartsOfTheIdAreColumns) {
    EXPECT_THAT(Rows("a.pcapng --columns key,kind,product,year,month,right,strike,natural_day,trading_day,session"),
                ElementsAre("key,kind,product,year,month,right,strike,natural_day,trading_day,session",
                            "SR505,future,SR,2025,5,,,20250115,20250115,morning",
                            "SR505C6000,option,SR,2025,5,C,6000,20250115,20250115,afternoon",
                            "SPD-SR505-SR509,calendar-spread,SR,2025,5,,,20250115,20250115,afternoon",
                            "IPS-SF505-SM505,inter-product-spread,SF,2025,5,,,20250115,20250116,night", ",,,,,,,,,"));
    EXPECT_THAT(dir.Read("err"), HasSubstr("1 quotes have an exchange time that is none"));
    dir.Write("holidays.txt", "2025-01-16\n");
    EXPECT_THAT(Rows("a.pcapng --columns trading_day,session --holidays holidays.txt --id 'IPS*'"),
                ElementsAre("trading_day,session", "20250117,"));
    EXPECT_THAT(Rows("a.pcapng --columns clock,exchange_time --id SR505C6000"),
                ElementsAre("clock,exchange_time", "2025-01-15T13:30:00.000000000+08:00,1736919000.500000000"));
}

TEST_F(ExportCommand, FiltersTakeOnlyWhatAllOfThemTake) {
    const auto ids = [&](const std::string& filter) {
        auto rows = Rows("a.pcapng --columns id " + filter);
        rows.erase(rows.begin());
        return rows;
    };
    EXPECT_THAT(ids("--id SR505"), ElementsAre("SR505"));
    EXPECT_THAT(ids("--id 'SR505*,IPS-??505*'"), ElementsAre("SR505", "SR505C6000", "IPS-SF505/SM505"));
    EXPECT_THAT(ids("--type 18,20"), ElementsAre("SR505C6000", "IPS-SF505/SM505"));
    EXPECT_THAT(ids("--channel 3"), ElementsAre("SR505C6000", "SPD-SR505/SR509"));
    EXPECT_THAT(ids("--channel 3 --type 19"), ElementsAre("SPD-SR505/SR509"));
    EXPECT_THAT(ids("--from '2025-01-15 13:30' --until 2025-01-15T15:00:00.000000001"),
                ElementsAre("SR505C6000", "SPD-SR505/SR509"));
    EXPECT_THAT(ids("--until 1736902800.000000001"), ElementsAre("SR505"));
    EXPECT_THAT(ids("--from 2025-01-15 --until 1736919000"), ElementsAre("SR505"));
    EXPECT_THAT(ids("--session night"), ElementsAre("IPS-SF505/SM505"));
    EXPECT_THAT(ids("--session day"), ElementsAre("SR505", "SR505C6000", "SPD-SR505/SR509"));
    EXPECT_THAT(ids("--session morning,night"), ElementsAre("SR505", "IPS-SF505/SM505"));
    EXPECT_THAT(ids("--limit 2"), ElementsAre("SR505", "SR505C6000"));
    EXPECT_THAT(Rows("--id SR505 --columns id --type 17 --id 'SPD*' --channel 0 a.pcapng"), ElementsAre("id", "SR505"));
}

TEST_F(ExportCommand, BlanksInAListDoNotCount) {
    EXPECT_THAT(Rows("a.pcapng --columns 'id, type' --id 'SR505 , SPD*'"),
                ElementsAre("id,type", "SR505,17", "SPD-SR505/SR509,19"));
    EXPECT_THAT(Rows("a.pcapng --columns ' id' --session ' morning , night'"),
                ElementsAre("id", "SR505", "IPS-SF505/SM505"));
}

TEST_F(ExportCommand, AnIdThatNoRowHasIsNamed) {
    EXPECT_THAT(Rows("a.pcapng --columns id --type 17,18 --id 'SR505,SR50*,CF701,SPD*'"),
                ElementsAre("id", "SR505", "SR505C6000"));
    EXPECT_EQ(dir.Read("err"), "vexo: --id CF701: no row has this id\nvexo: --id SPD*: no row has this id\n");
    Rows("a.pcapng --id SR505");
    EXPECT_THAT(dir.Read("err"), Not(HasSubstr("--id")));
    Rows("a.pcapng --id 'SR505*,CF701' --limit 1");  // the others were not looked at
    EXPECT_THAT(dir.Read("err"), Not(HasSubstr("--id")));
}

TEST_F(ExportCommand, PacketsWithoutALayoutAreCountedAndNeverGuessed) {
    Rows("a.pcapng");
    EXPECT_THAT(dir.Read("err"), HasSubstr("no layout describes 1 packets of type 21: left out."));
    Rows("a.pcapng --type 17,18 --id 'SR*'");
    EXPECT_EQ(dir.Read("err"), "");
    EXPECT_THAT(Rows("a.pcapng --columns type,id,payload --type 21"), ElementsAre("type,id,payload", "21,,cafe"));
    EXPECT_EQ(dir.Read("err"), "");
    EXPECT_EQ(Rows("a.pcapng --columns type,payload").size(), 8U);  // the contract map, too; no register access
}

TEST_F(ExportCommand, JsonLinesHaveWideIntegersAsStringsAndOnlyWhatThePacketHas) {
    const auto rows = Rows("a.pcapng --to jsonl");
    ASSERT_EQ(rows.size(), 5U);
    const auto first = nlohmann::json::parse(rows[0]);
    EXPECT_EQ(first["time"], "1736902800.000000000");
    EXPECT_EQ(first["channel"], 0);
    EXPECT_EQ(first["sequence"], "18446744073709551615");
    EXPECT_EQ(first["last"], 6000.5);
    EXPECT_EQ(first["bid_price_1"], -0.5);
    EXPECT_EQ(first["bid_volume_1"], 7);
    EXPECT_FALSE(first.contains("bid_price_2"));
    EXPECT_EQ(nlohmann::json::parse(rows[4])["id"], "what,\"is\"this\\..");
    EXPECT_THAT(Rows("a.pcapng --to jsonl --columns strike --id SR505"), ElementsAre("{}"));
}

TEST_F(ExportCommand, AFileIsNeverOverwrittenAndHasItsNameOnlyWhenItIsComplete) {
    EXPECT_EQ(Export("a.pcapng --output out.csv").status, 0);
    const std::string before = dir.Read("out.csv");
    EXPECT_EQ(LinesOf(before).size(), 6U);
    EXPECT_THAT(Fault("a.pcapng --output out.csv --id SR505"),
                HasSubstr("--output out.csv: it exists, and vexo never overwrites; give another name"));
    EXPECT_EQ(dir.Read("out.csv"), before);
    std::filesystem::create_symlink("nowhere", "link.csv");
    EXPECT_THAT(Fault("a.pcapng --output link.csv"), HasSubstr("it exists"));
    EXPECT_THAT(Fault("a.pcapng --output none/out.csv"), HasSubstr("--output none/out.csv: No such file or directory"));
    EXPECT_THAT(Fault("a.pcapng none.pcapng --output new.csv"),
                HasSubstr("none.pcapng: No such file or directory; check the path\n"));
    EXPECT_FALSE(std::filesystem::exists("new.csv"));
    const ProgramResult full = runProgram("ulimit -f 1; trap '' XFSZ; " + word(VEXO_COMMAND) +
                                          " export a.pcapng a.pcapng a.pcapng a.pcapng --output new.csv 2>&1");
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.output, HasSubstr("new.csv: cannot be written: File too large"));
    EXPECT_FALSE(std::filesystem::exists("new.csv"));
}

TEST_F(ExportCommand, WithoutARowThereIsNoFileAndEachFilterSaysWhatItLeftOut) {
    const std::string none = "vexo: no packet became a row, so nothing is written: ";
    EXPECT_EQ(
        Fault("a.pcapng -o new.csv --id 'XX*'", 1),
        "vexo: no layout describes 1 packets of type 21: left out. Give a layout with --layout, or their bytes with "
        "the column payload\n" +
            none +
            "of 7 packets, 1 of type 2 (contract maps, without quotes), 1 of type 21 (not in the layout), 5 left out by "
            "--id\n");
    EXPECT_EQ(Fault("a.pcapng -o new.csv --type 18 --session night", 1),
              none + "of 7 packets, 6 left out by --type, 1 left out by --session\n");
    EXPECT_EQ(
        Fault("a.pcapng -o new.csv --until 2025-01-15 --channel 7", 1),
        none +
            "of 7 packets, 7 left out by --from or --until; the packets are from 2025-01-15 08:59:00 to 2025-01-15 "
            "21:30:01 (UTC+8)\n");
    EXPECT_EQ(Fault("a.pcapng --channel 7", 1), none + "of 7 packets, 7 left out by --channel\n");
    EXPECT_EQ(Export("a.pcapng --channel 7").output, "");
    BlockBuffer blocks = emptyCapture();
    dir.Write("b.pcapng", text(blocks));
    EXPECT_EQ(Fault("b.pcapng -o new.npy", 1), none + "there is no packet of a stream\n");
    EXPECT_FALSE(std::filesystem::exists("new.csv") || std::filesystem::exists("new.npy"));
    EXPECT_EQ(Export("a.pcapng -o new.csv").status, 0);  // nothing stands in the way of the next try
}

TEST_F(ExportCommand, AHostileNumberOfTypesIsToldInAFewLines) {
    BlockBuffer blocks = emptyCapture();
    for (std::uint32_t type = 1000; type < 1100; ++type) {
        const char* bytes = reinterpret_cast<const char*>(&type);
        appendPacket(blocks, 0, NsAt(90000), std::string(bytes, 4) + std::string(20, 'x'));
    }
    dir.Write("b.pcapng", text(blocks));
    const auto lines = LinesOf(Fault("b.pcapng", 1));
    EXPECT_EQ(lines.size(), 18U);
    EXPECT_EQ(lines[16], "vexo: no layout describes 84 packets of other types: left out");
}

TEST_F(ExportCommand, APacketThatIsTooShortToHaveATypeIsToldAsThat) {
    BlockBuffer blocks = emptyCapture();
    appendPacket(blocks, 0, NsAt(90000), std::string("\x11\0\0", 3));
    appendPacket(blocks, 0, NsAt(90000), "");
    dir.Write("b.pcapng", text(blocks));
    EXPECT_EQ(Fault("b.pcapng", 1),
              "vexo: 2 packets are too short to have a type: left out\n"
              "vexo: no packet became a row, so nothing is written: of 2 packets, 2 too short to have a type\n");
}

TEST_F(ExportCommand, MoreCapturesThanAProcessMayOpenAreReadOneAfterTheOther) {
    for (int i = 0; i < 100; ++i) std::filesystem::create_symlink("a.pcapng", "b" + std::to_string(i) + ".pcapng");
    const ProgramResult result = Export("b*.pcapng --columns id", "ulimit -n 20; ");
    EXPECT_EQ(result.status, 0) << dir.Read("err");
    EXPECT_EQ(LinesOf(result.output).size(), 501U);
}

TEST_F(ExportCommand, StandardStreamsThatAreClosedGetNoRowsAndLoseNone) {
    EXPECT_EQ(Export("a.pcapng -o out.csv", "exec 0<&- 1>&-; ").status, 0) << dir.Read("err");
    EXPECT_EQ(LinesOf(dir.Read("out.csv")).size(), 6U);
    EXPECT_EQ(Export("a.pcapng", "exec 0<&- 1>&-; ").status, 1);
    EXPECT_THAT(dir.Read("err"), HasSubstr("vexo: standard output: it is closed\n"));
    EXPECT_EQ(Export("-", "exec 0<&-; ").status, 1);
    EXPECT_THAT(dir.Read("err"), HasSubstr("standard input: Bad file descriptor"));
    EXPECT_EQ(dir.Read("a.pcapng"), m_capture);
}

TEST_F(ExportCommand, ACaptureThatVanishesMeanwhileIsToldAndTheOthersAreExported) {
    std::filesystem::copy("a.pcapng", "b.pcapng");
    std::filesystem::copy("a.pcapng", "c.pcapng");
    // The pipe gives its capture only when the next file is gone.
    ASSERT_EQ(runProgram("mkfifo pipe").status, 0);
    const ProgramResult result = Export("pipe b.pcapng c.pcapng --columns id",
                                        "(exec 3>pipe; rm b.pcapng; cat a.pcapng >&3) & ");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(LinesOf(result.output).size(), 11U);
    EXPECT_THAT(dir.Read("err"),
                HasSubstr("vexo: b.pcapng: No such file or directory; check the path; nothing of it is exported\n"));
}

TEST_F(ExportCommand, AFullOutputIsAFailure) {
    const ProgramResult result = Export("a.pcapng >/dev/full");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(dir.Read("err"), HasSubstr("vexo: standard output: No space left on device\n"));
}

TEST_F(ExportCommand, TheNameOfTheOutputSaysTheFormat) {
    EXPECT_EQ(Export("a.pcapng -o out.jsonl").status, 0);
    EXPECT_EQ(dir.Read("out.jsonl").front(), '{');
    EXPECT_EQ(Export("a.pcapng -o out.npy").status, 0);
    EXPECT_EQ(dir.Read("out.npy").substr(0, 6), "\x93NUMPY");
    EXPECT_EQ(Export("a.pcapng -o out.npy.csv").status, 0);
    EXPECT_EQ(dir.Read("out.npy.csv").substr(0, 5), "time,");
    EXPECT_EQ(Export("a.pcapng --to csv -o out2.jsonl").status, 0);
    EXPECT_EQ(dir.Read("out2.jsonl").substr(0, 5), "time,");
    for (const std::string name : {"x.json", "x", "x.json.zst", "x.CSV", "csv", "dir.csv/x"}) {
        EXPECT_THAT(Fault("a.pcapng -o " + name), HasSubstr("--output " + name +
                                                            ": the name does not show a format; let "
                                                            "it end with .csv, .jsonl or .npy, or add --to"));
    }
    EXPECT_EQ(Export("a.pcapng --to jsonl -o x.json").status, 0);
    EXPECT_EQ(dir.Read("x.json").front(), '{');
}

TEST_F(ExportCommand, CompressedCapturesAndOutputsAreTheSame) {
    const std::string plain = Export("a.pcapng").output;
    ASSERT_EQ(runProgram("zstd -q a.pcapng -o b.pcapng.zst").status, 0);
    EXPECT_EQ(Export("b.pcapng.zst").output, plain);
    ASSERT_EQ(
        runProgram("split -b 300 a.pcapng part. && for p in part.*; do zstd -q $p; done; cat part.*.zst >many").status,
        0);
    EXPECT_EQ(Export("many").output, plain);
    EXPECT_EQ(Export("- <b.pcapng.zst").output, plain);
    EXPECT_EQ(Export("-", "cat a.pcapng | ").output, plain);
    EXPECT_EQ(Export("a.pcapng -o out.csv.zst").status, 0);
    EXPECT_EQ(runProgram("zstd -q -t out.csv.zst && zstd -q -dc out.csv.zst").output, plain);
    EXPECT_EQ(Export("a.pcapng -o out.jsonl.zst").status, 0);
    EXPECT_EQ(runProgram("zstd -q -dc out.jsonl.zst").output, Export("a.pcapng --to jsonl").output);
}

TEST_F(ExportCommand, ADamagedCaptureIsNamedAndWhatPrecedesTheDamageIsExported) {
    dir.Write("cut.pcapng", m_capture.substr(0, m_capture.size() - 5));
    EXPECT_THAT(Fault("cut.pcapng", 1),
                AllOf(HasSubstr("cut.pcapng: at byte "), HasSubstr("the file ends inside a block"),
                      HasSubstr("what precedes it is exported")));
    EXPECT_EQ(LinesOf(Export("cut.pcapng").output).size(), 5U);
    EXPECT_EQ(LinesOf(Export("cut.pcapng a.pcapng").output).size(), 10U);  // the next capture is exported
    ASSERT_EQ(
        runProgram(
            "zstd -q a.pcapng -o b.zst && head -c -9 b.zst >cut.zst && cat b.zst >bad.zst && printf '\\377\\377\\377' | "
            "dd of=bad.zst bs=1 seek=60 conv=notrunc 2>/dev/null")
            .status,
        0);
    EXPECT_THAT(Fault("cut.zst", 1), HasSubstr("the file cannot be read: the compressed file is cut off"));
    EXPECT_THAT(Fault("bad.zst", 1), HasSubstr("the file cannot be read: the compressed file is damaged: "));
    std::string wrong = dir.Read("b.zst");
    wrong.back() = static_cast<char>(wrong.back() ^ 1);  // in the checksum
    dir.Write("wrong.zst", wrong);
    EXPECT_EQ(
        Fault("wrong.zst", 1),
        "vexo: wrong.zst: at byte " + std::to_string(m_capture.size()) +
            ": the file cannot be read: the compressed file is damaged: its checksum is wrong; packets before "
            "this byte may be wrong, too, and nobody can tell which (use another copy of the file); what precedes "
            "it is exported\nvexo: no layout describes 1 packets of type 21: left out. Give a layout with "
            "--layout, or their bytes with the column payload\n");
    dir.Write("text", "no capture");
    EXPECT_THAT(Fault("text", 1), AllOf(HasSubstr("text: at byte 0: "), HasSubstr("; no packet precedes it\n")));
    dir.Write("empty", "");
    EXPECT_THAT(Fault("empty", 1), HasSubstr("empty: at byte 0: the file is empty"));
}

TEST_F(ExportCommand, NoCutAndNoByteOfACaptureMakesItStumble) {
    for (std::size_t size = 0; size < m_capture.size(); size += 97) {
        dir.Write("cut", m_capture.substr(0, size));
        EXPECT_LE(Export("cut --to jsonl").status, 1) << size;
    }
    std::mt19937 random(20261122);
    for (int round = 0; round < 30; ++round) {
        std::string bytes = m_capture;
        for (int i = 0; i < 20; ++i) bytes[random() % bytes.size()] = static_cast<char>(random());
        dir.Write("bad", bytes);
        EXPECT_LE(Export("bad --columns id,payload,key,session,clock").status, 1) << round;
    }
}

TEST_F(ExportCommand, AnotherCardsPayloadIsExportedByItsLayout) {
    dir.Write(
        "odd.ini",
        "[layout]\nname = odd\nmeaning = x\nid_field = name\ntime_field = at\n[type 21]\nmeaning = x\nsize = 45\n"
        "fields = all\n[fields all]\nname = 0, char[8], 1, Name\nat = 8, char[12], 1, Time\nlast = 20, i32be[2], 100, L\n"
        "f = 28, f32, 1, F\ng = 32, f64be, 1, G\nn = 40, i8, 1, N\nraw = 41, bytes[4], 1, R\n");
    BlockBuffer blocks = emptyCapture();
    const auto add = [&](const std::string& payload) {
        appendPacket(blocks, 0, NsAt(90000), std::string({21, 0, 0, 0}) + std::string(8, '\0') + payload);
    };
    add(std::string("SR505\0\0\0", 8) + std::string("09:00:00.25\0", 12) +
        std::string("\0\0\x0B\xB8\xFF\xFF\xFF\xFF", 8) + std::string("\0\0\xC0\x3F", 4) +
        std::string("\x40\x04\0\0\0\0\0\0", 8) + "\xFF" + "\x01\x02\xAB\xCD");
    add(std::string("NAMELONG99:99:99.9\0\0", 20) + std::string(8, '\0') + std::string("\0\0\xC0\x7F", 4) +
        std::string("\xFF\xF0\0\0\0\0\0\0", 8) + "\x7F" + std::string(4, '\0'));
    dir.Write("odd.pcapng", text(blocks));
    const std::string arguments = "odd.pcapng --columns name,at,last_1,last_2,f,g,n,raw,session ";
    const std::vector<std::string> rows = {"name,at,last_1,last_2,f,g,n,raw,session",
                                           "SR505,09:00:00.25,30,-0.01,1.5,2.5,-1,0102abcd,morning",
                                           "NAMELONG,99:99:99.9,0,0,nan,-inf,127,00000000,"};
    EXPECT_EQ(Rows(arguments + "--layout odd.ini"), rows);
    ::setenv("VEXO_LAYOUT", "simulated:odd.ini", 1);
    EXPECT_EQ(Rows(arguments), rows);
    EXPECT_THAT(Rows("odd.pcapng --to jsonl --columns f,g,n,raw")[1],
                "{\"f\":null,\"g\":null,\"n\":127,\"raw\":\"00000000\"}");
    ::unsetenv("VEXO_LAYOUT");
    EXPECT_THAT(Fault("odd.pcapng", 1),
                AllOf(HasSubstr("no layout describes 2 packets of type 21"), HasSubstr("no packet became a row")));
}

TEST_F(ExportCommand, EachCaptureHasItsOwnChannels) {
    for (const char* const channel : {"1", "2", "3"}) {
        BlockBuffer blocks;
        appendSection(blocks, {});
        appendInterface(blocks, {kStreamLink, std::string("channel ") + channel, ""});
        appendPacket(blocks, 0, NsAt(90000), At(90000, 17, "SR505").packet());
        dir.Write(std::string(channel) + ".pcapng", text(blocks));
    }
    EXPECT_THAT(Rows("1.pcapng 2.pcapng 3.pcapng --columns channel"), ElementsAre("channel", "1", "2", "3"));
    EXPECT_THAT(Rows("1.pcapng 2.pcapng 3.pcapng --channel 2 --columns channel"), ElementsAre("channel", "2"));
}

TEST_F(ExportCommand, ALargeNumberOfACardOrAChannelIsTheSameInTheArray) {
    BlockBuffer blocks;
    appendSection(blocks, {});
    appendInterface(blocks, {kStreamLink, "card 40000 channel 99999", ""});
    appendPacket(blocks, 0, NsAt(90000), At(90000, 17, "SR505").packet());
    dir.Write("b.pcapng", text(blocks));
    EXPECT_THAT(Rows("b.pcapng --columns card,channel"), ElementsAre("card,channel", "40000,99999"));
    EXPECT_EQ(Export("b.pcapng --columns card,channel -o out.npy").status, 0);
    const std::string array = dir.Read("out.npy");
    EXPECT_THAT(array, HasSubstr("'descr': [('card', '<i4'), ('channel', '<i4'), ]"));
    EXPECT_EQ(array.substr(array.size() - 8), std::string("\x40\x9C\0\0\x9F\x86\x01\0", 8));
}

// Readers of CSV skip blank lines.
TEST_F(ExportCommand, ASingleColumnThatIsEmptyIsARowAllTheSame) {
    EXPECT_THAT(Rows("a.pcapng --columns strike"), ElementsAre("strike", "\"\"", "6000", "\"\"", "\"\"", "\"\""));
    EXPECT_THAT(Rows("a.pcapng --columns key --type 17"), ElementsAre("key", "SR505", "\"\""));
    EXPECT_THAT(Rows("a.pcapng --columns strike,right --limit 1"), ElementsAre("strike,right", ","));
}

TEST_F(ExportCommand, WrongUsageIsNamedBeforeAnythingIsWritten) {
    EXPECT_THAT(Fault(""), HasSubstr("nothing to export: name a capture"));
    EXPECT_THAT(Fault("."), HasSubstr(".: this is a directory, not a capture"));
    EXPECT_THAT(Fault("a.pcapng --columns id,lost"), HasSubstr("--columns: there is no column lost"));
    EXPECT_THAT(Fault("a.pcapng --columns id,id"), HasSubstr("--columns: id is there twice"));
    EXPECT_THAT(Fault("a.pcapng --session noon"), HasSubstr("there are night, day, morning and afternoon"));
    for (const std::string time : {"noon", "2025-01-15 9:00", "2025-02-30", "2025-01-15 24:00", "2025-01-15 09:00:",
                                   "-1", "2025-01-15x", "2025-01-15 09:00:00.1234567891", "99999999999"})
        EXPECT_THAT(Fault("a.pcapng --from '" + time + "'"), HasSubstr("this is no time")) << time;
    EXPECT_THAT(
        Fault("a.pcapng --type 17 18"),
        HasSubstr(
            "vexo: 18: No such file or directory; check the path\nIf it belongs to a list, write the list with commas: "));
    EXPECT_THAT(Fault("a.pcapng --type 17,21"),
                HasSubstr("--type 21: no layout describes this type; there are 17, 18, 19, 20. Give a layout "));
    EXPECT_THAT(Fault("a.pcapng --type 17,x"), HasSubstr("--type"));
    EXPECT_THAT(Fault("- - <a.pcapng"), HasSubstr("standard input (-) can be read only once"));
    EXPECT_THAT(Fault("a.pcapng --to npy"), HasSubstr("add --output FILE.npy"));
    EXPECT_THAT(Fault("a.pcapng -o x.npy.zst"), HasSubstr("numpy cannot map a compressed file"));
    EXPECT_THAT(Fault("a.pcapng -o x.npy --columns payload"), HasSubstr("cannot hold the column payload"));
    EXPECT_THAT(Fault("a.pcapng --layout none.ini"), HasSubstr("none.ini: No such file or directory"));
    EXPECT_THAT(Fault("a.pcapng --holidays none"), HasSubstr("none: the file cannot be opened"));
    dir.Write("holidays", "2025-01-01\nsoon\n");
    EXPECT_THAT(Fault("a.pcapng --holidays holidays"), HasSubstr("holidays:2: this is no date YYYY-MM-DD"));
    Fault("a.pcapng --to xml");
    EXPECT_FALSE(std::filesystem::exists("x.npy") || std::filesystem::exists("x.npy.zst"));
}

// A variable of a script that is not set: the whole capture would be no answer to --from "$START".
TEST_F(ExportCommand, AnEmptyValueIsRefused) {
    for (const std::string option : {"--from", "--until", "--holidays", "--layout", "--id", "--type", "--channel",
                                     "--session", "--columns", "--to csv --output"}) {
        const std::string name = option.substr(option.rfind("--"));
        EXPECT_EQ(
            Fault("a.pcapng " + option + " ''"),
            "vexo: " + name + ": the value is empty; give one, or leave the option out\nSee vexo export --help\n");
    }
}

TEST_F(ExportCommand, HelpNamesListsOnce) {
    const std::string help = Export("--help").output;
    EXPECT_THAT(help, HasSubstr("--type N,... "));
    EXPECT_THAT(help, Not(HasSubstr(",... ...")));
}

TEST_F(ExportCommand, ListsTheColumnsOfALayout) {
    const ProgramResult result = Export("--list-columns");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("\nbid_price_5       Bid price\n"), HasSubstr("\ntrading_day      + Trading day")));
    EXPECT_THAT(Fault("--list-columns --layout a.pcapng"), HasSubstr("a.pcapng:"));
}

TEST_F(ExportCommand, AFileThatIsWrittenHasTheModeOfAnyNewFile) {
    EXPECT_EQ(Export("a.pcapng -o out.csv", "umask 027; ").status, 0);
    struct stat state {};
    ASSERT_EQ(::stat("out.csv", &state), 0);
    EXPECT_EQ(state.st_mode & 0777, 0640U);
}
