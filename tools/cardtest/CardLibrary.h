#pragma once

#include <enyx-hw-c/enyx_hw.h>

#include <string>

#include "interface/CallList.h"

namespace cardtest {

/// Loads the card's library, libenyx-hw-c.so.1, and looks up all calls of the hardware interface. The program is not
/// linked to the library: it must show its options, and take --library, on a machine that has none. A library in
/// LD_PRELOAD goes first, as it does for a linked program. Must come before any call of the interface.
/// @return false, with the reason in @p error, when the library or one of the calls is missing
bool loadCardLibrary(std::string& error);

/// The file that the calls of the hardware interface come from; empty when no library is loaded.
std::string libraryInUse();

/// A call of the card's library. Usable once loadCardLibrary() has succeeded.
template <typename Function>
class CardCall;

class AnyCardCall {
public:
    AnyCardCall(const AnyCardCall&) = delete;
    AnyCardCall& operator=(const AnyCardCall&) = delete;

protected:
    explicit AnyCardCall(const char* name);
    void* address() const { return m_address; }

private:
    friend bool loadCardLibrary(std::string& error);

    const char* m_name;
    AnyCardCall* m_next;  // all calls form a list
    void* m_address = nullptr;
};

template <typename Result, typename... Arguments>
class CardCall<Result(Arguments...)> : public AnyCardCall {
public:
    explicit CardCall(const char* name) : AnyCardCall(name) {}
    Result operator()(Arguments... arguments) const {
        return reinterpret_cast<Result (*)(Arguments...)>(address())(arguments...);
    }
};

// Inside this namespace the name of a call means one of these, not the function that the header declares.
#define CARDTEST_CALL(name, function, kind) inline CardCall<decltype(::function)> function(#function);
ENYX_HW_CALLS(CARDTEST_CALL)
#undef CARDTEST_CALL

}  // namespace cardtest
