#ifndef VEXO_ZCE_INSTRUMENT_H
#define VEXO_ZCE_INSTRUMENT_H

// Ids of the exchange's instruments, taken apart. C++11, header only: an application needs nothing else of the library.
//
//     vexo_zce::Instrument sugar;
//     const vexo_zce::IdFault fault = vexo_zce::parseId("SR701C5000", 10, 20261122, sugar);
//     if (fault != vexo_zce::IdFault::kNone) std::puts(vexo_zce::textOf(fault));
//
// What the exchange has:
//
//     SR701                  future: product, last digit of the delivery year, delivery month
//     SR701C5000             option on it: C call or P put, strike
//     SPD-SR701/SR705        calendar spread: two months of one product
//     IPS-SF701/SM701        inter-product spread: two products
//
// A blank may stand in place of the dash, and an ampersand in place of the slash: SPD SR701&SR705 is the same
// instrument.
//
// Nothing here allocates, throws, locks or asks the locale. Any thread may call it, with objects of its own.

#include <cstddef>
#include <cstdint>

namespace vexo_zce {

/// What an id names.
enum class InstrumentKind : unsigned char { kFuture, kOption, kCalendarSpread, kInterProductSpread };

/// Why a text is no id. textOf() says it in words.
enum class IdFault : unsigned char {
    kNone,
    kEmpty,
    kBadDate,
    kNoProduct,
    kNoYear,
    kBadMonth,
    kNoOption,
    kNoStrike,
    kBadStrike,
    kNoDash,
    kNoSecondLeg,
    kOtherProduct,
    kSameMonth,
    kSameProduct,
    kTooMuch
};

/// A product with its delivery month.
struct Contract {
    char product[3];     ///< two capital letters, terminated
    std::uint16_t year;  ///< of delivery, in full, such as 2027
    std::uint8_t month;  ///< of delivery, 1 to 12
};

/// An id taken apart. A plain record: copy it as you like.
struct Instrument {
    InstrumentKind kind;    ///< what it is
    std::uint8_t legCount;  ///< 1; 2 for a spread
    Contract legs[2];       ///< the future itself, the future below an option, or both legs in the order of the id
    char right;             ///< C call, P put; 0 if it is no option
    std::uint32_t strike;   ///< yuan, 1 to 999999999; 0 if it is no option
    char dash;              ///< how a spread's id was written: '-' or ' ' after SPD or IPS; otherwise 0
    char slash;             ///< and '/' or '&' between the legs; otherwise 0
};

/// Room for any id, and for any key, with its terminator.
constexpr std::size_t kIdRoom = 16;

/// How far a delivery year may lie before or after the date of parseId(). The exchange lists about two years.
constexpr unsigned kYearsBefore = 4;
constexpr unsigned kYearsAfter = 5;

namespace detail {

inline bool isDigit(char c) { return c >= '0' && c <= '9'; }
inline bool isCapital(char c) { return c >= 'A' && c <= 'Z'; }
inline unsigned digit(char c) { return static_cast<unsigned>(c - '0'); }

/// Reads an id from the left.
struct IdText {
    const char* at;
    const char* end;

