#include "tests/support/TimeZone.h"
#include "tests/unit/dayfile/DayFileFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using DayFileLoad = DayFile;

const std::string kHeader = "inst_index,inst_id\n";
const std::string kEnd = "bin_file_over_tag\n";

// ---- which file ----

TEST(DayFilePath, IsTheMorningFileUpTo1659AndTheEveningFileFrom1700) {
    InstMap insts;
    CBrixBinFile bin(insts, 0);
    test_support::FakeTime clock(2093, 3, 9, 0, 0, 0);
    for (int hour = 0; hour < 24; ++hour) {
        for (const int minute : {0, 59}) {
            clock.SetLocal(2093, 3, 9, hour, minute, minute);
            const std::string half = hour <= 16 ? "am" : "pm";

            EXPECT_THAT(LogOf([&bin] { EXPECT_EQ(bin.CheckOrLoadBinFile(), -1); }),
                        ElementsAre("INFO bin file is not exists , [/tmp/.zce_20930309_" + half + "]."));
        }
    }
}

TEST(DayFilePath, HasTwoDigitsForMonthAndDay) {
    InstMap insts;
    CBrixBinFile bin(insts, 0);
    const test_support::FakeTime clock(2094, 12, 31, 8, 55, 0);

    EXPECT_THAT(LogOf([&bin] { bin.CheckOrLoadBinFile(); }),
                ElementsAre("INFO bin file is not exists , [/tmp/.zce_20941231_am]."));
}

TEST(DayFilePath, FollowsATimeZoneThatIsSetWithoutTzset) {
    InstMap insts;
    CBrixBinFile bin(insts, 0);
    test_support::FakeTime clock;
    clock.SetEpoch(3886963200);  // 2093-03-04 00:00:00 UTC
    std::vector<std::string> log;

    for (const char* name : {"UTC0", "XST-18", "YST1"}) {
        const test_support::TimeZone zone(name);
        for (const std::string& line : LogOf([&bin] { bin.CheckOrLoadBinFile(); })) log.push_back(line);
    }

    EXPECT_THAT(log, ElementsAre("INFO bin file is not exists , [/tmp/.zce_20930304_am].",
                                 "INFO bin file is not exists , [/tmp/.zce_20930304_pm].",
                                 "INFO bin file is not exists , [/tmp/.zce_20930303_pm]."));
}

TEST_F(DayFileLoad, EachHalfDayLoadsItsOwnFile) {
    WriteFile(morning, kHeader + "1,MORNING\n" + kEnd);
    WriteFile(evening, kHeader + "2,EVENING\n" + kEnd);
    clock.Advance(7 * 3600);

    LogOf([this] { bin.CheckOrLoadBinFile(); });

    EXPECT_THAT(insts, ElementsAre(Pair("EVENING", 2)));
}

TEST_F(DayFileLoad, TheFileOfYesterdayIsNotLoaded) {
    WriteFile(morning, kHeader + "1,SR505\n" + kEnd);
    clock.Advance(86400);
    int result = 0;

    LogOf([&] { result = bin.CheckOrLoadBinFile(); });

    EXPECT_EQ(result, -1);
    EXPECT_THAT(insts, IsEmpty());
}

TEST_F(DayFileLoad, AMissingFileLeavesTheMapAsItIs) {
    insts["SR505"] = 7;
    int result = 0;

    log = LogOf([&] { result = bin.CheckOrLoadBinFile(); });

    EXPECT_EQ(result, -1);
    EXPECT_THAT(log, ElementsAre("INFO bin file is not exists , [" + morning + "]."));
    EXPECT_THAT(insts, ElementsAre(Pair("SR505", 7)));
}

// ---- content ----

TEST_F(DayFileLoad, ACompleteFileFillsTheMap) {
    EXPECT_EQ(Load(kHeader + "0,AP510\n65535,SPD-SR505/SR509\n4094,SR505C6000\n" + kEnd), 0);

    EXPECT_THAT(insts, ElementsAre(Pair("AP510", 0), Pair("SPD-SR505/SR509", 65535), Pair("SR505C6000", 4094)));
    EXPECT_THAT(log, ElementsAre("INFO Get file end flag is success.", "INFO m_Intrade_AllInstMap size is [3].",
                                 "INFO loading bin file is success"));
}

