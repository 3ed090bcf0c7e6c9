#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "src/log/elog.h"
#include "tests/support/CaptureOutput.h"
#include "tests/support/FakeTime.h"
#include "tests/support/TempDir.h"

/// What @p act prints on descriptor @p fd. Only the act runs inside, so that a failed assertion is seen.
template <typename Act>
std::string Printed(Act act, int fd = 1) {
    test_support::CaptureOutput output(fd);
    act();
    return output.Stop();
}

/// The lines of a text without their newlines; what follows the last newline is a line of its own.
std::vector<std::string> Lines(const std::string& text);

/// The last of them; empty when there is none.
std::string LastLine(const std::string& text);

/// Returns when a thread of this process sleeps: it waits for a lock or for a slow reader.
void WaitUntilAsleep(pid_t tid);

/// A file in the place of a descriptor while it lives.
class Redirected {
public:
    Redirected(int fd, int target);
    ~Redirected();
    Redirected(const Redirected&) = delete;
    Redirected& operator=(const Redirected&) = delete;

private:
    int m_fd;
    int m_saved;
};

/// Standard output is a pipe that is full, whose reader has stopped.
class StalledPipe {
public:
    StalledPipe();
    ~StalledPipe();
    StalledPipe(const StalledPipe&) = delete;
    StalledPipe& operator=(const StalledPipe&) = delete;

    /// What standard output brought beyond the filling. Makes room.
    std::string Drain();
    int Flags() const;  ///< those of the writing end

private:
    int m_ends[2] = {-1, -1};
    int m_savedStdout = -1;
};

/// The process's time zone while it lives.
class Zone {
public:
    explicit Zone(const char* name);
    ~Zone();
    Zone(const Zone&) = delete;
    Zone& operator=(const Zone&) = delete;

private:
    std::optional<std::string> m_old;
};

/// How many descriptors the process has open.
std::size_t OpenDescriptors();

constexpr std::uint8_t kInfo = ELOG_LVL_INFO;

/// A log core that was never set up, 10:00:00 on 3 March 2025, in an empty working directory.
class LogCore : public testing::Test {
protected:
    LogCore();
    ~LogCore() override;

    test_support::FakeTime clock;
    test_support::TempDir dir;

private:
    static void Forget();
};

/// The core set up as the library does it, in the working directory, output enabled, nothing written yet.
class StartedLog : public LogCore {
protected:
    StartedLog();

    static constexpr char kToday[] = "fpga_20250303.log";
    static constexpr char kTomorrow[] = "fpga_20250304.log";
};
