// The status of a card, as JSON for programs and as text for a terminal.

#include "sim/host/Status.h"

#include <gtest/gtest.h>

using namespace vexo_sim;

namespace {

CardStatus busyCard() {
    CardStatus status;
    status.bus = 2;
    status.host = {4711, "vexo-simcard", "alice"};
    status.uptimeSeconds = 90;
    status.scenario = "quiet \"day\"";
    status.description = "nothing wrong";
    status.pace = "x10";
    status.instruments = 5000;
    status.learned = 4999;
    status.masks[0] = 30;
    status.masks[1] = 4;
    status.decodeSwitch = 3;
    status.mapTransmit = 1;
    status.tradingDate = 20310305;
    status.exchangeTime = 90501;
    status.channels = {{0, true, Holder{4712, "trader", "bob"}, 1000, 2, 300, 4},
                       {1, false, {}, 0, 0, 0, 0},
                       {15, true, {}, 7, 0, 8, 0}};
    return status;
}

}  // namespace

TEST(Status, AsTextIsOneLookAtTheCard) {
    EXPECT_EQ(
        toText(busyCard()),
        "simulated card at bus 2, process 4711 (vexo-simcard, user alice), pace x10, up 90s, scenario quiet \"day\"\n"
        "learned 4999 of 5000, masks 30 single-leg 4 combination, decode switch 3, map on, date 20310305, "
        "time 090501\n"
        "chan      packets        drops       queued  held by\n"
        "   0         1000            2          300  process 4712 (trader, user bob)\n"
        "  15            7            0            8  nobody\n");
}

TEST(Status, AsTextLeavesOutWhatIsNotThere) {
    CardStatus status;
    status.host = {1, "vexo-simcard", "alice"};
    status.pace = "real";
    status.inReset = true;
    EXPECT_EQ(
        toText(status),
        "simulated card at bus 0, process 1 (vexo-simcard, user alice), pace real, up 0s\n"
        "learned 0 of 0, masks 0 single-leg 0 combination, decode switch 0, map off, date 0, time 000000, held in "
        "reset\n"
        "chan      packets        drops       queued  held by\n");
}

TEST(Status, ColoursTheHeadingAndWhatIsLost) {
    const std::string text = toText(busyCard(), TextStyle::kColored);
    EXPECT_NE(text.find("\033[1mchan      packets        drops       queued  held by\033[0m\n"), std::string::npos);
    EXPECT_NE(text.find("   0         1000 \033[31m           2\033[0m          300  process 4712"), std::string::npos);
    EXPECT_NE(text.find("  15            7            0            8  nobody\n"), std::string::npos);
}

TEST(Status, AsJsonWritesNumbersThatADoubleCannotHoldAsText) {
    CardStatus status;
    status.channels.resize(2);
    status.channels[0].sentPackets = std::uint64_t{1} << 53;
    status.channels[1].sentPackets = (std::uint64_t{1} << 53) + 1;
    const std::string json = toJson(status);
    EXPECT_NE(json.find("\"sent_packets\": 9007199254740992\n"), std::string::npos);
    EXPECT_NE(json.find("\"sent_packets\": \"9007199254740993\"\n"), std::string::npos);
}

TEST(Status, AsJsonHasEveryFieldOfTheText) {
    CardStatus status = busyCard();
    status.channels.resize(2);
    EXPECT_EQ(toJson(status), R"({
  "bus": 2,
  "host": {
    "pid": 4711,
    "program": "vexo-simcard",
    "user": "alice"
  },
  "pace": "x10",
  "uptime_s": 90,
  "scenario": "quiet \"day\"",
  "description": "nothing wrong",
  "learned": 4999,
  "instruments": 5000,
  "masks": {
    "single_leg": 30,
    "combination": 4
  },
  "decode_switch": 3,
  "map_transmit": 1,
  "trading_date": 20310305,
  "exchange_time": 90501,
  "in_reset": false,
  "channels": [
    {
      "channel": 0,
      "open": true,
      "holder": {
        "pid": 4712,
        "program": "trader",
        "user": "bob"
      },
      "packets": 1000,
      "drops": 2,
      "queued_bytes": 300,
      "sent_packets": 4
    },
    {
      "channel": 1,
      "open": false,
      "holder": null,
      "packets": 0,
      "drops": 0,
      "queued_bytes": 0,
      "sent_packets": 0
    }
  ]
}
)");
}

TEST(Status, AsJsonStaysValidWhateverBytesAScenarioHas) {
    CardStatus status;
    status.scenario = "\xff\n";
    EXPECT_NE(toJson(status).find("\"scenario\": \"\xEF\xBF\xBD\\n\""), std::string::npos);
}
