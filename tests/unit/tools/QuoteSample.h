#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "capture/Blocks.h"
#include "enyx-sim/md_payload.h"

namespace capture {

/// Quotes of the simulated card, for captures that tests make themselves.
struct QuoteSample {
    std::uint32_t type = 17;
    enyx_sim::Level5Quote quote{};  // the first level of it for Level-1

    QuoteSample() = default;
    QuoteSample(std::uint32_t packetType, const std::string& id) : type(packetType) {
        std::memcpy(quote.common.id, id.data(), std::min(id.size(), sizeof quote.common.id));
        quote.common.table = type >= 19 ? 1 : 0;
        quote.common.level = isLevel5() ? 5 : 1;
    }
    bool isLevel5() const { return type == 18 || type == 20; }

    /// The packet as the card sends it.
    std::string packet() const {
        std::string bytes(sizeof(enyx_sim::PacketHead), '\0');
        if (isLevel5()) {
            bytes.append(reinterpret_cast<const char*>(&quote), sizeof quote);
        } else {
            const enyx_sim::Level1Quote small{quote.common, quote.bidPrice[0], quote.askPrice[0], quote.bidVolume[0],
                                              quote.askVolume[0]};
            bytes.append(reinterpret_cast<const char*>(&small), sizeof small);
        }
        const enyx_sim::PacketHead head{type, static_cast<std::uint32_t>(bytes.size()), 1};
        std::memcpy(bytes.data(), &head, sizeof head);
        return bytes;
    }
};

/// A quote with any numbers: the whole range of each field, and often its ends.
inline QuoteSample randomQuote(std::mt19937_64& random) {
    const auto number = [&]() -> std::uint64_t {
        switch (random() % 6) {
            case 0: return 0;
            case 1: return ~std::uint64_t{0};
            case 2: return std::uint64_t{1} << 63;
            case 3: return random();
            default: return random() % 100'000'000;
        }
    };
    QuoteSample sample(static_cast<std::uint32_t>(17 + random() % 4), "SR701C" + std::to_string(random() % 10000));
    enyx_sim::QuoteCommon& common = sample.quote.common;
    common.sequence = number();
    common.instrumentIndex = static_cast<std::uint16_t>(number());
    common.exchangeDate = static_cast<std::uint32_t>(number());
    common.exchangeTime = static_cast<std::uint32_t>(number());
    common.exchangeMillis = static_cast<std::uint32_t>(number());
    common.lastPrice = static_cast<std::int64_t>(number());
    common.upperLimit = static_cast<std::int64_t>(number());
    common.lowerLimit = static_cast<std::int64_t>(number());
    common.turnover = static_cast<std::int64_t>(number());
    common.totalVolume = number();
    common.openInterest = number();
    for (int i = 0; i < enyx_sim::kDepth; ++i) {
        sample.quote.bidPrice[i] = static_cast<std::int64_t>(number());
        sample.quote.askPrice[i] = static_cast<std::int64_t>(number());
        sample.quote.bidVolume[i] = static_cast<std::uint32_t>(number());
        sample.quote.askVolume[i] = static_cast<std::uint32_t>(number());
    }
    return sample;
}

/// A capture with the interfaces "channel 0", "channel 3", "card 1 channel 3", "stream odd" and "registers".
inline BlockBuffer emptyCapture() {
    BlockBuffer blocks;
    appendSection(blocks, {});
    for (const char* name : {"channel 0", "channel 3", "card 1 channel 3", "stream odd"})
        appendInterface(blocks, {kStreamLink, name, ""});
    appendInterface(blocks, {kRegisterLink, "registers", ""});
    return blocks;
}

inline void appendPacket(BlockBuffer& out, std::uint32_t interface, std::uint64_t timeNs, const std::string& packet) {
    appendPacket(out, interface, timeNs, packet.data(), static_cast<std::uint32_t>(packet.size()));
}

}  // namespace capture
