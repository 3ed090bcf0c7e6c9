#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "src/api/ApiImpl.h"
#include "src/channel/DmaChannel.h"
#include "tests/doubles/FakeDma.h"
#include "tests/doubles/LogLines.h"
#include "tests/doubles/TraceDrv.h"
#include "tests/support/DayFiles.h"
#include "tests/support/FakeTime.h"
#include "tests/support/MapPacket.h"
#include "tests/support/QuoteCallbacks.h"
#include "tests/support/TempDir.h"

/// Notes each packet's type and where its payload lies; each callback returns `result`.
class RecordingSpi : public QuoteCallbacks {
public:
    std::vector<std::pair<int, const unsigned char*>> calls;
    int result = 0;
    std::function<void(const unsigned char* data)> onCall;

private:
    int OnQuote(int type, const unsigned char* data) override {
        calls.emplace_back(type, data);
        if (onCall) onCall(data);
        return result;
    }
};

/// A channel object over a register driver and a DMA driver without a card, at noon of a day of its own, in an empty
/// working directory. Log lines and register calls are captured in one timeline.
class ChannelTest : public testing::Test {
protected:
    /// Channel 0 of card 0, with everything that a start-up needs.
    static constexpr char kMasterIni[] =
        "[config]\ndevice = xilinx0:0\n"
        "L5_DSTPORT = 28501\n"
        "L5_IPA = 239.3.50.1\nL5_IPB = 239.3.51.1\nL5_PORT = 18501\n"
        "L1_IPA = 239.3.10.1\nL1_IPB = 239.3.11.1\nL1_PORT = 18101\n"
        "[version]\n1.1.2.12 = 11\n1.1.2.13 = 12\n";
    static constexpr char kSlaveIni[] = "[config]\ndevice = xilinx2:3\n";

    ChannelTest();
    ~ChannelTest() override;

    /// The channel and its configuration; the services are made by Init or by MakeServices.
    void MakeChannel(const std::string& ini = kMasterIni);
    /// The services as Init makes them, without touching the card; the subscription rules count as parsed.
    void MakeServices();
    /// Ends the channel and then the services, which outlive their channel by design.
    void EndChannel();
    /// Gives the channel a DMA driver without a card.
    test_support::FakeDma& MakeDma();
    Vexo2_U50::ZceSubsInfo_t& Rules(unsigned int chan) { return cfg->getArrayReference()[chan]; }

    /// Log lines and register calls since the last call, in their order.
    std::string Timeline() { return drv->Timeline(log.TakeText()); }
    /// The same, compared with lines that may name the date of the test as "DATE".
    void ExpectTimeline(const std::vector<std::string>& lines);
    std::string Dated(std::string text) const;

    DayFiles day;
    test_support::FakeTime time;
    test_support::TempDir dir;
    test_support::LogLines log;
    RecordingSpi spi;
    CVexoZceMdApiImpl api;
    TraceDrv* drv;  ///< null once a channel object that owned it has ended
    std::unique_ptr<Vexo2_U50::CZceConfigFile> cfg;
    std::unique_ptr<CZceDmaChanImpl> channel;
    Vexo2_U50::ZceDmaInitParms_t parms{0, 474, "CUSTOM_CHAN0_DATA"};
};

/// A channel that has learned all that it is configured for: a contract-map packet then only adds instruments.
class PacketTest : public ChannelTest {
protected:
    PacketTest();

    /// Hands the packet to the entry, from a buffer of exactly its size.
    void Deliver(const std::vector<unsigned char>& packet);
    void Deliver(const MapPacket& packet) { Deliver(packet.Bytes()); }
    /// A packet of a type with @p size bytes in all, payload bytes counting up from 1.
    static std::vector<unsigned char> Packet(std::uint32_t type, std::size_t size);
    /// Writes the type, or as much of it as the packet holds.
    static void SetType(std::vector<unsigned char>& packet, std::uint32_t type);
};
