#pragma once

#include <memory>

#include "tests/unit/driver/DrvFixture.h"

/// A stream driver over the streams of channel 0, not yet initialised. The accelerator is open already, as it is when
/// the register driver came first, so the calls of the streams begin with filter2.
class DmaFixture : public DrvFixture {
protected:
    DmaFixture() {
        EXPECT_NE(DrvEnyxCoreGetAcc(0), nullptr);
        hw.TakeCalls();
    }
    void InitOk() {
        ASSERT_EQ(dma->Init(&record), 0);
        hw.TakeCalls();
        log.Take();
    }

    static constexpr char kName[] = "CUSTOM_CHAN0_DATA";
    EnyxDmaInitParms_t record{0, kName, 0, 64, 0};
    std::unique_ptr<CDrvDMAEnyx> dma = std::make_unique<CDrvDMAEnyx>();
};
