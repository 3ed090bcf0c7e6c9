#include "sim/hw/HostedCard.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vexo_sim {
namespace {

std::size_t slotOf(CardPart stream) { return (stream.kind == CardPart::kUp ? 0 : kStreams) + stream.channel; }

}  // namespace

std::unique_ptr<HostedCard> HostedCard::attach(std::uint32_t bus, uid_t user) {
    std::unique_ptr<SharedCard> card = attachCard(bus, user, "libenyx-hw-c");
    return card != nullptr ? std::unique_ptr<HostedCard>(new HostedCard(std::move(card))) : nullptr;
}

bool HostedCard::isCurrent() const {
    const CardFile& file = m_card->file();
    struct stat named {};
    return responds() && stat(file.path().c_str(), &named) == 0 && named.st_dev == file.device() &&
           named.st_ino == file.inode();
}

std::optional<Holder> HostedCard::host() const { return m_card->host(); }

std::string HostedCard::hostedScenario() const {
    HostInfo copy = info();
    copy.scenario[sizeof copy.scenario - 1] = '\0';
    return copy.scenario;
}

bool HostedCard::ownsHere(CardPart stream) const { return m_owner[slotOf(stream)] == forkGeneration() + 1; }

bool HostedCard::claim(CardPart stream) {
    std::atomic<std::uint32_t>& owner = m_owner[slotOf(stream)];
    const std::uint32_t self = forkGeneration() + 1;
    std::uint32_t before = owner;
    if (before == self || !owner.compare_exchange_strong(before, self)) return false;
    if (m_card->file().claim(stream)) return true;
    owner = before;
    return false;
}

void HostedCard::release(CardPart stream) {
    m_card->file().release(stream);
    m_owner[slotOf(stream)] = 0;
}

// What a process that was stopped has done does not count. It is done again: only this process opens and closes a
// stream that it holds.
template <typename Work>
bool HostedCard::onState(Work work) {
    for (;;) {
        StateLock lock(locks(), state());
        if (lock.result() != CardLock::kLocked) tellOf(lock.result());
        if (!lock.owns()) return false;
        const bool result = work(Card(state()));
        if (lock.release()) return result;
    }
}

int HostedCard::take(CardPart stream) {
    if (!claim(stream)) return EBUSY;
    const bool isOpen = onState([=](Card card) {
        close(card, stream);  // its last owner may have died and left it open
        return open(card, stream);
    });
    if (!isOpen) release(stream);
    return isOpen ? 0 : EBUSY;
}

// The kernel's lock is released in any case. If the state cannot be locked, the host later closes the stream, as it
// does when an owner dies.
void HostedCard::giveBack(CardPart stream) {
    if (!ownsHere(stream)) return;
    onState([=](Card card) {
        close(card, stream);
        return true;
    });
    release(stream);
}

std::optional<Holder> HostedCard::holderOf(CardPart stream) const {
    if (const std::optional<pid_t> other = m_card->file().holderOf(stream)) return describeProcess(*other);
    if (ownsHere(stream)) return describeProcess(getpid());
    return std::nullopt;
}

}  // namespace vexo_sim