    std::size_t left() const { return static_cast<std::size_t>(end - at); }
    bool isDone() const { return at == end; }
    /// @return whether the text goes on with one of the two characters; it is then passed, and stored.
    bool take(char one, char other, char& taken) {
        if (isDone() || (*at != one && *at != other)) return false;
        taken = *at++;
        return true;
    }
    bool startsWith(const char (&word)[4]) const {
        return left() >= 3 && at[0] == word[0] && at[1] == word[1] && at[2] == word[2];
    }
};

/// The one year with this last digit that is no more than kYearsBefore years before the date, and kYearsAfter after it.
inline std::uint16_t fullYear(unsigned lastDigit, unsigned yearNow) {
    const unsigned first = yearNow - kYearsBefore;
    return static_cast<std::uint16_t>(first + (lastDigit + 10 - first % 10) % 10);
}

inline IdFault takeContract(IdText& text, unsigned yearNow, Contract& contract) {
    if (text.left() < 2 || !isCapital(text.at[0]) || !isCapital(text.at[1])) return IdFault::kNoProduct;
    contract.product[0] = text.at[0];
    contract.product[1] = text.at[1];
    contract.product[2] = '\0';
    text.at += 2;
    if (text.left() < 3 || !isDigit(text.at[0]) || !isDigit(text.at[1]) || !isDigit(text.at[2]))
        return IdFault::kNoYear;
    const unsigned month = digit(text.at[1]) * 10 + digit(text.at[2]);
    if (month < 1 || month > 12) return IdFault::kBadMonth;
    contract.year = fullYear(digit(text.at[0]), yearNow);
    contract.month = static_cast<std::uint8_t>(month);
    text.at += 3;
    return IdFault::kNone;
}

inline IdFault takeStrike(IdText& text, std::uint32_t& strike) {
    if (text.isDone() || !isDigit(*text.at)) return IdFault::kNoStrike;
    if (*text.at == '0') return IdFault::kBadStrike;
    unsigned digits = 0;
    for (; !text.isDone() && isDigit(*text.at); ++text.at) {
        if (++digits > 9) return IdFault::kBadStrike;
        strike = strike * 10 + digit(*text.at);
    }
    return IdFault::kNone;
}

inline IdFault takeSingle(IdText& text, unsigned yearNow, Instrument& made) {
    const IdFault fault = takeContract(text, yearNow, made.legs[0]);
    if (fault != IdFault::kNone) return fault;
    if (text.isDone()) return IdFault::kNone;
    if (isDigit(*text.at)) return IdFault::kNoYear;  // four digits: the exchange writes one of the year
    if (!text.take('C', 'P', made.right)) return IdFault::kNoOption;
    made.kind = InstrumentKind::kOption;
    return takeStrike(text, made.strike);
}

inline bool areSame(const char* one, const char* other) { return one[0] == other[0] && one[1] == other[1]; }

inline IdFault takeSpread(IdText& text, unsigned yearNow, Instrument& made) {
    made.kind = text.startsWith("SPD") ? InstrumentKind::kCalendarSpread : InstrumentKind::kInterProductSpread;
    made.legCount = 2;
    text.at += 3;
    if (!text.take('-', ' ', made.dash)) return IdFault::kNoDash;
    IdFault fault = takeContract(text, yearNow, made.legs[0]);
    if (fault != IdFault::kNone) return fault;
    if (!text.take('/', '&', made.slash)) return IdFault::kNoSecondLeg;
    fault = takeContract(text, yearNow, made.legs[1]);
    if (fault != IdFault::kNone) return fault;
    const bool isOneProduct = areSame(made.legs[0].product, made.legs[1].product);
    if (made.kind == InstrumentKind::kInterProductSpread) return isOneProduct ? IdFault::kSameProduct : IdFault::kNone;
    if (!isOneProduct) return IdFault::kOtherProduct;
    const bool isOneMonth = made.legs[0].year == made.legs[1].year && made.legs[0].month == made.legs[1].month;
    return isOneMonth ? IdFault::kSameMonth : IdFault::kNone;
}

/// Writes a text from the left.
struct IdWriter {
    char* at;

