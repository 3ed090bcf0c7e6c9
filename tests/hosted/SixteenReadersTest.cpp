// Sixteen trading programs on one hosted card, each with a configuration and a channel of its own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "capture/Reader.h"
#include "enyx-sim/enyx_sim.h"
#include "tests/hosted/CardAccess.h"
#include "tests/hosted/HostProcess.h"
#include "tests/hosted/QuoteRecord.h"

namespace hosted {
namespace {

constexpr std::uint32_t kChannels = 16;
constexpr std::uint64_t kQuotes = 1'000'000;
constexpr std::uint64_t kQuotesOfEach = 10'000;
constexpr const char* kDayFile = "/tmp/.zce_20310408_am";
constexpr const char* kProducts[kChannels] = {"AP", "CF", "CJ", "CY", "FG", "JR", "LR", "MA",
                                              "OI", "PF", "PK", "PL", "PM", "PR", "PX", "RI"};

// Channel n receives the futures of a product, the odd ones its options too.
bool TakesOptions(std::uint32_t channel) { return channel % 2 == 1; }

bool Wants(std::uint32_t channel, const std::string& id) {
    const bool isFuture = id.size() == 5;
    return id.compare(0, 2, kProducts[channel]) == 0 && (isFuture || TakesOptions(channel));
}

std::string MakeIni(std::uint32_t channel) {
    std::string ini = "[config]\ndevice = xilinx0:" + std::to_string(channel) +
                      "\nBIN_DELAY_TIME = 0\nL5_IPA = 239.3.50.1\nL5_IPB = 239.3.51.1\nL5_PORT = 18501\n"
                      "L1_IPA = 239.3.10.1\nL1_IPB = 239.3.11.1\nL1_PORT = 18101\n"
                      "[version]\n1.1.2.12 = 11\n1.1.2.13 = 12\n";
    for (std::uint32_t n = 0; n < kChannels; ++n)
        ini += "[channel" + std::to_string(n) + "]\ninsts = " + kProducts[n] +
               "\noptions = " + (TakesOptions(n) ? "recv" : "norecv") + "\nips = norecv\nspd = norecv\n";
    return ini;
}

nlohmann::json Status() {
    const std::string text = StatusJson();
    return text.empty() ? nlohmann::json() : nlohmann::json::parse(text);
}

// What the card sent on each channel, and of which instruments.
struct Sent {
    std::array<std::vector<QuoteRecord>, kChannels> quotes;
    std::array<std::set<std::string>, kChannels> ids;
};

Sent ReadHostRecord(const std::string& path) {
    Sent sent;
    std::ifstream in(path, std::ios::binary);
    capture::Reader reader(in);
    for (capture::Packet packet; reader.next(packet);) {
        enyx_sim::PacketHead head;
        std::memcpy(&head, packet.data, sizeof head);
        if (head.type < 17) continue;  // the contract map goes to the library, not to the application
        const std::size_t channel = std::stoul(packet.interface->info.name.substr(sizeof "channel"));
        const unsigned char* payload = packet.data + sizeof head;
        sent.quotes[channel].push_back(MakeRecord(head.type, payload, packet.size - sizeof head));
        const char* id = reinterpret_cast<const char*>(payload) + offsetof(enyx_sim::QuoteCommon, id);
        sent.ids[channel].insert(std::string(id, strnlen(id, sizeof enyx_sim::QuoteCommon::id)));
    }
    EXPECT_FALSE(reader.damage().has_value()) << reader.damage()->text;
    return sent;
}

std::vector<QuoteRecord> ReadRecords(const std::string& path) {
    const std::string bytes = ReadFile(path);
    std::vector<QuoteRecord> records(bytes.size() / sizeof(QuoteRecord));
    std::memcpy(records.data(), bytes.data(), records.size() * sizeof(QuoteRecord));
    return records;
}

std::set<std::string> IdsOf(std::uint32_t channel) {
    std::set<std::string> ids;
    enyx_sim_instrument instrument;
    for (std::uint32_t n = 0; enyx_sim_instrument_at(0, n, &instrument) == 0; ++n)
        if (instrument.table == 0 && Wants(channel, instrument.id)) ids.insert(instrument.id);
    return ids;
}

struct SixteenReaders : ::testing::Test {
    CardDirectory directory;
    std::vector<Process> readers;

