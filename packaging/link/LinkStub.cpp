// Stands in for the card's library while an application is linked. It has the interface's symbols and no card behind
// them. It lies where no loader looks; a program that got it all the same ends at its first call.

#include <unistd.h>

#include <cstdio>

#include "interface/CallList.h"

namespace {

[[noreturn]] void refuse(const char* function) {
    std::fprintf(stderr,
                 "%s: this libenyx-hw-c.so.1 is for linking only, there is no card behind it. Run the program with the "
                 "card's own library, or on a simulated card: vexo sim run -- PROGRAM\n",
                 function);
    ::_exit(127);
}

}  // namespace

#define LINK_STUB(name, function, kind) \
    extern "C" __attribute__((visibility("default"))) void function() { refuse(#function); }
ENYX_HW_CALLS(LINK_STUB)
