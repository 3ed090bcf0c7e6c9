// Most of these tests capture standard output, and so hide GoogleTest's report of a failure. This repeats the report on
// standard error.
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
