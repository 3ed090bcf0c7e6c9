#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "src/channel/DmaChannel.h"
#include "src/log/elog.h"
#include "tests/support/TempDir.h"
#include "tests/unit/dayfile/DayFileFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace fs = std::filesystem;

constexpr char kKey[] = "contract's_corresponding_time=";

/// 09:10:11 on 3 March 2025 in an empty working directory; the map holds two instruments.
class IntradayFile : public testing::Test {
protected:
    IntradayFile() { CZceDmaChanImpl::g_uiContractSettleTm = 91500; }
    ~IntradayFile() override { CZceDmaChanImpl::g_uiContractSettleTm = 0; }

    void OpenForReading(const std::string& content) {
        dir.Write("bin", content);
        bin->m_lpIntradeFile = std::fopen("bin", "r");
    }

    std::string Content() {
        std::fflush(nullptr);
        return dir.Read("bin");
    }

    test_support::FakeTime clock{2025, 3, 3, 9, 10, 11};
    test_support::TempDir dir;
    InstMap insts{{"SR505", 7}, {"AP510", 65535}};
    std::unique_ptr<CBrixBinFile> bin = std::make_unique<CBrixBinFile>(insts, 3);
    std::vector<std::string> log;
    int result = -2;
};

TEST_F(IntradayFile, ANewObjectHasNothingOpenAndNoCreationTime) {
    EXPECT_EQ(&bin->m_Intrade_AllInstMap, &insts);
    EXPECT_EQ(bin->m_ulCreateTime, 0u);
    EXPECT_EQ(bin->m_lpIntradeFile, nullptr);
    EXPECT_EQ(bin->m_uiChannel, 3u);
}

TEST_F(IntradayFile, TheDestructorClosesTheFile) {
    const std::size_t before = OpenDescriptors();
    bin->Normal_FileInit();

    bin.reset();

    EXPECT_EQ(OpenDescriptors(), before);
}

// ---- writing ----

