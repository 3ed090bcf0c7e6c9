// A program that loads the card's library for all to see, closes it, and goes on with the calls that it has looked up.
//     card_loader LIBRARY
#include <dlfcn.h>
#include <enyx-hw-c/enyx_hw.h>
#include <cstdio>

int main(int, char** argv) {
    void* const card = ::dlopen(argv[1], RTLD_NOW | RTLD_GLOBAL);
    auto* create = reinterpret_cast<decltype(enyx_hw_filter_create)*>(::dlsym(RTLD_DEFAULT, "enyx_hw_filter_create"));
    auto* destroy = reinterpret_cast<decltype(enyx_hw_filter_destroy)*>(
        ::dlsym(RTLD_DEFAULT, "enyx_hw_filter_destroy"));
    if (card == nullptr || create == nullptr || destroy == nullptr) return 3;
    destroy(create());
    ::dlclose(card);
    enyx_hw_filter* const filter = create();
    std::printf("%s\n", filter != nullptr ? "a filter" : "no filter");
    destroy(filter);
    return 0;
}
