#include <gmock/gmock.h>
#include <iterator>

#include "src/log/elog.h"
#include "tests/unit/config/ConfigFixture.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Vexo2_U50::ZceSubsInfo_t;

constexpr std::uint32_t kFailure = 0xFFFFFFFF;

// Read before any test can have changed it.
const std::uint32_t g_switchesAtLoad = Vexo2_U50::CZceConfigFile::m_SwitchReg;

class ConfigLifecycle : public ConfigTest {};

void ExpectEmptyRecord(const ZceSubsInfo_t& info) {
    EXPECT_THAT(info.m_SubsContractId, IsEmpty());
    EXPECT_THAT(info.m_SubsContractClass, IsEmpty());
    EXPECT_FALSE(info.bSubAll || info.bOptionsRecv || info.bIpsRecv || info.bSpdRecv);
    EXPECT_EQ(info.uiReserved3, 3U);
    EXPECT_EQ(info.strIds + info.strClasses + info.strOptions + info.strIps + info.strSpd, "");
}

template <typename... Fields>
void ExpectAscendingAddresses(const Fields&... fields) {
    const std::vector<const void*> addresses{static_cast<const void*>(&fields)...};
    EXPECT_THAT(addresses, testing::WhenSorted(testing::ElementsAreArray(addresses)));
}

// ---- construction ----

TEST_F(ConfigLifecycle, ConstructionStoresItsArgumentsAndReadsNothing) {
    int owner = 0;
    auto* const api = reinterpret_cast<CVexoZceMdApiImpl*>(&owner);

    const Config fresh("no/such/file.ini", &drv, api);

    EXPECT_EQ(fresh.m_strIniPath, "no/such/file.ini");
    EXPECT_EQ(fresh.m_pDrv, &drv);
    EXPECT_EQ(fresh.m_pApiImpl, api);
    EXPECT_EQ(fresh.m_uiChannelId, 255U);
    EXPECT_EQ(fresh.m_pDict, nullptr);
    EXPECT_EQ(fresh.m_uiBusId, 0U);
    EXPECT_EQ(fresh.m_binDelayTime, 0U);
    EXPECT_THAT(fresh.m_vecVersion, IsEmpty());
    EXPECT_EQ(fresh.m_strDmaChanName, "");
}

TEST_F(ConfigLifecycle, AllSixteenRecordsStartEmpty) {
    const Config fresh("zce.ini", &drv, nullptr);

    ASSERT_EQ(std::size(fresh.m_stSubsInfo), 16U);
    for (const ZceSubsInfo_t& info : fresh.m_stSubsInfo) ExpectEmptyRecord(info);
}

TEST_F(ConfigLifecycle, TheNamespacesOwnRecordsStartEmptyAndStaySo) {
    Load("[config]\ndevice=xilinx0:0\n[channel0]\ninsts=SR505,CF,all\noptions=recv\nips=recv\nspd=recv\n");
    config->ParseSubsInst();

    ASSERT_EQ(std::size(Vexo2_U50::m_stSubsInfo), 16U);
    for (const ZceSubsInfo_t& info : Vexo2_U50::m_stSubsInfo) ExpectEmptyRecord(info);
}

TEST_F(ConfigLifecycle, BothFeedsAreOnWhenTheLibraryIsLoaded) { EXPECT_EQ(g_switchesAtLoad, 3U); }

TEST_F(ConfigLifecycle, TheClassWidePathStaysEmpty) {
    Load("[config]\ndevice=xilinx0:0\n");

    EXPECT_EQ(Config::m_ini_path, "");
}

TEST_F(ConfigLifecycle, TheRecordsAreHandedOutByReference) {
    Make("");

    ZceSubsInfo_t(&records)[16] = config->getArrayReference();

    EXPECT_EQ(&records, &config->m_stSubsInfo);
}

