#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "VexoZceSession.h"
#include "tests/support/TempDir.h"

using namespace vexo_zce;

namespace {

constexpr char kBreaksOff[] = "a file whose disk fails after three lines";

ssize_t ReadThreeLines(void* isOver, char* to, std::size_t) {
    if (*static_cast<bool*>(isOver)) {
        errno = EIO;
        return -1;
    }
    *static_cast<bool*>(isOver) = true;
    constexpr char kLines[] = "2027-01-01\n2027-01-02\n2027-01-03\n";
    std::memcpy(to, kLines, sizeof kLines - 1);
    return sizeof kLines - 1;
}

bool Has(const HolidayList& list, std::uint32_t date) { return list.has(dayNumber(date)); }

std::string FaultOfLine(const std::string& line) {
    HolidayList list;
    const char* fault = addHolidayLine(list, line.c_str());
    return fault != nullptr ? fault : "";
}

}  // namespace

// Stands before the C library's.
extern "C" std::FILE* fopen(const char* path, const char* mode) {
    if (std::strcmp(path, kBreaksOff) == 0) {
        static bool isOver;
        isOver = false;
        return ::fopencookie(&isOver, mode, {ReadThreeLines, nullptr, nullptr, nullptr});
    }
    static const auto next = reinterpret_cast<std::FILE* (*)(const char*, const char*)>(::dlsym(RTLD_NEXT, "fopen"));
    return next(path, mode);
}

TEST(Dates, GoFromDayToDayThroughThreeCenturies) {
    std::uint32_t date = 19700101;
    const int lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    for (std::int64_t day = 0; date < 22620101; ++day) {
        ASSERT_EQ(dayNumber(date), day);
        ASSERT_EQ(dateOf(day), date);
        ASSERT_TRUE(isDate(date));
        const std::uint32_t year = date / 10000;
        const std::uint32_t month = date / 100 % 100;
        const bool isLeap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
        const auto length = static_cast<std::uint32_t>(lengths[month - 1] + (month == 2 && isLeap ? 1 : 0));
        if (date % 100 < length) {
            ++date;
        } else {
            date = month < 12 ? date - date % 100 + 101 : (year + 1) * 10000 + 101;
        }
    }
}

TEST(Dates, WhatTheCalendarDoesNotHaveIsNone) {
    for (const std::uint32_t date : {0U, 19691231U, 22620101U, 20270229U, 20270431U, 20271301U, 20270001U, 20270100U,
                                     20270132U, 2027U, 4294967295U}) {
        EXPECT_FALSE(isDate(date)) << date;
    }
    EXPECT_TRUE(isDate(20280229));
}

TEST(Dates, WeekendsAreSaturdayAndSunday) {
    const std::int64_t monday = dayNumber(20261116);
    for (std::int64_t i = 0; i < 21; ++i) EXPECT_EQ(isWeekend(monday + i), i % 7 >= 5) << i;
    EXPECT_FALSE(isWeekend(0));  // a Thursday
}

TEST(Holidays, AreInTheListOnceInWhateverOrderTheyCome) {
    HolidayList list;
    for (const std::uint32_t date : {20270501U, 20270101U, 20270301U, 20270101U, 20270501U})
        EXPECT_TRUE(list.add(date));
    EXPECT_EQ(list.count(), 3U);
    EXPECT_TRUE(Has(list, 20270101) && Has(list, 20270301) && Has(list, 20270501));
    EXPECT_FALSE(Has(list, 20270102) || Has(list, 20261231) || Has(list, 20270502));
    EXPECT_FALSE(list.add(20270229));
    EXPECT_EQ(list.countUntil(dayNumber(20270101), dayNumber(20270501)), 2U);
}

