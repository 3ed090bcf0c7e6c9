#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <string>
#include <vector>

#include "src/dayfile/DayFile.h"
#include "src/instruments/ContractServ.h"
#include "tests/doubles/LogLines.h"
#include "tests/support/FakeTime.h"

#include "tests/unit/card/ScriptedTables.h"

namespace test_support {

/// A contract service of the master channel with empty rules and an empty map, on Monday 2025-03-03 at 10:00:00.
class ContractServiceFixture : public testing::Test {
protected:
    ContractServiceFixture() {
        Vexo2_U50::CZceFpgaServ::m_bReseted = false;
        fpga.Init(&drv);
    }
    ~ContractServiceFixture() override { Vexo2_U50::CZceFpgaServ::m_bReseted = false; }

    // The log capture swallows what a failed expectation prints.
    void TearDown() override {
        if (!HasFailure()) return;
        for (const std::string& line : log.Take()) std::cerr << line << '\n';
    }

    FakeTime clock;
    LogLines log;
    ScriptedTables drv;
    Vexo2_U50::InstIdToIndex idToIndex;
    Vexo2_U50::ZceSubsInfo_t rules[card_reg::kChannels];
    CBrixBinFile binFile{idToIndex, 0};
    Vexo2_U50::CZceFpgaServ fpga{idToIndex, 0};
    Vexo2_U50::CContractServ contracts{idToIndex, nullptr, &binFile, &fpga, 0, rules};
};

}  // namespace test_support
