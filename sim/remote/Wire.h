#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What a relay sends and a remote card receives. One message carries packets of one channel, in order. Everything is
/// little-endian. Both sides use this header only; docs/many-machines.md describes the format for other readers.
///
/// Numbers. The relay counts the packets that its stream delivers, from 0 since its start, also those that it cannot
/// send. So a gap in the numbers is the exact number of packets that were lost behind the card.
namespace vexo_sim::wire {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "head and packets are copied as they are");

inline constexpr std::uint16_t kVersion = 1;
inline constexpr char kMagic[4] = {'V', 'X', 'R', 'M'};
inline constexpr std::uint32_t kMaxPacketBytes = 65536;  // the largest MTU of a card

inline constexpr std::uint32_t kHeartbeat = 1;  // no packets: the counts, while the channel is quiet
inline constexpr std::uint32_t kSelection = 2;  // packets of one type and contract: their numbers count these alone
inline constexpr std::uint32_t kSimulated = 4;  // the relay's own card is a simulated one
inline constexpr std::uint32_t kHistory = 8;    // from the relay's archive, to one receiver that asked for it

/// Counts of the relay's stream since its epoch began.
struct Counts {
    std::uint64_t lostByRing = 0;    // back-pressure: the relay did not take them in time
    std::uint64_t fifoErrors = 0;    // of the card
    std::uint64_t lostByRelay = 0;   // delivered, but the queue to the network was full
    std::uint64_t delivered = 0;     // all packets that the relay took, the lost ones of its queue included
    std::uint64_t streamErrors = 0;  // of the card
};

/// Head of a message, without the fields that only describe the message itself.
struct Head {
    std::uint64_t epoch = 0;  // random at each start of the relay's stream
    /// Number of the first packet. In a message without packets: of the next packet that will be sent; all before it
    /// were sent or are lost.
    std::uint64_t first = 0;
    std::uint64_t timeNs = 0;   // host's time of the first packet, since 1970
    std::uint32_t packets = 0;  // filled in by MessageWriter
    std::uint64_t sentNs = 0;   // host's time at which the message was sent
    Counts counts;
    std::uint32_t mtu = 0;
    std::uint32_t flags = 0;
};

/// The head as it lies in a message.
struct HeadBytes {
    char magic[4];
    std::uint16_t version;
    std::uint16_t headBytes;
    std::uint64_t epoch;
    std::uint64_t first;
    std::uint64_t timeNs;
    std::uint32_t packets;
    std::uint32_t packetBytes;  // all bytes behind the head
    std::uint64_t sentNs;
    std::uint64_t lostByRing;
    std::uint64_t fifoErrors;
    std::uint64_t lostByRelay;
    std::uint64_t delivered;
    std::uint32_t mtu;
    std::uint32_t flags;
    std::uint64_t streamErrors;
};
static_assert(sizeof(HeadBytes) == 96);
static_assert(offsetof(HeadBytes, version) == 4 && offsetof(HeadBytes, headBytes) == 6);
static_assert(offsetof(HeadBytes, epoch) == 8 && offsetof(HeadBytes, first) == 16 && offsetof(HeadBytes, timeNs) == 24);
static_assert(offsetof(HeadBytes, packets) == 32 && offsetof(HeadBytes, packetBytes) == 36);
static_assert(offsetof(HeadBytes, sentNs) == 40 && offsetof(HeadBytes, lostByRing) == 48);
static_assert(offsetof(HeadBytes, fifoErrors) == 56 && offsetof(HeadBytes, lostByRelay) == 64);
static_assert(offsetof(HeadBytes, delivered) == 72 && offsetof(HeadBytes, mtu) == 80);
static_assert(offsetof(HeadBytes, flags) == 84 && offsetof(HeadBytes, streamErrors) == 88);

/// In front of each packet.
struct PacketPrefix {
    std::uint32_t size;
    std::uint32_t afterFirstNs;  // its time minus that of the first packet; the largest value also means "or later"
};
static_assert(sizeof(PacketPrefix) == 8);

inline constexpr std::size_t kHeadBytes = sizeof(HeadBytes);
constexpr std::size_t footprint(std::uint32_t size) { return sizeof(PacketPrefix) + size; }

struct Bytes {
    const unsigned char* data = nullptr;
    std::size_t size = 0;
};

/// Builds messages in one piece of memory, one after another. Allocates nothing after its construction.
class MessageWriter {
public:
    /// @param limit  bytes of a message, the head included; a packet of any size fits into an empty message
    explicit MessageWriter(std::size_t limit);

