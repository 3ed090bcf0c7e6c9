#include "framework_adapter/MarketDataAdapter.h"

#include <VexoZceUtil.h>

#include <cstring>
#include <thread>

#include "program.h"

bool MarketDataAdapter::start(const char* ini) {
    std::promise<bool> started;
    std::future<bool> hasStarted = started.get_future();
    m_poller = std::async(std::launch::async, &MarketDataAdapter::poll, this, ini, std::move(started));
    if (!hasStarted.get()) return false;
    m_worker = std::async(std::launch::async, &MarketDataAdapter::work, this);
    return true;
}

void MarketDataAdapter::stop() {
    m_stop = true;
    if (m_poller.valid()) m_poller.wait();
    if (m_worker.valid()) m_worker.wait();
}

// ---- the polling thread: nothing here waits, allocates or prints once the channel has started ----

void MarketDataAdapter::poll(const char* ini, std::promise<bool> started) {
    const example::Api api = example::createApi();
    {
        const example::FailedStart failed;
        const bool success = api->VexoStart(*this, ini) == 0;  // pins this thread to the `cpucore` of the ini file
        started.set_value(success);
        if (!success) return;
    }
    while (!m_stop.load(std::memory_order_relaxed) && api->VexoRecv() != -1) {
    }
    m_hasEnded.store(true, std::memory_order_release);  // after the last publish()
}

// The packet is copied, because the card reuses its buffer after the call. A full ring costs this quote, and never a
// wait: while this thread waits, the card drops the quotes of every instrument.
int MarketDataAdapter::keep(int type, const unsigned char* data, std::size_t size) {
    Packet* const packet = m_ring.claim();
    if (packet == nullptr) {
        m_dropped.store(m_dropped.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        return 0;
    }
    packet->receivedNs = get_time();
    packet->type = type;
    std::memcpy(packet->payload, data, size);
    m_ring.publish();
    return 0;
}

// ---- the worker thread ----

void MarketDataAdapter::work() {
    unsigned long told = 0;
    for (;;) {
        const bool ended = m_hasEnded.load(std::memory_order_acquire);  // before the look at the ring
        if (const Packet* packet = m_ring.front()) {
            handOver(*packet);
            m_ring.pop();
        } else if (ended) {
            break;
        } else {
            std::this_thread::yield();  // to wake a sleeper, the polling thread would have to call the system
        }
        const unsigned long dropped = m_dropped.load(std::memory_order_relaxed);
        if (dropped != told) m_listener.onDropped(dropped - told);
        told = dropped;
    }
    m_listener.onEnd();
}

void MarketDataAdapter::handOver(const Packet& packet) {
    Quote quote{};
    enyx_sim::QuoteCommon common;
    std::memcpy(&common, packet.payload, sizeof common);  // packed: never take a reference to a field of the payload
    if (packet.type == 17 || packet.type == 19) {
        enyx_sim::Level1Quote level1;
        std::memcpy(&level1, packet.payload, sizeof level1);
        quote = {nullptr, 1, common.lastPrice, level1.bidPrice, level1.askPrice, level1.bidVolume, level1.askVolume, 0};
    } else {
        enyx_sim::Level5Quote level5;
        std::memcpy(&level5, packet.payload, sizeof level5);
        quote = {nullptr,
                 5,
                 common.lastPrice,
                 level5.bidPrice[0],
                 level5.askPrice[0],
                 level5.bidVolume[0],
                 level5.askVolume[0],
                 0};
    }
    quote.instrument = instrumentOf(common);
    quote.receivedNs = packet.receivedNs;
    m_listener.onQuote(quote);
}

// Index and table name a row of the card: an array finds the instrument faster than its id could.
const Instrument* MarketDataAdapter::instrumentOf(const enyx_sim::QuoteCommon& quote) {
    std::unique_ptr<Instrument>& known = m_instruments[(quote.table != 0 ? kTableRows : 0) + quote.instrumentIndex];
    if (known == nullptr) {
        known = std::make_unique<Instrument>(m_products.describe({quote.id, ::strnlen(quote.id, sizeof quote.id)}));
        m_listener.onInstrument(*known);
    }
    return known.get();
}
