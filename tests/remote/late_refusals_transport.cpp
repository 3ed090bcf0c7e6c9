// A transport whose servers let the card ask the relays of channels 3 and 4 alone. One of channel 3 is there. What is
// refused beside an answer is told late: when the card asks again.

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "sim/remote/Subjects.h"
#include "sim/remote/Transport.h"
#include "sim/remote/Wire.h"

extern "C" __attribute__((visibility("default"))) vexo_sim::remote::Transport* vexo_remote_transport(
    std::uint32_t version);

namespace {

using namespace vexo_sim;

class LateRefusals final : public remote::Transport {
public:
    bool open(const std::vector<std::string>&, remote::MessageSink& sink, std::string&) override {
        m_sink = &sink;
        return true;
    }
    bool subscribe(const std::string&, std::uint32_t, std::uint32_t) override { return true; }
    void unsubscribe(std::uint32_t) override {}

    remote::Answer ask(const std::vector<std::string>& subjects, const void*, std::size_t, std::chrono::milliseconds,
                       const remote::TakeAnswer& take) override {
        Tell();
        std::copy_if(subjects.begin(), subjects.end(), std::back_inserter(m_refused),
                     [](const std::string& subject) { return subject != HelloOf(3) && subject != HelloOf(4); });
        if (std::find(subjects.begin(), subjects.end(), HelloOf(3)) != subjects.end()) {
            const std::vector<unsigned char> hello = wire::encodeHello({}, "alice", "colo-1");
            return take(hello.data(), hello.size()) ? remote::Answer::kTaken : remote::Answer::kNone;
        }
        Tell();
        return remote::Answer::kNone;
    }

private:
    static std::string HelloOf(std::uint32_t channel) { return remote::helloSubject({"local", 0, channel}); }
    void Tell() {
        for (const std::string& subject : m_refused)
            m_sink->tell(remote::LineState::kNotPermitted, "Permissions Violation for Publish to \"" + subject + "\"");
        m_refused.clear();
    }

    remote::MessageSink* m_sink = nullptr;
    std::vector<std::string> m_refused;
};

}  // namespace

vexo_sim::remote::Transport* vexo_remote_transport(std::uint32_t) {
    static LateRefusals& transport = *new LateRefusals;
    return &transport;
}