TEST_F(ConfigLifecycle, FieldsLieInTheirListedOrder) {
    const Config& c = Make("");

    ExpectAscendingAddresses(c.m_uiChannelId, c.m_strIniPath, c.m_pDrv, c.m_pDict, c.m_uiBusId, c.m_vecVersion,
                             c.m_pApiImpl, c.m_strDmaChanName, c.m_stSubsInfo, c.m_binDelayTime);
}

TEST_F(ConfigLifecycle, FieldsOfARecordLieInTheirListedOrder) {
    const ZceSubsInfo_t r;

    ExpectAscendingAddresses(r.m_SubsContractId, r.m_SubsContractClass, r.bSubAll, r.bOptionsRecv, r.bIpsRecv,
                             r.bSpdRecv, r.uiReserved3, r.strIds, r.strClasses, r.strOptions, r.strIps, r.strSpd);
}

// ---- Init ----

TEST_F(ConfigLifecycle, ALoadedFileIsReportedWithItsDelayAndPath) {
    Make("[config]\ndevice=xilinx0:3\n");
    std::uint32_t result = 1;

    const Lines output = OutputOf([&] { result = config->Init(); });

    EXPECT_EQ(result, 0U);
    EXPECT_THAT(output, ElementsAre("INFO config ini, m_binDelayTime is 15",
                                    "INFO Successful load confie file " + dir.Path("zce.ini")));
}

TEST_F(ConfigLifecycle, AnEmptyPathIsRefused) {
    Config nameless("", &drv, nullptr);
    std::uint32_t result = 0;

    const Lines output = OutputOf([&] { result = nameless.Init(); });

    EXPECT_EQ(result, kFailure);
    EXPECT_THAT(output, ElementsAre("ERROR Null config name"));
    EXPECT_EQ(nameless.m_pDict, nullptr);
}

TEST_F(ConfigLifecycle, AMissingFileIsRefused) {
    Config lost(dir.Path("lost.ini"), &drv, nullptr);
    std::uint32_t result = 0;

    const Lines output = OutputOf([&] { result = lost.Init(); });

    EXPECT_EQ(result, kFailure);
    EXPECT_THAT(output, ElementsAre("ERROR Failed to load file " + dir.Path("lost.ini")));
}

TEST_F(ConfigLifecycle, AFileThatTheParserRejectsIsRefused) {
    const std::string lineWithoutEquals = "[config]\ndevice xilinx0:0\n";
    const std::string lineTooLong = "[config]\ndevice=" + std::string(1100, 'x') + '\n';
    for (const std::string& ini : {lineWithoutEquals, lineTooLong}) {
        Make(ini);
        std::uint32_t result = 0;

        const Lines output = OutputOf([&] { result = config->Init(); });

        EXPECT_EQ(result, kFailure);
        EXPECT_THAT(output, ElementsAre("ERROR Failed to load file " + dir.Path("zce.ini")));
        EXPECT_EQ(config->m_pDict, nullptr);
    }
}

TEST_F(ConfigLifecycle, ADirectoryInPlaceOfTheFileHasNoDevice) {
    Config folder(dir.Path(), &drv, nullptr);
    std::uint32_t result = 0;

    const Lines output = OutputOf([&] { result = folder.Init(); });

    EXPECT_EQ(result, kFailure);
    EXPECT_THAT(output, ElementsAre("Error! Invalid parameter! Input:  ", "ERROR Get dma chan fail!"));
}

TEST_F(ConfigLifecycle, ARefusedDeviceLeavesTheDelayUnread) {
    Make("[config]\ndevice=xilinx0:16\nBIN_DELAY_TIME=7\n");

    OutputOf([&] { config->Init(); });

    EXPECT_EQ(config->m_binDelayTime, 0U);
}

TEST_F(ConfigLifecycle, ASecondInitReadsTheFileAgainButKeepsTheChannel) {
    Load("[config]\ndevice=xilinx0:3\nBIN_DELAY_TIME=7\n");
    dir.Write("zce.ini", "[config]\ndevice=xilinx1:4\nBIN_DELAY_TIME=8\n");

    EXPECT_EQ(config->Init(), 0U);

    EXPECT_EQ(config->m_binDelayTime, 8U);
    EXPECT_EQ(config->m_uiChannelId, 3U);
}