    bool isEmpty() const { return m_packets == 0; }
    std::uint32_t packets() const { return m_packets; }
    std::uint64_t firstTimeNs() const { return m_firstTimeNs; }
    /// False when the packet belongs into the next message.
    bool hasRoomFor(std::uint32_t size) const { return m_packets == 0 || m_used + footprint(size) <= m_limit; }
    /// @param size  at most kMaxPacketBytes, and hasRoomFor() it
    void add(std::uint64_t timeNs, const void* data, std::uint32_t size);
    /// The message; valid until the next call. @p head needs no packets and no timeNs: they come from what was added,
    /// but for a message without packets, which keeps head.timeNs.
    Bytes finish(const Head& head);
    /// Begins the next message.
    void clear();

private:
    std::size_t m_limit;
    std::size_t m_used = kHeadBytes;
    std::uint32_t m_packets = 0;
    std::uint64_t m_firstTimeNs = 0;
    std::vector<unsigned char> m_bytes;
};

enum class Problem {
    kNone,
    kNotOurs,       // something else, or shorter than a head
    kOtherVersion,  // of the same format
    kDamaged,       // a length or a count that cannot be
};

/// A message that was checked: every packet lies inside it.
struct Message {
    Problem problem = Problem::kNotOurs;
    std::uint16_t version = 0;  // of the sender, when problem is kNone or kOtherVersion
    Head head;
    Bytes packets;
};

/// Checks a message of any content. Its bytes must stay while the message is used.
Message decode(const void* data, std::size_t size);
/// "not a relay's message", "version 2 of the format, this program has version 1", ...
std::string toText(const Message& message);

struct PacketIn {
    std::uint64_t number;
    std::uint64_t timeNs;
    const unsigned char* data;
    std::uint32_t size;
};

/// Visits the packets of a message without a problem: visit(PacketIn).
template <typename Visit>
void forEachPacket(const Message& message, Visit visit) {
    const unsigned char* at = message.packets.data;
    for (std::uint32_t n = 0; n < message.head.packets; ++n) {
        PacketPrefix prefix;
        __builtin_memcpy(&prefix, at, sizeof prefix);
        at += sizeof prefix;
        visit(PacketIn{message.head.first + n, message.head.timeNs + prefix.afterFirstNs, at, prefix.size});
        at += prefix.size;
    }
}

/// What a relay answers on its hello subject: a message without packets, then who it is.
struct Hello {
    Message message;  // head and problem
    std::string user;
    std::string host;
};
/// What is sent to ask for it.
std::vector<unsigned char> encodeHelloRequest();
/// The version of the asking side, 0 when this is not such a request.
std::uint16_t versionOfHelloRequest(const void* data, std::size_t size);
std::vector<unsigned char> encodeHello(const Head& head, const std::string& user, const std::string& host);
/// User and host are made printable: they come from another machine.
Hello decodeHello(const void* data, std::size_t size);

/// What a receiver asks the archive of a relay for: the packets from a moment on, or those that follow an answer.
struct HistoryRequest {
    std::uint64_t cursor = 0;     // of the last answer; 0: the packets from timeNs on
    std::uint64_t epoch = 0;      // of the packet that came last, and
    std::uint64_t next = 0;       // the number that follows it: packets of this epoch below it are not wanted
    std::uint64_t timeNs = 0;     // since 1970; without a cursor
    std::uint32_t mostBytes = 0;  // the answer ends with the first block of the archive that reaches so many
};
struct HistoryRequestBytes {
    char magic[4];
    std::uint16_t version;
    std::uint16_t bytes;
    std::uint64_t cursor;
    std::uint64_t epoch;
    std::uint64_t next;
    std::uint64_t timeNs;
    std::uint32_t mostBytes;
    std::uint32_t reserved;
};
static_assert(sizeof(HistoryRequestBytes) == 48 && offsetof(HistoryRequestBytes, cursor) == 8);
static_assert(offsetof(HistoryRequestBytes, timeNs) == 32 && offsetof(HistoryRequestBytes, mostBytes) == 40);

std::vector<unsigned char> encodeHistoryRequest(const HistoryRequest& request);
/// False when this is no such request of this version.
bool decodeHistoryRequest(const void* data, std::size_t size, HistoryRequest& request);

/// The last message of an answer. The others are messages as of the stream, with kHistory.
struct HistoryEnd {
    /// Of the stream as it is now. `first` is the number that the archive gets next: what is below and is not in the
    /// archive will not come.
    Head head;
    std::uint64_t cursor = 0;    // where the next request goes on; 0: at its moment
    std::uint32_t messages = 0;  // of this answer, before this one
    bool isAll = false;          // the archive has nothing more now
};
struct HistoryEndBytes {
    HeadBytes head;
    std::uint64_t cursor;
    std::uint32_t messages;
    std::uint32_t isAll;
};
static_assert(sizeof(HistoryEndBytes) == kHeadBytes + 16);

std::vector<unsigned char> encodeHistoryEnd(const HistoryEnd& end);
/// False for any other message.
bool decodeHistoryEnd(const void* data, std::size_t size, HistoryEnd& end);

}  // namespace vexo_sim::wire
