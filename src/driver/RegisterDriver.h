#pragma once

#include <enyx-hw-c/enyx_hw.h>
#include <cstdint>

#include "src/driver/IDrv.h"

/// What CDrvEnyxReg::Init takes.
struct EnyxRegInitParms_t {
    std::uint16_t uiBusId;   ///< card, 0 to 9
    std::uint16_t uiCoreId;  ///< hardware id of the register core
};

/// The register driver over the hardware interface. Each operation holds the core's own lock for its whole duration,
/// so a block transfer never mixes with another access to the core, from any thread or process.
/// Reads and writes before a successful Init are not allowed.
class CDrvEnyxReg : public IDrv {
public:
    CDrvEnyxReg() = default;
    /// The core, its register space and the accelerator stay open. If `instance` is this driver, it becomes null: the
    /// next user of the library makes a new driver.
    ~CDrvEnyxReg() override;

    /// @param param  an EnyxRegInitParms_t. After a success further calls do nothing, whatever their ids.
    int Init(void* param) override;
    int ReadInt8(unsigned long addr, unsigned char& value) override;
    int ReadInt16(unsigned long addr, unsigned short& value) override;
    int ReadInt32(unsigned long addr, unsigned int& value) override;
    int ReadInt64(unsigned long addr, unsigned long& value) override;
    long ReadLess128Bytes(unsigned long addr, unsigned char* buf, unsigned long len) override;
    long ReadBytes(unsigned long addr, unsigned char* buf, unsigned long len) override;
    int WriteInt8(unsigned long addr, unsigned char value) override;
    int WriteInt16(unsigned long addr, unsigned short value) override;
    int WriteInt32(unsigned long addr, unsigned int value) override;
    int WriteInt32_Log(unsigned long addr, unsigned int value) override;
    int WriteInt32_LogWithRead(unsigned long addr, unsigned int value) override;
    int WriteInt64(unsigned long addr, unsigned long value) override;
    long WriteLess128Bytes(unsigned long addr, unsigned char* buf, unsigned long len) override;
    long WriteBytes(unsigned long addr, unsigned char* buf, unsigned long len) override;

    enyx_hw_core* m_lpCore = nullptr;  ///< the core tree owns it
    bool m_bInited = false;

    static CDrvEnyxReg* instance;  ///< the one driver of the process; null until the factory makes it
};
