// A subscriber in a process of its own: the tests stop it, and look at what that does to others.
//
//     relay_listener URL SUBJECT
//
// Writes "subscribed" to standard output, and takes messages until it is ended.

#include <unistd.h>

#include <cstdio>
#include <string>

#include "tests/relay/Listener.h"

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const Listener listener(argv[1], argv[2]);
    std::puts("subscribed");
    std::fflush(stdout);
    for (;;) ::pause();
}
