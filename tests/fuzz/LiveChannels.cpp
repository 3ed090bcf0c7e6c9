#include "tests/fuzz/LiveChannels.h"

#include <cstdio>
#include <stdexcept>

#include "tests/fuzz/Fuzz.h"
#include "tests/support/DayFiles.h"
#include "tests/support/FakeTime.h"

namespace {

constexpr unsigned int kOtherChannel = 3;

struct Waiting {
    std::unique_ptr<unsigned char[]> bytes;
    std::uint32_t size = 0;
    bool isThere = false;
};

Waiting s_next;

}  // namespace

// The card library's poll, taken over by the program: a card of its own sends no packet of 100,000 bytes. An exception
// of the handler ends the process here, as it would in a library in C.
int enyx_hw_a2c_stream_poll_once(enyx_hw_a2c_stream*, enyx_hw_a2c_stream_handler handler, void* context) {
    if (!s_next.isThere) return 0;
    s_next.isThere = false;
    [&]() noexcept { handler(s_next.bytes.get(), s_next.size, context); }();
    return 1;
}

namespace fuzz {

int NotingSpi::OnQuote(int quoteType, const unsigned char* payload) {
    ++calls;
    type = quoteType;
    data = payload;
    if (throws) throw std::runtime_error("the application failed");
    return 17;
}

LiveChannels::LiveChannels() {
    const DayFiles day;
    const test_support::FakeTime clock(day.year, day.month, day.day, 12, 0, 0);
    m_master = Start(0);
    m_other = Start(kOtherChannel);
}

LiveChannels::~LiveChannels() {
    End(m_other);
    End(m_master);
}

CVexoZceMdApiImpl* LiveChannels::Start(unsigned int channel) {
    char text[sizeof kIni + 8];
    std::snprintf(text, sizeof text, kIni, channel);
    const MemoryFile ini;
    ini.Write(text);
    auto* api = dynamic_cast<CVexoZceMdApiImpl*>(IVexoZceMdApi::CreateVexoZceMdApi());
    Require(api->VexoStart(spi, ini.Path().c_str()) == 0, "a channel does not start");
    return api;
}

// The library keeps its services and the configuration until the process ends. A campaign starts too often for that.
void LiveChannels::End(CVexoZceMdApiImpl* api) {
    auto* const fpga = api->m_pDmaChan->m_pFpgaServ;
    auto* const contract = api->m_pDmaChan->m_pContractServ;
    auto* const file = api->m_pDmaChan->m_pBinFile;
    auto* const config = api->m_pCfgFile;
    // The services refer to the channel's map and end before it. The channel's end uses none of them.
    delete contract;
    delete file;
    delete fpga;
    IVexoZceMdApi::DestroyVexoZceMdApi(*api);
    delete config;
}

void LiveChannels::Forget() {
    CZceDmaChanImpl& channel = *m_master->m_pDmaChan;
    channel.m_mapInstIdx.clear();
    channel.m_vecRecvClass.clear();
    channel.m_ulParsedCnt = 0;
    channel.m_bCfgInsSuccess = false;
    channel.m_pFpgaServ->oneLegNames.clear();
    channel.m_pFpgaServ->combineNames.clear();
    channel.m_pFpgaServ->oneLegChanBits.clear();
    channel.m_pFpgaServ->combineChanBits.clear();
}

void LiveChannels::Bring(const std::uint8_t* data, std::size_t size) {
    s_next.bytes = ExactCopy(data, size);
    s_next.size = static_cast<std::uint32_t>(size);
    s_next.isThere = true;
}

const unsigned char* LiveChannels::LastBuffer() { return s_next.bytes.get(); }

}  // namespace fuzz
