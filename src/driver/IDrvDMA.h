#pragma once

/// Takes each packet of a DMA driver. The bytes belong to the card's library and are valid only during the call.
using DmaPacketHandler = void (*)(const unsigned char* pkt, unsigned int len, void* ctx);

/// The DMA streams of one channel. One object serves one thread. Results are 0 or -1 unless said otherwise.
class IDrvDMA {
public:
    virtual ~IDrvDMA() = default;
    virtual int Init(void* record) = 0;
    /// Sends one buffer to the card, trying again for up to three seconds while the stream is busy.
    virtual int Send(void* data, unsigned int size) = 0;
    /// Polls once. @p handler is a DmaPacketHandler. @return the number of packets handled, 0 or 1
    virtual int RecvOnce(void* handler, void* ctx) = 0;
    /// Polls once with the registered handler. @return 0 for one packet handled, -1 for none
    virtual int RecvOnceCb() = 0;
    virtual int RegisterHandler(void* handler, void* ctx) = 0;
    virtual int PollData() = 0;
};
