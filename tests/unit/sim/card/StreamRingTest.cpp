#include "tests/unit/sim/card/CardFixture.h"

using namespace vexo_sim;

namespace {

class StreamRing : public ::testing::Test {
protected:
    void SetUp() override { ring::init(ring, 4096); }

    bool put(const Bytes& packet) {
        const auto size = static_cast<std::uint32_t>(packet.size());
        unsigned char* room = ring::reserve(ring, size);
        if (room == nullptr) return false;
        std::copy(packet.begin(), packet.end(), room);
        ring::commit(ring, size);
        return true;
    }
    Bytes get() {
        const PacketView view = ring::peek(ring);
        EXPECT_NE(view.data, nullptr);
        if (view.data == nullptr) return {};
        Bytes packet(view.data, view.data + view.size);
        ring::release(ring);
        return packet;
    }
    bool empty() { return ring::peek(ring).data == nullptr; }
    static Bytes packet(std::size_t size, unsigned seed) {
        Bytes bytes(size);
        for (std::size_t n = 0; n < size; ++n) bytes[n] = static_cast<unsigned char>(seed * 31 + n);
        return bytes;
    }

    ZeroedMemory<CardState> memory;
    RingState& ring = memory.get()->up[0].ring;
};

}  // namespace

TEST_F(StreamRing, IsEmptyAtFirst) { EXPECT_TRUE(empty()); }

TEST_F(StreamRing, PeekingDoesNotTake) {
    put({1, 2, 3});
    EXPECT_EQ(ring::peek(ring).size, 3U);
    EXPECT_EQ(get(), (Bytes{1, 2, 3}));
    EXPECT_TRUE(empty());
}

TEST_F(StreamRing, AReservedPacketIsNotSeenBeforeItIsCommitted) {
    ASSERT_NE(ring::reserve(ring, 100), nullptr);
    EXPECT_TRUE(empty());
    ring::commit(ring, 5);
    EXPECT_EQ(ring::peek(ring).size, 5U);
}

TEST_F(StreamRing, AnEmptyPacketIsAPacket) {
    put({});
    put({7});
    EXPECT_NE(ring::peek(ring).data, nullptr);
    EXPECT_EQ(get(), Bytes{});
    EXPECT_EQ(get(), Bytes{7});
}

TEST_F(StreamRing, PacketsOfEverySizeComeOutAsTheyWentInHoweverTheyWrap) {
    const std::uint32_t largest = ring::largestPacket(4096);
    for (std::uint32_t size = 0; size <= largest; ++size) {
        ASSERT_TRUE(put(packet(size, size))) << size;
        ASSERT_EQ(get(), packet(size, size)) << size;
        ASSERT_TRUE(empty());
    }
}

TEST_F(StreamRing, KeepsTheOrderOfMany) {
    unsigned written = 0;
    unsigned read = 0;
    for (int round = 0; round < 1000; ++round) {
        while (put(packet(written % 97, written))) ++written;
        while (!empty()) {
            ASSERT_EQ(get(), packet(read % 97, read));
            ++read;
        }
        ASSERT_EQ(read, written);
    }
    EXPECT_GT(written, 20000U);
}

TEST_F(StreamRing, FillsToItsLastByteAndNoFurther) {
    unsigned count = 0;
    while (put(packet(56, count))) ++count;
    EXPECT_EQ(count, 4096U / 64);
    EXPECT_FALSE(put({}));
    EXPECT_EQ(get(), packet(56, 0));
    EXPECT_TRUE(put(packet(56, 99)));
    EXPECT_FALSE(put({}));
}

TEST_F(StreamRing, DrainingTakesEverything) {
    while (put(packet(100, 1))) {
    }
    ring::drain(ring);
    EXPECT_TRUE(empty());
    EXPECT_TRUE(put({1}));
    EXPECT_EQ(get(), Bytes{1});
}

TEST_F(StreamRing, CapacityIsTheNextPowerOfTwo) {
    EXPECT_EQ(ring::capacityFor(1), 4096U);
    EXPECT_EQ(ring::capacityFor(4096), 4096U);
    EXPECT_EQ(ring::capacityFor(4097), 8192U);
    EXPECT_EQ(ring::capacityFor(256 * 1024), 256U * 1024);
    EXPECT_EQ(ring::capacityFor(2'000'000), 1U << 20);
}
