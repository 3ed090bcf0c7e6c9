#pragma once

#include <enyx-sim/enyx_sim.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "bench/support/BareCalls.h"
#include "bench/support/FilterWork.h"
#include "bench/support/Host.h"
#include "bench/support/Market.h"
#include "interface/CardRegisters.h"
#include "src/api/ApiImpl.h"
#include "src/channel/DmaChannel.h"
#include "src/log/elog.h"
#include "tests/support/MapPacket.h"

namespace bench {

/// The contract map of a whole market: packets that lie ready in channel 0's stream are taken, every new instrument
/// goes into the day file and is subscribed for each channel that wants it, read back and logged. By the library, and
/// as the bare sequence of calls and lines that this comes to, worked out beforehand from the decision table.
class MapWork {
public:
    MapWork(std::size_t instruments, std::size_t channels, std::size_t ids = 1000, std::size_t classes = 50)
        : m_list(Market::Tables(instruments)), m_rules(Market::Rules(m_list, channels, ids, classes)) {
        StartCard();
        StartLog();
        MakePackets();
        m_cfg = std::make_unique<Vexo2_U50::CZceConfigFile>("bench.ini", &m_drv, nullptr);
        std::ofstream("bench.ini") << "[config]\ndevice = xilinx0:0\n";
        EnyxRegInitParms_t card{0, 474};
        if (m_cfg->Init() != 0 || m_drv.Init(&card) != 0) std::abort();
        SetRules(m_rules, m_cfg->m_stSubsInfo);
        m_accelerator = bare::OpenCard();
    }
    ~MapWork() {
        if (m_fd >= 0) ::close(m_fd);
        ::unlink(m_dayFile.c_str());
    }
    MapWork(const MapWork&) = delete;
    MapWork& operator=(const MapWork&) = delete;

    // ---- by the library ----

    void PrepareLearning() {
        m_channel = std::make_unique<CZceDmaChanImpl>(&m_drv, &m_api, m_cfg.get());
        m_fpga = std::make_unique<Vexo2_U50::CZceFpgaServ>(m_channel->m_mapInstIdx, 0);
        m_bin = std::make_unique<CBrixBinFile>(m_channel->m_mapInstIdx, 0);
        m_contracts = std::make_unique<Vexo2_U50::CContractServ>(m_channel->m_mapInstIdx, m_cfg.get(), m_bin.get(),
                                                                 m_fpga.get(), 0, m_cfg->m_stSubsInfo);
        m_fpga->Init(&m_drv);
        m_channel->m_pFpgaServ = m_fpga.get();
        m_channel->m_pBinFile = m_bin.get();
        m_channel->m_pContractServ = m_contracts.get();
        m_channel->m_bCfgParsed = true;
        if (m_bin->InstBinFileInit() != 0) std::abort();
        Vexo2_U50::ZceDmaInitParms_t parms{0, 474, kStream};
        if (m_channel->InitDma(&parms) != 0) std::abort();
        PrepareBoth();
    }
    void Learn() {
        for (std::size_t n = m_packets.size(); n > 0; --n) m_channel->PollOnce();
    }
    void EndLearning() {
        m_channel.reset();
        m_contracts.reset();
        m_bin.reset();
        m_fpga.reset();
        m_stdout.reset();
    }

    // ---- bare ----

