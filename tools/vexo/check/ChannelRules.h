#pragma once

#include <string>
#include <vector>

#include "tools/vexo/check/ValueCheck.h"

namespace vexo::check {

/// The keys of one [channelN] section. Null where a key is missing.
struct ChannelRules {
    std::string section;
    std::size_t line;
    const IniLine* insts;
    const IniLine* options;
    const IniLine* ips;
    const IniLine* spd;
    std::string later;  ///< the channels behind it that have a section, with their lines: "[channel1] (line 30)"
};

struct LineProblem {
    std::size_t line;
    Problem problem;
    std::string missingKey;  ///< in lower case, when it is a key that is not there
};

/// Why no instrument of the exchange matches an entry of insts; empty when one may.
/// @param entries  of the whole list
std::string whyNothing(const std::string& token, const std::vector<std::string>& entries, bool options);

/// What the rules of a channel ask for that the library does not do, or that nothing can satisfy.
std::vector<LineProblem> checkRules(const ChannelRules& rules);

}  // namespace vexo::check
