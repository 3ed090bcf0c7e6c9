#include "hw/Cards.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <new>
#include <string_view>
#include <utility>

namespace vexo_sim {
namespace {

bool hasMemory(HwCard& card) {
    if (card.block != nullptr) return true;
    card.memory.reset(new (std::nothrow) ZeroedMemory<CardBlock>);
    card.block = card.memory != nullptr ? card.memory->get() : nullptr;
    if (card.block != nullptr) card.block->init();
    return card.block != nullptr;
}

HwCard* makeHosted(std::uint32_t index) {
    std::unique_ptr<HostedCard> hosted = HostedCard::attach(index);
    HwCard* card = hosted != nullptr ? new (std::nothrow) HwCard : nullptr;
    if (card == nullptr) return nullptr;
    card->index = index;
    card->block = &hosted->block();
    card->hosted = std::move(hosted);
    card->accelerator.card = card;
    card->accelerator.alive = true;
    return card;
}

bool isUsable(const HwCard* card) {
    return card != nullptr && card->hosted->isHostAlive() && card->hosted->isCurrent();
}

}  // namespace

Cards& Cards::instance() {
    static Cards& cards = *new Cards;  // never destroyed: handles may be used by a program's last destructors
    return cards;
}

void Cards::decide() {
    const char* variable = std::getenv("VEXO_SIM_CARD");
    const std::string_view wish = variable != nullptr ? variable : "";
    if (wish != "" && wish != "auto" && wish != "embedded" && wish != "hosted") {
        std::fprintf(stderr, "libenyx-hw-c: VEXO_SIM_CARD is \"%s\", it must be auto, embedded or hosted: "
                             "no simulated card.\n", variable);
        return;
    }
    if (wish != "embedded") attachHosted();
    const bool found = std::any_of(std::begin(m_cards), std::end(m_cards), [](HwCard* card) { return card != nullptr; });
    if (wish == "hosted" || found) m_kind = Kind::kHosted;
    else if (powerOn(CardConfig{}, 1) == 0) m_kind = Kind::kEmbedded;
}

void Cards::attachHosted() {
    for (std::uint32_t index = 0; index < kMaxCards; ++index) {
        if (isUsable(m_cards[index])) continue;
        if (HwCard* card = makeHosted(index)) m_cards[index] = card;
    }
}

void Cards::refresh() {
    std::call_once(m_firstUse, [this] { decide(); });
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_kind == Kind::kHosted) attachHosted();
}

HwCard* Cards::find(std::uint32_t index) {
    std::call_once(m_firstUse, [this] { decide(); });
    HwCard* card = index < kMaxCards ? m_cards[index].load() : nullptr;
    return card != nullptr && isPresent(*card) ? card : (errno = ENODEV, nullptr);
}

int Cards::powerCycle(const CardConfig& config, std::uint32_t count) {
    if (count < 1 || count > kMaxCards || !isValid(config)) {
        errno = EINVAL;
        return -1;
    }
    std::call_once(m_firstUse, [this] {
        const char* wish = std::getenv("VEXO_SIM_CARD");
        m_kind = wish != nullptr && std::string_view(wish) == "hosted" ? Kind::kHosted : Kind::kEmbedded;
    });
    if (m_kind == Kind::kHosted) {
        errno = EPERM;
        return -1;
    }
    m_kind = Kind::kEmbedded;
    pool<enyx_hw_a2c_stream>().killIf([](const enyx_hw_a2c_stream&) { return true; });
    pool<enyx_hw_c2a_stream>().killIf([](const enyx_hw_c2a_stream&) { return true; });
    return powerOn(config, count);
}

int Cards::powerOn(const CardConfig& config, std::uint32_t count) {
    for (std::uint32_t index = 0; index < kMaxCards; ++index) {
        HwCard& card = m_own[index];
        m_cards[index] = nullptr;
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
        const BlockLock lock(*card.block);
        CardConfig own = config;
        own.seed += index;
        card.clock.forget();
        card.card().powerOn(own, card.clock.now());
        m_cards[index] = &card;
    }
    return 0;
}

}  // namespace vexo_sim
