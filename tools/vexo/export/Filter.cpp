#include "tools/vexo/export/Filter.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "tools/vexo/Failure.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo::exporting {
namespace {

constexpr char kDay[] = "day";
constexpr std::uint64_t kNsOfSecond = 1'000'000'000;

template <typename One, typename List>
bool isWanted(const One& one, const List& list) {
    return list.empty() || std::find(list.begin(), list.end(), one) != list.end();
}

// Digits after a point as nanoseconds: ".5". @return nothing for another text
std::optional<std::uint64_t> fractionOf(const std::string& text) {
    if (text.empty()) return 0;
    if (text.size() < 2 || text.size() > 10 || text.front() != '.') return std::nullopt;
    std::string digits = text.substr(1);
    if (digits.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
    digits.resize(9, '0');
    return std::strtoull(digits.c_str(), nullptr, 10);
}

std::optional<std::uint64_t> epochOf(const std::string& text) {
    std::uint64_t seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    const auto fraction = fractionOf(std::string(end, text.data() + text.size()));
    if (error != std::errc() || !fraction || seconds > 9'000'000'000) return std::nullopt;
    return seconds * kNsOfSecond + *fraction;
}

// HH:MM or HH:MM:SS.f as nanoseconds.
std::optional<std::uint64_t> timeOfDay(const std::string& text) {
    const bool hasSeconds = text.size() > 5;
    if (text.size() < 5 || text.size() == 6 || text.size() == 7) return std::nullopt;
    const std::string whole = text.substr(0, 5) + (hasSeconds ? text.substr(5, 3) : ":00");
    std::uint32_t time = 0;
    for (std::size_t i = 0; i < 8; ++i) {
        const bool isColon = i == 2 || i == 5;
        if (isColon ? whole[i] != ':' : whole[i] < '0' || whole[i] > '9') return std::nullopt;
        if (!isColon) time = time * 10 + static_cast<std::uint32_t>(whole[i] - '0');
    }
    const auto fraction = fractionOf(hasSeconds ? text.substr(8) : "");
    if (time > 235959 || time / 100 % 100 > 59 || time % 100 > 59 || !fraction) return std::nullopt;
    return (time / 10000 * 3600 + time / 100 % 100 * 60 + time % 100) * kNsOfSecond + *fraction;
}

}  // namespace

bool matches(const std::string& pattern, std::string_view text) {
    std::size_t p = 0;
    std::size_t t = 0;
    std::size_t star = std::string::npos;  // the last one, and where the text goes on after it
    std::size_t resume = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            resume = t;
        } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
            ++p;
            ++t;
        } else if (star != std::string::npos) {
            p = star + 1;
            t = ++resume;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') ++p;
    return p == pattern.size();
}

Rejection Filter::rejects(const Row& row) const {
    if (fromNs && row.packet->timeNs < *fromNs) return Rejection::kTime;
    if (untilNs && row.packet->timeNs >= *untilNs) return Rejection::kTime;
    if (!types.empty() && (!row.hasType || !isWanted(row.type, types))) return Rejection::kType;
    return isWanted(row.channel, channels) ? Rejection::kNone : Rejection::kChannel;
}

Rejection Filter::rejectsId(const Row& row) const {
    const bool isWantedId = ids.empty() || std::any_of(ids.begin(), ids.end(),
                                                       [&](const std::string& one) { return matches(one, row.id); });
    return isWantedId ? Rejection::kNone : Rejection::kId;
}

Rejection Filter::rejectsSession(const Row& row) const {
    if (sessions.empty()) return Rejection::kNone;
    if (!row.hasQuoteTime || row.quoteTime.session == nullptr) return Rejection::kSession;
    const vexo_zce::SessionHours& session = *row.quoteTime.session;
    const bool isWantedSession = std::any_of(sessions.begin(), sessions.end(), [&](const std::string& one) {
        return one == session.name || (one == kDay && !session.isNight);
    });
    return isWantedSession ? Rejection::kNone : Rejection::kSession;
}

std::optional<std::uint64_t> momentOf(const std::string& text) {
    constexpr std::size_t kDateDigits = 8;  // YYYYMMDD: as seconds, such a number is of the year 1970
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    if (digits != kDateDigits && text.find('-') == std::string::npos) return epochOf(text);
    const char* rest = text.c_str();
    const std::uint32_t date = vexo_zce::detail::takeDate(rest);
    if (date == 0) return std::nullopt;
    std::optional<std::uint64_t> time = 0;
    if (*rest == ' ' || *rest == 'T') {
        time = timeOfDay(rest + 1);
    } else if (*rest != '\0') {
        return std::nullopt;
    }
    if (!time) return std::nullopt;
    const std::int64_t midnight = vexo_zce::dayNumber(date) * vexo_zce::kSecondsOfDay - vexo_zce::kExchangeUtcOffset;
    return midnight < 0 ? 0 : static_cast<std::uint64_t>(midnight) * kNsOfSecond + *time;
}

void checkSessions(const std::vector<std::string>& names) {
    const vexo_zce::SessionTable& table = vexo_zce::exchangeSessions();
    for (const std::string& name : names) {
        const auto* end = table.rows + table.count;
        const bool isKnown = std::any_of(table.rows, end, [&](const auto& row) { return name == row.name; });
        if (isKnown || name == kDay) continue;
        throw Failure(kUsage, "--session " + harmless(name) + ": there are night, day, morning and afternoon");
    }
}

}  // namespace vexo::exporting
