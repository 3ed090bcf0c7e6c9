#include "tests/support/HostCalls.h"

#include <dlfcn.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace {

HostCalls* g_host = nullptr;

template <typename Function>
Function* Real(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

bool IsAsked(const char* path) { return g_host != nullptr && std::strcmp(path, ".") == 0; }

int Answer(int error) {
    if (error == 0) return 0;
    errno = error;
    return -1;
}

}  // namespace

extern "C" {

int access(const char* path, int mode) noexcept {
    if (!IsAsked(path)) return Real<int(const char*, int)>("access")(path, mode);
    g_host->accessModes.push_back(mode);
    return Answer(g_host->accessError);
}

int stat(const char* path, struct stat* out) noexcept {
    if (!IsAsked(path)) return Real<int(const char*, struct stat*)>("stat")(path, out);
    *out = {};
    out->st_mode = S_IFDIR | 0755;
    out->st_uid = g_host->owner;
    return Answer(g_host->statError);
}

passwd* getpwuid(uid_t uid) {
    if (g_host == nullptr) return Real<passwd*(uid_t)>("getpwuid")(uid);
    const auto user = g_host->users.find(uid);
    if (user == g_host->users.end()) {
        if (g_host->userError != 0) errno = g_host->userError;
        return nullptr;
    }
    static passwd entry;
    entry.pw_name = user->second.data();
    return &entry;
}

int sigaction(int signal, const struct sigaction* action, struct sigaction* old) noexcept {
    if (g_host == nullptr || action == nullptr)
        return Real<int(int, const struct sigaction*, struct sigaction*)>("sigaction")(signal, action, old);
    g_host->installed.push_back({signal, *action});
    return Answer(g_host->refusedSignal == signal ? EINVAL : 0);
}

}  // extern "C"

HostCalls::HostCalls() {
    if (g_host != nullptr) throw std::logic_error("only one HostCalls may live at a time");
    g_host = this;
}

HostCalls::~HostCalls() { g_host = nullptr; }