TEST_F(IntradayFile, InitEmptiesTheFile) {
    dir.Write("bin", "old");

    log = LogOf([this] { result = bin->Normal_FileInit(); });

    EXPECT_EQ(result, 0);
    EXPECT_THAT(Content(), IsEmpty());
    EXPECT_NE(bin->m_lpIntradeFile, nullptr);
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(IntradayFile, AWrittenInstrumentIsInTheFileAtOnce) {
    bin->Normal_FileInit();

    bin->Normal_WriteInstToBin("SR505", 7);

    EXPECT_EQ(dir.Read("bin"), "7,SR505\n");
}

TEST_F(IntradayFile, InitAgainLosesNoDescriptor) {
    bin->Normal_FileInit();
    const std::size_t before = OpenDescriptors();

    bin->Normal_FileInit();

    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(IntradayFile, InitFailsWhereTheFileCannotBeOpened) {
    fs::create_directory("bin");

    log = LogOf([this] { result = bin->Normal_FileInit(); });

    EXPECT_EQ(result, -1);
    EXPECT_THAT(log, ElementsAre("WARN Fail! Unable to open file bin,msg:Is a directory"));
    EXPECT_EQ(bin->m_lpIntradeFile, nullptr);
}

TEST_F(IntradayFile, AnInstrumentIsWrittenLoggedAndOnDiskAtOnce) {
    bin->Normal_FileInit();

    std::string onDisk;
    log = LogOf([this, &onDisk] {
        result = bin->Normal_WriteInstToBin("SPD-SR505/SR509", 65535);
        onDisk = dir.Read("bin");
    });

    EXPECT_EQ(result, 0);
    EXPECT_EQ(onDisk, "65535,SPD-SR505/SR509\n");
    EXPECT_THAT(log, ElementsAre("INFO Write to bin :index:65535,inst:SPD-SR505/SR509,"));
}

TEST_F(IntradayFile, AnInstrumentLineIsCutAt127Characters) {
    for (std::size_t length = 120; length <= 135; ++length) {
        const std::string id(length, 'x');
        bin->Normal_FileInit();

        LogOf([&] { bin->Normal_WriteInstToBin(id, 12); });

        EXPECT_EQ(dir.Read("bin"), ("12," + id + '\n').substr(0, 127)) << length;
    }
}

TEST_F(IntradayFile, WithoutAnOpenFileAnInstrumentIsNeitherWrittenNorLogged) {
    log = LogOf([this] { bin->Normal_WriteInstToBin("SR505", 1); });

    EXPECT_THAT(log, IsEmpty());
    EXPECT_FALSE(fs::exists("bin"));
}

TEST_F(IntradayFile, TheWholeMapIsWrittenBetweenTwoTimesAndTheEndTag) {
    log = LogOf([this] { result = bin->Intrade_WrInstFromFpga(); });

    EXPECT_EQ(result, 0);
    EXPECT_EQ(dir.Read("bin"),
              "contract's_corresponding_time=20250303091011\n"
              "65535,AP510\n"
              "7,SR505\n"
              "contract's_corresponding_time=20250303091500\n"
              "bin_file_over_tag");
    EXPECT_THAT(log, ElementsAre("INFO Write end tag to bin."));
}

TEST_F(IntradayFile, WritingTheWholeMapFailsWhereTheFileCannotBeOpened) {
    fs::create_directory("bin");

    log = LogOf([this] { result = bin->Intrade_WrInstFromFpga(); });

    EXPECT_EQ(result, -1);
    EXPECT_THAT(log, ElementsAre("WARN Fail! Unable to open file bin,msg:Is a directory"));
}

TEST_F(IntradayFile, AFileThatCannotBeOpenedIsReportedByTheOperationThatWasCalled) {
    fs::create_directory("bin");

    log = LogOf([this] {
        elog_set_fmt(ELOG_LVL_WARN, ELOG_FMT_FUNC);
        bin->Normal_FileInit();
        bin->Intrade_WrInstFromFpga();
    });

    EXPECT_THAT(log, ElementsAre("(Normal_FileInit)Fail! Unable to open file bin,msg:Is a directory",
                                 "(Intrade_WrInstFromFpga)Fail! Unable to open file bin,msg:Is a directory"));
}

TEST_F(IntradayFile, TheEndStoresTheSettlementTimeWithItsDateBackIntoTheGlobal) {
    bin->Normal_FileInit();

    std::string onDisk;
    log = LogOf([&] {
        result = bin->WriteEndToBin();
        onDisk = dir.Read("bin");  // before anything else flushes it
    });

    EXPECT_EQ(result, 0);
    EXPECT_EQ(onDisk, "contract's_corresponding_time=20250303091500\nbin_file_over_tag");
    EXPECT_EQ(CZceDmaChanImpl::g_uiContractSettleTm, static_cast<std::uint32_t>(20250303091500UL));
    EXPECT_THAT(log, ElementsAre("INFO Write end tag to bin."));
}

TEST_F(IntradayFile, WithoutAnOpenFileTheEndChangesNothing) {
    log = LogOf([this] { result = bin->WriteEndToBin(); });

    EXPECT_EQ(result, -1);
    EXPECT_THAT(log, IsEmpty());
    EXPECT_EQ(CZceDmaChanImpl::g_uiContractSettleTm, 91500u);
}

// ---- completeness ----

TEST_F(IntradayFile, IsCompleteWithALineThatBeginsWithTheEndTag) {
    OpenForReading("1,SR505\nbin_file_over_tag and more\n");

    log = LogOf([this] { EXPECT_TRUE(bin->Intrade_IsBinComplete()); });

    EXPECT_THAT(log, IsEmpty());
}

TEST_F(IntradayFile, IsNotCompleteWithTheTagBehindTheStartOfALine) {
    OpenForReading("1,SR505\n bin_file_over_tag\n");

    log = LogOf([this] { EXPECT_FALSE(bin->Intrade_IsBinComplete()); });

    EXPECT_THAT(log,
                ElementsAre("WARN  contract's_corresponding_time= not found in the file. bin file  is not complete."));
}

TEST_F(IntradayFile, CompletenessReadsFromTheStartEachTime) {
    OpenForReading("bin_file_over_tag\n");

    LogOf([this] {
        EXPECT_TRUE(bin->Intrade_IsBinComplete());
        EXPECT_TRUE(bin->Intrade_IsBinComplete());
    });
}

TEST_F(IntradayFile, IsNotCompleteWithoutAnOpenFile) {
    log = LogOf([this] { EXPECT_FALSE(bin->Intrade_IsBinComplete()); });

    EXPECT_THAT(log,
                ElementsAre("WARN  contract's_corresponding_time= not found in the file. bin file  is not complete."));
}

// ---- creation time ----

TEST_F(IntradayFile, TheCreationTimeIsThatOfTheFirstTimeLine) {
    OpenForReading(std::string("1,SR505\n") + kKey + "20250303085900\n" + kKey + "20250303091500\n");

    log = LogOf([this] { result = bin->Intrade_ExtractBinCreTime(); });

    EXPECT_EQ(result, 0);
    EXPECT_EQ(bin->m_ulCreateTime, 20250303085900u);
    EXPECT_THAT(log, ElementsAre("INFO contract's_corresponding_time=20250303085900"));
}

TEST_F(IntradayFile, WithoutATimeLineThereIsNoCreationTime) {
    OpenForReading(std::string("1,SR505\n x") + kKey + "20250303085900\n");

    log = LogOf([this] { result = bin->Intrade_ExtractBinCreTime(); });

    EXPECT_EQ(result, -1);
    EXPECT_EQ(bin->m_ulCreateTime, 0u);
    EXPECT_THAT(log, ElementsAre("WARN Error: 'contract's_corresponding_time=' not found in the file.", ""));
}

TEST_F(IntradayFile, WithoutAnOpenFileThereIsNoCreationTime) {
    log = LogOf([this] { result = bin->Intrade_ExtractBinCreTime(); });

    EXPECT_EQ(result, -1);
    EXPECT_THAT(log, ElementsAre("WARN Error: 'contract's_corresponding_time=' not found in the file.", ""));
}

// ---- validity ----

class IntradayValidity : public IntradayFile {
protected:
    /// The result for a file created on 3 March 2025 at this time of day, seen at this hour of the same day.
    int At(int hour, unsigned long created) {
        clock.SetLocal(2025, 3, 3, hour, 5, 9);
        bin->m_ulCreateTime = 20250303000000UL + created;
        log = LogOf([this] { result = bin->Intrade_ChkBinTimeValidate(); });
        return result;
    }
};

TEST_F(IntradayValidity, BeforeThreeAFileOf080000To102959IsValid) {
    for (const int hour : {0, 9, 14}) {
        for (const unsigned long created : {80000UL, 90000UL, 102959UL}) {
            EXPECT_EQ(At(hour, created), 0) << hour << ' ' << created;
            EXPECT_THAT(log, IsEmpty());
        }
        for (const unsigned long created : {0UL, 75959UL, 103000UL, 200000UL, 235959UL})
            EXPECT_EQ(At(hour, created), -1) << hour << ' ' << created;
    }
}

TEST_F(IntradayValidity, FromThreeOnAFileOf200000To215959IsValid) {
    for (const int hour : {15, 20, 23}) {
        for (const unsigned long created : {200000UL, 210000UL, 215959UL}) {
            EXPECT_EQ(At(hour, created), 0) << hour << ' ' << created;
            EXPECT_THAT(log, IsEmpty());
        }
        for (const unsigned long created : {0UL, 80000UL, 102959UL, 195959UL, 220000UL})
            EXPECT_EQ(At(hour, created), -1) << hour << ' ' << created;
    }
}

TEST_F(IntradayValidity, AWrongMorningTimeIsLogged) {
    At(14, 103000);

    EXPECT_THAT(log, ElementsAre("WARN BinCreTime is not in the current date's 8-9 AM range.current "
                                 "time:20250303140509, bintime:20250303103000."));
}

TEST_F(IntradayValidity, AWrongEveningTimeIsLogged) {
    At(15, 220000);

    EXPECT_THAT(log, ElementsAre("WARN BinCreTime is not in the current date's 8-9 PM range. current "
                                 "time:20250303150509, Bintime:20250303220000."));
}

TEST_F(IntradayValidity, AFileOfAnotherDayIsNeverValidAndNotLogged) {
    for (const unsigned long day : {20250302UL, 20250304UL, 20240303UL, 0UL}) {
        for (const unsigned long time : {90000UL, 203000UL}) {
            for (const int hour : {9, 21}) {
                clock.SetLocal(2025, 3, 3, hour, 0, 0);
                bin->m_ulCreateTime = day * 1000000 + time;

                log = LogOf([this] { result = bin->Intrade_ChkBinTimeValidate(); });

                EXPECT_EQ(result, -1) << day << ' ' << time;
                EXPECT_THAT(log, IsEmpty());
            }
        }
    }
}

// ---- loading ----

TEST_F(IntradayFile, LoadingOverwritesAndSkipsWhatIsNoInstrument) {
    OpenForReading(std::string(kKey) + "20250303085900\n" + "9,SR505\n12,SR507\n65537,SR509\n13,SR507\n" +
                   "1,A,B\n\n,\n5\nbin_file_over_tag");

    log = LogOf([this] { result = bin->Intrade_GetAllInstFromBin(); });

    EXPECT_EQ(result, 0);
    EXPECT_THAT(insts, ElementsAre(Pair("AP510", 65535), Pair("SR505", 9), Pair("SR507", 13), Pair("SR509", 1)));
    EXPECT_THAT(log,
                ElementsAre("WARN Invalid format!we skip line 1: contract's_corresponding_time=20250303085900", "",
                            "INFO Loading from bin: Index:9,Instructmentid:SR505, lineNumber:2.",
                            "INFO Loading from bin: Index:12,Instructmentid:SR507, lineNumber:3.",
                            "INFO Loading from bin: Index:1,Instructmentid:SR509, lineNumber:4.",
                            "INFO Loading from bin: Index:13,Instructmentid:SR507, lineNumber:5.",
                            "WARN Invalid format!we skip line 6: 1,A,B", "", "WARN Invalid format!we skip line 7: ", "",
                            "WARN Invalid format!we skip line 8: ,", "", "WARN Invalid format!we skip line 9: 5", "",
                            "WARN Invalid format!we skip line 10: bin_file_over_tag", "INFO Loading over!"));
}

TEST_F(IntradayFile, AMarkInTheMiddleOfALongLineIsNone) {
    for (const std::size_t before : {1, 254, 255, 256, 510, 765}) {
        const std::string filler(before, 'x');
        OpenForReading(filler + "bin_file_over_tag\n" + filler + kKey + "20250303091011\n");

        LogOf([this] {
            EXPECT_FALSE(bin->Intrade_IsBinComplete());
            EXPECT_EQ(bin->Intrade_ExtractBinCreTime(), -1);
        });

        std::fclose(bin->m_lpIntradeFile);
        bin->m_lpIntradeFile = nullptr;
    }
}

TEST_F(IntradayFile, AMarkAtTheBeginningOfALineCountsBehindLongLinesAndAtTheBeginningOfALongLine) {
    const std::string filler(1000, 'x');
    OpenForReading(filler + '\n' + kKey + "20250303091011" + filler + "\n\n" + filler + "\nbin_file_over_tag" + filler);

    LogOf([this] {
        EXPECT_TRUE(bin->Intrade_IsBinComplete());
        EXPECT_EQ(bin->Intrade_ExtractBinCreTime(), 0);
    });

    EXPECT_EQ(bin->m_ulCreateTime, 20250303091011u);
}

TEST_F(IntradayFile, ALineOfMoreThan255CharactersIsReadInPieces) {
    const std::string id(252, 'x');
    OpenForReading("1," + id + "\n2," + id + "x\n");

    LogOf([this] { bin->Intrade_GetAllInstFromBin(); });

    insts.erase("SR505");
    insts.erase("AP510");
    EXPECT_THAT(insts, ElementsAre(Pair(id, 1)));
}

TEST_F(IntradayFile, NothingIsLoadedWithoutAnOpenFile) {
    log = LogOf([this] { result = bin->Intrade_GetAllInstFromBin(); });

    EXPECT_EQ(result, -1);
    EXPECT_THAT(log, IsEmpty());
}

// ---- check and load ----

class IntradayCheck : public IntradayFile {
protected:
    void Check(const std::string& content) {
        dir.Write("bin", content);
        insts.clear();
        log = LogOf([this] { result = bin->Intrade_CheckAndGetAllInstFromBin(); });
    }
};

TEST_F(IntradayCheck, AValidFileIsLoaded) {
    Check(std::string(kKey) + "20250303085900\n5,SR505\nbin_file_over_tag");

    EXPECT_EQ(result, 0);
    EXPECT_THAT(insts, ElementsAre(Pair("SR505", 5)));
    EXPECT_THAT(log, ElementsAre("INFO contract's_corresponding_time=20250303085900", "INFO Bin is validate",
                                 "WARN Invalid format!we skip line 1: contract's_corresponding_time=20250303085900", "",
                                 "INFO Loading from bin: Index:5,Instructmentid:SR505, lineNumber:2.",
                                 "WARN Invalid format!we skip line 3: bin_file_over_tag", "INFO Loading over!",
                                 "INFO [channel:3] Current bin total inst count:1."));
}

TEST_F(IntradayCheck, WhatWasWrittenIsLoadedAgain) {
    LogOf([this] { bin->Intrade_WrInstFromFpga(); });
    insts.clear();

    LogOf([this] { result = bin->Intrade_CheckAndGetAllInstFromBin(); });

    EXPECT_EQ(result, 0);
    EXPECT_THAT(insts, ElementsAre(Pair("AP510", 65535), Pair("SR505", 7)));
}

TEST_F(IntradayCheck, AMissingFileFails) {
    log = LogOf([this] { result = bin->Intrade_CheckAndGetAllInstFromBin(); });

    EXPECT_EQ(result, -1);
    EXPECT_THAT(log, ElementsAre("WARN Cannot open file:bin, errmsg:No such file or directory"));
}

TEST_F(IntradayCheck, AnIncompleteFileFails) {
    Check(std::string(kKey) + "20250303085900\n5,SR505\n");

    EXPECT_EQ(result, -1);
    EXPECT_THAT(insts, IsEmpty());
    EXPECT_THAT(log,
                ElementsAre("WARN  contract's_corresponding_time= not found in the file. bin file  is not complete.",
                            "WARN Bin file is not complete."));
}

TEST_F(IntradayCheck, AFileWithoutATimeFails) {
    Check("5,SR505\nbin_file_over_tag");

    EXPECT_EQ(result, -1);
    EXPECT_THAT(log, ElementsAre("WARN Error: 'contract's_corresponding_time=' not found in the file.", "",
                                 "WARN Bin time check fail."));
}

TEST_F(IntradayCheck, AFileOfAnotherDayFails) {
    Check(std::string(kKey) + "20250302085900\n5,SR505\nbin_file_over_tag");

    EXPECT_EQ(result, -1);
    EXPECT_THAT(insts, IsEmpty());
    EXPECT_THAT(log, ElementsAre("INFO contract's_corresponding_time=20250302085900", "WARN Bin is not validate"));
}

}  // namespace
