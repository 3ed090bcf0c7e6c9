#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TempDir.h"
#include "tools/share/RingReader.h"
#include "tools/share/RingWriter.h"

using share::Head;
using share::RingReader;
using share::RingWriter;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

constexpr std::uint64_t kRing = share::kLeastRingBytes;
constexpr std::uint32_t kMtu = 2048;

class SharedRing : public ::testing::Test {
protected:
    SharedRing() {
        ::setenv(share::kDirectoryVariable, dir.Path("rings").c_str(), 1);
        EXPECT_TRUE(writer.make({0, 3, kMtu, share::kSimulated}, kRing)) << writer.error();
        path = dir.Path("rings/0.3.ring");
        reader = Open();
    }
    ~SharedRing() override {
        writer.end();
        ::unsetenv(share::kDirectoryVariable);
    }

    std::unique_ptr<RingReader> Open() {
        std::unique_ptr<RingReader> opened = RingReader::open(path, fault);
        return opened;
    }
    /// Packets that begin with their number, of sizes that differ.
    void Put(std::uint64_t packets) {
        for (; packets > 0; --packets, ++next) {
            const std::string packet = PacketOf(next);
            writer.put(1000 + next, packet.data(), static_cast<std::uint32_t>(packet.size()));
        }
    }
    static std::string PacketOf(std::uint64_t number) {
        std::string packet(8 + number % 300, static_cast<char>('a' + number % 26));
        std::memcpy(packet.data(), &number, sizeof number);
        return packet;
    }
    /// Reads what is there, and checks each packet by its number. @return "0-9 lost 3 13-20", as they came
    std::string Read() {
        std::string text;
        std::uint64_t first = 0;
        std::uint64_t count = 0;
        const auto endRange = [&] {
            if (count > 0) text += std::to_string(first) + "-" + std::to_string(first + count - 1) + " ";
            count = 0;
        };
        for (RingReader::Item item; reader->next(item);) {
            if (item.lost > 0) {
                endRange();
                text += "lost " + std::to_string(item.lost) + " ";
            }
            if (item.data == nullptr) continue;
            std::uint64_t number = 0;
            std::memcpy(&number, item.data, sizeof number);
            EXPECT_EQ(std::string(reinterpret_cast<const char*>(item.data), item.size), PacketOf(number));
            EXPECT_EQ(item.ticks, 1000 + number);
            EXPECT_TRUE(count == 0 || number == first + count) << number;
            if (count++ == 0) first = number;
        }
        endRange();
        if (!text.empty()) text.pop_back();
        return text;
    }
    /// Whoever may write to the file writes @p value into it.
    template <typename Value>
    void Spoil(std::uint64_t at, Value value) {
        const int file = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_EQ(::pwrite(file, &value, sizeof value, static_cast<off_t>(at)), static_cast<ssize_t>(sizeof value));
        ::close(file);
    }
    void SpoilProgress(std::uint64_t share::Progress::*word, std::uint64_t value) {
        share::Progress progress{};
        const auto at = static_cast<std::uint64_t>(reinterpret_cast<char*>(&(progress.*word)) -
                                                   reinterpret_cast<char*>(&progress));
        Spoil(offsetof(Head, progress) + at, value);
        Spoil(offsetof(Head, progress) + sizeof progress + at, value);
    }

    test_support::TempDir dir;
    std::string path;
    std::string fault;
    RingWriter writer;
    std::unique_ptr<RingReader> reader;
    std::uint64_t next = 0;
};

}  // namespace

TEST_F(SharedRing, IsReadAsItWasWritten) {
    ASSERT_NE(reader, nullptr) << fault;
    EXPECT_EQ(reader->mtu(), kMtu);
    EXPECT_EQ(reader->flags(), share::kSimulated);
    EXPECT_THAT(reader->writer(), HasSubstr("(process " + std::to_string(::getpid()) + ")"));
    EXPECT_EQ(Read(), "");
    Put(10);
    EXPECT_EQ(Read(), "0-9");
    writer.setCard({1, 2, 3});
    EXPECT_EQ(Read(), "");
    EXPECT_EQ(reader->card().backPressure, 1U);
    EXPECT_EQ(reader->card().fifoErrors, 2U);
    EXPECT_EQ(reader->card().errors, 3U);
}

