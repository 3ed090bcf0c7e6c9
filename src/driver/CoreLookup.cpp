#include "src/driver/CoreLookup.h"

#include <cerrno>
#include <cstring>

#include "src/driver/HwHandles.h"
#include "src/log/ThreadMutex.h"
#include "src/log/log.h"
#include "src/util/ForkSafe.h"
#include "src/util/Sleep.h"

namespace {

constexpr char kLogFile[] = "drvCore";

constexpr unsigned short kBusCount = 10;

enyx_hw_accelerator* s_lpAcc[kBusCount];
enyx_hw_mmio* s_lpMMIO[kBusCount];
enyx_hw_core_tree* s_lpTree[kBusCount];
enyx_hw_core* s_lpEnyxCoreRoot[kBusCount];
MOSK2::CThreadMutex s_coreMutex;  // guards the four arrays
constexpr fork_safe::Actions kForkActions{[] { s_coreMutex.Acquire(); }, [] { s_coreMutex.Release(); },
                                          [] { s_coreMutex.releaseInChild(); }};
const struct ForkGuard {
    ForkGuard() { fork_safe::add(fork_safe::Rank::kCores, kForkActions); }
} s_forkGuard;

// Opens the accelerator; null after logging why. Every early return frees what it holds, except one descriptor.
enyx_hw_accelerator* openAccelerator(unsigned short busId) {
    hw::Filter filter(enyx_hw_filter_create());
    if (!filter) {
        LOG_ERROR_IN("DrvEnyxCoreGetAcc", "Could not create filter for DMA. errno:%d", errno);
        return nullptr;
    }
    if (enyx_hw_filter_set_index(filter.get(), busId) != 0) {
        LOG_ERROR_IN("DrvEnyxCoreGetAcc", "Could not set filter id. errno:%d, errMsg:%s.", errno, std::strerror(errno));
        return nullptr;
    }
    hw::AcceleratorDescriptor descriptor;
    const ssize_t found = enyx_hw_enumerate_accelerators(filter.get(), descriptor.room(), 1);
    if (found != 1) {
        LOG_ERROR_IN("DrvEnyxCoreGetAcc", "Could not find accelerator. ernno:%d, msg:%s, get acc num:%d.", errno,
                     std::strerror(errno), static_cast<int>(found));
        filter.reset();
        return nullptr;
    }
    filter.reset();
    enyx_hw_accelerator* acc = enyx_hw_accelerator_get(descriptor.get());
    if (acc == nullptr) {
        LOG_ERROR_IN("DrvEnyxCoreGetAcc", "Could not get accelerator. errno:%d", errno);
        descriptor.abandon();  // the card's library may still refer to it after a failed open
    }
    return acc;
}

// The MMIO of the accelerator, its first and only one; null after logging why.
enyx_hw_mmio* openMmio(const enyx_hw_accelerator* acc) {
    hw::Filter filter(enyx_hw_filter_create());
    if (!filter) {
        LOG_ERROR_IN("DrvEnyxGetRoot", "Could not create mmio filter, errmsg:%s.", std::strerror(errno));
        return nullptr;
    }
    if (enyx_hw_filter_set_index(filter.get(), 0) != 0) {
        LOG_ERROR_IN("DrvEnyxGetRoot", "Could not set mmio filter index, errmsg:%s.", std::strerror(errno));
        return nullptr;
    }
    hw::MmioDescriptor descriptor;
    if (enyx_hw_accelerator_enumerate_mmios(acc, filter.get(), descriptor.room(), 1) != 1) {
        LOG_ERROR_IN("DrvEnyxGetRoot", "Could not find mmio, errmsg:%s.", std::strerror(errno));
        filter.reset();
        return nullptr;
    }
    filter.reset();
    enyx_hw_mmio* mmio = enyx_hw_mmio_create(descriptor.get());
    if (mmio == nullptr) {
        const int why = errno;
        LOG_ERROR_IN("DrvEnyxGetRoot", "Could not create mmio, errmsg:%s.", std::strerror(why));
        descriptor.freeNow();
        // Logged twice: once for the call, once for the bus that has no register space now.
        LOG_ERROR_IN("DrvEnyxGetRoot", "Could not create mmio, errmsg:%s.", std::strerror(why));
    }
    return mmio;
}

// Root of the core tree behind an open MMIO; null after logging why. The tree stays cached on failure, never released.
enyx_hw_core* readRoot(unsigned short busId) {
    s_lpTree[busId] = enyx_hw_enumerate_cores(s_lpMMIO[busId]);
    if (s_lpTree[busId] == nullptr) {
        LOG_ERROR_IN("DrvEnyxGetRoot", "Could not find tree, errmsg:%s.", std::strerror(errno));
        return nullptr;
    }
    enyx_hw_core* root = enyx_hw_core_tree_get_root(s_lpTree[busId]);
    if (root == nullptr) LOG_ERROR_IN("DrvEnyxGetRoot", "Could not find root, errmsg:%s.", std::strerror(errno));
    return root;
}

// Root core of the bus, created once; the caller holds s_coreMutex.
enyx_hw_core* DrvEnyxGetRoot(unsigned short busId) {
    if (busId < kBusCount && s_lpEnyxCoreRoot[busId] != nullptr) return s_lpEnyxCoreRoot[busId];

    const enyx_hw_accelerator* acc = DrvEnyxCoreGetAcc(busId);
    if (acc == nullptr) return nullptr;

    // Cached only when it opened. After a failed look-up the cache holds a destroyed handle, which is never used.
    enyx_hw_mmio* mmio = openMmio(acc);
    if (mmio == nullptr) return nullptr;
    s_lpMMIO[busId] = mmio;

    s_lpEnyxCoreRoot[busId] = readRoot(busId);
    if (s_lpEnyxCoreRoot[busId] == nullptr) {
        enyx_hw_mmio_destroy(mmio);
        return nullptr;
    }
    enyx_hw_core_reset(s_lpEnyxCoreRoot[busId]);
    sleepSeconds(1);
    return s_lpEnyxCoreRoot[busId];
}

}  // namespace