    void PrepareBare() {
        if (m_steps.empty()) WorkOutSteps();
        if (m_fd >= 0) ::close(m_fd);
        m_fd = ::open(m_dayFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        Put("inst_index,inst_id\n");
        m_streams = bare::OpenStreams(m_accelerator, kStream);
        PrepareBoth();
    }
    void DoBare() {
        enyx_hw_core* core = m_drv.m_lpCore;
        for (const Step& step : m_steps) {
            switch (step.kind) {
                case Step::kPoll:
                    enyx_hw_a2c_stream_poll_once(
                        m_streams.up, [](auto...) {}, nullptr);
                    break;
                case Step::kFileLine: Put(step.text); break;
                case Step::kWrite: bare::WriteAndReadBack(core, step.word, step.value); break;
                case Step::kRead: bare::Read(core, step.word); break;
                case Step::kRowLine:
                    elog_output(ELOG_LVL_INFO, "fpga", "DataType", "SubsOneInst", 60,
                                "Subscribes:Write to fpga:chanbit:0x%x, index:%u, instId:%s", step.value, step.word,
                                step.text.c_str());
                    break;
                case Step::kLine:
                    elog_output(ELOG_LVL_INFO, "fpga", "VexoZceUpdmaImpl", "CheckConfigInst", 60, "%s",
                                step.text.c_str());
                    break;
            }
        }
    }
    void EndBare() {
        m_streams.Close();
        m_stdout.reset();
    }

    /// Whether both leave the same calls of the card, log lines and day file behind.
    bool BothDoTheSame() {
        PrepareLearning();
        const std::string library = Outcome([&] { Learn(); });
        EndLearning();
        PrepareBare();
        const std::string plain = Outcome([&] { DoBare(); });
        EndBare();
        return library == plain;
    }

private:
    static constexpr char kStream[] = "CUSTOM_CHAN0_DATA";
    static constexpr std::size_t kMtu = 4096;

    struct Step {
        enum Kind { kPoll, kFileLine, kWrite, kRead, kRowLine, kLine };
        Kind kind;
        std::uint32_t word;
        std::uint32_t value;
        std::string text;
    };

    static void StartCard() {
        enyx_sim_config config;
        enyx_sim_default_config(&config);
        config.instruments = ENYX_SIM_INSTRUMENTS_NONE;
        config.quotes_per_second = 0;
        config.mtu = kMtu;
        config.ring_bytes = 1048576;
        if (enyx_sim_power_cycle(&config) != 0) std::abort();
    }
    static void StartLog() {
        if (elog_init("./", "fpga") != 0) std::abort();
        elog_set_output_enabled(true);
    }
    static void EmptyLogFile() {
        if (::ftruncate(elog_file_fd, 0) != 0) std::abort();
    }

    void MakePackets() {
        MapPacket packet;
        m_ends.clear();
        for (std::size_t i = 0; i < m_list.size(); ++i) {
            if (packet.Bytes().size() + 80 > kMtu) {
                m_packets.push_back(packet.Bytes());
                m_ends.push_back(i);
                packet = MapPacket();
            }
            packet.Add(m_list[i].id, m_list[i].index);
        }
        m_packets.push_back(packet.Bytes());
        m_ends.push_back(m_list.size());
    }
    void PrepareBoth() {
        m_stdout.emplace();
        EmptyLogFile();
        PushPackets();
        SettleHeap();
    }
    void PushPackets() {
        for (const auto& packet : m_packets) {
            if (enyx_sim_push(0, 0, packet.data(), static_cast<std::uint32_t>(packet.size()), 0) != 0) std::abort();
        }
    }
    void Put(const std::string& line) const {
        if (::write(m_fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::abort();
    }

    // ---- the steps ----

    void WorkOutSteps() {
        std::set<std::string> known;
        std::set<std::string> classes;
        bool complete = false;
        std::size_t next = 0;
        for (const std::size_t end : m_ends) {
            m_steps.push_back({Step::kPoll, 0, 0, ""});
            for (; next < end; ++next) {
                AddProgress(next);
                AddInstrument(m_list[next]);
                known.insert(m_list[next].id);
                classes.insert(m_list[next].id.substr(0, 2));
            }
            if (!complete) complete = AddCheck(known, classes);
        }
    }
    void AddLine(const std::string& text) { m_steps.push_back({Step::kLine, 0, 0, text}); }
    void AddProgress(std::size_t before) {
        if ((before + 1) % 8192 != 0) return;
        AddLine("Have parsed " + std::to_string(before + 1) +
                " instrument id already, instnum:" + std::to_string(before) + ".");
    }
    void AddInstrument(const Instrument& inst) {
        using test_support::plain::Decision;
        m_steps.push_back({Step::kFileLine, 0, 0, std::to_string(inst.index) + ',' + inst.id + '\n'});
        std::uint32_t mask = 0;
        for (std::size_t chan = 0; chan < m_rules.size(); ++chan) {
            const Decision decision = test_support::plain::Decide(inst.id, m_rules[chan]);
            if (decision == Decision::kSkip) continue;
            mask |= 1U << chan;
            AddSubscription(card_reg::kTables[decision == Decision::kOneLeg ? 0 : 1], inst, mask);
        }
    }
    void AddSubscription(const card_reg::TableRegisters& table, const Instrument& inst, std::uint32_t mask) {
        const std::uint32_t row = static_cast<std::uint32_t>(inst.index) << card_reg::kRowShift;
        m_steps.push_back({Step::kWrite, table.data, mask, ""});
        m_steps.push_back({Step::kWrite, table.command, row, ""});
        m_steps.push_back({Step::kRowLine, inst.index, mask, inst.id});
        m_steps.push_back({Step::kWrite, table.select, row, ""});
        m_steps.push_back({Step::kRead, table.readBack, 0, ""});
    }
    // The lines of the check behind each packet, up to the first class or id that is still missing.
    bool AddCheck(const std::set<std::string>& known, const std::set<std::string>& classes) {
        for (std::size_t chan = 0; chan < m_rules.size(); ++chan) {
            const test_support::plain::Rules& rules = m_rules[chan];
            AddLine("channel is " + std::to_string(chan) + ", m_SubsContractClass size is " +
                    std::to_string(rules.classes.size()) + ", m_SubsContractId is " + std::to_string(rules.ids.size()) +
                    ".");
            for (const std::string& cls : rules.classes) {
                if (classes.count(cls) == 0) return AddLine("Prefix is " + cls + "."), false;
            }
            for (const std::string& id : rules.ids) {
                if (known.count(id) == 0) return AddLine("instId is " + id + " ."), false;
            }
        }
        AddLine("check config is success. m_bCfgInsSuccess is 1.");
        return true;
    }

    // ---- comparing ----

    static std::string ReadFile(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    // A line without the time in its second pair of brackets.
    static std::string Timeless(const std::string& log) {
        std::string text;
        for (std::size_t begin = 0; begin < log.size();) {
            const std::size_t end = log.find('\n', begin);
            text.append(log, begin, log.find(']', begin) - begin);
            const std::size_t behindTime = log.find(']', log.find(']', begin) + 1);
            text.append(log, behindTime, end - behindTime + 1);
            begin = end + 1;
        }
        return text;
    }
    // A poll's line comes after those of the calls made inside its handler: the bare polls have none inside.
    static void NoteCall(const char* line, void* text) {
        if (std::strstr(line, "poll_once") == nullptr) static_cast<std::string*>(text)->append(line).append("\n");
    }

    std::string Outcome(const std::function<void()>& work) {
        std::string calls;
        enyx_sim_set_trace(NoteCall, &calls);
        work();
        enyx_sim_set_trace(nullptr, nullptr);
        return calls + Timeless(ReadFile("stdout.txt")) + ReadFile(m_dayFile);
    }

    std::vector<Instrument> m_list;
    std::vector<test_support::plain::Rules> m_rules;
    std::vector<std::vector<unsigned char>> m_packets;
    std::vector<std::size_t> m_ends;  // of each packet: how many instruments are known behind it
    std::vector<Step> m_steps;
    std::string m_dayFile = DayFilePath();
    int m_fd = -1;
    std::optional<StdoutToFile> m_stdout;

    CDrvEnyxReg m_drv;
    CVexoZceMdApiImpl m_api{nullptr};
    std::unique_ptr<Vexo2_U50::CZceConfigFile> m_cfg;
    std::unique_ptr<CZceDmaChanImpl> m_channel;
    std::unique_ptr<Vexo2_U50::CZceFpgaServ> m_fpga;
    std::unique_ptr<CBrixBinFile> m_bin;
    std::unique_ptr<Vexo2_U50::CContractServ> m_contracts;
    enyx_hw_accelerator* m_accelerator = nullptr;
    bare::Streams m_streams;
};

}  // namespace bench
