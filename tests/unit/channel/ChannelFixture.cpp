#include "tests/unit/channel/ChannelFixture.h"

#include <algorithm>
#include <cstdio>
#include <regex>

#include "interface/CardRegisters.h"

using test_support::FakeDma;
using test_support::FakeDrv;

ChannelTest::ChannelTest() : time(day.year, day.month, day.day, 12, 0, 0), api(nullptr), drv(new TraceDrv) {
    api.m_pSpi = &spi;
    drv->registers[card_reg::kTradingDate] = day.Number();
    drv->registers[card_reg::kHardwareVersion] = 12;
    drv->registers[card_reg::kVerdictOrFibre] = card_reg::kAllFibres;
    drv->scripted[card_reg::kVerdictOrFibre] = {card_reg::kVerdictAccepted};
    time.OnSleep([](unsigned int seconds) { std::printf("sleep %u\n", seconds); });
    // Stop signals count as handled: what installs the handlers is a test of its own.
    CZceDmaChanImpl::m_bSignalRegister = true;
}

ChannelTest::~ChannelTest() {
    EndChannel();
    delete drv;
    CZceDmaChanImpl::m_bSignalRegister = false;
}

void ChannelTest::EndChannel() {
    if (!channel) return;
    auto* fpga = channel->m_pFpgaServ;
    auto* contract = channel->m_pContractServ;
    auto* bin = channel->m_pBinFile;
    const int before = FakeDrv::destroyed;
    channel.reset();
    if (FakeDrv::destroyed != before) drv = nullptr;
    delete contract;
    delete bin;
    delete fpga;
}

void ChannelTest::MakeChannel(const std::string& ini) {
    cfg = std::make_unique<Vexo2_U50::CZceConfigFile>(dir.Write("zce.ini", ini), drv, &api);
    ASSERT_EQ(cfg->Init(), 0U);
    channel = std::make_unique<CZceDmaChanImpl>(drv, &api, cfg.get());
    log.Take();
}

void ChannelTest::MakeServices() {
    channel->m_pFpgaServ = new Vexo2_U50::CZceFpgaServ(channel->m_mapInstIdx, 0);
    channel->m_pFpgaServ->Init(drv);
    channel->m_pBinFile = new CBrixBinFile(channel->m_mapInstIdx, 0);
    channel->m_pContractServ = new Vexo2_U50::CContractServ(channel->m_mapInstIdx, cfg.get(), channel->m_pBinFile,
                                                            channel->m_pFpgaServ, 0, cfg->getArrayReference());
    channel->m_bCfgParsed = true;
}

FakeDma& ChannelTest::MakeDma() {
    auto* dma = new FakeDma;
    channel->m_pDma = dma;
    return *dma;
}

std::string ChannelTest::Dated(std::string text) const {
    static const std::regex mark("DATE");
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%x", day.Number());
    text = std::regex_replace(text, std::regex("HEXDATE"), hex);
    return std::regex_replace(text, mark, day.Text());
}

void ChannelTest::ExpectTimeline(const std::vector<std::string>& lines) {
    std::string expected;
    for (const std::string& line : lines) expected += Dated(line) + '\n';
    EXPECT_EQ(Timeline(), expected);
}

PacketTest::PacketTest() {
    MakeChannel();
    MakeServices();
    channel->m_bCfgInsSuccess = true;
    channel->m_tCfgSuccTime = std::chrono::system_clock::now();
}

void PacketTest::Deliver(const std::vector<unsigned char>& packet) {
    const std::unique_ptr<unsigned char[]> exact(new unsigned char[packet.size()]);
    std::copy(packet.begin(), packet.end(), exact.get());
    CZceDmaChanImpl::DmaEntrance(exact.get(), static_cast<unsigned int>(packet.size()), channel.get());
}

std::vector<unsigned char> PacketTest::Packet(std::uint32_t type, std::size_t size) {
    std::vector<unsigned char> packet(size);
    for (std::size_t i = 0; i < size; ++i) packet[i] = static_cast<unsigned char>(i + 1);
    SetType(packet, type);
    return packet;
}

void PacketTest::SetType(std::vector<unsigned char>& packet, std::uint32_t type) {
    for (std::size_t i = 0; i < packet.size() && i < sizeof type; ++i)
        packet[i] = static_cast<unsigned char>(type >> (8 * i));
}
