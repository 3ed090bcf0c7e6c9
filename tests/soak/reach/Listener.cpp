// In a test program: after each test, a line of VEXO_REACH_TESTS with its name, whether it passed, its milliseconds and
// the functions that it entered.

#include <gtest/gtest.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/soak/reach/Reach.h"

namespace {

class Listener : public testing::EmptyTestEventListener {
public:
    explicit Listener(const char* path) : m_path(path), m_functions(reach::functions()) {}

    void OnTestStart(const testing::TestInfo&) override {
        if (m_functions != nullptr) std::memset(m_functions->entered, 0, sizeof m_functions->entered);
    }

    void OnTestEnd(const testing::TestInfo& test) override {
        std::FILE* const out = std::fopen(m_path, "ae");
        if (out == nullptr || m_functions == nullptr) std::abort();
        std::fprintf(out, "%s.%s %d %lld", test.test_suite_name(), test.name(), test.result()->Passed(),
                     static_cast<long long>(test.result()->elapsed_time()));
        for (std::uint32_t number = 1; number < reach::kMostFunctions; ++number) {
            if (m_functions->entered[number] != 0)
                std::fprintf(out, " %llx", static_cast<unsigned long long>(m_functions->place[number]));
        }
        std::fputc('\n', out);
        std::fclose(out);
    }

private:
    const char* m_path;
    reach::Functions* m_functions;
};

const bool s_added = [] {
    const char* const path = std::getenv("VEXO_REACH_TESTS");
    if (path != nullptr) testing::UnitTest::GetInstance()->listeners().Append(new Listener(path));
    return path != nullptr;
}();

}  // namespace
