#include <cerrno>
#include <memory>

#include "tools/cardtest/CardUnderTest.h"
#include "tools/cardtest/Helper.h"

namespace cardtest {
namespace {

void needSharedCard(const TestPlan& plan) {
    if (!plan.shared)
        throw Untestable{"an embedded simulated card: every process has one of its own. Host one: vexo-simcard"};
}

void streamExcludesProcesses(const TestPlan& plan) {
    needSharedCard(plan);
    const std::uint32_t channel = channelOf(plan);
    enyx_hw_accelerator* card = openCard(plan.bus);
    UpStreamHandle mine = openUp(card, plan.channel);
    const std::string busy = errnoText(EBUSY);
    {
        Helper other = Helper::holdingStream(plan, channel);
        const std::string seen = other.line();
        expect(seen == busy, "null and " + busy + " for another process while this one holds " + streamName(channel),
               seen);
    }
    mine.reset();
    Helper other = Helper::holdingStream(plan, channel);
    const std::string seen = other.line();
    expect(seen == "got", "the stream for the other process once this one has destroyed its own", seen);
    errno = 0;
    mine = tryOpenUp(card, channel);
    const int error = errno;
    expect(!mine && error == EBUSY, "null and " + busy + " while another process holds " + streamName(channel),
           mine ? "a stream" : errnoText(error));
}

void streamOutlivesNoHolder(const TestPlan& plan) {
    needSharedCard(plan);
    const std::uint32_t channel = channelOf(plan);
    enyx_hw_accelerator* card = openCard(plan.bus);
    for (const bool killed : {true, false}) {
        Helper holder = Helper::holdingStream(plan, channel);
        holder.demand("got");
        if (killed)
            holder.kill();
        else
            holder.tell("die");
        int error = 0;
        const bool opened = within(kPatienceMs, [&] {
            const UpStreamHandle stream = tryOpenUp(card, channel);
            error = errno;
            return stream != nullptr;
        });
        expect(opened, "the stream of a process that " + std::string(killed ? "was killed" : "has ended"),
               errnoText(error));
    }
}

void lockExcludesProcesses(const TestPlan& plan) {
    needSharedCard(plan);
    const RegisterCore registers(plan.bus);
    auto lock = std::make_unique<HeldCoreLock>(registers.core());
    Helper other = Helper::holdingLock(plan);
    other.demand("ready");
    // Once it sleeps inside the call it has had its chance, even on a busy machine.
    std::string seen = other.line(kWatchMs);
    if (seen.empty() && within(kPatienceMs, [&] { return other.isAsleep(); })) seen = other.line(0);
    expect(seen.empty(), "another process that waits while this one holds the lock", "it was told " + seen);
    lock.reset();
    seen = other.line();
    expect(seen == "got", "the lock for the other process, once this one has given it back",
           seen.empty() ? "nothing" : seen);
    other.tell("unlock");
    other.demand("gone");
}

void lockOutlivesNoHolder(const TestPlan& plan) {
    needSharedCard(plan);
    for (const bool killed : {true, false}) {
        Helper holder = Helper::holdingLock(plan);
        holder.demand("ready");
        holder.demand("got");
        if (killed)
            holder.kill();
        else
            holder.tell("die");
        Helper next = Helper::holdingLock(plan);
        next.demand("ready");
        const std::string seen = next.line();
        expect(seen == "got", "the lock of a process that " + std::string(killed ? "was killed" : "has ended"),
               seen.empty() ? "the next one still waits" : seen);
    }
}

}  // namespace

std::vector<Check> processChecks() {
    constexpr const char* g = "several processes";
    return {
        {g, "stream-processes",
         "Opening a card-to-host stream fails with null and EBUSY while another process holds it.",
         streamExcludesProcesses},
        {g, "lock-processes", "The core's lock excludes other processes.", lockExcludesProcesses},
        {g, "stream-dead-holder", "A process that dies, also by SIGKILL, releases its card-to-host stream.",
         streamOutlivesNoHolder},
        {g, "lock-dead-holder", "A process that dies, also by SIGKILL, releases the core's lock.",
         lockOutlivesNoHolder},
    };
}

}  // namespace cardtest
