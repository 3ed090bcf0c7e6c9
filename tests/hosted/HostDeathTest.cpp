// The host of a card dies while a program is in the middle of a call. Whether a host lives is asked of the kernel, by
// a look at its record lock; the test kills the host right behind one such look, behind another one in each round.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

#include "interface/CardRegisters.h"
#include "tests/hosted/CardAccess.h"
#include "tests/hosted/HostProcess.h"

namespace {

hosted::Process* s_victim = nullptr;
int s_looksToLive = 0;
int s_looks = 0;

void AfterLook() {
    ++s_looks;
    if (s_victim == nullptr || s_looksToLive-- > 0) return;
    s_victim->Signal(SIGKILL);
    s_victim->Wait();
    s_victim = nullptr;
}

}  // namespace

// Stands before the C library's: the card library in this process calls it.
extern "C" int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    const long result = syscall(SYS_fcntl, fd, command, argument);
    const int error = errno;
    if (command == F_GETLK) AfterLook();
    errno = error;
    return static_cast<int>(result);
}

namespace hosted {
namespace {

void Ignore(const std::uint8_t*, std::uint32_t, void*) {}

class HostDeath : public ::testing::Test {
protected:
    HostDeath() { setenv("VEXO_SIM_CARD", "hosted", 1); }
    ~HostDeath() override {
        s_victim = nullptr;
        unsetenv("VEXO_SIM_CARD");
    }

    void KillHostBehindLook(int looks) {
        s_looks = 0;
        s_looksToLive = looks;
        s_victim = &m_host;
    }

    CardDirectory m_directory;
    Process m_host = StartHost({});
};

class AllCards {
public:
    AllCards() : m_filter(enyx_hw_filter_create()) {
        m_count = enyx_hw_enumerate_accelerators(m_filter, m_descriptors, 5);
        m_error = errno;
    }
    ~AllCards() {
        if (m_count > 0) enyx_hw_free_accelerator_descriptors(m_descriptors, static_cast<size_t>(m_count));
        enyx_hw_filter_destroy(m_filter);
    }
    AllCards(const AllCards&) = delete;
    AllCards& operator=(const AllCards&) = delete;
    ssize_t count() const { return m_count; }
    int error() const { return m_error; }
    const enyx_hw_accelerator_descriptor* first() const { return m_descriptors[0]; }

private:
    enyx_hw_filter* m_filter;
    enyx_hw_accelerator_descriptor* m_descriptors[5] = {};
    ssize_t m_count;
    int m_error;
};

void UseEverything() {
    { const AllCards cards; }
    std::uint64_t value = 0;
    if (enyx_hw_core* core = OpenRegisters(0)) {
        if (enyx_hw_core_lock(core) == 0) {
            Write(core, card_reg::kDecodeSwitch, 3);
            Read(core, card_reg::kDecodeSwitch, value);
            enyx_hw_core_unlock(core);
        }
        enyx_hw_core_reset(core);
    }
    if (enyx_hw_a2c_stream* stream = OpenStream(0, 0)) {
        std::uint32_t number = 0;
        EXPECT_EQ(OpenStream(0, 0), nullptr);  // says who holds it
        enyx_hw_a2c_stream_get_mtu(stream, &number);
        enyx_hw_a2c_stream_stats_get_packet_count(stream, &number);
        enyx_hw_a2c_stream_poll_once(stream, Ignore, nullptr);
        enyx_hw_a2c_stream_destroy(stream);
    }
}

TEST_F(HostDeath, InsideAnEnumerationIsNoCardOrACardThatCannotBeOpened) {
    int rounds = 0;
    for (int looks = 0;; ++looks, ++rounds) {
        KillHostBehindLook(looks);
        const AllCards cards;
        if (s_victim != nullptr) break;  // every look of the call has been tried
        if (cards.count() == 0) {
            EXPECT_EQ(cards.error(), ENODEV) << "killed behind look " << looks;
        } else {
            ASSERT_EQ(cards.count(), 1) << "killed behind look " << looks;
            EXPECT_EQ(enyx_hw_accelerator_get(cards.first()), nullptr);
            EXPECT_EQ(errno, ENODEV) << "killed behind look " << looks;
        }
        m_host = StartHost({});
    }
    EXPECT_GE(rounds, 2) << "the looks at the host's lock were not seen";
}

TEST_F(HostDeath, BehindAnyLookOfAProgramNeverCrashesIt) {
    int rounds = 0;
    for (int looks = 0;; ++looks, ++rounds) {
        KillHostBehindLook(looks);
        UseEverything();
        if (s_victim != nullptr) break;
        m_host = StartHost({});
    }
    EXPECT_GE(rounds, 10) << "the looks at the host's lock were not seen";
}

}  // namespace
}  // namespace hosted
