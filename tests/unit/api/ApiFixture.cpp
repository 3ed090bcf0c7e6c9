#include "tests/unit/api/ApiFixture.h"

ApiTest::ApiTest() : time(day.year, day.month, day.day, 12, 0, 0) {
    hw.record = false;
    hw.cards = 2;
    hw.registers[0x106] = day.Number();
    hw.registers[0x101] = 12;
    hw.registers[0x103] = 1;  // accepts every version; one fibre
}

ApiTest::~ApiTest() { delete CDrvEnyxReg::instance; }

std::string ApiTest::Ini(unsigned int card, unsigned int chan, const std::string& more) const {
    const std::string device = std::to_string(card) + ":" + std::to_string(chan);
    return dir.Write("card" + std::to_string(card) + "_channel" + std::to_string(chan) + ".ini",
                     "[config]\ndevice = xilinx" + device + "\n[version]\n1.1.2.12 = 11\n1.1.2.13 = 12\n" + more);
}

void ApiTest::Quote(unsigned int chan, unsigned char type) {
    test_support::FakeEnyxHw::Bytes packet(64);
    packet[0] = type;
    hw.packets[Stream(chan)].push_back(packet);
}

IVexoZceMdApi* ApiTest::Started(unsigned int chan) {
    IVexoZceMdApi* api = IVexoZceMdApi::CreateVexoZceMdApi();
    EXPECT_EQ(api->VexoStart(spi, Ini(0, chan).c_str()), 0);
    return api;
}
