#ifndef VEXO_EXAMPLES_MARKET_DATA_ADAPTER_H
#define VEXO_EXAMPLES_MARKET_DATA_ADAPTER_H

#include <VexoZceMdApi.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <vector>

#include <enyx-sim/md_payload.h>

#include "framework_adapter/Instruments.h"
#include "framework_adapter/SpscRing.h"

struct Quote {
    const Instrument* instrument;  ///< valid as long as the adapter
    int level;                     ///< 1, or 5: the best price of five
    std::int64_t last, bid, ask;   ///< 1/10000 yuan
    std::uint32_t bidLots, askLots;
    unsigned long receivedNs;  ///< real time at which the polling thread had the packet
};

/// The framework's side. The worker thread makes all calls. They may take their time, as long as the ring has room;
/// they must not throw.
class MarketDataListener {
public:
    virtual ~MarketDataListener() = default;
    virtual void onInstrument(const Instrument& instrument) = 0;  ///< before its first quote
    virtual void onQuote(const Quote& quote) = 0;
    /// The worker was too slow: so many quotes are lost. What the framework knows of prices may be out of date.
    virtual void onDropped(unsigned long quotes) = 0;
    /// After the last quote: stop() was called, or the library caught a stop signal. From its first quote on the
    /// library catches SIGINT and SIGTERM, even if the framework had handlers before; so the framework learns of them
    /// here.
    virtual void onEnd() = 0;
};

/// Takes quotes from the library on a polling thread, and hands them to a framework on a worker thread.
class MarketDataAdapter : private IVexoZceMdSpi {
public:
    /// @param slots  how many quotes may wait for the worker: the rate of a burst times the worker's longest pause
    MarketDataAdapter(MarketDataListener& listener, const Products& products, std::size_t slots)
        : m_listener(listener), m_products(products), m_ring(slots) {}
    ~MarketDataAdapter() override { stop(); }

    /// Starts the channel, in seconds. @return false when there can be no log. Other failures end the process.
    bool start(const char* ini);
    /// Ends both threads. The worker hands over what is in the ring. Not from a call of the listener.
    void stop();

private:
    static constexpr std::size_t kTableRows = 65536;  // an index has 16 bits
    // The callbacks are not told the length: it follows from the type.
    static constexpr std::size_t kLevel1 = sizeof(enyx_sim::Level1Quote), kLevel5 = sizeof(enyx_sim::Level5Quote);
    struct alignas(64) Packet {  // the two threads never use the same cache line of the ring
        unsigned long receivedNs;
        int type;
        unsigned char payload[kLevel5];
    };

    // ---- the polling thread ----
    void poll(const char* ini, std::promise<bool> started);
    int OnUpSubsResult17(const unsigned char* data) override { return keep(17, data, kLevel1); }
    int OnUpSubsResult18(const unsigned char* data) override { return keep(18, data, kLevel5); }
    int OnUpSubsResult19(const unsigned char* data) override { return keep(19, data, kLevel1); }
    int OnUpSubsResult20(const unsigned char* data) override { return keep(20, data, kLevel5); }
    int keep(int type, const unsigned char* data, std::size_t size);

    // ---- the worker thread ----
    void work();
    void handOver(const Packet& packet);
    const Instrument* instrumentOf(const enyx_sim::QuoteCommon& quote);

    MarketDataListener& m_listener;
    const Products& m_products;
    SpscRing<Packet> m_ring;
    std::vector<std::unique_ptr<Instrument>> m_instruments = std::vector<std::unique_ptr<Instrument>>(2 * kTableRows);
    std::future<void> m_poller, m_worker;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_hasEnded{false};                  // nothing more will come into the ring
    alignas(64) std::atomic<unsigned long> m_dropped{0};  // the polling thread counts
};

#endif
