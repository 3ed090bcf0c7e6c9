#include "src/driver/RegisterDriver.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "src/driver/CoreLookup.h"
#include "src/log/log.h"
#include "src/util/ForkSafe.h"

CDrvEnyxReg* CDrvEnyxReg::instance = nullptr;

namespace {

constexpr char kLogFile[] = "drvEnyx";

constexpr unsigned long kWordBytes = 4;
constexpr unsigned long kChunkBytes = 8;
constexpr unsigned long kMaxFieldSize = 128;

std::mutex s_initMutex;
const fork_safe::Guard<s_initMutex> s_forkGuard(fork_safe::Rank::kDriverStart);

class CoreLock {
public:
    explicit CoreLock(enyx_hw_core* core) : m_core(core) { enyx_hw_core_lock(m_core); }
    ~CoreLock() { enyx_hw_core_unlock(m_core); }
    CoreLock(const CoreLock&) = delete;
    CoreLock& operator=(const CoreLock&) = delete;

private:
    enyx_hw_core* m_core;
};

enyx_hw_register_description describe(std::uint64_t byteAddress, unsigned long bytes) {
    enyx_hw_register_description reg{};
    reg.address = byteAddress;
    reg.bit_offset = 0;
    reg.bit_width = static_cast<std::uint8_t>(bytes * 8);
    return reg;
}

// One register of the width of T; the caller holds the core's lock. False on failure, with the output untouched.
template <typename T>
bool readOne(enyx_hw_core* core, unsigned long addr, T& value) {
    const auto reg = describe(addr * kWordBytes, sizeof(T));
    std::uint64_t raw = 0;
    if (enyx_hw_read(core, &reg, &raw) < 0) return false;
    value = static_cast<T>(raw);
    return true;
}

template <typename T>
bool writeOne(enyx_hw_core* core, unsigned long addr, T value) {
    const auto reg = describe(addr * kWordBytes, sizeof(T));
    return enyx_hw_write(core, &reg, value) >= 0;
}

}  // namespace

CDrvEnyxReg::~CDrvEnyxReg() {
    if (instance == this) instance = nullptr;
}

int CDrvEnyxReg::Init(void* param) {
    if (param == nullptr) {
        LOG_ERROR("Init param error!");
        return -1;
    }
    const std::lock_guard<std::mutex> guard(s_initMutex);
    if (m_bInited) return 0;

    const auto* parms = static_cast<const EnyxRegInitParms_t*>(param);
    const int found = DrvEnyxGetCore(parms->uiBusId, parms->uiCoreId, &m_lpCore, 1);
    if (m_lpCore == nullptr || found != 1) {
        LOG_ERROR("enumerate core error!, get core num %d, msg:%s, busid:%d, coreId:%d.", found, std::strerror(errno),
                  parms->uiBusId, parms->uiCoreId);
        m_lpCore = nullptr;
        return -1;
    }
    m_bInited = true;
    return 0;
}

int CDrvEnyxReg::ReadInt8(unsigned long addr, unsigned char& value) {
    const CoreLock lock(m_lpCore);
    if (readOne(m_lpCore, addr, value)) return 0;
    LOG_ERROR("read int8 failed, addr:%lu", addr);
    return -1;
}

int CDrvEnyxReg::ReadInt16(unsigned long addr, unsigned short& value) {
    const CoreLock lock(m_lpCore);
    if (readOne(m_lpCore, addr, value)) return 0;
    LOG_ERROR("read int16 failed, addr:%lu", addr);
    return -1;
}

int CDrvEnyxReg::ReadInt32(unsigned long addr, unsigned int& value) {
    const CoreLock lock(m_lpCore);
    if (readOne(m_lpCore, addr, value)) return 0;
    LOG_ERROR("read int32 failed, addr[0x%x], errmsg:%s.", static_cast<unsigned int>(addr), std::strerror(errno));
    return -1;
}

int CDrvEnyxReg::ReadInt64(unsigned long addr, unsigned long& value) {
    const CoreLock lock(m_lpCore);
    if (readOne(m_lpCore, addr, value)) return 0;
    LOG_ERROR("read int64 failed, addr[0x%x] ", static_cast<unsigned int>(addr));
    return -1;
}

int CDrvEnyxReg::WriteInt8(unsigned long addr, unsigned char value) {
    const CoreLock lock(m_lpCore);
    if (writeOne(m_lpCore, addr, value)) return 0;
    LOG_ERROR("write int8 failed, addr:%lu", addr);
    return -1;
}

