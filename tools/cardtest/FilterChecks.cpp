#include <algorithm>
#include <cerrno>

#include "tools/cardtest/CardUnderTest.h"

namespace cardtest {
namespace {

constexpr std::size_t kRoom = 64;
constexpr std::uint32_t kNoIndex = 0xFFFF;
constexpr char kNoName[] = "NO_STREAM_HAS_THIS_NAME";

ssize_t countCards(const FilterHandle& filter) {
    enyx_hw_accelerator_descriptor* found[kRoom + 1] = {};
    const ssize_t count = enyx_hw_enumerate_accelerators(filter.get(), found, kRoom);
    if (count > 0) enyx_hw_free_accelerator_descriptors(found, std::min(static_cast<std::size_t>(count), kRoom));
    return count;
}

ssize_t countStreams(enyx_hw_accelerator* card, const FilterHandle& filter) {
    enyx_hw_a2c_stream_descriptor* found[kRoom + 1] = {};
    const ssize_t count = enyx_hw_accelerator_enumerate_a2c_streams(card, filter.get(), found, kRoom);
    if (count > 0) enyx_hw_free_a2c_stream_descriptors(found, std::min(static_cast<std::size_t>(count), kRoom));
    return count;
}

void filterCreate(const TestPlan&) {
    errno = 0;
    const FilterHandle first(enyx_hw_filter_create());
    const FilterHandle second(enyx_hw_filter_create());
    expect(first && second, "two filters", errnoText(errno));
    expect(first.get() != second.get(), "two filters", "the same one twice");
    const int index = enyx_hw_filter_set_index(first.get(), 0);
    expect(index == 0, "result 0 of setting an index", resultText(index, errno));
    const int name = enyx_hw_filter_set_name(first.get(), streamName(0).c_str());
    expect(name == 0, "result 0 of setting a name", resultText(name, errno));
}

void emptyMatchesEverything(const TestPlan& plan) {
    const ssize_t cards = countCards(anyFilter());
    expect(cards >= 1, "every card, so at least 1", std::to_string(cards));
    enyx_hw_accelerator* card = openCard(plan.bus);
    ssize_t named = 0;
    for (std::uint32_t channel = 0; channel < kChannels; ++channel)
        if (countStreams(card, nameFilter(streamName(channel))) == 1) ++named;
    const ssize_t streams = countStreams(card, anyFilter());
    expect(streams >= named, "every stream, and " + std::to_string(named) + " were found by name",
           std::to_string(streams) + " streams");
}

void indexMatchesOne(const TestPlan& plan) {
    const ssize_t here = countCards(indexFilter(plan.bus));
    expect(here == 1, "1 card at bus " + std::to_string(plan.bus), std::to_string(here));
    const ssize_t nowhere = countCards(indexFilter(kNoIndex));
    expect(nowhere <= 0, "no card at bus " + std::to_string(kNoIndex), std::to_string(nowhere));
}

void nameMatchesOne(const TestPlan& plan) {
    enyx_hw_accelerator* card = openCard(plan.bus);
    const ssize_t one = countStreams(card, nameFilter(streamName(0)));
    expect(one == 1, "1 stream of the name " + streamName(0), std::to_string(one));
    const ssize_t none = countStreams(card, nameFilter(kNoName));
    expect(none <= 0, std::string("no stream of the name ") + kNoName, std::to_string(none));
}

void filtersAreIndependent(const TestPlan& plan) {
    const FilterHandle here = indexFilter(plan.bus);
    const ssize_t before = countCards(here);
    const FilterHandle nowhere = indexFilter(kNoIndex);
    const ssize_t after = countCards(here);
    expect(before == after, std::to_string(before) + " cards whatever is set in another filter", std::to_string(after));
}

}  // namespace

std::vector<Check> filterChecks() {
    constexpr const char* g = "filters";
    return {
        {g, "filter-create", "A filter can be created while others are in use, and takes an index and a name.",
         filterCreate},
        {g, "filter-empty", "A filter with no index and no name matches everything.", emptyMatchesEverything},
        {g, "filter-index", "A filter with an index matches the card of that index and no other.", indexMatchesOne},
        {g, "filter-name", "A filter with a name matches the stream of that name and no other.", nameMatchesOne},
        {g, "filter-own", "What is set in one filter does not change another.", filtersAreIndependent},
    };
}

}  // namespace cardtest
