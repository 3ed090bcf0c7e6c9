#include "tests/doubles/LogLines.h"
#include "tests/support/FailingNew.h"
#include "tests/unit/api/ApiFixture.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// ---- a start that succeeds ----

using ApiStart = ApiTest;

TEST_F(ApiStart, SlaveLogsItsFewSteps) {
    const std::string ini = Ini(0, 3);
    const ChildResult child = RunInChild([&] {
        CVexoZceMdApiImpl api(nullptr);
        EXPECT_EQ(api.VexoStart(spi, ini.c_str()), 0);
        EXPECT_EQ(api.m_pSpi, &spi);
        EXPECT_NE(api.m_pDmaChan, nullptr);
    });
    EXPECT_TRUE(child.returned) << child.err;
    EXPECT_THAT(
        child.Lines(),
        ElementsAre("INFO log is initialized successfully.", "INFO config ini, m_binDelayTime is 15",
                    "INFO Successful load confie file " + ini, "INFO [channel:3] Busid:0, ChannelId:3.",
                    "INFO [channel:3] Doesn't need to bind cpu.", "INFO Init dma channel :CUSTOM_CHAN3_DATA success.",
                    "INFO [channel:3] DMA count info: backpress:0, dma2soft:0, fifo:0, error:0.",
                    "INFO dma channel CUSTOM_CHAN3_DATA has released."));
}

TEST_F(ApiStart, LogFileHoldsTheSameLinesAsStandardOutput) {
    const ChildResult child = RunInChild([&] { IVexoZceMdApi::DestroyVexoZceMdApi(*Started(3)); });

    EXPECT_TRUE(child.returned) << child.err;
    EXPECT_EQ(dir.Read("fpga_" + day.Text() + ".log"), child.out);
    EXPECT_THAT(child.out, testing::HasSubstr("[INFO   ][" + day.Text() + "-12:00:00][fpga][channel:3] Doesn't"));
}

