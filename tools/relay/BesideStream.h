#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "sim/remote/Subjects.h"
#include "tools/relay/PacketSource.h"
#include "tools/share/RingReader.h"

namespace relay {

/// The packets that an application shares: `vexo tap --share`. The application may end, and another one may begin; the
/// numbers go on.
class BesideStream : public PacketSource {
public:
    /// Throws Failure when another relay of this machine does the same for this site.
    explicit BesideStream(const vexo_sim::remote::Place& place);
    ~BesideStream() override;

    /// For an application. What one that is there already has received before is left out.
    bool wait(const std::function<bool()>& isOver) override;
    std::uint32_t mtu() const override { return m_mtu; }
    bool isSimulated() const override { return (m_flags & share::kSimulated) != 0; }
    bool knowsPolls() const override { return false; }
    bool poll(Intake& intake) override;
    std::optional<StreamCounts> counts() override;

private:
    using Clock = std::chrono::steady_clock;

    void refuseSecond(const std::string& site);
    bool drain(Intake& intake);
    bool attach();
    void detach();
    void addCounts();
    void tell(const std::string& what);

    const std::string m_channel;  // "channel 3 of card 0"
    const std::string m_path;
    int m_lock = -1;
    std::uint32_t m_mtu = 0;  // 0: there was no application yet
    std::uint32_t m_flags = 0;
    std::unique_ptr<share::RingReader> m_ring;
    bool m_isOver = false;  // nobody writes any more; what is there is still read
    Clock::time_point m_lookedAt;
    std::string m_told;  // last; so that nothing is told twice

    share::CardCounts m_before{};  // of this ring when it was found
    std::atomic<std::uint64_t> m_backPressure{0};
    std::atomic<std::uint64_t> m_fifoErrors{0};
    std::atomic<std::uint64_t> m_errors{0};
};

}  // namespace relay
