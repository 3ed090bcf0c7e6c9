#pragma once

#include <dlfcn.h>
#include <link.h>
#include <atomic>
#include <cerrno>
#include <type_traits>

namespace tap {

/// The library that has this function stays loaded, also when the program closes it: the function is kept.
[[gnu::cold]] inline void* keepLoaded(void* function) {
    Dl_info info{};
    void* map = nullptr;
    if (::dladdr1(function, &info, &map, RTLD_DL_LINKMAP) == 0 || map == nullptr) return function;
    const char* const name = static_cast<const link_map*>(map)->l_name;
    if (*name != '\0') ::dlopen(name, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);  // empty: the program itself
    return function;
}

/// Looks up a function of the hardware library. A program may have loaded that library for a plug-in alone, where the
/// search behind this library does not find it.
[[gnu::cold]] inline void* findNext(const char* name) {
    if (void* const function = ::dlsym(RTLD_NEXT, name)) return keepLoaded(function);
    void* const library = ::dlopen("libenyx-hw-c.so.1", RTLD_LAZY | RTLD_NOLOAD);
    void* const function = library != nullptr ? ::dlsym(library, name) : nullptr;
    if (function != nullptr) keepLoaded(function);
    if (library != nullptr) ::dlclose(library);
    return function;
}

/// A function of the hardware library behind the tap. It is looked up at its first call, because that library may be
/// loaded after the tap.
template <typename Function>
class NextCall;

template <typename Result, typename... Arguments>
class NextCall<Result(Arguments...)> {
public:
    constexpr explicit NextCall(const char* name) : m_name(name) {}

    Result operator()(Arguments... arguments) {
        Function* function = m_function.load(std::memory_order_relaxed);
        if (function == nullptr && (function = find()) == nullptr) return missing();
        return function(arguments...);
    }

    using Function = Result(Arguments...);
    /// The function itself. Null before the first call or isThere().
    Function* known() const { return m_function.load(std::memory_order_relaxed); }
    bool isThere() { return known() != nullptr || find() != nullptr; }

private:
    [[gnu::cold, gnu::noinline]] Function* find() {
        auto* function = reinterpret_cast<Function*>(findNext(m_name));
        m_function.store(function, std::memory_order_relaxed);
        return function;
    }

    // The hardware library lacks the function. Without the tap the program would not have started.
    static Result missing() {
        errno = ENOSYS;
        if constexpr (std::is_pointer_v<Result>) {
            return nullptr;
        } else if constexpr (!std::is_void_v<Result>) {
            return Result{-1};
        }
    }

    const char* m_name;
    std::atomic<Function*> m_function{nullptr};
};

/// Restores errno at the end, so that the application does not see the tap's own errors.
class KeepErrno {
public:
    KeepErrno() : m_error(errno) {}
    ~KeepErrno() { errno = m_error; }
    KeepErrno(const KeepErrno&) = delete;
    KeepErrno& operator=(const KeepErrno&) = delete;
    int value() const { return m_error; }

private:
    int m_error;
};

}  // namespace tap