TEST(Holidays, AFullListRefusesTheNextDayAndKeepsTheOthers) {
    HolidayList list;
    const std::int64_t first = dayNumber(20270101);
    for (std::size_t i = 0; i < HolidayList::kMost; ++i)
        ASSERT_TRUE(list.add(dateOf(first + static_cast<std::int64_t>(2 * i))));
    EXPECT_FALSE(list.add(20260101));
    EXPECT_TRUE(list.add(20270101));  // is in it
    EXPECT_TRUE(Has(list, 20270101));
    EXPECT_STREQ(addHolidayLine(list, "20260101"), "there are more than 512 days");
}

TEST(Holidays, ALineIsADayOrAFirstAndALastDay) {
    HolidayList list;
    EXPECT_EQ(addHolidayLine(list, "2027-01-01"), nullptr);
    EXPECT_EQ(addHolidayLine(list, "\t20270205  2027-02-11 # Spring Festival\r\n"), nullptr);
    EXPECT_EQ(addHolidayLine(list, "# nothing\n"), nullptr);
    EXPECT_EQ(addHolidayLine(list, " \n"), nullptr);
    EXPECT_EQ(list.count(), 8U);
    EXPECT_TRUE(Has(list, 20270205) && Has(list, 20270211));
    EXPECT_FALSE(Has(list, 20270204) || Has(list, 20270212));
}

TEST(Holidays, ALineThatIsNoneIsRefusedWithTheReason) {
    for (const char* line : {"x", "2027-02-29", "2027-2-5", "202702-05", "2027-0205", "2027-", "2027-02", "2027-02-",
                             "2027", "20270205.", "-"})
        EXPECT_NE(FaultOfLine(line), "") << line;
    EXPECT_EQ(FaultOfLine("1 January"), "this is no date YYYY-MM-DD");
    EXPECT_EQ(FaultOfLine("20270205 x"), "a day, or a first and a last day, is all that a line has");
    EXPECT_EQ(FaultOfLine("20270205 20270206 20270207"), "a day, or a first and a last day, is all that a line has");
    EXPECT_EQ(FaultOfLine("20270205 20270204"), "the last day is before the first one");
    EXPECT_EQ(FaultOfLine("20270101 20270131"), "");
    EXPECT_EQ(FaultOfLine("20270101 20270201"), "a holiday takes 31 days at most");
}

TEST(Holidays, AreReadFromAFileUntilItsFirstFault) {
    const test_support::TempDir dir;
    HolidayList list;
    EXPECT_EQ(loadHolidays(list, dir.Write("good", "# year\n\n2027-01-01\n20270205 20270206").c_str()).text, nullptr);
    EXPECT_EQ(list.count(), 3U);
    const HolidayFault fault = loadHolidays(list, dir.Write("bad", "2028-01-01\n2028-13-01\n2028-02-01\n").c_str());
    EXPECT_STREQ(fault.text, "this is no date YYYY-MM-DD");
    EXPECT_EQ(fault.line, 2U);
    EXPECT_EQ(list.count(), 4U);
    EXPECT_STREQ(loadHolidays(list, dir.Path("none").c_str()).text, "the file cannot be opened");
    EXPECT_STREQ(loadHolidays(list, dir.Path().c_str()).text, "the file cannot be read");
    EXPECT_EQ(loadHolidays(list, dir.Write("empty", "").c_str()).text, nullptr);
}

TEST(Holidays, AReadErrorIsAFaultOfTheFileAndOfNoLine) {
    HolidayList list;
    const HolidayFault fault = loadHolidays(list, kBreaksOff);
    EXPECT_STREQ(fault.text, "the file cannot be read");
    EXPECT_EQ(fault.line, 0U);
    EXPECT_EQ(list.count(), 3U);
}

TEST(Holidays, ALineOfAFileHasItsEnd) {
    const test_support::TempDir dir;
    HolidayList list;
    const std::string longest = "20270101" + std::string(246, ' ');
    EXPECT_EQ(loadHolidays(list, dir.Write("longest", longest + "\n").c_str()).text, nullptr);
    const HolidayFault fault = loadHolidays(list, dir.Write("longer", "\n" + longest + " \n").c_str());
    EXPECT_STREQ(fault.text, "the line is longer than 254 characters");
    EXPECT_EQ(fault.line, 2U);
}
