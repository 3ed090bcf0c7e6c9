// The host's record when its disk is full.

#include "sim/host/CardRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include "sim/card/Card.h"
#include "sim/card/ZeroedMemory.h"
#include "tests/support/CaptureOutput.h"
#include "tests/support/TempDir.h"

using namespace vexo_sim;

namespace {

// No file of this process grows beyond so many bytes, as on a disk that is full.
class FullDisk {
public:
    explicit FullDisk(rlim_t bytes) : m_handler(::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit{bytes, m_before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk() {
        ::setrlimit(RLIMIT_FSIZE, &m_before);
        ::signal(SIGXFSZ, m_handler);
    }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

private:
    rlimit m_before{};
    sighandler_t m_handler;
};

}  // namespace

TEST(CardRecorder, OnAFullDiskSaysWhyAndHowManyPacketsAreLost) {
    const test_support::TempDir directory;
    const ZeroedMemory<CardState> memory;
    Card card(*memory.get());
    ASSERT_TRUE(card.powerOn(CardConfig{}, CardTime{}, nullptr, 0));
    card.openUp(3);
    test_support::CaptureOutput errors(2);
    {
        const FullDisk disk(4000);
        CardRecorder recorder("record.pcapng", card.state());
        recorder.write();  // the head of the file
        const std::string packet(1000, 'x');
        for (int n = 0; n < 5; ++n) ASSERT_TRUE(card.push(3, packet.data(), 1000));
        recorder.collect(card.state());
    }
    EXPECT_THAT(errors.Stop(),
                ::testing::AllOf(::testing::HasSubstr("vexo-simcard: cannot write record.pcapng: File too large; "),
                                 ::testing::HasSubstr("vexo-simcard: 5 packets were lost while record.pcapng could not "
                                                      "be written\n")));
}
