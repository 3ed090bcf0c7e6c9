// Several threads at once, on the real clock. Worth most under the thread sanitizer.
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "tests/unit/sim/hw/HwFixture.h"

namespace {

class Threads : public ::testing::Test {
protected:
    Threads() {
        enyx_sim_config config;
        enyx_sim_default_config(&config);
        config.quotes_per_second = 1'000'000;
        config.learning_ms = 0;
        EXPECT_EQ(enyx_sim_power_cycle(&config), 0);
    }

    // Runs work(thread number) on each of so many threads.
    template <typename Work>
    static void onThreads(std::uint32_t count, Work work) {
        std::vector<std::thread> threads;
        for (std::uint32_t n = 0; n < count; ++n) threads.emplace_back(work, n);
        for (std::thread& thread : threads) thread.join();
    }

    enyx_hw_accelerator* accelerator = openAccelerator();
    Mmio mmio = openMmio(accelerator);
    enyx_hw_core* core = registersOf(mmio);
};

// Holds its threads up until all of them are there.
class Meeting {
public:
    explicit Meeting(std::uint32_t threads) : m_missing(threads) {}
    void wait() {
        std::unique_lock<std::mutex> lock(m_mutex);
        --m_missing;
        m_complete.notify_all();
        m_complete.wait(lock, [this] { return m_missing == 0; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_complete;
    std::uint32_t m_missing;
};

// A reader that checks that what it is given is whole and in order.
struct Reader {
    std::uint64_t packets = 0;
    std::uint64_t lastSequence = 0;

    static void handle(const std::uint8_t* data, std::uint32_t size, void* context) {
        auto& self = *static_cast<Reader*>(context);
        enyx_sim::PacketHead head;
        std::memcpy(&head, data, sizeof head);
        EXPECT_EQ(std::uint32_t{head.length}, size);
        EXPECT_GT(std::uint64_t{head.sequence}, self.lastSequence);
        self.lastSequence = head.sequence;
        ++self.packets;
    }
};

}  // namespace

TEST_F(Threads, ReadersOfDifferentStreamsAndAWriterOfRegistersDoNotDisturbEachOther) {
    constexpr std::uint32_t kReaders = 3;
    constexpr std::uint64_t kWanted = 3000;
    ASSERT_EQ(writeRegister(core, card_reg::kDecodeSwitch, 3), 0);
    for (std::uint32_t row = 0; row < 100; ++row) setMask(core, 0, row, 0x7);
    ASSERT_EQ(writeRegister(core, card_reg::kMapTransmit, 1), 0);
    std::atomic<std::uint32_t> reading{kReaders};
    onThreads(kReaders + 1, [&](std::uint32_t n) {
        if (n == kReaders) {
            for (std::uint32_t row = 100; reading > 0; row = row < 4000 ? row + 1 : 100) {
                EXPECT_EQ(enyx_hw_core_lock(core), 0);
                setMask(core, 0, row, row % 2 == 0 ? 0x7 : 0);
                readRegister(core, card_reg::kExchangeTimeA);
                EXPECT_EQ(enyx_hw_core_unlock(core), 0);
            }
            return;
        }
        const UpStream stream = openUp(accelerator, n);
        Reader reader;
        while (reader.packets < kWanted) enyx_hw_a2c_stream_poll_once(stream.get(), Reader::handle, &reader);
        std::uint32_t count = 0;
        EXPECT_EQ(enyx_hw_a2c_stream_stats_get_packet_count(stream.get(), &count), 0);
        EXPECT_GE(count, kWanted);
        --reading;
    });
}

TEST_F(Threads, TheCoreLockLetsOneInAtATime) {
    std::uint32_t counter = 0;
    onThreads(4, [&](std::uint32_t) {
        for (int n = 0; n < 2000; ++n) {
            ASSERT_EQ(enyx_hw_core_lock(core), 0);
            ++counter;
            ASSERT_EQ(enyx_hw_core_unlock(core), 0);
        }
    });
    EXPECT_EQ(counter, 8000U);
}

TEST_F(Threads, OneOfManyGetsTheStream) {
    constexpr std::uint32_t kThreads = 3;
    for (std::uint32_t round = 0; round < 200; ++round) {
        std::atomic<std::uint32_t> winners{0};
        Meeting start(kThreads);
        Meeting tried(kThreads);
        onThreads(kThreads, [&](std::uint32_t) {
            start.wait();
            const UpStream stream = openUp(accelerator, round % 16);
            const int error = errno;
            if (stream) ++winners;
            EXPECT_TRUE(stream != nullptr || error == EBUSY) << error;
            tried.wait();  // nobody lets go before all have tried
        });
        ASSERT_EQ(winners, 1U);
    }
}

TEST_F(Threads, HandlesAreMadeAndDestroyedOnAllOfThem) {
    enyx_sim_handles before;
    enyx_sim_count_handles(&before);
    onThreads(4, [&](std::uint32_t n) {
        for (int round = 0; round < 300; ++round) {
            const Mmio own = openMmio(openAccelerator());
            ASSERT_NE(registersOf(own), nullptr);
            const DownStream stream = openDown(accelerator, n);
            ASSERT_EQ(enyx_hw_c2a_stream_send(stream.get(), "x", 1), 0);
        }
    });
    enyx_sim_handles after;
    enyx_sim_count_handles(&after);
    EXPECT_EQ(after.filters, before.filters);
    EXPECT_EQ(after.mmios, before.mmios);
    EXPECT_EQ(after.c2a_streams, before.c2a_streams);
    EXPECT_EQ(after.misuses, before.misuses);
}

TEST_F(Threads, ScriptsAndTraceMayChangeWhileOthersCall) {
    std::atomic<bool> done{false};
    std::atomic<std::uint32_t> lines{0};
    onThreads(3, [&](std::uint32_t n) {
        if (n > 0) {
            while (!done) writeRegister(core, card_reg::kTradingDate, n);
            return;
        }
        const auto count = [](const char*, void* context) { ++*static_cast<std::atomic<std::uint32_t>*>(context); };
        for (int round = 0; round < 200; ++round) {
            enyx_sim_set_trace(count, &lines);
            enyx_sim_fail_call("enyx_hw_write", 5, EIO, 0);
            enyx_sim_set_trace(nullptr, nullptr);
            enyx_sim_clear_failures();
        }
        enyx_sim_set_trace(count, &lines);
        while (lines < 10) {
        }
        enyx_sim_set_trace(nullptr, nullptr);
        done = true;
    });
    EXPECT_GE(lines, 10U);
}
