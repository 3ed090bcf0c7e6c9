// What vexo export writes, against what others make of the same capture.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <sstream>
#include <vector>

#include "tests/support/TempDir.h"
#include "tests/unit/capture/CaptureSample.h"
#include "tests/unit/tools/Program.h"
#include "tests/unit/tools/QuoteSample.h"

using namespace capture;

namespace {

using Cells = std::vector<std::string>;

std::vector<Cells> Table(const std::string& text, char separator) {
    std::vector<Cells> rows;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        rows.emplace_back();
        std::istringstream cells(line + separator);
        for (std::string cell; std::getline(cells, cell, separator);) rows.back().push_back(cell);
    }
    return rows;
}

// The number in the packet, from its decimal: the text has to be exact.
std::int64_t RawOf(const std::string& decimal) {
    std::string digits = decimal;
    const std::size_t point = digits.find('.');
    const std::size_t places = point == std::string::npos ? 0 : digits.size() - point - 1;
    if (point != std::string::npos) digits.erase(point, 1);
    return std::stoll(digits + std::string(4 - places, '0'));
}

// As the dissector divides, and tshark prints: 15 digits.
std::string AsTshark(const std::string& decimal) {
    char text[64];
    std::snprintf(text, sizeof text, "%.15g", static_cast<double>(RawOf(decimal)) / 10000);
    return text;
}

class ExportAgreement : public ::testing::Test {
protected:
    void SetUp() override {
        std::mt19937_64 random(20261122);
        BlockBuffer blocks = emptyCapture();
        for (std::uint64_t i = 0; i < kQuotes; ++i) {
            const std::uint64_t timeNs = 1'736'902'800'000'000'000 + i * 1'000'000'007;
            appendPacket(blocks, static_cast<std::uint32_t>(random() % 4), timeNs, randomQuote(random).packet());
        }
        dir.Write("a.pcapng", text(blocks));
    }
    std::string Run(const std::string& command) {
        const ProgramResult result = runProgram("exec 2>err; export HOME=" + dir.Path() + "; " + command);
        EXPECT_EQ(result.status, 0) << dir.Read("err");
        return result.output;
    }

    static constexpr std::uint64_t kQuotes = 600;
    test_support::TempDir dir;
};

// Of the columns of the CSV, those of one field of the dissector.
Cells valuesOf(const Cells& names, const Cells& row, const std::string& field) {
    Cells values;
    for (std::size_t i = 0; i < names.size() && i < row.size(); ++i) {
        const bool isElement = names[i].compare(0, field.size() + 1, field + "_") == 0 &&
                               names[i].find_first_not_of("12345", field.size() + 1) == std::string::npos;
        if ((names[i] == field || isElement) && !row[i].empty()) values.push_back(row[i]);
    }
    return values;
}

}  // namespace

TEST_F(ExportAgreement, RowsAreTsharksFieldByField) {
    struct Pair {
        const char* column;
        const char* field;
        bool isDecimal;
    };
    const Pair pairs[] = {{"time", "frame.time_epoch", false},
                          {"stream", "frame.interface_name", false},
                          {"type", "vexo.type", false},
                          {"sequence", "vexo.quote.sequence", false},
                          {"id", "vexo.quote.id", false},
                          {"row", "vexo.quote.row", false},
                          {"table", "vexo.quote.table", false},
                          {"level", "vexo.quote.level", false},
                          {"date", "vexo.quote.date", false},
                          {"quote_time", "vexo.quote.time", false},
                          {"millis", "vexo.quote.millis", false},
                          {"last", "vexo.quote.last", true},
                          {"upper_limit", "vexo.quote.upper_limit", true},
                          {"lower_limit", "vexo.quote.lower_limit", true},
                          {"turnover", "vexo.quote.turnover", true},
                          {"volume", "vexo.quote.volume", false},
                          {"open_interest", "vexo.quote.open_interest", false},
                          {"bid_price", "vexo.quote.bid_price", true},
                          {"ask_price", "vexo.quote.ask_price", true},
                          {"bid_volume", "vexo.quote.bid_volume", false},
                          {"ask_volume", "vexo.quote.ask_volume", false}};
    std::string fields;
    for (const Pair& pair : pairs) fields += std::string(" -e ") + pair.field;
    const auto theirs = Table(Run(word(VEXO_TSHARK) + " -X lua_script:" + word(VEXO_DISSECTOR) +
                                  " -r a.pcapng -T fields -E separator=';'" + fields),
                              ';');
    const std::string vexo = word(VEXO_COMMAND) + " export a.pcapng";
    auto ours = Table(Run(vexo), ',');
    const auto streams = Table(Run(vexo + " --columns stream"), ',');
    ASSERT_EQ(theirs.size(), kQuotes);
    ASSERT_EQ(ours.size(), kQuotes + 1);
    ASSERT_EQ(ours[0].size(), 37U);  // channel is what stream says; all others are compared
    ours[0].push_back("stream");
    for (std::size_t i = 1; i < ours.size(); ++i) {
        ours[i].resize(37);
        ours[i].push_back(streams[i][0]);
        for (std::size_t n = 0; n < std::size(pairs); ++n) {
            std::string expected;
            for (const std::string& value : valuesOf(ours[0], ours[i], pairs[n].column))
                expected += (expected.empty() ? "" : ",") + (pairs[n].isDecimal ? AsTshark(value) : value);
            ASSERT_EQ(expected, theirs[i - 1][n]) << pairs[n].field << " of row " << i;
        }
    }
}

TEST_F(ExportAgreement, TheArrayOfNumpyIsTheCsv) {
    if (runProgram(word(VEXO_PYTHON) + " -c 'import numpy'").status != 0)
        GTEST_SKIP() << "skipped: python3-numpy is not installed";
    const std::string vexo = word(VEXO_COMMAND) + " export a.pcapng ";
    const std::string derived =
        "--columns time,channel,card,stream,layout,clock,exchange_time,natural_day,trading_day,session,key,kind,product,"
        "year,month,right,strike,bid_price_5,ask_volume_5 ";
    for (const std::string& columns : {std::string(), derived, std::string("--columns bid_price_5 ")}) {
        Run("rm -f out.csv out.npy; " + vexo + columns + "-o out.csv; " + vexo + columns + "-o out.npy");
        EXPECT_EQ(Run(word(VEXO_PYTHON) + " " + word(VEXO_NUMPY_CHECK) + " out.csv out.npy"), "600 rows agree\n")
            << columns;
    }
    Run(vexo + "--limit 1 -o one.npy");
    EXPECT_EQ(Run(word(VEXO_PYTHON) + " -c 'import numpy; print(numpy.load(\"one.npy\", mmap_mode=\"r\").shape)'"),
              "(1,)\n");
}
