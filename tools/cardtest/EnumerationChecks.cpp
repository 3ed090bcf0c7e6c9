#include <algorithm>
#include <cerrno>
#include <functional>

#include "tools/cardtest/CardUnderTest.h"

namespace cardtest {
namespace {

constexpr std::size_t kSlots = 64;

// One kind of object, as its enumeration sees it through a filter.
template <typename Descriptor>
struct Kind {
    const char* name;
    std::function<ssize_t(Descriptor**, std::size_t)> enumerate;
    std::function<void(Descriptor**, std::size_t)> release;
};

// The array after an enumeration.
struct Outcome {
    ssize_t count = 0;
    int error = 0;
    std::size_t filled = 0;  // slots changed, from the first on
    bool beyond = false;     // a slot behind the room was changed
};

template <typename Descriptor>
Outcome enumerateInto(const Kind<Descriptor>& kind, std::size_t room) {
    Descriptor* slots[kSlots];
    auto* const untouched = reinterpret_cast<Descriptor*>(slots);  // an address that no descriptor can have
    std::fill(slots, slots + kSlots, untouched);
    Outcome outcome;
    errno = 0;
    outcome.count = kind.enumerate(slots, room);
    outcome.error = errno;
    while (outcome.filled < room && slots[outcome.filled] != untouched) ++outcome.filled;
    outcome.beyond = std::any_of(slots + room, slots + kSlots, [=](auto* slot) { return slot != untouched; });
    if (outcome.filled > 0) kind.release(slots, outcome.filled);
    return outcome;
}

template <typename Visit>
void forEachKind(const TestPlan& plan, const FilterHandle& filter, Visit visit) {
    enyx_hw_accelerator* card = openCard(plan.bus);
    const MmioHandle mmio = openMmio(card);
    enyx_hw_core* root = rootOf(mmio.get());
    const enyx_hw_filter* f = filter.get();
    visit(Kind<enyx_hw_accelerator_descriptor>{
        "accelerators", [=](auto** d, std::size_t n) { return enyx_hw_enumerate_accelerators(f, d, n); },
        std::ref(enyx_hw_free_accelerator_descriptors)});
    visit(Kind<enyx_hw_mmio_descriptor>{
        "register spaces", [=](auto** d, std::size_t n) { return enyx_hw_accelerator_enumerate_mmios(card, f, d, n); },
        std::ref(enyx_hw_free_mmio_descriptors)});
    visit(Kind<enyx_hw_core>{
        "cores", [=](auto** d, std::size_t n) { return enyx_hw_core_enumerate(root, kRegisterCoreId, d, n); },
        [](enyx_hw_core**, std::size_t) {}});
    visit(Kind<enyx_hw_a2c_stream_descriptor>{
        "card-to-host streams",
        [=](auto** d, std::size_t n) { return enyx_hw_accelerator_enumerate_a2c_streams(card, f, d, n); },
        std::ref(enyx_hw_free_a2c_stream_descriptors)});
    visit(Kind<enyx_hw_c2a_stream_descriptor>{
        "host-to-card streams",
        [=](auto** d, std::size_t n) { return enyx_hw_accelerator_enumerate_c2a_streams(card, f, d, n); },
        std::ref(enyx_hw_free_c2a_stream_descriptors)});
}

// Room for none, one, some and more than there are.
constexpr std::size_t kRooms[] = {0, 1, 2, 5, 48};

std::string in(const char* kind, std::size_t room) {
    return std::string(" (") + kind + ", room for " + std::to_string(room) + ")";
}

void countIsWhatMatched(const TestPlan& plan) {
    forEachKind(plan, anyFilter(), [](const auto& kind) {
        const ssize_t all = enumerateInto(kind, 48).count;
        for (const std::size_t room : kRooms) {
            const Outcome outcome = enumerateInto(kind, room);
            expect(outcome.count == all, "result " + std::to_string(all) + in(kind.name, room),
                   resultText(outcome.count, outcome.error));
        }
    });
}

void roomIsKept(const TestPlan& plan) {
    forEachKind(plan, anyFilter(), [](const auto& kind) {
        for (const std::size_t room : kRooms) {
            const Outcome outcome = enumerateInto(kind, room);
            expect(!outcome.beyond, "nothing written behind the array" + in(kind.name, room),
                   "a slot behind it changed");
            if (outcome.count < 0) continue;
            const std::size_t due = std::min(room, static_cast<std::size_t>(outcome.count));
            expect(outcome.filled == due, std::to_string(due) + " slots filled" + in(kind.name, room),
                   std::to_string(outcome.filled));
        }
    });
}

void noneIsZero(const TestPlan& plan) {
    FilterHandle filter = nameFilter("NOTHING_HAS_THIS_NAME");
    if (enyx_hw_filter_set_index(filter.get(), 0xFFFF) != 0)
        throw Untestable{"a filter did not take an index and a name"};
    forEachKind(plan, filter, [](const auto& kind) {
        if (std::string(kind.name) == "cores") return;  // found by hardware id: core-unknown
        const Outcome outcome = enumerateInto(kind, 4);
        if (outcome.count > 0) throw Untestable{std::string("the filter let ") + kind.name + " through"};
        expect(outcome.count == 0, "result 0" + in(kind.name, 4), resultText(outcome.count, outcome.error));
    });
}

void failureIsMinusOne(const TestPlan& plan) {
    bool failed = false;
    const FilterHandle filter = indexFilter(0xFFFFFFFF);
    forEachKind(plan, filter, [&failed](const auto& kind) {
        const Outcome outcome = enumerateInto(kind, 4);
        if (outcome.count >= 0) return;
        failed = true;
        expect(outcome.count == -1 && outcome.error != 0, std::string("result -1 with errno set (") + kind.name + ")",
               resultText(outcome.count, outcome.error));
    });
    if (!failed) throw Untestable{"no enumeration of this card failed"};
}

void descriptorsAreFreed(const TestPlan& plan) {
    constexpr int kRounds = 2000;
    forEachKind(plan, anyFilter(), [](const auto& kind) {
        const Outcome first = enumerateInto(kind, 4);
        for (int round = 0; round < kRounds; ++round) {
            const Outcome again = enumerateInto(kind, 4);
            expect(again.count == first.count && again.filled == first.filled,
                   "the same " + std::to_string(first.count) + " " + kind.name + " each time",
                   resultText(again.count, again.error) + " after " + std::to_string(round) + " times");
        }
    });
}

}  // namespace

std::vector<Check> enumerationChecks() {
    constexpr const char* g = "enumeration";
    return {
        {g, "enumeration-count", "The result is the number that matched, whatever the room in the array.",
         countIsWhatMatched},
        {g, "enumeration-room", "As many descriptors are filled as match and have room, and nothing behind them.",
         roomIsKept},
        {g, "enumeration-none", "An enumeration that finds nothing returns 0.", noneIsZero},
        {g, "enumeration-failure", "An enumeration that fails returns -1 and sets errno.", failureIsMinusOne},
        {g, "enumeration-again", "Freed descriptors can be enumerated again, any number of times.",
         descriptorsAreFreed},
    };
}

}  // namespace cardtest
