#include "framework_adapter/SpscRing.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>

namespace {

void Push(SpscRing<int>& ring, int value) {
    int* const element = ring.claim();
    ASSERT_NE(element, nullptr);
    *element = value;
    ring.publish();
}

int Pop(SpscRing<int>& ring) {
    const int value = *ring.front();
    ring.pop();
    return value;
}

TEST(SpscRing, HasRoomForAPowerOfTwo) {
    EXPECT_EQ(SpscRing<int>(1).capacity(), 1u);
    EXPECT_EQ(SpscRing<int>(5).capacity(), 8u);
    EXPECT_EQ(SpscRing<int>(64).capacity(), 64u);
}

TEST(SpscRing, GivesElementsInTheirOrderRoundAfterRound) {
    SpscRing<int> ring(4);
    for (int first = 0; first < 30; first += 3) {
        for (int n = 0; n < 3; ++n) Push(ring, first + n);
        for (int n = 0; n < 3; ++n) EXPECT_EQ(Pop(ring), first + n);
    }
}

TEST(SpscRing, IsEmptyAtFirstAndAfterTheLastElement) {
    SpscRing<int> ring(4);
    EXPECT_EQ(ring.front(), nullptr);
    Push(ring, 1);
    Pop(ring);
    EXPECT_EQ(ring.front(), nullptr);
}

TEST(SpscRing, RefusesAnElementWhenItIsFullAndKeepsTheOthers) {
    SpscRing<int> ring(2);
    Push(ring, 1);
    Push(ring, 2);
    EXPECT_EQ(ring.claim(), nullptr);
    EXPECT_EQ(Pop(ring), 1);
    Push(ring, 3);
    EXPECT_EQ(ring.claim(), nullptr);
    EXPECT_EQ(Pop(ring), 2);
    EXPECT_EQ(Pop(ring), 3);
}

TEST(SpscRing, DoesNotShowAnElementBeforeItIsPublished) {
    SpscRing<int> ring(2);
    *ring.claim() = 1;
    EXPECT_EQ(ring.front(), nullptr);
    ring.publish();
    EXPECT_EQ(*ring.front(), 1);
}

// An element of several words: one that is read half written would differ in itself.
struct Wide {
    std::uint64_t words[8] = {};
};

TEST(SpscRing, HandsEveryElementWholeFromOneThreadToTheOther) {
    constexpr std::uint64_t kElements = 200'000;
    SpscRing<Wide> ring(64);
    std::thread producer([&] {
        for (std::uint64_t n = 0; n < kElements;) {
            Wide* const element = ring.claim();
            if (element == nullptr) {
                std::this_thread::yield();
                continue;
            }
            for (std::uint64_t& word : element->words) word = n;
            ring.publish();
            ++n;
        }
    });
    std::uint64_t wrong = 0;
    for (std::uint64_t n = 0; n < kElements;) {
        const Wide* const element = ring.front();
        if (element == nullptr) {
            std::this_thread::yield();
            continue;
        }
        for (const std::uint64_t word : element->words) wrong += word != n ? 1 : 0;
        ring.pop();
        ++n;
    }
    producer.join();
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(ring.front(), nullptr);
}

}  // namespace
