#pragma once

#include <enyx-sim/enyx_sim.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>

#include "VexoZceMdApi.h"
#include "bench/support/BareCalls.h"
#include "bench/support/Host.h"
#include "interface/CardRegisters.h"

namespace bench {

/// A start-up on a card that still has yesterday's date: reset, both tables cleared twice, versions, network, the masks
/// cleared in six passes, map transmission switched on, streams opened. By the library, and as the same calls of the
/// card issued bare. Every start finds the card just switched on and no day file.
class StartUpWork : private IVexoZceMdSpi {
public:
    StartUpWork() {
        std::ofstream("start.ini") << "[version]\n1.1.2.12 = 1\n1.1.2.13 = 13\n"
                                      "[config]\ndevice = xilinx0:0\ncpucore = -1\n"
                                      "czce_level1 = enabled\nL5_IPA = 224.0.1.2\nL5_IPB = 224.0.1.3\nL5_PORT = 5001\n"
                                      "L1_IPA = 224.0.2.2\nL1_IPB = 224.0.2.3\nL1_PORT = 5002\n"
                                      "[channel0]\ninsts = SR\noptions = recv\n";
    }
    ~StartUpWork() { ::unlink(m_dayFile.c_str()); }
    StartUpWork(const StartUpWork&) = delete;
    StartUpWork& operator=(const StartUpWork&) = delete;

    void Prepare() {
        ::unlink(m_dayFile.c_str());
        enyx_sim_config config;
        enyx_sim_default_config(&config);
        config.instruments = ENYX_SIM_INSTRUMENTS_NONE;
        config.quotes_per_second = 0;
        if (enyx_sim_power_cycle(&config) != 0) std::abort();
        m_stdout.emplace();
    }

    void Start() {
        m_api = IVexoZceMdApi::CreateVexoZceMdApi();
        if (m_api->VexoStart(*this, "start.ini") != 0) std::abort();
    }
    void End() {
        IVexoZceMdApi::DestroyVexoZceMdApi(*m_api);
        m_stdout.reset();
    }

    void StartBare() {
        using namespace card_reg;
        enyx_hw_accelerator* card = bare::OpenCard();
        enyx_hw_core* core = bare::OpenCore(card);
        bare::Read(core, kTradingDate);
        bare::Write(core, kReset, 1);
        bare::Write(core, kReset, 0);
        for (int pass = 0; pass < 2; ++pass) ClearTables(core);
        bare::Write(core, kSoftwareVersion, 0x1010213);
        for (const std::uint32_t reg : {kHardwareVersion, kVerdictOrFibre, kVerdictOrFibre}) bare::Read(core, reg);
        const std::uint32_t multicast[][2] = {{kL5MulticastA, 0xe0000102}, {kL5MulticastB, 0xe0000103},
                                              {kL1MulticastA, 0xe0000202}, {kL1MulticastB, 0xe0000203},
                                              {kL5MulticastPort, 5001},    {kL1MulticastPort, 5002}};
        for (const auto& [reg, value] : multicast) bare::Write(core, reg, value);
        bare::Write(core, kTradingDate, Today());
        for (int pass = 0; pass < 6; ++pass) ClearMasks(core);
        bare::Write(core, kMapTransmit, 1);
        bare::Write(core, kDecodeSwitch, kSwitchLevel1 | kSwitchLevel5);
        m_streams = bare::OpenStreams(card, "CUSTOM_CHAN0_DATA");
    }
    void EndBare() {
        m_streams.Close();
        m_stdout.reset();
    }

    /// Whether both make the same calls in the same order. Compared by a hash: there are seven million of them.
    bool BothDoTheSame() {
        Prepare();
        const std::uint64_t library = HashOfCalls([this] { Start(); });
        End();
        Prepare();
        const std::uint64_t plain = HashOfCalls([this] { StartBare(); });
        EndBare();
        return library == plain;
    }

private:
    int OnUpSubsResult17(const unsigned char*) override { return 0; }
    int OnUpSubsResult18(const unsigned char*) override { return 0; }
    int OnUpSubsResult19(const unsigned char*) override { return 0; }
    int OnUpSubsResult20(const unsigned char*) override { return 0; }

    static void ClearTables(enyx_hw_core* core) {
        for (const card_reg::TableRegisters& table : card_reg::kTables) {
            for (std::uint32_t word = 0; word <= 4095U * 64; ++word) {
                bare::Write(core, table.data, 0);
                bare::Write(core, table.command, word);
            }
        }
    }
    static void ClearMasks(enyx_hw_core* core) {
        for (const card_reg::TableRegisters& table : card_reg::kTables) {
            for (std::uint32_t row = 0; row < 8192; ++row) {
                bare::Write(core, table.data, 0);
                bare::Write(core, table.command, row * 64);
            }
        }
    }
    static std::uint32_t Today() {
        const std::time_t now = ::time(nullptr);
        std::tm local{};
        ::localtime_r(&now, &local);
        return static_cast<std::uint32_t>((local.tm_year + 1900) * 10000 + (local.tm_mon + 1) * 100 + local.tm_mday);
    }
    static void AddToHash(const char* line, void* hash) {
        std::uint64_t& value = *static_cast<std::uint64_t*>(hash);
        for (; *line != '\0'; ++line) value = (value ^ static_cast<unsigned char>(*line)) * 1099511628211U;
    }
    template <typename Work>
    static std::uint64_t HashOfCalls(Work work) {
        std::uint64_t hash = 14695981039346656037U;
        enyx_sim_set_trace(AddToHash, &hash);
        work();
        enyx_sim_set_trace(nullptr, nullptr);
        return hash;
    }

    std::string m_dayFile = DayFilePath();
    std::optional<StdoutToFile> m_stdout;
    IVexoZceMdApi* m_api = nullptr;
    bare::Streams m_streams;
};

}  // namespace bench
