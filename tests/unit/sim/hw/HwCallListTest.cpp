// The one list of the interface's calls, against the header that declares them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "interface/CallList.h"

namespace {

using ::testing::ElementsAreArray;
using ::testing::SizeIs;

// The names before an opening bracket, in the order of the header.
std::vector<std::string> DeclaredCalls() {
    std::ifstream file(VEXO_HW_HEADER);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const std::regex call("\\b(enyx_hw_[a-z0-9_]+)\\(");
    std::vector<std::string> names;
    for (std::sregex_iterator match(text.begin(), text.end(), call), end; match != end; ++match)
        names.push_back((*match)[1]);
    return names;
}

std::vector<std::string> ListedCalls() {
    std::vector<std::string> names;
    for (const hw_calls::CallEntry& entry : hw_calls::kCalls) names.emplace_back(entry.function);
    return names;
}

TEST(CallList, HasEveryCallOfTheHeaderInItsOrder) {
    ASSERT_THAT(DeclaredCalls(), SizeIs(35));
    EXPECT_THAT(ListedCalls(), ElementsAreArray(DeclaredCalls()));
}

TEST(CallList, FindsACallByItsNameOnly) {
    EXPECT_EQ(hw_calls::find("enyx_hw_filter_create"), hw_calls::Call::kFilterCreate);
    EXPECT_EQ(hw_calls::find("enyx_hw_c2a_stream_destroy"), hw_calls::Call::kC2aStreamDestroy);
    EXPECT_EQ(hw_calls::find("enyx_hw_filter"), std::nullopt);
    EXPECT_EQ(hw_calls::find(""), std::nullopt);
}

TEST(CallList, CallsWithoutAResultCannotFailAndPointersFailInOneWayOnly) {
    EXPECT_FALSE(hw_calls::canFail(hw_calls::Call::kMmioDestroy, false));
    EXPECT_TRUE(hw_calls::canFail(hw_calls::Call::kMmioCreate, false));
    EXPECT_FALSE(hw_calls::canFail(hw_calls::Call::kMmioCreate, true));
    EXPECT_TRUE(hw_calls::canFail(hw_calls::Call::kRead, true));
}

}  // namespace