    void SetUp() override {
        setenv("VEXO_SIM_CARD", "hosted", 1);
        setenv("TZ", "Asia/Shanghai", 1);
        unlink(kDayFile);
    }
    void TearDown() override {
        unlink(kDayFile);
        unsetenv("VEXO_SIM_CARD");
    }

    std::string Folder(std::uint32_t channel) const { return directory.Path() + "/" + std::to_string(channel); }

    void StartReader(std::uint32_t channel) {
        const std::string folder = Folder(channel);
        mkdir(folder.c_str(), 0755);
        WriteFile(folder + "/zce.ini", MakeIni(channel));
        readers.emplace_back(std::vector<std::string>{VEXO_QUOTE_RECORDER, folder, "zce.ini", "quotes"},
                             folder + "/out", folder + "/err");
    }

    void WaitUntilOpen(std::uint32_t first, std::uint32_t end) {
        ASSERT_TRUE(Eventually([&] {
            const nlohmann::json status = Status();
            for (std::uint32_t n = first; n < end; ++n)
                if (!status["channels"][n]["open"].get<bool>()) return false;
            return true;
        }));
    }
};

TEST_F(SixteenReaders, EachReceivesExactlyTheQuotesOfItsRules) {
    const std::string record = directory.Path() + "/sent.pcapng";
    Process host = StartHost({"--pace", "max", "--record", record});
    for (std::uint32_t channel = 1; channel < kChannels; ++channel) StartReader(channel);
    WaitUntilOpen(1, kChannels);
    StartReader(0);  // the master last: its rules set the quotes going

    ASSERT_TRUE(Eventually([] {
        const nlohmann::json status = Status();
        std::uint64_t all = 0, fewest = kQuotes;
        for (const auto& channel : status["channels"]) {
            all += channel["packets"].get<std::uint64_t>();
            fewest = std::min(fewest, channel["packets"].get<std::uint64_t>());
        }
        return all > kQuotes + kQuotes / 10 && fewest > kQuotesOfEach;
    }));
    ASSERT_NE(FindCard(0), nullptr);
    ASSERT_EQ(enyx_sim_pause_feed(0, 1), 0);
    ASSERT_TRUE(Eventually([] {
        const nlohmann::json status = Status();
        for (const auto& channel : status["channels"])
            if (channel["queued_bytes"] != 0) return false;
        return true;
    }));
    const nlohmann::json end = Status();
    for (const auto& channel : end["channels"]) EXPECT_EQ(channel["drops"], 0) << channel["channel"];
    for (Process& reader : readers) {
        reader.Signal(SIGTERM);
        EXPECT_EQ(reader.Wait(), 0);
    }
    std::array<std::set<std::string>, kChannels> wanted;
    for (std::uint32_t channel = 0; channel < kChannels; ++channel) wanted[channel] = IdsOf(channel);
    host.Signal(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);

    const Sent sent = ReadHostRecord(record);
    std::uint64_t received = 0;
    for (std::uint32_t channel = 0; channel < kChannels; ++channel) {
        const std::vector<QuoteRecord> quotes = ReadRecords(Folder(channel) + "/quotes");
        EXPECT_TRUE(quotes == sent.quotes[channel])
            << "channel " << channel << ": received " << quotes.size() << ", sent " << sent.quotes[channel].size();
        EXPECT_EQ(sent.ids[channel], wanted[channel]) << "channel " << channel;
        received += quotes.size();
    }
    EXPECT_GE(received, kQuotes);
}

}  // namespace
}  // namespace hosted