TEST_F(ConfigLifecycle, SectionAndKeyNamesAreFoundInAnyLetterCase) {
    Make("[CONFIG]\nDEVICE=xilinx0:3\nbin_delay_time=9\n");

    EXPECT_EQ(config->Init(), 0U);

    EXPECT_EQ(config->m_binDelayTime, 9U);
}

struct DelayRow {
    const char* name;
    const char* line;
    std::uint32_t minutes;
    const char* logged;
};

class ConfigDelay : public ConfigTest, public testing::WithParamInterface<DelayRow> {};

TEST_P(ConfigDelay, IsStoredAndLogged) {
    Make(std::string("[config]\ndevice=xilinx0:0\n") + GetParam().line);

    const Lines output = OutputOf([&] { config->Init(); });

    EXPECT_EQ(config->m_binDelayTime, GetParam().minutes);
    ASSERT_THAT(output, SizeIs(2));
    EXPECT_EQ(output[0], std::string("INFO config ini, m_binDelayTime is ") + GetParam().logged);
}

INSTANTIATE_TEST_SUITE_P(Init, ConfigDelay,
                         testing::Values(DelayRow{"Absent", "", 15, "15"},
                                         DelayRow{"Zero", "BIN_DELAY_TIME=0\n", 0, "0"},
                                         DelayRow{"Decimal", "BIN_DELAY_TIME=30\n", 30, "30"},
                                         DelayRow{"Hexadecimal", "BIN_DELAY_TIME=0x20\n", 32, "32"},
                                         DelayRow{"Octal", "BIN_DELAY_TIME=010\n", 8, "8"},
                                         DelayRow{"Empty", "BIN_DELAY_TIME=\n", 0, "0"},
                                         DelayRow{"NoNumber", "BIN_DELAY_TIME=soon\n", 0, "0"},
                                         DelayRow{"SectionOfTheSameName", "[config:bin_delay_time]\n", 15, "15"},
                                         DelayRow{"Negative", "BIN_DELAY_TIME=-1\n", 0xFFFFFFFF, "-1"}),
                         [](const auto& row) { return std::string(row.param.name); });

// ---- before Init ----

TEST_F(ConfigLifecycle, BeforeInitEveryQuestionIsAnsweredAsByAnEmptyFile) {
    Config& fresh = Make("[config]\ndevice=xilinx1:3\n");

    const Lines output = OutputOf([&] {
        fresh.GetDmaChannel();
        fresh.GetBusId();
        fresh.BindCpu();
        fresh.DumpDevInfo();
        fresh.CfgNetReg();
        fresh.Chk_SysVersion();
        fresh.ParseSubsInst();
    });

    EXPECT_THAT(output, ElementsAre("Error! Invalid parameter! Input:  ",
                                    "ERROR [channel:255] Failed to parse the input string:",
                                    "INFO [channel:255] Doesn't need to bind cpu.", "INFO L1 and L5 switch on."));
}

// ---- log ----

TEST_F(ConfigLifecycle, EveryOperationLogsUnderTheStemDataType) {
    Make("[config]\ndevice=xilinx0:0\n[channel0]\ninsts=SR505\noptions=recv\n");

    const Lines output = OutputOf([&] {
        for (const std::uint8_t level : {ELOG_LVL_ERROR, ELOG_LVL_INFO}) elog_set_fmt(level, ELOG_FMT_FILE);
        config->Init();
        config->ShowVersion();
        config->CfgNetIPAndPort();
        config->ParseSubsInst();
    });

    EXPECT_THAT(output, SizeIs(12));
    EXPECT_THAT(output, Each(testing::StartsWith("(DataType)")));
}

}  // namespace
