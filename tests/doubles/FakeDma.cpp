#include "tests/doubles/FakeDma.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace test_support {

int FakeDma::destroyed = 0;

namespace {

[[noreturn]] void Unused(const char* what) { throw std::logic_error(std::string("nothing should call ") + what); }

/// Sets a flag when its scope is left before Passed.
class UnwindWatch {
public:
    explicit UnwindWatch(bool& flag) : m_flag(flag) {}
    ~UnwindWatch() {
        if (!m_passed) m_flag = true;
    }
    UnwindWatch(const UnwindWatch&) = delete;
    UnwindWatch& operator=(const UnwindWatch&) = delete;
    void Passed() { m_passed = true; }

private:
    bool& m_flag;
    bool m_passed = false;
};

}  // namespace

FakeDma::~FakeDma() { ++destroyed; }

int FakeDma::Init(void*) { Unused("Init"); }
int FakeDma::Send(void*, unsigned int) { Unused("Send"); }
int FakeDma::PollData() { Unused("PollData"); }

int FakeDma::RecvOnce(void* handler, void* ctx) {
    lastHandler = reinterpret_cast<DmaPacketHandler>(handler);
    lastContext = ctx;
    return Poll(lastHandler, ctx);
}

int FakeDma::RecvOnceCb() { return Poll(registeredHandler, registeredContext) == 1 ? 0 : -1; }

int FakeDma::RegisterHandler(void* handler, void* ctx) {
    registeredHandler = reinterpret_cast<DmaPacketHandler>(handler);
    registeredContext = ctx;
    return 0;
}

int FakeDma::Poll(DmaPacketHandler handler, void* ctx) {
    ++polls;
    if (onPoll) onPoll();
    if (packets.empty()) return 0;
    const Packet packet = std::move(packets.front());
    packets.pop_front();
    // A buffer without spare room, so that the sanitizer sees a read past the packet.
    const std::unique_ptr<unsigned char[]> exact(new unsigned char[packet.size()]);
    std::copy(packet.begin(), packet.end(), exact.get());
    UnwindWatch watch(unwound);
    handler(exact.get(), static_cast<unsigned int>(packet.size()), ctx);
    watch.Passed();
    return 1;
}

}  // namespace test_support
