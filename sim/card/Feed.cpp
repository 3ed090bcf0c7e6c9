#include "sim/card/Feed.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "enyx-sim/md_payload.h"
#include "sim/card/PacketFaults.h"
#include "sim/card/PriceModel.h"
#include "sim/card/Registers.h"
#include "sim/card/Schedule.h"
#include "sim/card/UpStream.h"

namespace vexo_sim::feed {
namespace {

constexpr std::uint32_t kChannelBits = 0xFFFF;
constexpr std::uint32_t kMostPerAdvance = 4096;
constexpr std::uint64_t kCreditPerPacket = 1'000'000'000;
constexpr std::uint64_t kLongestGapNs = 1'000'000'000;

template <typename Quote>
struct Packet {
    enyx_sim::PacketHead head;
    Quote quote;
};
static_assert(sizeof(Packet<enyx_sim::Level1Quote>) == 12 + 128 && sizeof(Packet<enyx_sim::Level5Quote>) == 12 + 224);

bool mayQuote(const CardState& s) {
    return s.registers.stored[card_reg::kDecodeSwitch] != 0 && s.config.quotesPerSecond != 0 && !s.feed.paused &&
           s.feed.subscribedCount > 0;
}

void subscribe(FeedState& feed, std::uint32_t number) {
    const std::uint32_t count = feed.subscribedCount;
    if (feed.position[number] != kNoInstrument || count >= kMaxInstruments) return;
    feed.position[number] = static_cast<std::uint16_t>(count);
    feed.subscribed[count] = static_cast<std::uint16_t>(number);
    feed.subscribedCount = count + 1;
}

void unsubscribe(FeedState& feed, std::uint32_t number) {
    const std::uint16_t hole = feed.position[number];
    if (hole == kNoInstrument) return;
    const std::uint16_t last = feed.subscribed[safeNumber(--feed.subscribedCount)];
    feed.subscribed[safeNumber(hole)] = last;
    feed.position[safeNumber(last)] = hole;
    feed.position[number] = kNoInstrument;
}

// Rows take turns. With both levels on, a row's level changes from one pass to the next, so that two passes show all.
std::uint32_t nextLevel(const CardState& s) {
    const std::uint32_t on = s.registers.stored[card_reg::kDecodeSwitch];
    const bool level1 = (on & card_reg::kSwitchLevel1) != 0;
    const bool level5 = (on & card_reg::kSwitchLevel5) != 0;
    if (level1 && level5) return (s.feed.cursor + s.feed.pass) % 2 == 0 ? 1 : 5;
    return level1 ? 1 : level5 ? 5 : 0;
}

std::uint32_t nextInstrument(FeedState& feed) {
    if (feed.cursor >= feed.subscribedCount) {
        feed.cursor = 0;
        ++feed.pass;
    }
    return safeNumber(feed.subscribed[safeNumber(feed.cursor)]);
}

// Exchange time of all quotes that one advance() sends.
struct Moment {
    explicit Moment(const CardState& s)
        : date(registers::exchangeDate(s)), time(registers::exchangeTime(s)), millis(s.now.millis) {}
    std::uint32_t date;
    std::uint32_t time;
    std::uint32_t millis;
};

void fillCommon(const CardState& s, const Moment& moment, std::uint32_t number, std::uint32_t level,
                enyx_sim::QuoteCommon& quote) {
    const Instrument& instrument = s.parser.instruments[number];
    const PriceWalk& prices = s.feed.prices[number];
    static_assert(sizeof quote.id == sizeof instrument.id, "an id is copied whole");
    std::memcpy(quote.id, instrument.id, sizeof quote.id);
    quote.instrumentIndex = instrument.row;
    quote.table = instrument.table;
    quote.level = static_cast<std::uint8_t>(level);
    quote.exchangeDate = moment.date;
    quote.exchangeTime = moment.time;
    quote.exchangeMillis = moment.millis;
    quote.lastPrice = prices.last;
    quote.upperLimit = prices.upperLimit;
    quote.lowerLimit = prices.lowerLimit;
    quote.turnover = prices.turnover;
    quote.totalVolume = prices.totalVolume;
    quote.openInterest = prices.openInterest;
}

std::uint32_t packetType(std::uint32_t table, std::uint32_t level) {
    constexpr std::uint32_t kLevel1SingleLeg = 17;
    return kLevel1SingleLeg + table * 2 + (level == 5 ? 1 : 0);
}

void fillBook(const BookEdge& edge, std::int64_t, enyx_sim::Level1Quote& quote) {
    quote.bidPrice = edge.bid;
    quote.askPrice = edge.ask;
    quote.bidVolume = edge.bidVolume[0];
    quote.askVolume = edge.askVolume[0];
}

void fillBook(const BookEdge& edge, std::int64_t tick, enyx_sim::Level5Quote& quote) {
    for (std::uint32_t depth = 0; depth < enyx_sim::kDepth; ++depth) {
        quote.bidPrice[depth] = edge.bid - depth * tick;
        quote.askPrice[depth] = edge.ask + depth * tick;
        quote.bidVolume[depth] = edge.bidVolume[depth];
        quote.askVolume[depth] = edge.askVolume[depth];
    }
}

// The fault strikes a copy: the quote goes to other streams too.
[[gnu::noinline, gnu::cold]] void deliverSpoiled(CardState& s, std::uint32_t channel, const void* packet,
                                                 std::uint32_t size) {
    unsigned char copy[sizeof(Packet<enyx_sim::Level5Quote>)];
    std::memcpy(copy, packet, size);
    const packet_faults::Verdict verdict = packet_faults::spoil(s, channel, kQuotePackets, copy, size);
    for (std::uint32_t n = 0; n < verdict.copies; ++n) put(s.up[channel], copy, verdict.size);
}

// A lost quote uses up its numbers, so that its reader sees the gap.
template <typename Quote>
void deliver(CardState& s, std::uint32_t channel, Packet<Quote>& packet) {
    UpStreamState& stream = s.up[channel];
    packet.head.sequence = ++stream.headSequence;
    packet.quote.common.sequence = ++stream.quoteSequence;
    if (packet_faults::armed(s)) return deliverSpoiled(s, channel, &packet, sizeof packet);
    put(stream, &packet, sizeof packet);
}

template <typename Quote>
void quote(CardState& s, const Moment& moment, std::uint32_t number, std::uint32_t level, std::uint32_t targets) {
    PriceWalk& prices = s.feed.prices[number];
    const BookEdge edge = walk(prices, s.feed.random);
    Packet<Quote> packet;
    packet.head.type = packetType(s.parser.instruments[number].table, level);
    packet.head.length = sizeof packet;
    fillCommon(s, moment, number, level, packet.quote.common);
    fillBook(edge, prices.tick, packet.quote);
    for (std::uint32_t channel = 0; targets != 0; ++channel, targets >>= 1)
        if ((targets & 1) != 0) deliver(s, channel, packet);
}

std::uint32_t openStreams(const CardState& s) {
    std::uint32_t open = 0;
    for (std::uint32_t channel = 0; channel < kStreams; ++channel)
        if (s.up[channel].open) open |= std::uint32_t{1} << channel;
    return open;
}

bool haveRoom(CardState& s, std::uint32_t targets) {
    for (std::uint32_t channel = 0; targets != 0; ++channel, targets >>= 1)
        if ((targets & 1) != 0 && ring::reserve(s.up[channel].ring, sizeof(Packet<enyx_sim::Level5Quote>)) == nullptr)
            return false;
    return true;
}

// False when the readers set the pace and one of this quote's readers has no room: the quote waits.
bool quoteNext(CardState& s, const Moment& moment, std::uint32_t open) {
    const std::uint32_t number = nextInstrument(s.feed);
    const Instrument& instrument = s.parser.instruments[number];
    const std::uint32_t targets =
        s.tables[safeTable(instrument.table)].words[safeRow(instrument.row)][card_reg::kMaskWord] & open;
    if (s.config.pace == kPaceOfReaders && !haveRoom(s, targets)) return false;
    const std::uint32_t level = nextLevel(s);
    ++s.feed.cursor;
    if (targets == 0) return true;
    if (level == 1) quote<enyx_sim::Level1Quote>(s, moment, number, level, targets);
    if (level == 5) quote<enyx_sim::Level5Quote>(s, moment, number, level, targets);
    return true;
}

std::uint32_t usualRate(const CardState& s) {
    const std::uint64_t each = s.config.quotesPerInstrument;
    if (each == 0) return s.config.quotesPerSecond;
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(s.config.quotesPerSecond, each * s.feed.subscribedCount));
}

// The area under the bursts in the first @p ns nanoseconds of the feed, in nanoseconds at full height. Each burst falls
// in a straight line from full height to nothing.
std::uint64_t burstNs(const CardConfig& config, std::uint64_t ns) {
    const std::uint64_t lengthUs = std::max(config.burstMs, 1U) * std::uint64_t{1000};
    const std::uint64_t everyUs = std::max(config.burstEveryMs, 1U) * std::uint64_t{1000};
    const std::uint64_t us = ns / 1000;
    const std::uint64_t leftUs = lengthUs - std::min(us % everyUs, lengthUs);
    return us / everyUs * (lengthUs * 500) + (lengthUs - leftUs * leftUs / lengthUs) * 500;
}

// Adds the quotes owed since the last call. After a pause of more than a second they are dropped.
void collectCredit(CardState& s) {
    FeedState& feed = s.feed;
    const std::uint64_t from = std::max(feed.lastNs, s.clockNs - std::min(s.clockNs, kLongestGapNs));
    std::uint64_t weighted = s.clockNs - from;
    if (s.config.burstEveryMs != 0)
        weighted += (burstNs(s.config, s.clockNs - feed.startNs) - burstNs(s.config, from - feed.startNs)) *
                    (s.config.burstFactor - 1);
    feed.lastNs = s.clockNs;
    feed.credit += weighted * feed.rate;
}

std::uint64_t takeDue(CardState& s) {
    collectCredit(s);
    const std::uint64_t due = s.feed.credit / kCreditPerPacket;
    s.feed.credit %= kCreditPerPacket;
    if (s.config.pace == kPaceOfReaders) return kMostPerAdvance;
    return std::min<std::uint64_t>(due, kMostPerAdvance);
}

// Not later than the next quote; inside and before a burst it may be earlier.
std::uint64_t nextQuoteNs(const CardState& s) {
    if (s.config.pace == kPaceOfReaders || s.feed.credit >= kCreditPerPacket) return s.clockNs;
    const std::uint64_t height = s.config.burstEveryMs != 0 ? s.config.burstFactor : 1;
    const std::uint64_t most = std::max<std::uint64_t>(s.feed.rate * height, 1);
    return s.clockNs + (kCreditPerPacket - s.feed.credit + most - 1) / most;
}

}  // namespace

