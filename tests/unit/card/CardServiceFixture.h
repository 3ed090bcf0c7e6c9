#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>

#include "src/card/FpgaServ.h"
#include "tests/doubles/LogLines.h"
#include "tests/support/FakeTime.h"

#include "tests/unit/card/ProbingDrv.h"

namespace test_support {

/// A card service of the master channel over a driver without a card, on Monday 2025-03-03 at 10:00:00.
class CardServiceFixture : public testing::Test {
protected:
    CardServiceFixture() {
        Vexo2_U50::CZceFpgaServ::m_bReseted = false;
        serv.Init(&drv);
    }
    ~CardServiceFixture() override { Vexo2_U50::CZceFpgaServ::m_bReseted = false; }

    // The log capture swallows what a failed expectation prints.
    void TearDown() override {
        if (!HasFailure()) return;
        for (const std::string& line : log.Take()) std::cerr << line << '\n';
    }

    FakeTime clock;
    LogLines log;
    ProbingDrv drv;
    Vexo2_U50::InstIdToIndex idToIndex;
    Vexo2_U50::CZceFpgaServ serv{idToIndex, 0};
};

}  // namespace test_support
