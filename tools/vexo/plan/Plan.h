#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "interface/CardRegisters.h"
#include "tools/vexo/check/Report.h"
#include "tools/vexo/plan/Instruments.h"

namespace vexo::plan {

/// One thing that a channel asks for, and the positions of what it selects in the list of instruments.
struct RulePlan {
    std::string key;    ///< insts, ips or spd
    std::string value;  ///< one entry of insts; recv
    std::size_t line;   ///< of the configuration; 0 when unknown
    std::vector<std::size_t> instruments;
};

struct ChannelPlan {
    std::string program;  ///< configuration of the program on this channel; empty when none was named
    bool options = false;
    std::vector<RulePlan> rules;
    std::vector<std::size_t> instruments;
};

struct Row {
    std::uint16_t mask;
    std::string id;
};

struct CardPlan {
    std::string master;  ///< its configuration; empty when none was named
    ChannelPlan channels[card_reg::kChannels];
    std::map<std::uint16_t, Row> rows[2];  ///< by table: those whose mask is not 0
    std::vector<std::size_t> forNobody;    ///< instruments that no channel gets
    bool learningEnds = false;
    unsigned int minutesOfDelay = 0;
};

struct Plan {
    std::map<unsigned int, CardPlan> cards;  ///< by bus
    check::Report report;
};

/// What starts with these configurations would do.
/// Throws Failure when one of them cannot be used or two are of one channel 0.
Plan makePlan(const std::vector<std::string>& configs, const Instruments& instruments);

struct ChannelDifference {
    unsigned int channel;
    std::vector<std::size_t> added;
    std::vector<std::size_t> removed;
};

struct RowDifference {
    std::size_t table;
    std::uint16_t row;
    std::uint16_t before;
    std::uint16_t after;
    std::string id;
};

struct CardDifference {
    unsigned int card;
    std::vector<ChannelDifference> channels;
    std::vector<RowDifference> rows;
};

/// What changes between two plans over the same instruments. Cards without a change are left out.
std::vector<CardDifference> differences(const Plan& before, const Plan& after);

}  // namespace vexo::plan
