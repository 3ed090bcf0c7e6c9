#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/TempDir.h"
#include "tools/relay/ArchiveHistory.h"

namespace fuzz {

namespace wire = vexo_sim::wire;

/// The archive of a relay that started twice: run 1 is in a file, run 2 in another one, and the last packets of that
/// are in no file yet. It knows what it was given, and checks each answer against that.
class ArchiveModel : private relay::Network {
public:
    static constexpr std::uint64_t kBegin = 1'700'000'000'000'000'000;  // time of the first packet
    static constexpr std::uint64_t kEveryNs = 10'000'000;               // from one packet to the next
    static constexpr std::uint64_t kRun = 2;                            // the present one
    static constexpr std::uint64_t kNext = 70;                          // its next packet

    using Messages = std::vector<std::vector<unsigned char>>;

    ArchiveModel();

    /// A request of any bytes. @return the answer, whose last message is its end; nothing when nobody must answer
    Messages Ask(const unsigned char* data, std::size_t size, const char* reply);

    /// A relay's message with packets @p first and following, as Packet() of RemoteStream makes them.
    static std::vector<unsigned char> MessageOf(wire::Head head, std::uint32_t packets, std::uint64_t timeNs);

private:
    using Bytes = std::vector<unsigned char>;
    struct Packet {
        std::uint64_t run;
        std::uint64_t number;
        std::uint64_t timeNs;
    };

    bool publish(const std::string& subject, const void* data, std::size_t size) override;
    void Start(std::uint64_t run);
    void Add(std::uint64_t first, std::uint32_t packets, const wire::Counts& counts = {});
    void Seal();
    void Check(const wire::HistoryRequest& request) const;
    void CheckBegin(const wire::HistoryRequest& request, std::size_t begin, bool isAll) const;
    /// Where the packets of the answer are among all: from @p begin to before @p end.
    void Find(std::size_t& begin, std::size_t& end) const;
    std::size_t IndexOf(std::uint64_t run, std::uint64_t number) const;

    const test_support::TempDir m_dir;
    std::unique_ptr<relay::ArchiveStore> m_store;
    std::uint64_t m_run = 0;
    std::uint64_t m_nowNs = kBegin;
    std::vector<Packet> m_packets;
    std::vector<std::string> m_subjects;  // of the messages that were sent
    Messages m_sent;
};

}  // namespace fuzz
