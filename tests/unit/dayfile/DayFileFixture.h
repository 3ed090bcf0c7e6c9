#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "src/dayfile/DayFile.h"
#include "tests/doubles/LogLines.h"
#include "tests/support/FakeTime.h"

/// The log lines of @p act, "WARN text". Only the act runs inside, so that a failed assertion is seen.
template <typename Act>
std::vector<std::string> LogOf(Act act) {
    test_support::LogLines log;
    act();
    return log.Take();
}

using InstMap = std::map<std::string, unsigned short>;

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);
std::size_t OpenDescriptors();

/// The day files lie in /tmp for every process of the host: each test process has a day of its own, in the far future.
/// It is 10:00:00 on that day, and neither half has a file.
class DayFile : public testing::Test {
protected:
    DayFile();
    ~DayFile() override;

    /// What CheckOrLoadBinFile makes of a morning file with this content.
    int Load(const std::string& content);

    test_support::FakeTime clock;
    std::string morning;
    std::string evening;
    InstMap insts;
    CBrixBinFile bin{insts, 0};
    std::vector<std::string> log;  ///< of the last Load

private:
    void RemoveFiles() const;
};
