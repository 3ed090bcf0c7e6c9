#include "enyx-hw-c/enyx_hw.h"
#include "enyx-sim/enyx_sim.h"
#include "enyx-sim/md_payload.h"

static_assert(__cplusplus < 201402L, "this file shows that the headers need no more than C++11");

std::int64_t SpreadOf(const unsigned char* payload);

std::int64_t SpreadOf(const unsigned char* payload) {
    const enyx_sim::Level1Quote& quote = *reinterpret_cast<const enyx_sim::Level1Quote*>(payload);
    return quote.askPrice - quote.bidPrice;
}
