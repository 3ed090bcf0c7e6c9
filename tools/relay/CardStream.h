#pragma once

#include <VexoZceMdApi.h>
#include <enyx-hw-c/enyx_hw.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "tools/relay/PacketSource.h"

class CVexoZceMdApiImpl;
class CZceDmaChanImpl;
class CDrvDMAEnyx;

namespace relay {

/// The channel that the relay reads. The library opens it, as for any application. Its callbacks leave out the head of
/// a packet; so the packets are polled at the card's interface, where they are whole.
class CardStream : public PacketSource {
public:
    /// Starts as an application with this configuration does: a master programs the card and learns the map, and its
    /// log goes to standard output and into the working directory. Throws Failure.
    explicit CardStream(const std::string& config);
    /// Opens the stream alone; there is no log. Throws Failure.
    CardStream(std::uint32_t bus, std::uint32_t channel);
    /// Closes the stream. The library logs its counters before.
    ~CardStream() override;

    bool wait(const std::function<bool()>&) override { return true; }
    std::uint32_t mtu() const override { return m_mtu; }
    bool isSimulated() const override;
    bool knowsPolls() const override { return true; }
    /// Takes at most one packet.
    bool poll(Intake& intake) override {
        m_intake = &intake;
        const int result = enyx_hw_a2c_stream_poll_once(m_stream, &onPacket, this);
        if (__builtin_expect(m_isOwnMatterUnderWay, 0)) endOwnMatter();
        if (result > 0) return true;
        result == 0 ? intake.noteIdlePoll() : intake.noteFailedPoll();
        return false;
    }
    /// Asks the card.
    std::optional<StreamCounts> counts() override;

private:
    // The library calls back with market data only when it polls itself, which it does not do here.
    struct NoCallbacks : IVexoZceMdSpi {
        int OnUpSubsResult17(const unsigned char*) override { return 0; }
        int OnUpSubsResult18(const unsigned char*) override { return 0; }
        int OnUpSubsResult19(const unsigned char*) override { return 0; }
        int OnUpSubsResult20(const unsigned char*) override { return 0; }
    };
    struct Counter {
        std::uint32_t last = 0;
        std::uint64_t total = 0;
    };

    static void onPacket(const std::uint8_t* data, std::uint32_t size, void* context);
    void handOver(const std::uint8_t* data, std::uint32_t size);
    void endOwnMatter();
    void begin(CDrvDMAEnyx& dma);
    void close();
    bool readCounters(bool isFirst);

    NoCallbacks m_callbacks;
    CVexoZceMdApiImpl* m_api = nullptr;     // with a configuration
    CZceDmaChanImpl* m_master = nullptr;    // the channel that learns the map
    std::unique_ptr<CDrvDMAEnyx> m_ownDma;  // without one
    CDrvDMAEnyx* m_dma = nullptr;
    enyx_hw_a2c_stream* m_stream = nullptr;
    Intake* m_intake = nullptr;
    std::uint32_t m_mtu = 0;
    bool m_isOwnMatterUnderWay = false;
    Counter m_backPressure, m_fifoErrors, m_errors;
};

}  // namespace relay
