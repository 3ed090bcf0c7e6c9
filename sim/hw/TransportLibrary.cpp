#include "sim/hw/TransportLibrary.h"

#include <dlfcn.h>
#include <unistd.h>

namespace vexo_sim {
namespace {

// "DIRECTORY/" of this library. A search path could lead to a library of somebody else.
std::string ownDirectory() {
    static const char anchor = 0;
    Dl_info self{};
    if (::dladdr(&anchor, &self) == 0 || self.dli_fname == nullptr) return {};
    const std::string file = self.dli_fname;
    const std::size_t slash = file.rfind('/');
    return slash != std::string::npos ? file.substr(0, slash + 1) : std::string();
}

}  // namespace

remote::Transport* loadTransport(std::string& error) {
    const std::string directory = ownDirectory();
    const std::string file = directory + remote::kTransportLibrary;
    if (directory.empty() || ::access(file.c_str(), F_OK) != 0) {
        error = "a remote card needs " + file + ", which is not there: install it with the simulated card";
        return nullptr;
    }
    void* const library = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (library == nullptr) {
        const char* reason = ::dlerror();
        error = "a remote card needs " + file + ", which cannot be loaded: " + (reason != nullptr ? reason : "") +
                " (its message engine is in the package libnats3.4)";
        return nullptr;
    }
    const auto entry = reinterpret_cast<remote::TransportEntry>(::dlsym(library, remote::kTransportEntry));
    remote::Transport* const transport = entry != nullptr ? entry(remote::kTransportVersion) : nullptr;
    if (transport == nullptr) error = file + " is of another release than this simulated card: install both together";
    return transport;
}

}  // namespace vexo_sim
