// The calls of the hardware interface. Each symbol is a jump to a hook, which the table of the calls generates: the
// list of their parameters is in the interface's header alone.

#include <dlfcn.h>

#include <cerrno>
#include <type_traits>

#include "enyx-hw-c/enyx_hw.h"
#include "tests/sweep/FaultPoints.h"

namespace {

using hw_calls::Call;
using sweep::Effect;

template <typename Result>
Result Failed(Effect effect) {
    errno = effect == Effect::kNothing ? ENODEV : EIO;
    if constexpr (std::is_pointer_v<Result>) {
        return nullptr;
    } else {
        return effect == Effect::kNothing ? Result{0} : static_cast<Result>(-1);
    }
}

template <Call kCall, typename Function>
struct Hook;

template <Call kCall, typename Result, typename... Arguments>
struct Hook<kCall, Result(Arguments...)> {
    static Result call(Arguments... arguments) {
        static auto* const real = reinterpret_cast<Result (*)(Arguments...)>(
            ::dlsym(RTLD_NEXT, hw_calls::nameOf(kCall)));
        if constexpr (!std::is_void_v<Result>) {
            const Effect effect = sweep::Ask(sweep::HardwareCall(kCall));
            if (effect != Effect::kPass) return Failed<Result>(effect);
        }
        // A poll calls the library's handler: that is the library's work again.
        if constexpr (kCall == Call::kA2cStreamPollOnce) {
            return real(arguments...);
        } else {
            const sweep::Disarmed card;
            return real(arguments...);
        }
    }
};

}  // namespace

#define SWEEP_HOOK(name, function, kind)                                              \
    extern "C" __attribute__((visibility("hidden"), used)) decltype(&function)        \
        const sweep_hook_##function = &Hook<Call::k##name, decltype(function)>::call; \
    asm(".pushsection .text\n"                                                        \
        ".globl " #function                                                           \
        "\n"                                                                          \
        ".type " #function ", @function\n" #function                                  \
        ":\n"                                                                         \
        "    jmp *sweep_hook_" #function                                              \
        "(%rip)\n"                                                                    \
        ".size " #function ", .-" #function                                           \
        "\n"                                                                          \
        ".popsection\n");
ENYX_HW_CALLS(SWEEP_HOOK)
#undef SWEEP_HOOK
