#pragma once

/// Access to the registers of one card. Addresses are 32-bit word indexes (0x102 is byte address 0x408 of the card).
/// Single-value operations return 0, or -1 after logging why; a failed read leaves the output untouched.
/// Block operations return the number of bytes moved, or -1 after a transfer that stopped part-way.
class IDrv {
public:
    virtual ~IDrv() = default;
    virtual int Init(void* param) = 0;
    virtual int ReadInt8(unsigned long addr, unsigned char& value) = 0;
    virtual int ReadInt16(unsigned long addr, unsigned short& value) = 0;
    virtual int ReadInt32(unsigned long addr, unsigned int& value) = 0;
    virtual int ReadInt64(unsigned long addr, unsigned long& value) = 0;
    /// Reads a big-endian field of up to 128 bytes into @p buf, first byte last.
    virtual long ReadLess128Bytes(unsigned long addr, unsigned char* buf, unsigned long len) = 0;
    virtual long ReadBytes(unsigned long addr, unsigned char* buf, unsigned long len) = 0;
    virtual int WriteInt8(unsigned long addr, unsigned char value) = 0;
    virtual int WriteInt16(unsigned long addr, unsigned short value) = 0;
    virtual int WriteInt32(unsigned long addr, unsigned int value) = 0;
    /// Same as WriteInt32. Despite its name it logs nothing on success.
    virtual int WriteInt32_Log(unsigned long addr, unsigned int value) = 0;
    /// Writes, then reads the register back so that the write has reached the card when this returns.
    /// @return the result of the read-back alone. A failed write is logged, but does not change the result.
    virtual int WriteInt32_LogWithRead(unsigned long addr, unsigned int value) = 0;
    virtual int WriteInt64(unsigned long addr, unsigned long value) = 0;
    /// Writes @p buf, of up to 128 bytes, as a big-endian field.
    virtual long WriteLess128Bytes(unsigned long addr, unsigned char* buf, unsigned long len) = 0;
    virtual long WriteBytes(unsigned long addr, unsigned char* buf, unsigned long len) = 0;
};
