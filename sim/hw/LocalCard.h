#pragma once

#include <unistd.h>

#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "sim/card/ZeroedMemory.h"
#include "sim/hw/CardBackend.h"
#include "sim/shm/HostClock.h"

namespace vexo_sim {

/// A card whose state lies in this process's own memory.
class LocalCard : public CardBackend {
public:
    bool responds() const override { return true; }
    bool isCurrent() const override { return true; }
    std::optional<Holder> host() const override { return std::nullopt; }
    void forgetTime() override {
        const StateLock lock(locks(), state());
        m_clock.forget();
    }
    std::optional<Holder> holderOf(CardPart) const override { return describeProcess(getpid()); }

protected:
    using Memory = ZeroedMemory<CardState>;

    explicit LocalCard(std::unique_ptr<Memory> memory)
        : CardBackend(*memory->get(), m_ownLocks), m_memory(std::move(memory)) {}

    /// Null when there is none.
    static std::unique_ptr<Memory> makeMemory() {
        std::unique_ptr<Memory> memory(new (std::nothrow) Memory);
        return memory != nullptr && memory->get() != nullptr ? std::move(memory) : nullptr;
    }

    HostClock& clock() { return m_clock; }  // for the thread that holds the state's lock

private:
    std::unique_ptr<Memory> m_memory;
    CardLocks m_ownLocks;
    HostClock m_clock;
};

}  // namespace vexo_sim
