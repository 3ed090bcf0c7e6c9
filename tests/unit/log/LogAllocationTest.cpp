#include <cstdlib>
#include <new>

#include "tests/unit/log/LogFixture.h"

namespace {

thread_local unsigned long t_allocations = 0;

}  // namespace

void* operator new(std::size_t size) {
    ++t_allocations;
    if (void* const memory = std::malloc(size != 0 ? size : 1)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

using LogAllocation = StartedLog;

template <typename Act>
unsigned long AllocationsOf(Act act) {
    unsigned long count = 0;
    Printed([&act, &count] {
        const unsigned long before = t_allocations;
        act();
        count = t_allocations - before;
    });
    return count;
}

TEST_F(LogAllocation, TheCountSeesAnAllocation) {
    EXPECT_EQ(AllocationsOf([] { ::operator delete(::operator new(1)); }), 1u);
}

TEST_F(LogAllocation, NoOutputTakesMemory) {
    elog_set_fmt(kInfo, 255);
    const std::string text(5000, 'a');

    EXPECT_EQ(AllocationsOf([&text] {
                  elog_output(kInfo, "fpga", "file", "func", 1, "%s %d", text.c_str(), 1);
                  elog_output_from_handler(kInfo, "fpga", "file", "func", 1, text.c_str(), 1);
                  elog_raw("%s", text.c_str());
                  elog_raw_huge("%s", text.c_str());
                  elog_hexdump("name", 16, text.data(), 100);
              }),
              0u);
}

}  // namespace