enyx_hw_accelerator* DrvEnyxCoreGetAcc(unsigned short busId) {
    if (busId >= kBusCount) {
        errno = ENODEV;  // the callers log it too
        LOG_ERROR("Could not find accelerator. ernno:%d, msg:%s, get acc num:%d.", errno, std::strerror(errno), 0);
        return nullptr;
    }
    const MOSK2::CThreadGuard guard(s_coreMutex);
    if (s_lpAcc[busId] == nullptr) s_lpAcc[busId] = openAccelerator(busId);
    return s_lpAcc[busId];
}

int DrvEnyxGetCore(unsigned short busId, unsigned short coreId, enyx_hw_core** cores, unsigned long size) {
    enyx_hw_core* root;
    {
        const MOSK2::CThreadGuard guard(s_coreMutex);
        root = DrvEnyxGetRoot(busId);
    }
    if (root == nullptr) {
        LOG_ERROR("Get core error. busId:%u, coreId:%u", busId, coreId);
        return -1;
    }
    const ssize_t found = enyx_hw_core_enumerate(root, coreId, cores, size);
    if (found == -1) {
        LOG_ERROR("Could not enumerate cores, busId:%u, coreId:%u. errmsg:%s.", busId, coreId, std::strerror(errno));
        return -1;
    }
    return static_cast<int>(found);
}

void DrvEnyxVarClear() {
    const MOSK2::CThreadGuard guard(s_coreMutex);
    for (unsigned short bus = 0; bus < kBusCount; ++bus) {
        s_lpAcc[bus] = nullptr;
        s_lpMMIO[bus] = nullptr;
        s_lpTree[bus] = nullptr;
        s_lpEnyxCoreRoot[bus] = nullptr;
    }
}