TEST_F(DayFileLoad, AFileWithoutTheEndTagGivesAnEmptyMap) {
    EXPECT_EQ(Load(kHeader + "1,SR505\n2,SR507\n3,SR509\n"), -1);

    EXPECT_THAT(insts, IsEmpty());
    EXPECT_THAT(log, ElementsAre("INFO m_Intrade_AllInstMap size is [3].", "INFO loading bin file is fail"));
}

TEST_F(DayFileLoad, AFileWithTheEndTagAndNoInstrumentFails) {
    EXPECT_EQ(Load(kHeader + kEnd), -1);

    EXPECT_THAT(log, ElementsAre("INFO Get file end flag is success.", "INFO m_Intrade_AllInstMap size is [0].",
                                 "INFO loading bin file is fail"));
}

TEST_F(DayFileLoad, AnEmptyFileFails) {
    EXPECT_EQ(Load(""), -1);

    EXPECT_THAT(log, ElementsAre("INFO m_Intrade_AllInstMap size is [0].", "INFO loading bin file is fail"));
}

TEST_F(DayFileLoad, AFailedLoadAlsoEmptiesWhatTheMapHeldBefore) {
    insts["OLD"] = 1;

    EXPECT_EQ(Load(kHeader + "5,SR505\n"), -1);

    EXPECT_THAT(insts, IsEmpty());
}

TEST_F(DayFileLoad, ASuccessfulLoadAddsToWhatTheMapHeldBefore) {
    insts["OLD"] = 1;
    insts["SR505"] = 2;

    EXPECT_EQ(Load(kHeader + "5,SR505\n6,SR507\n" + kEnd), 0);

    EXPECT_THAT(insts, ElementsAre(Pair("OLD", 1), Pair("SR505", 2), Pair("SR507", 6)));
}

TEST_F(DayFileLoad, TheFirstLineOfAnIdentifierWins) {
    EXPECT_EQ(Load(kHeader + "5,SR505\n9,SR505\n" + kEnd), 0);

    EXPECT_THAT(insts, ElementsAre(Pair("SR505", 5)));
}

TEST_F(DayFileLoad, TheFirstLineOfAnIdentifierWinsForEveryLength) {
    std::string content = kHeader;
    InstMap expected;
    for (const int turn : {0, 100, 200}) {
        for (int length = 40; length >= 0; --length) {
            for (const char last : {'A', '\0', '\xFF'}) {
                const std::string id = std::string(static_cast<std::size_t>(length), 'S') + last;
                content += std::to_string(turn + length) + ',' + id + '\n';
                expected.emplace(id, turn + length);
            }
        }
    }

    EXPECT_EQ(Load(content + kEnd), 0);

    EXPECT_EQ(insts, expected);
}

TEST_F(DayFileLoad, ALineWithoutACommaIsSkippedSilently) {
    EXPECT_EQ(Load(kHeader + "12\n\n1,SR505\n" + kEnd), 0);

    EXPECT_THAT(insts, ElementsAre(Pair("SR505", 1)));
    EXPECT_THAT(log, ElementsAre("INFO Get file end flag is success.", "INFO m_Intrade_AllInstMap size is [1].",
                                 "INFO loading bin file is success"));
}

TEST_F(DayFileLoad, AnIndexIsItsLeadingDigitsAndZeroWithoutAny) {
    EXPECT_EQ(Load("x,NONE\n,MISSING\n12abc,LEADING\n007,ZEROES\n" + kEnd), 0);

    EXPECT_THAT(insts, ElementsAre(Pair("LEADING", 12), Pair("MISSING", 0), Pair("NONE", 0), Pair("ZEROES", 7)));
}

TEST_F(DayFileLoad, AnIndexIsKeptModulo65536) {
    EXPECT_EQ(Load("65535,A\n65536,B\n65537,C\n131080,D\n4294967299,E\n" + kEnd), 0);

    EXPECT_THAT(insts, ElementsAre(Pair("A", 65535), Pair("B", 0), Pair("C", 1), Pair("D", 8), Pair("E", 3)));
}

