#include "sim/remote/Wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>

#include "tests/unit/sim/remote/Messages.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace vexo_sim::wire {
namespace {

Head SomeHead() {
    Head head;
    head.epoch = 0x1122334455667788;
    head.first = 1000;
    head.timeNs = 1'700'000'000'000'000'000;
    head.sentNs = head.timeNs + 50'000;
    head.counts = {1, 2, 3, 4, 5};
    head.mtu = 4096;
    head.flags = kSimulated;
    return head;
}

template <typename T>
void Store(Packet& message, std::size_t offset, T value) {
    std::memcpy(message.data() + offset, &value, sizeof value);
}

Problem ProblemOf(const Packet& message) { return decode(message.data(), message.size()).problem; }

TEST(Wire, AMessageArrivesWithItsHeadAndItsPackets) {
    const Head sent = SomeHead();
    const Packet bytes = MessageOf(sent, 3);
    const Message message = decode(bytes.data(), bytes.size());
    ASSERT_EQ(message.problem, Problem::kNone);
    const Head& head = message.head;
    EXPECT_EQ(head.epoch, sent.epoch);
    EXPECT_EQ(head.first, sent.first);
    EXPECT_EQ(head.timeNs, sent.timeNs);
    EXPECT_EQ(head.sentNs, sent.sentNs);
    EXPECT_EQ(head.packets, 3U);
    EXPECT_EQ(head.counts.lostByRing, 1U);
    EXPECT_EQ(head.counts.fifoErrors, 2U);
    EXPECT_EQ(head.counts.lostByRelay, 3U);
    EXPECT_EQ(head.counts.delivered, 4U);
    EXPECT_EQ(head.counts.streamErrors, 5U);
    EXPECT_EQ(head.mtu, 4096U);
    EXPECT_EQ(head.flags, kSimulated);

    std::vector<Packet> packets;
    std::vector<std::uint64_t> numbers;
    std::vector<std::uint64_t> times;
    forEachPacket(message, [&](const PacketIn& packet) {
        packets.emplace_back(packet.data, packet.data + packet.size);
        numbers.push_back(packet.number);
        times.push_back(packet.timeNs - sent.timeNs);
    });
    EXPECT_THAT(packets, ElementsAre(PacketOf(1000), PacketOf(1001), PacketOf(1002)));
    EXPECT_THAT(numbers, ElementsAre(1000, 1001, 1002));
    EXPECT_THAT(times, ElementsAre(0, 1, 2));
}

TEST(Wire, TheBytesOfAMessageAreThoseOfTheFormat) {
    Head head = SomeHead();
    MessageWriter writer(1024);
    writer.add(head.timeNs, "abc", 3);
    const Bytes bytes = writer.finish(head);
    ASSERT_EQ(bytes.size, 96U + 8U + 3U);
    const std::string text(reinterpret_cast<const char*>(bytes.data), bytes.size);
    EXPECT_EQ(text.substr(0, 16), std::string("VXRM\x01\x00\x60\x00\x88\x77\x66\x55\x44\x33\x22\x11", 16));
    EXPECT_EQ(text.substr(32, 8), std::string("\x01\x00\x00\x00\x0B\x00\x00\x00", 8));
    EXPECT_EQ(text.substr(96), std::string("\x03\x00\x00\x00\x00\x00\x00\x00", 8) + "abc");
}

TEST(Wire, AMessageWithoutPacketsCarriesTheCounts) {
    Head head = SomeHead();
    head.flags = kHeartbeat;
    const Packet bytes = MessageOf(head, 0);
    const Message message = decode(bytes.data(), bytes.size());
    ASSERT_EQ(message.problem, Problem::kNone);
    EXPECT_EQ(message.head.packets, 0U);
    EXPECT_EQ(message.head.timeNs, head.timeNs);
    EXPECT_EQ(message.head.counts.delivered, 4U);
}

TEST(Wire, APacketLaterThanItsFieldHoldsAndAnEarlierOneAreKeptInsideTheField) {
    MessageWriter writer(1024);
    writer.add(10'000'000'000, "a", 1);
    writer.add(20'000'000'000, "b", 1);
    writer.add(9'000'000'000, "c", 1);
    const Bytes bytes = writer.finish(SomeHead());
    std::vector<std::uint64_t> times;
    forEachPacket(decode(bytes.data, bytes.size), [&](const PacketIn& packet) { times.push_back(packet.timeNs); });
    EXPECT_THAT(
        times, ElementsAre(10'000'000'000, 10'000'000'000 + std::numeric_limits<std::uint32_t>::max(), 10'000'000'000));
}

TEST(Wire, AWriterHasRoomForAnyPacketAndAfterThatUpToItsLimit) {
    MessageWriter writer(kHeadBytes + footprint(100));
    const Packet largest(kMaxPacketBytes);
    EXPECT_TRUE(writer.hasRoomFor(kMaxPacketBytes));
    writer.add(0, largest.data(), kMaxPacketBytes);
    EXPECT_FALSE(writer.hasRoomFor(0));
    EXPECT_EQ(writer.finish({}).size, kHeadBytes + footprint(kMaxPacketBytes));
    writer.clear();
    EXPECT_TRUE(writer.isEmpty());
    writer.add(0, largest.data(), 40);
    EXPECT_TRUE(writer.hasRoomFor(100 - 40 - sizeof(PacketPrefix)));
    EXPECT_FALSE(writer.hasRoomFor(100 - 40 - sizeof(PacketPrefix) + 1));
}

TEST(Wire, NoCutOfAMessageIsTaken) {
    const Packet whole = MessageOf(SomeHead(), 3);
    ASSERT_EQ(ProblemOf(whole), Problem::kNone);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const Packet cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_NE(ProblemOf(cut), Problem::kNone) << size;
    }
    Packet longer = whole;
    longer.push_back(0);
    EXPECT_EQ(ProblemOf(longer), Problem::kDamaged);
}

TEST(Wire, HostileLengthsAndCountsAreDamage) {
    const Packet whole = MessageOf(SomeHead(), 3);
    const std::uint32_t hostile[] = {0, 1, 2, 4, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF8, 0xFFFFFFFF};
    const std::size_t fields[] = {offsetof(HeadBytes, packets), offsetof(HeadBytes, packetBytes), kHeadBytes};
    for (const std::size_t field : fields) {
        for (const std::uint32_t value : hostile) {
            Packet message = whole;
            Store(message, field, value);
            EXPECT_EQ(ProblemOf(message), Problem::kDamaged) << field << " " << value;
        }
    }
    Packet message = whole;
    Store(message, offsetof(HeadBytes, mtu), kMaxPacketBytes + 1);
    EXPECT_EQ(ProblemOf(message), Problem::kDamaged);
    message = whole;
    Store(message, offsetof(HeadBytes, headBytes), std::uint16_t{95});
    EXPECT_EQ(ProblemOf(message), Problem::kDamaged);
}

TEST(Wire, ANumberThatWouldOverflowIsDamage) {
    Head head = SomeHead();
    head.first = std::numeric_limits<std::uint64_t>::max() - 1;
    Packet message = MessageOf(head, 1);
    EXPECT_EQ(ProblemOf(message), Problem::kNone);
    Store(message, offsetof(HeadBytes, first), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(ProblemOf(message), Problem::kDamaged);
}

TEST(Wire, SomethingElseIsNotARelaysMessage) {
    Packet message = MessageOf(SomeHead(), 1);
    message[0] = 'v';
    EXPECT_EQ(ProblemOf(message), Problem::kNotOurs);
    EXPECT_EQ(ProblemOf(Packet(1000)), Problem::kNotOurs);
    EXPECT_EQ(decode("VXRM", 4).problem, Problem::kNotOurs);
}

TEST(Wire, AnotherVersionIsNamedWithOurs) {
    Packet bytes = MessageOf(SomeHead(), 1);
    Store(bytes, offsetof(HeadBytes, version), std::uint16_t{7});
    const Message message = decode(bytes.data(), bytes.size());
    EXPECT_EQ(message.problem, Problem::kOtherVersion);
    EXPECT_EQ(message.version, 7U);
    EXPECT_EQ(toText(message), "version 7 of the relay's format, this program has version 1");
}

TEST(Wire, AHelloSaysWhoTheRelayIs) {
    const std::vector<unsigned char> bytes = encodeHello(SomeHead(), "alice", "colo-1.example");
    const Hello hello = decodeHello(bytes.data(), bytes.size());
    ASSERT_EQ(hello.message.problem, Problem::kNone);
    EXPECT_EQ(hello.message.head.first, 1000U);
    EXPECT_EQ(hello.user, "alice");
    EXPECT_EQ(hello.host, "colo-1.example");
    for (std::size_t size = 0; size < bytes.size(); ++size)
        EXPECT_NE(decodeHello(bytes.data(), size).message.problem, Problem::kNone) << size;
    EXPECT_NE(decode(bytes.data(), bytes.size()).problem, Problem::kNone) << "a hello is no message of a stream";
}

TEST(Wire, TheNamesInAHelloAreShortAndPrintable) {
    const std::string hostile = "a\x1B[31m\n\"" + std::string(1000, 'x');
    const std::vector<unsigned char> bytes = encodeHello(SomeHead(), hostile, "");
    const Hello hello = decodeHello(bytes.data(), bytes.size());
    ASSERT_EQ(hello.message.problem, Problem::kNone);
    EXPECT_EQ(hello.user.substr(0, 9), "a??31m??x");
    EXPECT_EQ(hello.user.size(), 64U);
    EXPECT_EQ(hello.host, "");
}

TEST(Wire, ARequestForAHelloIsKnownByItsVersion) {
    std::vector<unsigned char> request = encodeHelloRequest();
    EXPECT_EQ(versionOfHelloRequest(request.data(), request.size()), kVersion);
    EXPECT_EQ(versionOfHelloRequest(request.data(), request.size() - 1), 0U);
    request[0] = 'x';
    EXPECT_EQ(versionOfHelloRequest(request.data(), request.size()), 0U);
}

TEST(Wire, ARequestToTheArchiveIsReadAsItWasWritten) {
    const std::vector<unsigned char> bytes = encodeHistoryRequest({1, 2, 3, 4, 5});
    HistoryRequest request;
    ASSERT_TRUE(decodeHistoryRequest(bytes.data(), bytes.size(), request));
    EXPECT_EQ(request.cursor, 1U);
    EXPECT_EQ(request.epoch, 2U);
    EXPECT_EQ(request.next, 3U);
    EXPECT_EQ(request.timeNs, 4U);
    EXPECT_EQ(request.mostBytes, 5U);
    for (std::size_t size = 0; size < bytes.size(); ++size)
        EXPECT_FALSE(decodeHistoryRequest(bytes.data(), size, request)) << size;
    for (const std::size_t at : {0U, 4U, 6U, 44U}) {  // magic, version, size, reserved
        std::vector<unsigned char> other = bytes;
        ++other[at];
        EXPECT_FALSE(decodeHistoryRequest(other.data(), other.size(), request)) << at;
    }
}

TEST(Wire, TheEndOfAnAnswerIsNoMessageOfAStream) {
    const std::vector<unsigned char> bytes = encodeHistoryEnd({SomeHead(), 77, 3, true});
    HistoryEnd end;
    ASSERT_TRUE(decodeHistoryEnd(bytes.data(), bytes.size(), end));
    EXPECT_EQ(end.head.first, 1000U);
    EXPECT_EQ(end.cursor, 77U);
    EXPECT_EQ(end.messages, 3U);
    EXPECT_TRUE(end.isAll);
    EXPECT_NE(decode(bytes.data(), bytes.size()).problem, Problem::kNone);
    for (std::size_t size = 0; size < bytes.size(); ++size)
        EXPECT_FALSE(decodeHistoryEnd(bytes.data(), size, end)) << size;
    for (const std::size_t at : {0U, 4U, 32U, 36U, 84U, 108U}) {  // magic, version, packets, bytes, flags, isAll
        std::vector<unsigned char> other = bytes;
        ++other[at];
        EXPECT_FALSE(decodeHistoryEnd(other.data(), other.size(), end)) << at;
    }
}

}  // namespace
}  // namespace vexo_sim::wire
