#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/vexo/export/Rows.h"

namespace vexo::exporting {

/// The filter that a packet does not pass.
enum class Rejection { kTime, kType, kChannel, kId, kSession, kNone };
inline constexpr std::size_t kRejections = 5;

/// Which packets become rows. An empty list takes everything.
struct Filter {
    std::vector<std::string> ids;  // * stands for any characters, ? for one
    std::vector<std::uint32_t> types;
    std::vector<std::int32_t> channels;
    std::vector<std::string> sessions;     // names of the session table; "day" for all but the night
    std::optional<std::uint64_t> fromNs;   // since 1970
    std::optional<std::uint64_t> untilNs;  // the first that is not taken
    bool takesUnknown = false;             // packets that no layout describes

    /// By time, type and channel, which every packet has.
    Rejection rejects(const Row& row) const;
    Rejection rejectsId(const Row& row) const;
    Rejection rejectsSession(const Row& row) const;
};

/// Whether the whole text is what the pattern says.
bool matches(const std::string& pattern, std::string_view text);

/// A moment as a user writes it: 2026-11-22, 20261122, 2026-11-22 21:30, 2026-11-22T21:30:00.5 in the exchange's zone,
/// or seconds since 1970 with up to nine places. Eight digits are always a date. @return nothing for another text
std::optional<std::uint64_t> momentOf(const std::string& text);

/// Throws vexo::Failure for a name that the session table does not have.
void checkSessions(const std::vector<std::string>& names);

}  // namespace vexo::exporting
