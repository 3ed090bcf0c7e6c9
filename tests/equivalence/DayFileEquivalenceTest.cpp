// Loading a day file against a plain reading of it, line by line, over random files with odd lines among them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <sstream>

#include "src/dayfile/DayFile.h"
#include "tests/doubles/LogLines.h"
#include "tests/equivalence/RandomMarket.h"
#include "tests/support/DayFiles.h"
#include "tests/support/FakeTime.h"

namespace {

using InstMap = std::map<std::string, unsigned short>;

/// A day file of a few lines: most of them as the library writes them, some not.
class RandomDayFile {
public:
    explicit RandomDayFile(RandomMarket& random) : m_random(random) {
        std::string text;
        if (!m_random.Once(8)) text += "inst_index,inst_id\n";
        for (auto left = m_random.Number(25); left > 0; --left) text += Line() + '\n';
        if (!m_random.Once(4)) text += "bin_file_over_tag\n";
        if (m_random.Once(6)) text += Line() + '\n';
        if (m_random.Once(6) && !text.empty()) text.pop_back();
        m_text = std::move(text);
    }
    const std::string& Text() const { return m_text; }

private:
    std::string Line() {
        switch (m_random.Number(16)) {
            case 0: return "";
            case 1: return ",";
            case 2: return m_random.Id();  // no comma
            case 3: return "x," + m_random.Id();
            case 4: return "12x7," + m_random.Id();
            case 5: return std::to_string(m_random.Number(10) + 65530) + "," + m_random.Id();
            case 6: return "4294967299," + m_random.Id();
            case 7: return " 7," + m_random.Id();
            case 8: return "-3," + m_random.Id();
            case 9: return "5,a,b," + m_random.Id();
            case 10: return m_random.Once(2) ? "bin_file_over_tag" : "bin_file_over_tag ";
            case 11: return m_random.Once(2) ? "inst_index,inst_id" : "inst_index,inst_id\r";
            case 12: return "9," + m_random.Id() + std::string(1, '\0') + "behind";
            default: return std::to_string(m_random.Number(8192)) + "," + m_random.Id();
        }
    }

    RandomMarket& m_random;
    std::string m_text;
};

/// The plain reading: what the call returns, the map behind it, and what it logs.
struct Reading {
    Reading(const std::string& content, InstMap before) : map(std::move(before)) {
        bool whole = false;
        std::istringstream file(content);
        for (std::string line; std::getline(file, line);) {
            if (line == "bin_file_over_tag") {
                log.push_back("INFO Get file end flag is success.");
                whole = true;
            } else if (line != "inst_index,inst_id" && line.find(',') != std::string::npos) {
                const std::size_t comma = line.find(',');
                const std::string id = line.substr(comma + 1);
                if (map.count(id) == 0) map[id] = Index(line.substr(0, comma));
            }
        }
        log.push_back("INFO m_Intrade_AllInstMap size is [" + std::to_string(map.size()) + "].");
        if (map.empty() || !whole) {
            log.push_back("INFO loading bin file is fail");
            map.clear();
            return;
        }
        log.push_back("INFO loading bin file is success");
        result = 0;
    }

    int result = -1;
    InstMap map;
    std::vector<std::string> log;

private:
    // Leading digits alone, the number kept modulo 65536.
    static unsigned short Index(const std::string& text) {
        unsigned int value = 0;
        for (const char c : text) {
            if (c < '0' || c > '9') break;
            value = (value * 10 + static_cast<unsigned int>(c - '0')) % 65536;
        }
        return static_cast<unsigned short>(value);
    }
};

TEST(DayFileEquivalence, AFileIsLoadedAsItReadsLineByLine) {
    const DayFiles day;
    const test_support::FakeTime clock(day.year, day.month, day.day, 10, 0, 0);
    for (unsigned int seed = 0; seed < 10000 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        RandomMarket random(seed);
        const RandomDayFile file(random);
        std::remove(day.MorningPath().c_str());  // rewriting a file that is there makes some file systems wait
        day.WriteMorning(file.Text());
        InstMap map;
        if (random.Once(4)) map = {{random.Id(), 40000}, {random.Future(), 40001}};
        const Reading expected(file.Text(), map);
        CBrixBinFile bin(map, 0);
        std::vector<std::string> log;
        int result = -2;

        {
            test_support::LogLines lines;
            result = bin.CheckOrLoadBinFile();
            log = lines.Take();
        }

        EXPECT_EQ(result, expected.result) << file.Text();
        EXPECT_EQ(map, expected.map) << file.Text();
        EXPECT_EQ(log, expected.log) << file.Text();
    }
}

TEST(DayFileEquivalence, WhatIsWrittenIsTheLineAndIsLoadedAgain) {
    const DayFiles day;
    const test_support::FakeTime clock(day.year, day.month, day.day, 10, 0, 0);
    for (unsigned int seed = 0; seed < 300 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        RandomMarket random(seed);
        InstMap written{{random.Future(), 1}};
        for (auto left = random.Number(40); left > 0; --left) {
            std::string id = random.Id() + std::string(random.Once(10) ? 100 : 0, 'x');
            written[id] = static_cast<unsigned short>(random.Number(65536));
        }
        std::string expected = "inst_index,inst_id\n";
        for (const auto& [id, index] : written) expected += std::to_string(index) + ',' + id + '\n';
        expected += "bin_file_over_tag\n";
        InstMap map;
        CBrixBinFile bin(map, 0);

        ASSERT_EQ(bin.InstBinFileInit(), 0);
        for (const auto& [id, index] : written) bin.WriteBinFileInst(id, index);
        bin.WriteBinFileEnd();

        EXPECT_EQ(day.ReadMorning(), expected);
        ASSERT_EQ(bin.CheckOrLoadBinFile(), 0);
        EXPECT_EQ(map, written);
    }
}

}  // namespace
