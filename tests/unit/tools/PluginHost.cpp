// A trading framework that loads its market-data plug-in at run time, with the plug-in's libraries, for itself alone.
#include <dlfcn.h>
#include <cstdio>

int main(int argc, char** argv) {
    void* const plugin = ::dlopen(VEXO_RUN_PLUGIN, RTLD_NOW | RTLD_LOCAL);
    void* const run = plugin != nullptr ? ::dlsym(plugin, "runApp") : nullptr;
    if (run == nullptr) {
        std::fprintf(stderr, "%s\n", ::dlerror());
        return 3;
    }
    return reinterpret_cast<int (*)(int, char**)>(run)(argc, argv);
}
