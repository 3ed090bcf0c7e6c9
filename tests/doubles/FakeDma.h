#pragma once

#include <deque>
#include <functional>
#include <vector>

#include "src/driver/IDrvDMA.h"

namespace test_support {

/// A DMA driver without a card: hands over the packets that a test queued, one a poll, each from a buffer of exactly
/// its size that is gone when the handler returns.
class FakeDma : public IDrvDMA {
public:
    using Packet = std::vector<unsigned char>;

    FakeDma() = default;
    ~FakeDma() override;

    int Init(void* record) override;
    int Send(void* data, unsigned int size) override;
    int RecvOnce(void* handler, void* ctx) override;
    int RecvOnceCb() override;
    int RegisterHandler(void* handler, void* ctx) override;
    int PollData() override;

    std::deque<Packet> packets;
    std::function<void()> onPoll;  ///< called at the begin of every poll
    int polls = 0;
    bool unwound = false;  ///< an exception left a handler, which the card's C library would not survive

    DmaPacketHandler lastHandler = nullptr;  ///< of the last RecvOnce
    void* lastContext = nullptr;
    DmaPacketHandler registeredHandler = nullptr;
    void* registeredContext = nullptr;

    static int destroyed;  ///< FakeDma objects that have ended so far

private:
    int Poll(DmaPacketHandler handler, void* ctx);
};

}  // namespace test_support
