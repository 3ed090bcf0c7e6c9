#pragma once

/// The number that a text begins with: leading digits only, 0 when there are none. Wraps like its type.
template <typename Unsigned>
Unsigned leadingDecimal(const char* text) {
    Unsigned value = 0;
    for (; *text >= '0' && *text <= '9'; ++text)
        value = static_cast<Unsigned>(value * 10U + static_cast<unsigned int>(*text - '0'));
    return value;
}
