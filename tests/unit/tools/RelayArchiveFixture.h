#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/TempDir.h"
#include "tools/relay/ArchiveHistory.h"

namespace relay {

/// Packets of an answer, and its end.
class Inbox : public Network {
public:
    struct Packet {
        std::uint64_t epoch;
        std::uint64_t number;
        std::uint64_t timeNs;
    };

    bool publish(const std::string& subject, const void* data, std::size_t size) override;

    std::vector<Packet> packets;
    std::vector<std::string> subjects;  // of the ends, in their order
    std::vector<wire::Head> counts;     // of messages without packets
    std::size_t messages = 0;           // before the end of the present answer
    wire::HistoryEnd end;
};

/// An archive without a relay: the test says which messages there are, and what time it is.
class RelayArchive : public ::testing::Test {
protected:
    static constexpr std::uint64_t kEpoch = 0xA;
    static constexpr std::uint64_t kNextEpoch = 0xB;
    static constexpr std::uint64_t kSecond = 1'000'000'000;
    static constexpr std::uint64_t kBegin = 1'700'000'000 * kSecond;
    static constexpr std::uint64_t kEvery = 10'000;  // nanoseconds between two packets

    RelayArchive();

    /// Begins a run of the relay.
    void Start(std::uint64_t epoch = kEpoch);
    /// Packets @p first to before @p end, which come @c kEvery after one another, in messages of a hundred.
    void Feed(std::uint64_t first, std::uint64_t end);
    void Heartbeat(std::uint64_t next);
    /// Lets a second go by.
    void Tick();
    void Close();
    /// What a kill leaves.
    void Kill() { store.reset(); }

    /// Asks until there is nothing more. @return all packets
    std::vector<Inbox::Packet> Since(std::uint64_t timeNs, std::uint32_t mostBytes = 1 << 20);
    /// "0-999 1500", with the epoch's letter in front when it is another than the first: "B:0-9". Packets of a wrong
    /// time are marked.
    std::string Numbers(const std::vector<Inbox::Packet>& packets) const;
    std::string All() { return Numbers(Since(0)); }
    std::uint64_t TimeOf(std::uint64_t number) const { return kBegin + number * kEvery; }

    std::vector<std::string> Files() const;
    /// A value of the catalogue, as another program reads it.
    std::string Catalogued(const std::string& query) const;
    bool IsTold(const std::string& part) const;

    test_support::TempDir dir;
    ArchiveSettings settings;
    std::unique_ptr<ArchiveStore> store;
    std::vector<std::string> lines;
    std::uint64_t nowNs = kBegin;
    wire::Counts counts;
    std::uint64_t lost = 0;
    std::uint64_t setBackNs = 0;  // so much the clock of further packets was set back

private:
    void Add(std::uint64_t first, std::uint32_t packets);

    std::uint64_t m_epoch = 0;
};

}  // namespace relay
