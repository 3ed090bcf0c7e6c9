#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "sim/scenario/Scenario.h"
#include "tests/support/TempDir.h"

namespace vexo_sim::scenario {

/// Scenarios written by the test into a directory of its own.
class ScenarioTest : public ::testing::Test {
protected:
    void write(const std::string& name, const std::string& content) {
        std::remove(name.c_str());  // some file systems flush a file that is emptied and written again
        std::ofstream(name) << content;
    }

    /// Loads a scenario that must be good.
    Scenario loaded(const std::string& content) {
        write("a.ini", content);
        std::string error;
        const std::optional<Scenario> scenario = load("a.ini", error);
        EXPECT_TRUE(scenario.has_value()) << error;
        return scenario.value_or(Scenario{});
    }

    /// The error that a scenario gives, empty when there is none.
    std::string errorOf(const std::string& content) {
        write("a.ini", content);
        std::string error;
        const bool good = load("a.ini", error).has_value();
        EXPECT_EQ(good, error.empty());
        return error;
    }

    test_support::TempDir m_directory;
};

}  // namespace vexo_sim::scenario
