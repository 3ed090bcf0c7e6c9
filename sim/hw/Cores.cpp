#include "interface/CardRegisters.h"
#include "sim/card/Registers.h"
#include "sim/hw/Hooks.h"
#include "sim/hw/HwCard.h"

namespace vexo_sim {
namespace {

int report(int error) {
    if (error == 0) return 0;
    errno = error;
    return -1;
}

enyx_hw_core_tree* readTree(enyx_hw_mmio* mmio) { return usable(mmio) ? &mmio->tree : nullptr; }

enyx_hw_core* rootOf(enyx_hw_core_tree* tree) { return usable(tree) ? &tree->mmio->root : nullptr; }

// Whether a core answers. It no longer answers after the card's host has died, as if the card had left the bus.
bool answers(enyx_hw_core* core) {
    if (!usable(core)) return false;
    if (core->mmio->card->backend->responds()) return true;
    errno = EIO;
    return false;
}

CoreLock& lockOf(enyx_hw_core* core) {
    CardLocks& locks = core->mmio->card->backend->locks();
    return core->hardwareId == kRootCoreId ? locks.rootCore : locks.registerCore;
}

// One access of a core: work(Card&) does it and returns 0 or an errno value. Nothing is done under a core lock that was
// taken away from the calling thread.
template <typename Work>
int onCore(enyx_hw_core* core, Work work) {
    CardAccess access(*core->mmio->card);
    if (!access) return -1;
    const int error = lockOf(core).isLost() ? ECANCELED : work(*access);
    return access.end() ? report(error) : -1;
}

// The card's logic is one piece: a reset of either core resets all of it.
int resetCore(enyx_hw_core* core) {
    if (!answers(core)) return -1;
    return onCore(core, [](Card& card) {
        card.reset();
        return 0;
    });
}

ssize_t findCores(enyx_hw_core* root, std::uint16_t hardwareId, enyx_hw_core** cores, std::size_t room) {
    if (!usable(root)) return -1;
    if (cores == nullptr && room > 0) return report(EINVAL);
    if (root->hardwareId != kRootCoreId || hardwareId != kRegisterCoreId) {
        errno = ENOENT;
        return 0;
    }
    if (room > 0) cores[0] = &root->mmio->registers;
    return 1;
}

int lockCore(enyx_hw_core* core) {
    if (!usable(core)) return -1;
    CardBackend& backend = *core->mmio->card->backend;
    const auto tell = [&](pid_t holder, bool isStopped) { backend.tellCoreHolder(holder, isStopped); };
    return report(lockOf(core).lock(tell));
}

int unlockCore(enyx_hw_core* core) {
    if (!usable(core)) return -1;
    const int error = lockOf(core).unlock();
    if (error == ECANCELED) core->mmio->card->backend->tellLost();
    return report(error);
}

// The exchange-time registers show the present moment. Other reads may use a clock that is read once a second.
bool showsTime(const enyx_hw_register_description& field) {
    return field.address / 4 >= card_reg::kExchangeTimeA && field.address / 4 <= card_reg::kExchangeTimeB;
}

// The root core has no registers of its own.
bool isAccess(enyx_hw_core* core, const enyx_hw_register_description* field) {
    if (!answers(core)) return false;
    if (field == nullptr || core->hardwareId == kRootCoreId) {
        errno = field == nullptr ? EINVAL : ENXIO;
        return false;
    }
    return true;
}

int readField(enyx_hw_core* core, const enyx_hw_register_description* field, std::uint64_t* value) {
    if (!isAccess(core, field)) return -1;
    if (value == nullptr) return report(EINVAL);
    if (showsTime(*field)) core->mmio->card->backend->forgetTime();
    return onCore(core, [=](Card& card) {
        return registers::readField(card.state(), field->address, field->bit_offset, field->bit_width, *value) ? 0
                                                                                                               : EINVAL;
    });
}

int writeField(enyx_hw_core* core, const enyx_hw_register_description* field, std::uint64_t value) {
    if (!isAccess(core, field)) return -1;
    return onCore(core, [=](Card& card) {
        return registers::writeField(card.state(), field->address, field->bit_offset, field->bit_width, value) ? 0
                                                                                                               : EINVAL;
    });
}

}  // namespace
}  // namespace vexo_sim

using namespace vexo_sim;

enyx_hw_core_tree* enyx_hw_enumerate_cores(enyx_hw_mmio* mmio) {
    return perform(
        Call::kEnumerateCores, [=] { return readTree(mmio); }, [=](TraceLine& line) { line.mmio(mmio); });
}

enyx_hw_core* enyx_hw_core_tree_get_root(enyx_hw_core_tree* tree) {
    return perform(
        Call::kCoreTreeGetRoot, [=] { return rootOf(tree); }, [=](TraceLine& line) { line.tree(tree); });
}

int enyx_hw_core_reset(enyx_hw_core* core) {
    return perform(
        Call::kCoreReset, [=] { return resetCore(core); }, [=](TraceLine& line) { line.core(core); });
}

ssize_t enyx_hw_core_enumerate(enyx_hw_core* root, uint16_t hardware_id, enyx_hw_core** cores, size_t count) {
    return performCount(
        Call::kCoreEnumerate, count, [=](std::size_t room) { return findCores(root, hardware_id, cores, room); },
        [=](TraceLine& line) { line.core(root).hex("hardware_id", hardware_id); });
}

int enyx_hw_core_lock(enyx_hw_core* core) {
    return perform(
        Call::kCoreLock, [=] { return lockCore(core); }, [=](TraceLine& line) { line.core(core); });
}

int enyx_hw_core_unlock(enyx_hw_core* core) {
    return perform(
        Call::kCoreUnlock, [=] { return unlockCore(core); }, [=](TraceLine& line) { line.core(core); });
}

int enyx_hw_read(enyx_hw_core* core, const enyx_hw_register_description* reg, uint64_t* value) {
    return perform(
        Call::kRead, [=] { return readField(core, reg, value); },
        [=](TraceLine& line) { line.core(core).field(reg).hex("value", value != nullptr ? *value : 0); });
}

int enyx_hw_write(enyx_hw_core* core, const enyx_hw_register_description* reg, uint64_t value) {
    return perform(
        Call::kWrite, [=] { return writeField(core, reg, value); },
        [=](TraceLine& line) { line.core(core).field(reg).hex("value", value); });
}
