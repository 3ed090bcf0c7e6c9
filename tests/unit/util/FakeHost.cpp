#include "tests/unit/util/FakeHost.h"

#include <dlfcn.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <stdexcept>

namespace {

struct State {
    bool active = false;
    std::optional<std::string> refused;
    std::vector<std::string> commands;
    int lowestDescriptor = INT_MAX;
    bool userSet = false;
    uid_t uid = 0;
    std::optional<std::string> userName;
    passwd entry{};
};

State& Host() {
    static State state;
    return state;
}

template <typename Function>
Function* Real(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

std::string FindGrep() {
    for (const char* candidate : {"/usr/bin/grep", "/bin/grep"}) {
        if (::access(candidate, X_OK) == 0) return candidate;
    }
    throw std::runtime_error("these tests need grep");
}

}  // namespace

extern "C" {

FILE* popen(const char* command, const char* mode) {
    State& host = Host();
    if (host.active) host.commands.emplace_back(command);
    if (host.refused && std::string(command).find(*host.refused) != std::string::npos) {
        errno = EAGAIN;
        return nullptr;
    }
    FILE* const stream = Real<FILE*(const char*, const char*)>("popen")(command, mode);
    if (stream != nullptr) host.lowestDescriptor = std::min(host.lowestDescriptor, ::fileno(stream));
    return stream;
}

uid_t getuid() noexcept { return Host().userSet ? Host().uid : Real<uid_t()>("getuid")(); }

passwd* getpwuid(uid_t uid) {
    State& host = Host();
    if (!host.userSet) return Real<passwd*(uid_t)>("getpwuid")(uid);
    if (uid != host.uid || !host.userName) return nullptr;
    host.entry.pw_name = host.userName->data();
    return &host.entry;
}

}  // extern "C"

FakeHost::FakeHost() {
    const char* const path = std::getenv("PATH");
    m_oldPath = path != nullptr ? path : "";
    const std::string bin = m_dir.Path("bin");
    if (::mkdir(bin.c_str(), 0755) != 0 || ::symlink(FindGrep().c_str(), (bin + "/grep").c_str()) != 0) {
        throw std::runtime_error("cannot furnish " + bin);
    }
    ::setenv("PATH", bin.c_str(), 1);
    Host().active = true;
}

FakeHost::~FakeHost() {
    ::setenv("PATH", m_oldPath.c_str(), 1);
    Host() = State();
}

void FakeHost::Install(const std::string& tool, const std::vector<std::string>& lines) {
    std::string script = "#!/bin/sh\n";
    for (const std::string& line : lines) script += "printf '%s\\n' '" + line + "'\n";
    m_dir.Write("bin/" + tool, script, 0755);
}

void FakeHost::Uninstall(const std::string& tool) { ::unlink(m_dir.Path("bin/" + tool).c_str()); }

void FakeHost::RefuseCommandsWith(const std::string& text) { Host().refused = text; }

std::vector<std::string> FakeHost::Commands() const { return Host().commands; }

int FakeHost::LowestDescriptor() const { return Host().lowestDescriptor; }

void FakeHost::SetUser(uid_t uid, const char* name) {
    Host().userSet = true;
    Host().uid = uid;
    Host().userName.reset();
    if (name != nullptr) Host().userName = name;
}
