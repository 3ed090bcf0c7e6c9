#include "hw/Cards.h"

namespace vexo_sim {
namespace {

bool hasMemory(EmbeddedCard& card) {
    if (card.memory == nullptr) card.memory.reset(new (std::nothrow) CardMemory);
    if (card.memory != nullptr && card.memory->state() == nullptr) card.memory.reset();
    return card.memory != nullptr;
}

}  // namespace

CoreLock::CoreLock() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

int CoreLock::lock() {
    int result = pthread_mutex_lock(&m_mutex);
    // The holder's thread is gone. A register access is never half done, so nothing needs repair.
    if (result == EOWNERDEAD) result = pthread_mutex_consistent(&m_mutex);
    if (result == 0) m_holder = std::this_thread::get_id();
    return result;
}

int CoreLock::unlock() {
    if (m_holder != std::this_thread::get_id()) return EPERM;
    m_holder = std::thread::id{};
    return pthread_mutex_unlock(&m_mutex);
}

Cards& Cards::instance() {
    static Cards& cards = *new Cards;  // never destroyed: handles may be used by a program's last destructors
    return cards;
}

std::uint32_t Cards::count() {
    std::call_once(m_firstUse, [this] { powerOn(CardConfig{}, 1); });
    return m_count;
}

EmbeddedCard* Cards::find(std::uint32_t index) {
    if (index < count()) return &m_cards[index];
    errno = ENODEV;
    return nullptr;
}

int Cards::powerCycle(const CardConfig& config, std::uint32_t count) {
    if (count < 1 || count > kMaxCards || !isValid(config)) {
        errno = EINVAL;
        return -1;
    }
    std::call_once(m_firstUse, [] {});
    pool<enyx_hw_a2c_stream>().killIf([](const enyx_hw_a2c_stream&) { return true; });
    pool<enyx_hw_c2a_stream>().killIf([](const enyx_hw_c2a_stream&) { return true; });
    return powerOn(config, count);
}

int Cards::powerOn(const CardConfig& config, std::uint32_t count) {
    m_count = 0;
    for (std::uint32_t index = 0; index < kMaxCards; ++index) {
        EmbeddedCard& card = m_cards[index];
        card.index = index;
        card.accelerator.card = &card;
        card.accelerator.alive = index < count;
        if (index >= count) {
            pool<enyx_hw_mmio>().killIf([&card](const enyx_hw_mmio& mmio) { return mmio.card == &card; });
            continue;
        }
        if (!hasMemory(card)) {
            errno = ENOMEM;
            return -1;
        }
        const std::lock_guard<std::mutex> lock(card.mutex);
        CardConfig own = config;
        own.seed += index;
        card.clock.forget();
        card.card().powerOn(own, card.clock.now());
    }
    m_count = count;
    return 0;
}

}  // namespace vexo_sim
