#include "tests/unit/config/ConfigFixture.h"

#include <cstdio>
#include <stdexcept>

#include "tests/doubles/LogLines.h"

int PrintingDrv::ReadInt32(unsigned long addr, unsigned int& value) {
    std::printf("R 0x%lx\n", addr);
    return FakeDrv::ReadInt32(addr, value);
}

int PrintingDrv::WriteInt32(unsigned long addr, unsigned int value) {
    std::printf("W 0x%lx 0x%x\n", addr, value);
    return FakeDrv::WriteInt32(addr, value);
}

// The feed switches are class-wide: every test starts and leaves them as the process does.
ConfigTest::ConfigTest() { Config::m_SwitchReg = 3; }

ConfigTest::~ConfigTest() { Config::m_SwitchReg = 3; }

ConfigTest::Config& ConfigTest::Make(const std::string& ini) {
    config = std::make_unique<Config>(dir.Write("zce.ini", ini), &drv, nullptr);
    return *config;
}

ConfigTest::Config& ConfigTest::Load(const std::string& ini) {
    if (Make(ini).Init() != 0) throw std::runtime_error("the test's ini file is refused:\n" + ini);
    return *config;
}

ConfigTest::Lines ConfigTest::OutputOf(const std::function<void()>& action) {
    test_support::LogLines log;
    action();
    return log.Take();
}
