#include "tests/threads/FourChannels.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "src/log/log.h"
#include "tests/integration/Scenario.h"
#include "tests/support/Sanitizers.h"

namespace four_channels {

namespace {

constexpr char kLogFile[] = "FourChannels";
constexpr int kForks = 10;

class CountingSpi : public QuoteCallbacks {
public:
    int received = 0;

private:
    int OnQuote(int, const unsigned char* data) override {
        int number = -1;
        std::memcpy(&number, data, sizeof number);
        EXPECT_EQ(number, received);
        ++received;
        return 0;
    }
};

std::string Packet(int number) {
    return scenario::MarketDataPacket(17 + static_cast<std::uint32_t>(number) % 4,
                                      std::string(reinterpret_cast<const char*>(&number), sizeof number));
}

void UseChannel(IVexoZceMdApi& api, int channel, const std::string& ini, std::atomic<int>& started) {
    CountingSpi spi;
    EXPECT_EQ(api.VexoStart(spi, ini.c_str()), 0);
    ++started;
    const auto stream = static_cast<std::uint32_t>(channel);
    scenario::Push(stream, scenario::ContractMapPacket({{"SR705", 0}, {"CF705", 2}, {"SPD-SR705/SR709", 0}}));
    EXPECT_EQ(api.VexoRecv(), 0);
    for (int n = 0; n < kPackets; ++n) {
        scenario::Push(stream, Packet(n));
        EXPECT_EQ(api.VexoRecv(), 1);
    }
    EXPECT_EQ(spi.received, kPackets);
    IVexoZceMdApi::DestroyVexoZceMdApi(api);
}

void LogLines(int logger, const std::atomic<int>& started) {
    while (started == 0) std::this_thread::yield();  // a start opens the log
    for (int n = 0; n < kLines; ++n) LOG_INFO("logger %d line %d", logger, n);
}

void ForkChildren(const std::atomic<int>& started) {
    while (started == 0) std::this_thread::yield();
    for (int n = 0; n < kForks; ++n) {
        const pid_t child = ::fork();
        if (child == 0) {
            LOG_INFO("child %d", n);
            ::_exit(0);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
}

}  // namespace

void Run() {
    const test_support::FakeTime clock(2066, 1, 12, 9, 30, 0);
    scenario::SmallCard({{"SR705", 0}, {"CF705", 2}}, {{"SPD-SR705/SR709", 0}});
    std::vector<IVexoZceMdApi*> apis;
    for (int channel = 0; channel < kChannels; ++channel) {
        scenario::WriteIni("cpucore = -1\nBIN_DELAY_TIME = 0\n[channel0]\ninsts = ALL\n[channel2]\ninsts = SR\n",
                           "xilinx0:" + std::to_string(channel));
        std::filesystem::rename("zce.ini", std::to_string(channel) + ".ini");
        apis.push_back(IVexoZceMdApi::CreateVexoZceMdApi());
    }

    std::atomic<int> started{0};
    std::vector<std::thread> threads;
    for (int n = 0; n < kLoggers; ++n) threads.emplace_back(LogLines, n, std::cref(started));
    if (!kWithThreadSanitizer) threads.emplace_back(ForkChildren, std::cref(started));
    for (int n = 0; n < kChannels; ++n)
        threads.emplace_back(UseChannel, std::ref(*apis[n]), n, std::to_string(n) + ".ini", std::ref(started));
    for (std::thread& thread : threads) thread.join();
}

}  // namespace four_channels