TEST_F(DayFileLoad, AnIndexBeyondEveryIntegerIsNoReasonToFail) {
    EXPECT_EQ(Load(std::string(400, '9') + ",HUGE\n1,SR505\n" + kEnd), 0);

    EXPECT_EQ(insts.at("SR505"), 1);
    EXPECT_EQ(insts.size(), 2u);
}

TEST_F(DayFileLoad, TheIdentifierIsEverythingBehindTheFirstComma) {
    EXPECT_EQ(Load("1,SR505,x\n2, SR 507 \n3,\n" + kEnd), 0);

    EXPECT_THAT(insts, ElementsAre(Pair("", 3), Pair(" SR 507 ", 2), Pair("SR505,x", 1)));
}

TEST_F(DayFileLoad, TheHeaderIsSkippedWhereverItStands) {
    EXPECT_EQ(Load("1,SR505\n" + kHeader + "2,SR507\n" + kHeader + kEnd), 0);

    EXPECT_THAT(insts, ElementsAre(Pair("SR505", 1), Pair("SR507", 2)));
}

TEST_F(DayFileLoad, AFileWithoutAHeaderIsLoaded) {
    EXPECT_EQ(Load("1,SR505\n" + kEnd), 0);

    EXPECT_THAT(insts, ElementsAre(Pair("SR505", 1)));
}

TEST_F(DayFileLoad, LinesBehindTheEndTagAreLoadedAndEachTagIsLogged) {
    EXPECT_EQ(Load(kHeader + kEnd + "1,SR505\n" + kEnd + "2,SR507\n"), 0);

    EXPECT_THAT(insts, ElementsAre(Pair("SR505", 1), Pair("SR507", 2)));
    EXPECT_THAT(log, ElementsAre("INFO Get file end flag is success.", "INFO Get file end flag is success.",
                                 "INFO m_Intrade_AllInstMap size is [2].", "INFO loading bin file is success"));
}

TEST_F(DayFileLoad, OnlyAWholeLineIsTheEndTag) {
    for (const char* line : {"bin_file_over_tag ", " bin_file_over_tag", "bin_file_over_tagX", "bin_file_over_ta",
                             "BIN_FILE_OVER_TAG", "1,bin_file_over_tag"}) {
        EXPECT_EQ(Load(kHeader + "1,SR505\n" + line + '\n'), -1) << line;
    }
}

TEST_F(DayFileLoad, AFileWithCarriageReturnsIsNotLoaded) {
    EXPECT_EQ(Load("inst_index,inst_id\r\n1,SR505\r\nbin_file_over_tag\r\n"), -1);

    EXPECT_THAT(insts, IsEmpty());
    EXPECT_THAT(log, ElementsAre("INFO m_Intrade_AllInstMap size is [2].", "INFO loading bin file is fail"));
}

TEST_F(DayFileLoad, OfAllCutsOnlyTheMissingLastLineFeedIsHarmless) {
    const std::string whole = kHeader + "1,SR505\n22,SR507\n333,IPS-SF505/SM505\n" + kEnd;
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        insts.clear();
        const bool complete = size >= whole.size() - 1;

        EXPECT_EQ(Load(whole.substr(0, size)), complete ? 0 : -1) << size;

        EXPECT_EQ(insts.size(), complete ? 3u : 0u) << size;
    }
}

TEST_F(DayFileLoad, EveryByteMayStandInAnIdentifierButTheLineFeed) {
    std::string id;
    for (int byte = 0; byte < 256; ++byte) {
        if (byte != '\n') id += static_cast<char>(byte);
    }

    EXPECT_EQ(Load("9," + id + '\n' + kEnd), 0);

    EXPECT_THAT(insts, ElementsAre(Pair(id, 9)));
}

TEST_F(DayFileLoad, AFileOfManyReadsIsLoadedWhole) {
    std::string content = kHeader;
    for (int index = 0; index < 40000; ++index) content += std::to_string(index) + ",ID" + std::to_string(index) + '\n';

    EXPECT_EQ(Load(content + kEnd), 0);

    EXPECT_EQ(insts.size(), 40000u);
    EXPECT_EQ(insts.at("ID39999"), 39999);
}

TEST_F(DayFileLoad, TheFileIsClosedOnEveryReturn) {
    const std::size_t before = OpenDescriptors();

    Load(kHeader + "1,SR505\n" + kEnd);
    Load(kHeader);

    EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace
