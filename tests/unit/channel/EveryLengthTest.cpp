// Every packet type from 0 to 255 at every length from 0 to 2,048, each in a buffer of exactly its size.

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "tests/unit/channel/ChannelFixture.h"

namespace {

constexpr std::uint32_t kTypes = 256;
constexpr std::uint32_t kTypesOfATest = 16;
constexpr std::uint32_t kLongest = 2048;

std::string TooShort(std::uint32_t size) { return "WARN Unexpect dma size, size " + std::to_string(size) + '\n'; }

/// What must come of the packets of one type.
struct Expected {
    explicit Expected(std::uint32_t type) {
        const bool isQuote = type >= 17 && type <= 20;
        const std::uint32_t least = type == 2 ? 15 : isQuote ? 12 : 4;
        char unknown[64];
        std::snprintf(unknown, sizeof unknown, "ERROR Unsupported dma type 0x%x\n", type);
        for (std::uint32_t size = 0; size <= kLongest; ++size) {
            if (size < least) {
                log += TooShort(size);
            } else if (isQuote) {
                ++quotes;
            } else if (type != 2) {
                log += unknown;
            }
        }
    }

    std::string log;
    std::size_t quotes = 0;
};

class EveryTypeAtEveryLength : public PacketTest, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(EveryTypeAtEveryLength, IsDeliveredOrRefusedWithOneLine) {
    for (std::uint32_t type = GetParam(); type < GetParam() + kTypesOfATest; ++type) {
        SCOPED_TRACE(type);
        const Expected expected(type);
        spi.calls.clear();
        for (std::uint32_t size = 0; size <= kLongest; ++size) {
            std::vector<unsigned char> packet(size);
            SetType(packet, type);
            Deliver(packet);
        }

        EXPECT_TRUE(log.TakeText() == expected.log);
        EXPECT_EQ(spi.calls.size(), expected.quotes);
        const auto isOfType = [&](const auto& call) { return call.first == static_cast<int>(type); };
        EXPECT_TRUE(std::all_of(spi.calls.begin(), spi.calls.end(), isOfType));
        EXPECT_TRUE(channel->m_mapInstIdx.empty());
    }
}

INSTANTIATE_TEST_SUITE_P(PacketDispatch, EveryTypeAtEveryLength, testing::Range(0U, kTypes, kTypesOfATest));

/// Contract maps that fill their packet with messages of 20 bytes. The last message may be cut off.
class MapOfEveryLength : public PacketTest {
protected:
    static constexpr std::uint32_t kArea = 14;
    static constexpr std::uint32_t kMessage = 20;

    static std::vector<unsigned char> Map(std::uint32_t size) {
        std::vector<unsigned char> packet(size, 'x');
        SetType(packet, 2);
        if (size < kArea) return packet;
        Put16(packet, kArea - 2, size - kArea);
        for (std::uint32_t at = kArea, number = 0; at + 2 <= size; at += kMessage, ++number) {
            const std::uint32_t header = number == 0 ? 9 : 5;
            Put16(packet, at, kMessage);
            if (at + header + 3 > size) break;
            Put16(packet, at + header - 2, number);
            packet[at + header] = static_cast<unsigned char>('0' + number / 26);
            packet[at + header + 1] = static_cast<unsigned char>('0' + number % 26);
        }
        return packet;
    }

    /// The lines of a packet of this size, whose messages are counted.
    std::string LinesOf(std::uint32_t size) {
        if (size <= kArea) return TooShort(size);
        const std::uint32_t whole = (size - kArea) / kMessage;
        std::string lines;
        for (std::uint32_t number = 0; number < whole; ++number) {
            if (++m_messages % 8192 == 0) {
                lines += "INFO Have parsed " + std::to_string(m_messages) +
                         " instrument id already, instnum:" + std::to_string(m_known) + ".\n";
            }
            m_known = std::max(m_known, number + 1);
        }
        // A map ends one byte before its area does: one byte more than whole messages is not looked at.
        const std::uint32_t behind = kArea + whole * kMessage;
        if (behind + 1 >= size) return lines;
        return lines + "WARN Bad contract map message, number:" + std::to_string(whole) +
               ", offset:" + std::to_string(behind) + ", packet size:" + std::to_string(size) +
               "! The rest of the packet is dropped.\n";
    }

private:
    static void Put16(std::vector<unsigned char>& packet, std::uint32_t at, std::uint32_t value) {
        packet[at] = static_cast<unsigned char>(value >> 8);
        packet[at + 1] = static_cast<unsigned char>(value & 0xFF);
    }

    std::uint32_t m_messages = 0;
    std::uint32_t m_known = 0;
};

TEST_F(MapOfEveryLength, TeachesItsWholeMessagesAndRefusesTheCutOneWithOneLine) {
    std::string expected;
    for (std::uint32_t size = 0; size <= kLongest; ++size) {
        expected += LinesOf(size);
        Deliver(Map(size));
        ASSERT_EQ(channel->m_mapInstIdx.size(), size <= kArea ? 0 : (size - kArea) / kMessage) << size;
    }
    EXPECT_EQ(log.TakeText(), expected);
}

}  // namespace
