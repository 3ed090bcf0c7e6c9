#include "tools/relay/CardStream.h"

#include <cerrno>
#include <cstring>

#include "src/api/ApiImpl.h"
#include "src/channel/DmaChannel.h"
#include "src/channel/Packet.h"
#include "src/config/ConfigFile.h"
#include "src/driver/DmaStream.h"
#include "tools/relay/Failure.h"
#include "tools/relay/Settings.h"
#include "tools/stats/CardCounters.h"
#include "tools/tap/TapClock.h"

// Only a simulated card's library has it.
extern "C" [[gnu::weak]] int enyx_sim_is_simulated(void);

namespace relay {
namespace {

constexpr std::uint32_t kRegisterCoreId = 474;

std::string nameOf(std::uint32_t bus, std::uint32_t channel) {
    return "channel " + std::to_string(channel) + " of card " + std::to_string(bus);
}

[[noreturn]] void fail(const std::string& what, int error) {
    if (error == EBUSY) throw Failure(Failure::kFinding, what + " is taken: only one program can have it");
    if (error == ENODEV || error == ENOENT) throw Failure(Failure::kNoCard, what + ": there is no such card");
    throw Failure(Failure::kFinding,
                  what + " cannot be opened" + (error != 0 ? std::string(": ") + std::strerror(error) : ""));
}

}  // namespace

CardStream::CardStream(const std::string& config) {
    m_api = dynamic_cast<CVexoZceMdApiImpl*>(IVexoZceMdApi::CreateVexoZceMdApi());
    m_api->m_pSpi = &m_callbacks;
    if (m_api->LogInit(config.c_str()) != 0)
        throw Failure(Failure::kFinding, "the library's log cannot be opened in this directory");
    if (m_api->InitCfgInfo(config.c_str()) != 0)
        throw Failure(Failure::kFinding, config + ": the start-up failed; the log says why");
    Vexo2_U50::CZceConfigFile& settings = *m_api->m_pCfgFile;
    Vexo2_U50::ZceDmaInitParms_t parms{settings.GetBusId(), kRegisterCoreId, settings.m_strDmaChanName};
    auto* channel = new CZceDmaChanImpl(m_api->m_pDrv, m_api, &settings);
    m_api->m_pDmaChan = channel;  // from now on the API object's
    errno = 0;
    if (channel->Init(&parms) != 0 || channel->Work(&parms) != 0) {
        const int error = errno;
        close();
        fail(nameOf(parms.uiBusId, settings.GetDmaChannel()), error);
    }
    if (settings.bIsMasterChannel()) m_master = channel;
    begin(static_cast<CDrvDMAEnyx&>(*channel->m_pDma));
}

CardStream::CardStream(std::uint32_t bus, std::uint32_t channel) : m_ownDma(new CDrvDMAEnyx) {
    EnyxDmaInitParms_t parms{bus, "CUSTOM_CHAN" + std::to_string(channel) + "_DATA", 0, 64, 0};
    errno = 0;
    if (m_ownDma->Init(&parms) != 0) fail(nameOf(bus, channel), errno);
    begin(*m_ownDma);
}

void CardStream::begin(CDrvDMAEnyx& dma) {
    // The relay ends by its own handlers of SIGINT and SIGTERM; the library would install its own.
    CZceDmaChanImpl::m_bSignalRegister = true;
    m_dma = &dma;
    m_stream = dma.stream();
    m_mtu = dma.m_uiA2cMtu;
    readCounters(true);
}

CardStream::~CardStream() { close(); }

void CardStream::close() {
    if (m_api != nullptr) IVexoZceMdApi::DestroyVexoZceMdApi(*m_api);
    m_api = nullptr;
}

bool CardStream::isSimulated() const { return enyx_sim_is_simulated != nullptr; }

void CardStream::onPacket(const std::uint8_t* data, std::uint32_t size, void* context) {
    auto& self = *static_cast<CardStream*>(context);
    // A length above the MTU is not trusted: there may be no bytes to copy.
    size <= self.m_mtu ? self.m_intake->take(tap::clock_ticks::now(), data, size) : self.m_intake->lose();
    if (self.m_master != nullptr) self.handOver(data, size);
}

// A master learns the map and answers what the card announces.
void CardStream::handOver(const std::uint8_t* data, std::uint32_t size) {
    if (size < packet::kTypeSize || packet::isMarketData(packet::typeOf(data))) return;
    m_isOwnMatterUnderWay = true;
    CZceDmaChanImpl::DmaEntrance(data, size, m_master);
}

// Nothing may unwind through the card's library: the channel has kept what was thrown.
void CardStream::endOwnMatter() {
    m_isOwnMatterUnderWay = false;
    m_master->rethrowCallbackError();
}

bool CardStream::readCounters(bool isFirst) {
    const auto read = [&](Counter& counter, int (*ask)(const enyx_hw_a2c_stream*, std::uint32_t*)) {
        std::uint32_t value = 0;
        if (ask(m_stream, &value) != 0) return false;
        counter.total += isFirst ? 0 : stats::gained(counter.last, value);
        counter.last = value;
        return true;
    };
    return read(m_backPressure, enyx_hw_a2c_stream_stats_get_backpressure) &&
           read(m_fifoErrors, enyx_hw_a2c_stream_stats_get_fifo_errors) &&
           read(m_errors, enyx_hw_a2c_stream_stats_get_errors);
}

std::optional<StreamCounts> CardStream::counts() {
    if (!readCounters(false)) return std::nullopt;
    return StreamCounts{m_backPressure.total, m_fifoErrors.total, m_errors.total};
}

std::unique_ptr<PacketSource> openSource(const Settings& settings) {
    return settings.config.empty() ? std::make_unique<CardStream>(settings.place.bus, settings.place.channel)
                                   : std::make_unique<CardStream>(settings.config);
}

}  // namespace relay
