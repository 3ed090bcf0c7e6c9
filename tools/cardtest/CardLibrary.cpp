#include "tools/cardtest/CardLibrary.h"

#include <dlfcn.h>

#include <climits>
#include <cstdlib>

namespace cardtest {
namespace {

constexpr char kSoname[] = "libenyx-hw-c.so.1";

AnyCardCall*& firstCall() {
    static AnyCardCall* first = nullptr;
    return first;
}

}  // namespace

AnyCardCall::AnyCardCall(const char* name) : m_name(name), m_next(firstCall()) { firstCall() = this; }

bool loadCardLibrary(std::string& error) {
    const bool found = ::dlopen(kSoname, RTLD_NOW | RTLD_GLOBAL) != nullptr;
    if (!found) error = std::string(::dlerror()) + ". Name the card's library with --library FILE.";
    for (AnyCardCall* call = firstCall(); call != nullptr; call = call->m_next) {
        call->m_address = ::dlsym(RTLD_DEFAULT, call->m_name);
        if (call->m_address != nullptr) continue;
        if (found) error = "the card's library has no " + std::string(call->m_name);
        return false;
    }
    return true;
}

std::string libraryInUse() {
    Dl_info info{};
    void* call = ::dlsym(RTLD_DEFAULT, "enyx_hw_filter_create");
    char path[PATH_MAX];
    if (call == nullptr || ::dladdr(call, &info) == 0 || ::realpath(info.dli_fname, path) == nullptr) return {};
    return path;
}

}  // namespace cardtest
