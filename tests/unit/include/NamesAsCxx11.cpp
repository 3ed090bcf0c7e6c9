// Uses the headers as an application in C++11 does: alone, and without a name of its own in the way.
#include "VexoZceInstrument.h"
#include "VexoZceSession.h"

static_assert(__cplusplus < 201402L, "this file shows that the headers need no more than C++11");

std::uint32_t DeliveryOfCxx11(const char* id, std::uint32_t date);
std::uint32_t TradingDateOfCxx11(const char* time, std::uint64_t hostNs);

std::uint32_t DeliveryOfCxx11(const char* id, std::uint32_t date) {
    vexo_zce::Instrument instrument;
    if (vexo_zce::parseId(id, vexo_zce::kIdRoom, date, instrument) != vexo_zce::IdFault::kNone) return 0;
    return instrument.legs[0].year * 100U + instrument.legs[0].month;
}

std::uint32_t TradingDateOfCxx11(const char* time, std::uint64_t hostNs) {
    vexo_zce::SessionClock clock;
    vexo_zce::QuoteTime when;
    return clock.place(time, 18, vexo_zce::hostTimeOf(hostNs), when) ? when.tradingDate : 0;
}