TEST_F(SharedRing, GoesRoundManyTimes) {
    for (int round = 0; round < 20; ++round) {
        const std::uint64_t first = next;
        Put(1000);
        EXPECT_EQ(Read(), std::to_string(first) + "-" + std::to_string(next - 1));
    }
}

TEST_F(SharedRing, WhatItsReaderWasTooSlowForIsCountedToThePacket) {
    Put(10);
    EXPECT_EQ(Read(), "0-9");
    Put(10'000);
    EXPECT_EQ(Read(), "");  // jumps over all of them
    Put(5);
    EXPECT_EQ(Read(), "lost 10000 10010-10014");
}

TEST_F(SharedRing, WhatNoPacketFollowsIsCountedToo) {
    Put(10'000);
    EXPECT_EQ(Read(), "");
    EXPECT_EQ(Read(), "lost 10000");
    EXPECT_EQ(Read(), "");
    writer.skip();
    next++;
    EXPECT_EQ(Read(), "lost 1");
    Put(1);
    EXPECT_EQ(Read(), "10001-10001");
}

TEST_F(SharedRing, APacketWithoutBytesIsAGapInTheNumbers) {
    Put(2);
    writer.skip();
    ++next;
    Put(2);
    EXPECT_EQ(Read(), "0-1 lost 1 3-4");
}

TEST_F(SharedRing, WhoBeginsAtTheEndMissesNothingFromThereOn) {
    Put(100);
    reader->skipToEnd();
    EXPECT_EQ(Read(), "");
    Put(3);
    EXPECT_EQ(Read(), "100-102");
    reader = Open();
    reader->skipToEnd();
    EXPECT_EQ(Read(), "");
    Put(10'000);
    EXPECT_EQ(Read(), "");
    EXPECT_EQ(Read(), "lost 10000");
}

// A number in the ring is the lower half of the packet's; the count of packets is whole.
TEST_F(SharedRing, WhoBeginsBehindFourBillionPacketsMissesNothingFromThereOn) {
    constexpr std::uint64_t kBefore = std::uint64_t{1} << 32;
    SpoilProgress(&share::Progress::packets, kBefore);
    reader->skipToEnd();
    Put(10);
    SpoilProgress(&share::Progress::packets, kBefore + 10);
    EXPECT_EQ(Read(), "0-9");
    EXPECT_EQ(Read(), "");
    EXPECT_FALSE(reader->isDamaged());
    SpoilProgress(&share::Progress::packets, kBefore + 13);
    EXPECT_EQ(Read(), "lost 3");
}

// Bursts that overtake the reader, each followed by single packets until the reader has got one.
TEST_F(SharedRing, AFastWriterAndItsReaderAccountForEveryPacket) {
    std::atomic<std::uint64_t> packets{0};
    std::atomic<bool> isOver{false};
    std::thread polling([&] {
        for (int burst = 0; burst < 50; ++burst) {
            Put(5000);
            for (const std::uint64_t before = packets; packets == before && !isOver; std::this_thread::yield()) Put(1);
        }
        isOver = true;
    });
    std::uint64_t lost = 0;
    std::uint64_t wrong = 0;
    const auto readAll = [&] {
        for (RingReader::Item item; reader->next(item);) {
            lost += item.lost;
            if (item.data == nullptr) continue;
            const std::string expected = PacketOf(packets + lost);
            const bool isRight = item.size == expected.size() &&
                                 std::memcmp(item.data, expected.data(), item.size) == 0;
            wrong += isRight ? 0 : 1;
            ++packets;
        }
    };
    while (!isOver && !reader->isDamaged()) readAll();
    isOver = true;
    polling.join();
    for (int n = 0; n < 3; ++n) readAll();  // jumps, settles
    EXPECT_FALSE(reader->isDamaged());
    EXPECT_EQ(packets + lost, next);
    EXPECT_EQ(wrong, 0U);
    EXPECT_GE(packets, 50U);
}

TEST_F(SharedRing, HasOneWriterAndItsFileEndsWithIt) {
    RingWriter second;
    EXPECT_FALSE(second.make({0, 3, kMtu, 0}, kRing));
    EXPECT_THAT(second.error(), HasSubstr("another process shares this channel"));
    EXPECT_TRUE(second.make({0, 4, kMtu, 0}, kRing)) << second.error();
    second.end();
    EXPECT_TRUE(reader->isWritten(path));
    Put(3);
    writer.end();
    EXPECT_FALSE(reader->isWritten(path));
    EXPECT_EQ(Read(), "0-2");  // what is there can still be read
    EXPECT_EQ(Open(), nullptr);
    EXPECT_THAT(fault, IsEmpty());
    Put(1);  // a poll that was under way
    EXPECT_TRUE(writer.make({0, 3, kMtu, 0}, kRing)) << writer.error();
    next = 0;
    reader = Open();
    Put(3);
    EXPECT_EQ(Read(), "0-2");
}

TEST_F(SharedRing, OfAProcessThatWasKilledIsReplaced) {
    const pid_t child = ::fork();
    if (child == 0) {
        RingWriter killed;
        if (!killed.make({0, 5, kMtu, 0}, kRing)) ::_exit(1);
        ::raise(SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(::access(dir.Path("rings/0.5.ring").c_str(), F_OK), 0);
    EXPECT_EQ(RingReader::open(dir.Path("rings/0.5.ring"), fault), nullptr);
    EXPECT_THAT(fault, IsEmpty());
    RingWriter after;
    EXPECT_TRUE(after.make({0, 5, kMtu, 0}, kRing)) << after.error();
    after.end();
}

TEST_F(SharedRing, AChildOfForkNeitherWritesNorHoldsIt) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        writer.leaveToParent();
        Put(5);
        char byte = 0;
        ::close(ends[1]);
        ::_exit(::read(ends[0], &byte, 1) == 0 ? 0 : 1);
    }
    ::close(ends[0]);
    Put(1);
    EXPECT_EQ(Read(), "0-0");
    writer.end();
    EXPECT_FALSE(reader->isWritten(path));
    ::close(ends[1]);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(SharedRing, IsForItsUserAlone) {
    struct stat found {};
    ASSERT_EQ(::stat(path.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 0777U, 0600U);
    ASSERT_EQ(::stat(dir.Path("rings").c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 0777U, 0700U);
    ASSERT_EQ(::chmod(dir.Path("rings").c_str(), 0777), 0);
    RingWriter refused;
    EXPECT_FALSE(refused.make({0, 4, kMtu, 0}, kRing));
    EXPECT_THAT(refused.error(), HasSubstr("other users can write to the directory"));
}

// ---- hostile content ----

TEST_F(SharedRing, AHostileHeadIsRefused) {
    const auto refusal = [&] {
        EXPECT_EQ(Open(), nullptr);
        return fault;
    };
    Spoil(offsetof(Head, facts.mtu), std::uint32_t{share::kMostPacketBytes + 1});
    EXPECT_THAT(refusal(), HasSubstr("it is damaged"));
    Spoil(offsetof(Head, facts.mtu), kMtu);
    for (const std::uint64_t size : {std::uint64_t{0}, kRing - 1, kRing / 2, ~std::uint64_t{0}}) {
        Spoil(offsetof(Head, facts.ringBytes), size);
        EXPECT_THAT(refusal(), HasSubstr("it is damaged"));
    }
    Spoil(offsetof(Head, facts.version), std::uint32_t{7});
    EXPECT_THAT(refusal(), HasSubstr("its format has version 7, this program knows version 1"));
    Spoil(offsetof(Head, facts.magic), std::uint64_t{7});
    EXPECT_THAT(refusal(), HasSubstr("this is no shared ring"));
    ASSERT_EQ(::truncate(path.c_str(), 10), 0);
    EXPECT_THAT(refusal(), HasSubstr("this is no shared ring"));
    ::unlink(path.c_str());
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_THAT(refusal(), HasSubstr("this is no shared ring"));
    ::unlink(path.c_str());
    ASSERT_EQ(::symlink("/dev/zero", path.c_str()), 0);
    EXPECT_THAT(refusal(), HasSubstr("Too many levels of symbolic links"));
}

TEST_F(SharedRing, AHostileRingEndsTheReadingAndNothingElse) {
    const auto isDamagedBy = [&](const std::function<void()>& spoil) {
        writer.end();
        EXPECT_TRUE(writer.make({0, 3, kMtu, 0}, kRing)) << writer.error();
        next = 0;
        reader = Open();
        Put(2);
        Read();
        Put(10);
        spoil();
        for (int n = 0; n < 3; ++n) Read();
        return reader->isDamaged();
    };
    const std::uint64_t third = share::kHeadBytes + share::footprint(8) + share::footprint(9);
    EXPECT_FALSE(isDamagedBy([] {}));
    EXPECT_TRUE(isDamagedBy([&] { Spoil(third + 8, kMtu + 1); }));  // longer than a packet can be
    EXPECT_TRUE(isDamagedBy([&] { Spoil(third + 8, ~std::uint32_t{0}); }));
    EXPECT_TRUE(isDamagedBy([&] { Spoil(third + 12, std::uint32_t{1}); }));  // a number that has been there
    EXPECT_TRUE(isDamagedBy([&] { SpoilProgress(&share::Progress::end, 16); }));
    EXPECT_TRUE(isDamagedBy([&] { SpoilProgress(&share::Progress::end, 0x1007); }));
    EXPECT_TRUE(isDamagedBy([&] { SpoilProgress(&share::Progress::reserved, 0); }));
    EXPECT_TRUE(isDamagedBy([&] { ASSERT_EQ(::truncate(path.c_str(), share::kHeadBytes), 0); }));
    EXPECT_TRUE(isDamagedBy([&] { ASSERT_EQ(::truncate(path.c_str(), 0), 0); }));
}

TEST_F(SharedRing, CountsOfTheCardThatNoWriterWritesAreLeftOut) {
    const auto backPressureAfter = [&](std::uint64_t count) {
        writer.setCard({count, 2, 3});
        Read();
        return reader->card().backPressure;
    };
    EXPECT_EQ(backPressureAfter(7), 7U);
    EXPECT_EQ(backPressureAfter(~std::uint64_t{0}), 7U);
    EXPECT_EQ(backPressureAfter(0), 7U);
    EXPECT_EQ(backPressureAfter(8), 8U);
}

// A ring of bytes that have no meaning, read to its end: there is no packet longer than the memory for it, and an end.
TEST_F(SharedRing, RandomBytesAreReadWithoutHarm) {
    std::uint32_t random = 1;
    for (int round = 0; round < 200; ++round) {
        reader = Open();
        ASSERT_NE(reader, nullptr) << fault;
        std::vector<std::uint32_t> words(4096 / sizeof(std::uint32_t));
        for (std::uint32_t& word : words) {
            random = random * 1664525 + 1013904223;
            word = (random >> 16) % (round % 2 == 0 ? 64 : 65536);
        }
        const int file = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_GT(::pwrite(file, words.data(), 4096, share::kHeadBytes), 0);
        ::close(file);
        SpoilProgress(&share::Progress::end, 16 * (random % 512));
        SpoilProgress(&share::Progress::reserved, 16 * (random % 512));
        SpoilProgress(&share::Progress::packets, random % 1000);
        std::size_t items = 0;
        for (RingReader::Item item; items < 10'000 && reader->next(item); ++items) {
            EXPECT_LE(item.size, kMtu);
            EXPECT_LT(item.lost, std::uint64_t{1} << 31);
        }
        EXPECT_LT(items, 10'000U);
    }
}
