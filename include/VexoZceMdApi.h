/// @file
/// Level-1 and Level-5 market data of the Zhengzhou Commodity Exchange, from the FPGA card in this host.
///
///     class Quotes : public IVexoZceMdSpi { ... };
///     Quotes quotes;
///     IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
///     if (api->VexoStart(quotes, "zce.ini") == 0)
///         while (api->VexoRecv() != -1) {}
///     IVexoZceMdApi::DestroyVexoZceMdApi(*api);
///
/// The library makes no thread: everything, the callbacks included, runs on the thread that calls it.
#ifndef VEXO_ZCE_MD_API_H
#define VEXO_ZCE_MD_API_H

#ifndef VEXO_ZCE_API
#define VEXO_ZCE_API __attribute__((visibility("default")))
#endif

/// What the application implements to receive market data. One call a packet, on the thread inside VexoRecv or
/// VexoRecvStart, before the next packet is looked at: a slow callback makes the card drop packets.
///
/// `data` is the packet's payload: the card's packet from byte 12 on, neither checked nor copied. It belongs to the
/// card's library and is valid only during the call; its layout is the card's. The result is not used.
/// An exception thrown by a callback leaves through the VexoRecv or VexoRecvStart that polled the packet.
class IVexoZceMdSpi {
public:
    /// Packet type 17: Level-1, single-leg. @param data the payload @return not used
    virtual int OnUpSubsResult17(const unsigned char* data) = 0;
    /// Packet type 18: Level-5, single-leg. @param data the payload @return not used
    virtual int OnUpSubsResult18(const unsigned char* data) = 0;
    /// Packet type 19: Level-1, combination. @param data the payload @return not used
    virtual int OnUpSubsResult19(const unsigned char* data) = 0;
    /// Packet type 20: Level-5, combination. @param data the payload @return not used
    virtual int OnUpSubsResult20(const unsigned char* data) = 0;
    virtual ~IVexoZceMdSpi() {}  // last, so that the four callbacks are slots 0 to 3
};

/// One DMA channel of the card. Not thread-safe: one object is used by one thread; several objects, each on its own
/// channel, may be used by several threads.
class IVexoZceMdApi {
public:
    /// Starts as VexoStart does, then receives until SIGINT or SIGTERM.
    /// @param spi      as for VexoStart
    /// @param cfgPath  as for VexoStart
    /// @return 0 after a stop signal, -1 when VexoStart failed
    virtual int VexoRecvStart(IVexoZceMdSpi& spi, const char* cfgPath) = 0;

    /// Starts the channel: opens the log fpga_YYYYMMDD.log in the working directory, reads the configuration, pins
    /// the calling thread to its CPU; on channel 0 also resets, checks and programs the card (seconds), and restores or
    /// begins to learn the instrument map. Opens the DMA stream.
    /// May be called once per object.
    /// @param spi      receives the market data; not owned, must outlive this object
    /// @param cfgPath  ini file; null counts as a failure, and only standard output says so
    /// @return 0 on success; -1 when the log could not be opened (the reason is on standard error and standard
    ///         output). A later call then starts without a log. Every other failure is logged and ends the process with
    ///         exit status 0.
    /// @throw  std::bad_alloc when memory is short
    /// The handlers of SIGINT and SIGTERM are installed, and SIGPIPE ignored, with the first market-data packet;
    /// until then these signals have the effect that the application gave them.
    virtual int VexoStart(IVexoZceMdSpi& spi, const char* cfgPath) = 0;

    /// Polls the stream once and handles at most one packet. Does not wait for one. On channel 0 a packet of the
    /// contract map may take longer than a quote: it writes the card's registers and the day file.
    /// @return 1 when a market-data packet reached the callbacks, 0 when there was no packet or another one, -1 after a
    ///         stop signal or without a VexoStart that returned 0
    virtual int VexoRecv() = 0;

    /// Makes an API object; the first one in the process also makes the card's register driver. From one thread only.
    /// @return the object, to be ended with DestroyVexoZceMdApi
    /// @throw  std::runtime_error "CreateVexoZceMdApi failed" when memory is short
    VEXO_ZCE_API static IVexoZceMdApi* CreateVexoZceMdApi();

    /// Ends an API object: closes its stream and logs the stream's counters. Does nothing for a null reference or for
    /// an object that CreateVexoZceMdApi did not make. Not from inside a callback, nor while another thread is inside
    /// a call of the object.
    /// @param api  the object
    VEXO_ZCE_API static void DestroyVexoZceMdApi(IVexoZceMdApi& api);

protected:
    ~IVexoZceMdApi() {}  // ended by DestroyVexoZceMdApi alone
};

#endif