int CDrvEnyxReg::WriteInt16(unsigned long addr, unsigned short value) {
    const CoreLock lock(m_lpCore);
    if (writeOne(m_lpCore, addr, value)) return 0;
    LOG_ERROR("write int16 failed, addr:%lu", addr);
    return -1;
}

int CDrvEnyxReg::WriteInt32(unsigned long addr, unsigned int value) {
    const CoreLock lock(m_lpCore);
    if (writeOne(m_lpCore, addr, value)) return 0;
    LOG_ERROR("Write int32 failed, addr[0x%x] value[0x%x], errmsg:%s.", static_cast<unsigned int>(addr), value,
              std::strerror(errno));
    return -1;
}

int CDrvEnyxReg::WriteInt32_Log(unsigned long addr, unsigned int value) { return CDrvEnyxReg::WriteInt32(addr, value); }

int CDrvEnyxReg::WriteInt32_LogWithRead(unsigned long addr, unsigned int value) {
    const CoreLock lock(m_lpCore);
    if (!writeOne(m_lpCore, addr, value)) {
        LOG_ERROR("Write int32 failed, addr[0x%x] value[0x%x], errmsg:%s.", static_cast<unsigned int>(addr), value,
                  std::strerror(errno));
    }
    unsigned int readBack = 0;
    if (readOne(m_lpCore, addr, readBack)) return 0;
    LOG_ERROR("ReadReg int32 failed, addr[0x%x], errmsg:%s.", static_cast<unsigned int>(addr), std::strerror(errno));
    return -1;
}

int CDrvEnyxReg::WriteInt64(unsigned long addr, unsigned long value) {
    const CoreLock lock(m_lpCore);
    if (writeOne(m_lpCore, addr, value)) return 0;
    LOG_ERROR("write int64 failed, addr:%lu", addr);
    return -1;
}

long CDrvEnyxReg::ReadBytes(unsigned long addr, unsigned char* buf, unsigned long len) {
    const CoreLock lock(m_lpCore);
    if (buf == nullptr) {
        LOG_ERROR("Didn't inited in yet!");
        return 0;
    }
    for (unsigned long done = 0; done < len; done += kChunkBytes) {
        // The tail too is read as a full word. Only the bytes that remain are copied.
        const auto reg = describe(addr * kWordBytes + done, kChunkBytes);
        std::uint64_t word = 0;
        if (enyx_hw_read(m_lpCore, &reg, &word) < 0) {
            LOG_ERROR("Read value failed, addr:%lu", addr);
            return -1;
        }
        std::memcpy(buf + done, &word, std::min(len - done, kChunkBytes));
    }
    return static_cast<long>(len);
}

long CDrvEnyxReg::WriteBytes(unsigned long addr, unsigned char* buf, unsigned long len) {
    const CoreLock lock(m_lpCore);
    if (buf == nullptr) {
        LOG_ERROR("Didn't inited out yet!");
        return 0;
    }
    for (unsigned long done = 0; done < len; done += kChunkBytes) {
        // The tail's write is only as wide as the bytes that remain: nothing behind the caller's buffer is read.
        const unsigned long bytes = std::min(len - done, kChunkBytes);
        std::uint64_t word = 0;
        std::memcpy(&word, buf + done, bytes);
        const auto reg = describe(addr * kWordBytes + done, bytes);
        if (enyx_hw_write(m_lpCore, &reg, word) >= 0) continue;
        if (bytes == kChunkBytes) {
            LOG_ERROR("write int8 failed, addr:%lu", addr);
        } else {
            LOG_ERROR("Write int8 failed, addr:%lu", addr);
        }
        return -1;
    }
    return static_cast<long>(len);
}

long CDrvEnyxReg::ReadLess128Bytes(unsigned long addr, unsigned char* buf, unsigned long len) {
    if (len > kMaxFieldSize || buf == nullptr) {
        LOG_ERROR("length should less than 128!");
        return 0;
    }
    unsigned char local[kMaxFieldSize] = {};
    const long moved = ReadBytes(addr, local, len);
    if (moved != static_cast<long>(len)) {
        LOG_ERROR("Read failed, should Read %ld, now %ld", static_cast<long>(len), moved);
        return moved;
    }
    std::reverse_copy(local, local + len, buf);
    return moved;
}

long CDrvEnyxReg::WriteLess128Bytes(unsigned long addr, unsigned char* buf, unsigned long len) {
    if (len > kMaxFieldSize || buf == nullptr) {
        LOG_ERROR("length should less than 128!");
        return 0;
    }
    unsigned char local[kMaxFieldSize] = {};
    std::reverse_copy(buf, buf + len, local);
    return WriteBytes(addr, local, len);
}
