#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "src/driver/CoreLookup.h"
#include "src/driver/DmaStream.h"
#include "src/driver/RegisterDriver.h"
#include "tests/doubles/FakeEnyxHw.h"
#include "tests/doubles/LogLines.h"
#include "tests/support/FakeTime.h"

/// A healthy card at bus 0 behind the drivers, a clock that stands still, the log collected. The drivers' caches are
/// process-wide and hold handles of the card, so they are emptied on both sides of a test.
class DrvFixture : public testing::Test {
protected:
    using Lines = std::vector<std::string>;

    DrvFixture() { DrvEnyxVarClear(); }
    ~DrvFixture() override { DrvEnyxVarClear(); }

    test_support::FakeTime clock;
    test_support::FakeEnyxHw hw;
    test_support::LogLines log;
};

/// The same with the register driver over core 474 of bus 0.
class RegisterFixture : public DrvFixture {
protected:
    RegisterFixture() {
        EnyxRegInitParms_t parms{0, 474};
        EXPECT_EQ(drv.Init(&parms), 0);
        hw.TakeCalls();
    }

    CDrvEnyxReg drv;
};
