// The tests of the project trust these helpers, so they are tested like the rest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include "tests/support/CaptureOutput.h"
#include "tests/support/FakeTime.h"
#include "tests/support/TempDir.h"

namespace {

using test_support::CaptureOutput;
using test_support::FakeTime;
using test_support::TempDir;
using testing::ElementsAre;

std::int64_t Read(clockid_t id) {
    timespec t{};
    EXPECT_EQ(::clock_gettime(id, &t), 0);
    return t.tv_sec * 1000000000LL + t.tv_nsec;
}

// ---- fake time ----

TEST(FakeTimeTest, EveryClockAnswersFromTheFake) {
    FakeTime fake;
    fake.SetEpoch(1700000000, 123456789);

    EXPECT_EQ(::time(nullptr), 1700000000);
    EXPECT_EQ(Read(CLOCK_REALTIME), 1700000000123456789);
    EXPECT_EQ(Read(CLOCK_REALTIME_COARSE), 1700000000123456789);
    EXPECT_EQ(Read(CLOCK_MONOTONIC), 1700000000123456789 - FakeTime::kMonotonicLagNs);
}

TEST(FakeTimeTest, ReachesCodeInSharedLibraries) {
    FakeTime fake;
    fake.SetEpoch(1700000000);

    EXPECT_EQ(std::chrono::system_clock::now().time_since_epoch(), std::chrono::seconds(1700000000));
}

TEST(FakeTimeTest, LocalTimeComesBackAsItWasSet) {
    const FakeTime fake(2025, 12, 31, 23, 59, 58);
    const std::time_t now = ::time(nullptr);
    std::tm reentrant{};
    ASSERT_NE(::localtime_r(&now, &reentrant), nullptr);

    for (const std::tm* t : {const_cast<const std::tm*>(&reentrant), const_cast<const std::tm*>(::localtime(&now))}) {
        EXPECT_THAT((std::array{t->tm_year, t->tm_mon, t->tm_mday, t->tm_hour, t->tm_min, t->tm_sec}),
                    ElementsAre(125, 11, 31, 23, 59, 58));
    }
}

TEST(FakeTimeTest, BeforeTheEpochTheSubSecondPartStaysPositive) {
    FakeTime fake;
    fake.SetEpoch(-1, 250000000);
    timespec t{};
    ::clock_gettime(CLOCK_REALTIME, &t);

    EXPECT_EQ(t.tv_sec, -1);
    EXPECT_EQ(t.tv_nsec, 250000000);
}

TEST(FakeTimeTest, SleepMovesTheClockRecordsAndCallsBack) {
    FakeTime fake;
    fake.SetEpoch(1000);
    std::time_t seenByCallback = 0;

    EXPECT_EQ(::sleep(5), 0u);
    fake.OnSleep([&](unsigned int seconds) {
        seenByCallback = ::time(nullptr);
        EXPECT_EQ(seconds, 60u);
    });
    EXPECT_EQ(::sleep(60), 0u);

    EXPECT_EQ(seenByCallback, 1065);
    EXPECT_THAT(fake.Sleeps(), ElementsAre(5, 60));
}

TEST(FakeTimeTest, ASteppingClockMovesAfterEveryRead) {
    FakeTime fake;
    fake.SetEpoch(1000);
    fake.SetStepPerRead(3);

    EXPECT_EQ(Read(CLOCK_REALTIME), 1000000000000);
    EXPECT_EQ(Read(CLOCK_REALTIME), 1000000000003);
    EXPECT_EQ(fake.NowNs(), 1000000000006);
}

TEST(FakeTimeTest, LocalTimeCanBeMadeToFail) {
    FakeTime fake;
    const std::time_t now = ::time(nullptr);
    std::tm out{};
    fake.FailLocaltime(true);

    errno = 0;
    EXPECT_EQ(::localtime(&now), nullptr);
    EXPECT_EQ(errno, EOVERFLOW);
    errno = 0;
    EXPECT_EQ(::localtime_r(&now, &out), nullptr);
    EXPECT_EQ(errno, EOVERFLOW);
}

TEST(FakeTimeTest, TheRealClockIsBackAfterwards) {
    const std::int64_t before = Read(CLOCK_MONOTONIC);
    {
        FakeTime fake;
        fake.SetEpoch(1000);
        fake.SetStepPerRead(1);
        fake.FailLocaltime(true);
        ::sleep(1);
    }
    const std::time_t now = ::time(nullptr);

    EXPECT_GE(Read(CLOCK_MONOTONIC), before);
    EXPECT_GT(now, 1700000000);
    EXPECT_NE(::localtime(&now), nullptr);
    EXPECT_EQ(::sleep(0), 0u);
    EXPECT_THAT(FakeTime().Sleeps(), testing::IsEmpty());
}

TEST(FakeTimeTest, AClockThatIsNotFakedIsReadForReal) {
    FakeTime fake;
    fake.SetEpoch(1000);

    EXPECT_GT(Read(CLOCK_BOOTTIME), 0);
    EXPECT_NE(Read(CLOCK_BOOTTIME), Read(CLOCK_MONOTONIC));
}

TEST(FakeTimeTest, OnlyOneMayLive) {
    const FakeTime fake;

    EXPECT_THROW(FakeTime(), std::logic_error);
}

// ---- a place for temporary files ----

/// Sets TMPDIR while it lives.
class TempPlace {
public:
    explicit TempPlace(const char* path) {
        const char* const old = std::getenv("TMPDIR");
        if (old != nullptr) m_old = old;
        ::setenv("TMPDIR", path, 1);
    }
    ~TempPlace() { m_old ? ::setenv("TMPDIR", m_old->c_str(), 1) : ::unsetenv("TMPDIR"); }
    TempPlace(const TempPlace&) = delete;
    TempPlace& operator=(const TempPlace&) = delete;

private:
    std::optional<std::string> m_old;
};

TEST(TempPlaceThatTakesNoFiles, FailsTheHelpersAndChangesNothing) {
    const std::filesystem::path before = std::filesystem::current_path();
    const TempPlace place("/proc");

    EXPECT_THROW(TempDir(), std::system_error);
    EXPECT_THROW(CaptureOutput(), std::system_error);
    EXPECT_EQ(std::filesystem::current_path(), before);
}

TEST(TempPlaceOfTheUser, IsWhereTheDirectoryIsMade) {
    const TempDir outer;
    const TempPlace place(outer.Path().c_str());

    const TempDir inner;

    EXPECT_EQ(inner.Path().rfind(outer.Path("vexo-test-"), 0), 0u) << inner.Path();
}

// ---- captured output ----

TEST(CaptureOutputTest, RefusesADescriptorThatIsNotOpen) { EXPECT_THROW(CaptureOutput(1 << 20), std::system_error); }

TEST(CaptureOutputTest, CollectsEveryWayOfWriting) {
    CaptureOutput out;

    std::printf("stdio ");
    std::cout << "stream ";
    std::cout.flush();
    std::fflush(stdout);
    EXPECT_EQ(::write(1, "plain ", 6), 6);
    EXPECT_EQ(std::system("echo child"), 0);

    EXPECT_EQ(out.Stop(), "stdio stream plain child\n");
}

TEST(CaptureOutputTest, WorksWithUnbufferedStdio) {
    CaptureOutput err(2);

    std::fprintf(stderr, "one ");
    std::fprintf(stderr, "two");

    EXPECT_EQ(err.Text(), "one two");
    std::fprintf(stderr, " three");
    EXPECT_EQ(err.Stop(), "one two three");
}

TEST(CaptureOutputTest, WhatWasBufferedBeforeStaysOutside) {
    CaptureOutput outer;
    std::printf("before");
    {
        CaptureOutput inner;
        std::printf("inside");
        EXPECT_EQ(inner.Stop(), "inside");
        std::printf("after");
        EXPECT_EQ(inner.Stop(), "inside");
    }

    EXPECT_EQ(outer.Stop(), "beforeafter");
}

TEST(CaptureOutputTest, TakesMoreThanAPipeHolds) {
    const std::string much(1 << 20, 'x');
    CaptureOutput out;

    std::fputs(much.c_str(), stdout);

    EXPECT_EQ(out.Stop(), much);
}

// ---- temporary directory ----

TEST(TempDirTest, IsTheWorkingDirectoryWhileItLivesAndGoneAfterwards) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::string path;
    {
        const TempDir dir;
        path = dir.Path();
        EXPECT_EQ(std::filesystem::current_path(), std::filesystem::canonical(path));
        std::filesystem::create_directories("a/b");
        dir.Write("a/b/file", "text");
        ::chmod(path.c_str(), 0);
    }

    EXPECT_EQ(std::filesystem::current_path(), before);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(TempDirTest, WritesAndReadsFilesOfItsOwn) {
    const TempDir dir;

    EXPECT_EQ(dir.Write("script", "#!/bin/sh\n", 0755), dir.Path("script"));
    EXPECT_EQ(dir.Read("script"), "#!/bin/sh\n");
    EXPECT_EQ(::access("script", X_OK), 0);
    EXPECT_EQ(dir.Read("missing"), "");
    EXPECT_THROW(dir.Write("no/such/directory", "x"), std::system_error);
}

}  // namespace
