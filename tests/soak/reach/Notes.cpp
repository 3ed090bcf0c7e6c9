// Beside the library's own code, in a program or in the shared library: notes each function that is entered.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cstdlib>

#include "tests/soak/reach/Reach.h"

extern "C" {

// Where this module begins in memory; the linker makes it.
extern const char __ehdr_start __attribute__((visibility("hidden")));

void __sanitizer_cov_trace_pc_guard_init(std::uint32_t* begin, const std::uint32_t* end);
void __sanitizer_cov_trace_pc_guard(const std::uint32_t* guard);
}

namespace {

// Set before main: what is entered earlier belongs to no test.
reach::Functions* s_functions = nullptr;

}  // namespace

reach::Functions* reach::functions() {
    const char* const path = std::getenv("VEXO_REACH");
    if (path == nullptr) return nullptr;
    const int fd = ::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ::ftruncate(fd, sizeof(Functions)) != 0) std::abort();
    void* const mapped = ::mmap(nullptr, sizeof(Functions), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) std::abort();
    ::close(fd);
    return static_cast<Functions*>(mapped);
}

void __sanitizer_cov_trace_pc_guard_init(std::uint32_t* begin, const std::uint32_t* end) {
    if (begin == end || *begin != 0) return;
    if (end - begin >= reach::kMostFunctions) std::abort();
    std::uint32_t number = 0;
    for (std::uint32_t* guard = begin; guard != end; ++guard) *guard = ++number;
    s_functions = reach::functions();
}

void __sanitizer_cov_trace_pc_guard(const std::uint32_t* guard) {
    if (s_functions == nullptr) return;
    const auto* const from = static_cast<const char*>(__builtin_return_address(0));
    s_functions->place[*guard] = static_cast<std::uint64_t>(from - &__ehdr_start);
    s_functions->entered[*guard] = 1;
}
