#pragma once

#include <gtest/gtest.h>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "src/config/ConfigFile.h"
#include "tests/doubles/FakeDrv.h"
#include "tests/support/TempDir.h"

/// A register driver that also prints what it is asked, "W 0x300 0x1" or "R 0x103", so that log lines and register
/// calls are seen in one order.
class PrintingDrv : public test_support::FakeDrv {
public:
    int ReadInt32(unsigned long addr, unsigned int& value) override;
    int WriteInt32(unsigned long addr, unsigned int value) override;
};

/// An ini file in a directory of its own, and a configuration object that reads it.
class ConfigTest : public testing::Test {
protected:
    using Config = Vexo2_U50::CZceConfigFile;
    using Lines = std::vector<std::string>;

    ConfigTest();
    ~ConfigTest() override;

    /// A configuration object over a file with this text, not yet loaded. The file of the call before is overwritten.
    Config& Make(const std::string& ini);
    /// The same, loaded. Throws when the file is refused.
    Config& Load(const std::string& ini);
    /// A loaded object of the master channel with these lines in its section `config`.
    Config& LoadMaster(const std::string& lines) { return Load("[config]\ndevice=xilinx0:0\n" + lines); }

    /// All that the action writes: log lines as "ERROR text", register calls, plain output. Expectations belong behind
    /// it, not into it: what googletest prints meanwhile would be taken for output.
    static Lines OutputOf(const std::function<void()>& action);

    test_support::TempDir dir;
    PrintingDrv drv;
    std::unique_ptr<Config> config;
};
