#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "src/api/ApiImpl.h"
#include "tests/support/QuoteCallbacks.h"

namespace fuzz {

/// An application that notes what it was called with last.
class NotingSpi : public QuoteCallbacks {
public:
    unsigned int calls = 0;
    int type = 0;
    const unsigned char* data = nullptr;
    bool throws = false;

private:
    int OnQuote(int quoteType, const unsigned char* payload) override;
};

/// A master (channel 0) and another channel (3) that were started over an embedded simulated card, with a day file and
/// a log file of their own. Their next poll brings what is given to Bring(), whatever the card itself sends.
class LiveChannels {
public:
    static constexpr char kIni[] =
        "[version]\n1.1.2.12 = 1\n1.1.2.13 = 13\n[config]\ndevice = xilinx0:%u\nBIN_DELAY_TIME = 1\n"
        "[channel0]\ninsts = SR,CF505\noptions = recv\n[channel1]\ninsts = ALL\noptions = norecv\nips = recv\n"
        "[channel15]\ninsts = AP,MA505C2000\noptions = recv\nspd = recv\n";

    LiveChannels();
    ~LiveChannels();
    LiveChannels(const LiveChannels&) = delete;
    LiveChannels& operator=(const LiveChannels&) = delete;

    CVexoZceMdApiImpl& Master() { return *m_master; }
    CVexoZceMdApiImpl& Other() { return *m_other; }
    /// Makes both channels forget what packets have taught them.
    void Forget();
    /// The packet that the next poll hands over, from a buffer of exactly its size.
    static void Bring(const std::uint8_t* data, std::size_t size);
    /// The buffer from which the last packet was handed over.
    static const unsigned char* LastBuffer();

    NotingSpi spi;

private:
    CVexoZceMdApiImpl* Start(unsigned int channel);
    static void End(CVexoZceMdApiImpl* api);

    CVexoZceMdApiImpl* m_master = nullptr;
    CVexoZceMdApiImpl* m_other = nullptr;
};

}  // namespace fuzz