void powerOn(CardState& s) {
    s.feed.active = s.feed.paused = false;
    s.feed.random = s.config.seed * 0x9E3779B97F4A7C15U + 0x2545F4914F6CDD1DU;
    s.feed.cursor = s.feed.pass = s.feed.rate = 0;
    forgetInstruments(s);
}

void refresh(CardState& s) {
    const bool active = mayQuote(s);
    if (!active || !s.feed.active) {
        s.feed.startNs = s.feed.lastNs = s.clockNs;
        s.feed.credit = 0;
        s.feed.rate = 0;
    }
    s.feed.active = active;
    if (active && s.feed.rate != usualRate(s)) {
        collectCredit(s);
        s.feed.rate = usualRate(s);
        wakeAt(s, nextQuoteNs(s));
    }
}

void forgetInstruments(CardState& s) {
    s.feed.subscribedCount = 0;
    std::fill(std::begin(s.feed.position), std::end(s.feed.position), kNoInstrument);
    refresh(s);
}

void instrumentLearned(CardState& s, std::uint32_t number) {
    Instrument instrument = s.parser.instruments[number];
    instrument.id[kIdCapacity - 1] = '\0';
    s.feed.prices[number] = openingPrices(instrument.id, s.config.seed);
    maskChanged(s, safeTable(instrument.table), safeRow(instrument.row));
}

void maskChanged(CardState& s, std::uint32_t table, std::uint32_t row) {
    const std::uint16_t ofRow = s.tables[table].instrumentOfRow[row];
    if (ofRow == kNoInstrument) return;
    const std::uint32_t number = safeNumber(ofRow);
    const bool wanted = (s.tables[table].words[row][card_reg::kMaskWord] & kChannelBits) != 0;
    wanted ? subscribe(s.feed, number) : unsubscribe(s.feed, number);
    refresh(s);
}

bool advance(CardState& s) {
    if (!s.feed.active) return false;
    const std::uint32_t open = openStreams(s);
    const Moment moment(s);
    std::uint64_t sent = 0;
    for (const std::uint64_t due = takeDue(s); sent < due && quoteNext(s, moment, open);) ++sent;
    wakeAt(s, nextQuoteNs(s));
    return s.config.pace == kPaceOfReaders && sent > 0;
}

}  // namespace vexo_sim::feed