    void put(char c) { *at++ = c; }
    void putContract(const Contract& contract) {
        put(contract.product[0]);
        put(contract.product[1]);
        put(static_cast<char>('0' + contract.year % 10));
        put(static_cast<char>('0' + contract.month / 10));
        put(static_cast<char>('0' + contract.month % 10));
    }
    void putNumber(std::uint32_t number) {
        char digits[10];
        unsigned count = 0;
        do {
            digits[count++] = static_cast<char>('0' + number % 10);
        } while ((number /= 10) != 0);
        while (count > 0) put(digits[--count]);
    }
};

inline std::size_t write(const Instrument& instrument, char dash, char slash, char* out) {
    IdWriter writer = {out};
    if (instrument.legCount == 2) {
        const bool isCalendar = instrument.kind == InstrumentKind::kCalendarSpread;
        for (const char* word = isCalendar ? "SPD" : "IPS"; *word != '\0'; ++word) writer.put(*word);
        writer.put(dash);
    }
    writer.putContract(instrument.legs[0]);
    if (instrument.legCount == 2) {
        writer.put(slash);
        writer.putContract(instrument.legs[1]);
    } else if (instrument.right != '\0') {
        writer.put(instrument.right);
        writer.putNumber(instrument.strike);
    }
    writer.put('\0');
    return static_cast<std::size_t>(writer.at - out) - 1;
}

}  // namespace detail

/// Takes an id apart.
/// @param text    the id. It ends with its first zero byte or after @p length bytes, so that a field of a packet can be
///                passed as it is. Null only with length 0.
/// @param length  most bytes to read
/// @param date    decimal YYYYMMDD of the day on which the id was seen, years 1970 to 9989. An id has one digit of the
///                delivery year. The year is the one with this digit from four years before the date's to five after
///                it: SR001 is of 2030 in December 2029, and SR911 is of 2029 in January 2030.
/// @param out     filled when the result is kNone; otherwise not to be used
/// @return kNone, or the first fault from the left. Whether the exchange lists the product is not checked.
inline IdFault parseId(const char* text, std::size_t length, std::uint32_t date, Instrument& out) {
    const unsigned year = date / 10000;
    if (year < 1970 || year > 9989) return IdFault::kBadDate;
    detail::IdText left = {text, text};
    while (static_cast<std::size_t>(left.end - text) < length && *left.end != '\0') ++left.end;
    if (left.isDone()) return IdFault::kEmpty;
    const Contract none = {{'\0', '\0', '\0'}, 0, 0};
    const Instrument future = {InstrumentKind::kFuture, 1, {none, none}, '\0', 0, '\0', '\0'};
    out = future;
    const bool isSpread = left.startsWith("SPD") || left.startsWith("IPS");
    const IdFault fault = isSpread ? detail::takeSpread(left, year, out) : detail::takeSingle(left, year, out);
    if (fault != IdFault::kNone) return fault;
    return left.isDone() ? IdFault::kNone : IdFault::kTooMuch;
}

/// What is wrong with a text that is no id. Static text, English, without a full stop.
inline const char* textOf(IdFault fault) {
    switch (fault) {
        case IdFault::kNone: return "no fault";
        case IdFault::kEmpty: return "the id is empty";
        case IdFault::kBadDate: return "the date is no YYYYMMDD from 1970 on";
        case IdFault::kNoProduct: return "a contract begins with two capital letters, its product";
        case IdFault::kNoYear: return "three digits follow the product: the last one of the year, two of the month";
        case IdFault::kBadMonth: return "the month is not 01 to 12";
        case IdFault::kNoOption: return "C, P or nothing follows the month";
        case IdFault::kNoStrike: return "the digits of a strike follow C or P";
        case IdFault::kBadStrike: return "a strike is 1 to 999999999, without zeros in front";
        case IdFault::kNoDash: return "a dash or a blank follows SPD and IPS";
        case IdFault::kNoSecondLeg: return "a slash or an ampersand and a second contract follow the first one";
        case IdFault::kOtherProduct: return "both legs of SPD have one product";
        case IdFault::kSameMonth: return "the legs of SPD have different months";
        case IdFault::kSameProduct: return "the legs of IPS have different products";
        case IdFault::kTooMuch: break;
    }
    return "more text follows the id";
}

/// Writes the id again, byte for byte as it was parsed.
/// @param out  room for any id; terminated
/// @return its length
inline std::size_t idOf(const Instrument& instrument, char (&out)[kIdRoom]) {
    return detail::write(instrument, instrument.dash, instrument.slash, out);
}

/// Writes the instrument's key: its id with a dash where a spread has other marks, such as SPD-SR701-SR705. It has only
/// capital letters, digits and dashes, so it is safe as a part of a message subject, of a file name and of a URL. All
/// spellings of an instrument have one key, and two instruments that are listed at a time have different ones.
/// @param out  room for any key; terminated
/// @return its length
inline std::size_t keyOf(const Instrument& instrument, char (&out)[kIdRoom]) {
    return detail::write(instrument, '-', '-', out);
}

/// The name of a kind as tools write it: future, option, calendar-spread, inter-product-spread. Static text.
inline const char* nameOf(InstrumentKind kind) {
    switch (kind) {
        case InstrumentKind::kFuture: return "future";
        case InstrumentKind::kOption: return "option";
        case InstrumentKind::kCalendarSpread: return "calendar-spread";
        case InstrumentKind::kInterProductSpread: break;
    }
    return "inter-product-spread";
}

}  // namespace vexo_zce

#endif