TEST_F(ApiStart, SlaveTouchesNoRegister) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* api = Started(3);
        EXPECT_EQ(hw.Count("core_enumerate") + hw.Count("mmio_create") + hw.Count("core_reset"), 0U);
        EXPECT_EQ(hw.Count("write") + hw.Count("read"), 0U);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(ApiStart, MasterOpensTheRegisterCoreBeforeItPreparesTheCard) {
    const std::string ini = Ini(0, 0);
    const ChildResult child = RunInChild([&] {
        hw.record = true;
        hw.recordRegisters = false;
        IVexoZceMdApi* api = Started(0);
        const auto calls = hw.TakeCalls();
        EXPECT_THAT(calls, testing::Contains("filter_set_index filter1 0 -> 0"));
        EXPECT_THAT(calls, testing::Contains("core_enumerate root1 474 1 -> 1 core1"));
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
    const std::vector<std::string> lines = child.Lines();
    ASSERT_GE(lines.size(), 6U);
    EXPECT_THAT(std::vector<std::string>(lines.begin(), lines.begin() + 6),
                ElementsAre("INFO log is initialized successfully.", "INFO config ini, m_binDelayTime is 15",
                            "INFO Successful load confie file " + ini,
                            "INFO [channel:0] Busid:0, ChannelId:0.",  // for the register driver
                            "INFO [channel:0] Busid:0, ChannelId:0.",  // for the channel
                            "INFO [channel:0] Doesn't need to bind cpu."));
    EXPECT_THAT(lines, testing::Contains("INFO Unsubscribe all insts now"));
    EXPECT_THAT(lines, testing::Contains("INFO Fpga start transmit inst map pkt."));
}

TEST_F(ApiStart, CardOfTheConfigurationIsTheOneOpened) {
    const ChildResult child = RunInChild([&] {
        hw.record = true;
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        EXPECT_EQ(api->VexoStart(spi, Ini(1, 3).c_str()), 0);
        const auto calls = hw.TakeCalls();
        EXPECT_THAT(calls, testing::Contains("filter_set_index filter1 1 -> 0"));
        EXPECT_THAT(calls, testing::Contains("filter_set_name filter2 CUSTOM_CHAN3_DATA -> 0"));
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

TEST_F(ApiStart, MakesNoThread) {
    const ChildResult child = RunInChild([&] {
        const auto threads = [] {  // a sanitizer may have one of its own
            const auto tasks = std::filesystem::directory_iterator("/proc/self/task");
            return std::distance(begin(tasks), end(tasks));
        };
        const auto before = threads();
        IVexoZceMdApi* api = Started(0);
        EXPECT_EQ(threads(), before);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
}

// ---- a start that ends the process ----

class FatalStart : public ApiTest {
protected:
    /// Starts in a child that is to end by itself, and says at its end whether the register driver was ended before.
    ChildResult Start(
        const char* ini, const std::function<void()>& prepare = [] {}) {
        ChildResult child = RunInChild([&] {
            prepare();
            std::atexit([] { std::printf("driver is %s\n", CDrvEnyxReg::instance == nullptr ? "gone" : "left"); });
            IVexoZceMdApi::CreateVexoZceMdApi()->VexoStart(spi, ini);
        });
        EXPECT_EQ(child.exitStatus, 0);
        EXPECT_THAT(child.err, testing::Not(testing::HasSubstr("enyx_hw_")));  // no call that no caller may make
        return child;
    }
    static std::vector<std::string> Last(std::size_t count, const ChildResult& child) {
        const std::vector<std::string> lines = child.Lines();
        if (lines.size() < count) return lines;
        return {lines.end() - static_cast<long>(count), lines.end()};
    }
};

TEST_F(FatalStart, MissingPathEndsTheProcessBeforeThereIsALog) {
    const ChildResult child = Start(nullptr);

    EXPECT_EQ(child.out, "Error! lpConfig null pointer!\ndriver is left\n");
    EXPECT_TRUE(std::filesystem::is_empty(dir.Path()));
}

TEST_F(FatalStart, MissingFileIsReportedByEveryLayer) {
    const ChildResult child = Start("no.ini");

    EXPECT_THAT(child.Lines(),
                ElementsAre("INFO log is initialized successfully.", "ERROR Failed to load file no.ini",
                            "ERROR Config file init fail.", "ERROR Vexo inner init fail.", "driver is left"));
}

TEST_F(FatalStart, EmptyPathIsReportedByEveryLayer) {
    EXPECT_THAT(Last(4, Start("")), ElementsAre("ERROR Null config name", "ERROR Config file init fail.",
                                                "ERROR Vexo inner init fail.", "driver is left"));
}

TEST_F(FatalStart, WrongDeviceIsReportedByEveryLayer) {
    const std::string ini = dir.Write("zce.ini", "[config]\ndevice = xilinx0:16\n");

    EXPECT_THAT(Last(5, Start(ini.c_str())),
                ElementsAre("Error! Invalid parameter! Input: xilinx0:16 ", "ERROR Get dma chan fail!",
                            "ERROR Config file init fail.", "ERROR Vexo inner init fail.", "driver is left"));
}

TEST_F(FatalStart, NoMemoryForTheConfigurationIsLoggedAtInfo) {
    const ChildResult child = Start(Ini(0, 3).c_str(), [] {
        static const FailingNew fourth(4);  // after the driver, the object and the logger
    });

    EXPECT_THAT(Last(3, child),
                ElementsAre("INFO Config file init fail", "ERROR Vexo inner init fail.", "driver is left"));
}

TEST_F(FatalStart, MissingCardIsReportedByEveryLayer) {
    const ChildResult child = Start(Ini(0, 0).c_str(), [&] { hw.cards = 0; });

    EXPECT_THAT(Last(3, child),
                ElementsAre("ERROR Init New drive failed! ret:-1", "ERROR Vexo inner init fail.", "driver is left"));
}

TEST_F(FatalStart, FailedPreparationEndsTheChannelAndItsDriver) {
    const ChildResult child = Start(Ini(0, 0).c_str(), [&] { hw.registers[0x103] = 2; });

    EXPECT_THAT(Last(4, child),
                ElementsAre("ERROR you will need to update your soft version.", "ERROR iCheckRst == 2, soft  error.",
                            "ERROR Create Brix service failed!", "driver is gone"));
}

TEST_F(FatalStart, StreamThatSomebodyHoldsEndsTheChannelAndItsDriver) {
    const ChildResult child = Start(Ini(0, 0).c_str(), [&] { hw.Fail("a2c_stream_create", EBUSY); });

    EXPECT_THAT(
        Last(8, child),
        ElementsAre("ERROR Could not create a2c stream.dmaName:CUSTOM_CHAN0_DATA,  err:Device or resource busy",
                    "ERROR Note !! A software program can only have one instance running at a time!",
                    "ERROR Init DMA error!", "ERROR Dma init busid:0, chanName:CUSTOM_CHAN0_DATA fail!",
                    "ERROR [channel:0] Init dma fail! dma name CUSTOM_CHAN0_DATA.", "ERROR Create Brix service failed!",
                    "INFO dma channel CUSTOM_CHAN0_DATA has released.", "driver is gone"));
}

TEST_F(FatalStart, BlockingModeEndsTheProcessToo) {
    const ChildResult child = RunInChild([&] { IVexoZceMdApi::CreateVexoZceMdApi()->VexoRecvStart(spi, "no.ini"); });

    EXPECT_EQ(child.exitStatus, 0);
    EXPECT_THAT(child.Lines(), testing::Not(testing::Contains("ERROR Vexo init fail.")));
}

// ---- InitCfgInfo ----

class ConfigurationStep : public ApiTest {
protected:
    CVexoZceMdApiImpl api{nullptr};
    test_support::LogLines log;

    ~ConfigurationStep() override { delete api.m_pCfgFile; }
};

TEST_F(ConfigurationStep, SlaveNeedsNoRegisterDriver) {
    EXPECT_EQ(api.InitCfgInfo(Ini(0, 3).c_str()), 0);

    ASSERT_NE(api.m_pCfgFile, nullptr);
    EXPECT_EQ(api.m_pCfgFile->m_pApiImpl, &api);
    EXPECT_EQ(api.m_pCfgFile->m_uiChannelId, 3U);
}

TEST_F(ConfigurationStep, ObjectThatNobodySharesKeepsTheDriverItWasGiven) {
    CDrvEnyxReg driver;
    driver.m_bInited = true;  // an Init then changes nothing
    CVexoZceMdApiImpl own(&driver);

    EXPECT_EQ(own.InitCfgInfo(Ini(0, 0).c_str()), 0);

    EXPECT_EQ(own.m_pDrv, &driver);
    EXPECT_EQ(own.m_pCfgFile->m_pDrv, &driver);
    delete own.m_pCfgFile;
}

// ---- the log ----

class LogSetUp : public ApiTest {};

TEST_F(LogSetUp, NoMemoryForTheLoggerReturnsToTheCaller) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        {
            const FailingNew failing(1);
            EXPECT_EQ(api->VexoStart(spi, Ini(0, 3).c_str()), -1);
        }
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
    EXPECT_EQ(child.out, "log inited fail, maybe lack memory.\nLog init failed\n");
}

TEST_F(LogSetUp, LoggerThatGotNoMemoryIsTriedAgainByTheNextStart) {
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        {
            const FailingNew failing(1);
            api->VexoStart(spi, Ini(0, 3).c_str());
        }
        EXPECT_EQ(api->VexoStart(spi, Ini(0, 3).c_str()), 0);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned) << child.err;
    EXPECT_THAT(child.Lines(), testing::Contains("INFO log is initialized successfully."));
}

TEST_F(LogSetUp, FileThatCannotBeOpenedReturnsToTheCaller) {
    std::filesystem::create_directory(LogPath());
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        EXPECT_EQ(api->VexoStart(spi, Ini(0, 3).c_str()), -1);
        EXPECT_EQ(dynamic_cast<CVexoZceMdApiImpl&>(*api).m_pSpi, nullptr);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned);
    EXPECT_EQ(child.out, "###Init log service failed! ret: -1###\nLog init failed\n");
    EXPECT_EQ(child.err, "Error! Create file .//fpga_" + day.Text() +
                             ".log fail, errmsg:Is a directory. \nError! log init fail.\n");
}

TEST_F(LogSetUp, LoggerThatCouldNotStartIsNotStartedAgain) {
    std::filesystem::create_directory(LogPath());
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        EXPECT_EQ(api->VexoStart(spi, Ini(0, 3).c_str()), -1);
        std::filesystem::remove(LogPath());
        EXPECT_EQ(api->VexoStart(spi, Ini(0, 3).c_str()), 0);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned);
    EXPECT_EQ(child.out, "###Init log service failed! ret: -1###\nLog init failed\n");
    EXPECT_FALSE(std::filesystem::exists(LogPath()));
}

TEST_F(LogSetUp, BlockingModeReturnsMinus1WithoutALog) {
    std::filesystem::create_directory(LogPath());
    const ChildResult child = RunInChild([&] {
        IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
        EXPECT_EQ(api->VexoRecvStart(spi, Ini(0, 3).c_str()), -1);
        IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    });
    EXPECT_TRUE(child.returned);
}

TEST_F(LogSetUp, LogIsStartedOnceHoweverManyThreadsAsk) {
    const ChildResult child = RunInChild([] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([] {
                CVexoZceMdApiImpl api(nullptr);
                EXPECT_EQ(api.LogInit("ignored"), 0);
            });
        }
        for (std::thread& thread : threads) thread.join();
    });
    EXPECT_TRUE(child.returned) << child.err;
    EXPECT_THAT(child.Lines(), ElementsAre("INFO log is initialized successfully."));
}

TEST_F(LogSetUp, PathOfTheConfigurationHasNoPartInIt) {
    const ChildResult child = RunInChild([] {
        CVexoZceMdApiImpl api(nullptr);
        EXPECT_EQ(api.LogInit("/nowhere/zce.ini"), 0);
    });
    EXPECT_TRUE(child.returned) << child.err;
    EXPECT_TRUE(std::filesystem::exists(LogPath()));
}

}  // namespace
