// Standard output is captured in most of these tests, and with it what GoogleTest says of a failure: here it is said
// again where it can be seen.
#include <gtest/gtest.h>

#include <iostream>

namespace {

class FailureReport : public testing::EmptyTestEventListener {
    void OnTestPartResult(const testing::TestPartResult& result) override {
        if (result.failed()) std::cerr << result << std::endl;
    }
};

class FailureReportSetUp : public testing::Environment {
    void SetUp() override { testing::UnitTest::GetInstance()->listeners().Append(new FailureReport); }
};

const auto* const g_registered = testing::AddGlobalTestEnvironment(new FailureReportSetUp);

}  // namespace
