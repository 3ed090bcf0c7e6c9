#include "sim/hw/HostedCard.h"

#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace vexo_sim {
namespace {

std::size_t slotOf(CardPart stream) { return (stream.kind == CardPart::kUp ? 0 : kStreams) + stream.channel; }

}  // namespace

std::unique_ptr<HostedCard> HostedCard::attach(std::uint32_t bus) {
    std::optional<AttachedCard> card = attachCard(bus);
    return card ? std::unique_ptr<HostedCard>(new HostedCard(std::move(*card))) : nullptr;
}

bool HostedCard::isCurrent() const {
    struct stat named {};
    return responds() && stat(m_file.path().c_str(), &named) == 0 && named.st_dev == m_file.device() &&
           named.st_ino == m_file.inode();
}

std::optional<Holder> HostedCard::host() const { return describeHost(m_file, block()); }

bool HostedCard::ownsHere(CardPart stream) const { return m_owner[slotOf(stream)] == getpid(); }

bool HostedCard::claim(CardPart stream) {
    std::atomic<pid_t>& owner = m_owner[slotOf(stream)];
    const pid_t self = getpid();
    pid_t before = owner;
    if (before == self || !owner.compare_exchange_strong(before, self)) return false;
    if (m_file.claim(stream)) return true;
    owner = before;
    return false;
}

void HostedCard::release(CardPart stream) {
    m_file.release(stream);
    m_owner[slotOf(stream)] = 0;
}

bool HostedCard::take(CardPart stream) {
    if (!claim(stream)) return false;
    const BlockLock lock(block());
    const Card card(block().state);
    close(card, stream);  // its last owner may have died and left it open
    if (open(card, stream)) return true;
    release(stream);
    return false;
}

void HostedCard::giveBack(CardPart stream) {
    if (!ownsHere(stream)) return;
    {
        const BlockLock lock(block());
        close(Card(block().state), stream);
    }
    release(stream);
}

std::optional<Holder> HostedCard::holderOf(CardPart stream) const {
    if (const std::optional<pid_t> other = m_file.holderOf(stream)) return describeProcess(*other);
    if (ownsHere(stream)) return describeProcess(getpid());
    return std::nullopt;
}

}  // namespace vexo_sim
