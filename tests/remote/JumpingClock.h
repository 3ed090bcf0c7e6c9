#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/support/Sanitizers.h"

/// The clocks as the processes see them that the test starts while this lives: jumping_clock.c is loaded into them. The
/// machine's clocks are left alone.
class JumpingClock {
public:
    static constexpr std::int64_t kSecond = 1'000'000'000;
    static constexpr std::int64_t kHour = 3600 * kSecond;
    /// The runtimes of sanitizers want to be the first library of a process.
    static constexpr bool isPossible() { return !kWithAddressSanitizer && !kWithThreadSanitizer; }

    /// @param folder  the working directory of the processes: LD_PRELOAD takes no path with a blank
    explicit JumpingClock(const std::string& folder) : m_file(folder + "/clock") {
        std::filesystem::copy_file(VEXO_JUMPING_CLOCK, folder + "/jumping_clock.so");
        Write(0, kSteadyOffset);
        Set(0);
        ::setenv("VEXO_TEST_CLOCK", m_file.c_str(), 1);
        ::setenv("LD_PRELOAD", "./jumping_clock.so", 1);
    }
    ~JumpingClock() {
        ::unsetenv("VEXO_TEST_CLOCK");
        ::unsetenv("LD_PRELOAD");
    }
    JumpingClock(const JumpingClock&) = delete;
    JumpingClock& operator=(const JumpingClock&) = delete;

    /// Nanoseconds that the host's clock is ahead of the machine's from now on; below 0: behind it.
    void Set(std::int64_t ahead) { Write(ahead, 0); }
    /// The same of the clock that nobody sets: so much time has gone by for the processes.
    void SetSteady(std::int64_t ahead) { Write(ahead, kSteadyOffset); }

private:
    static constexpr off_t kSteadyOffset = sizeof(std::int64_t);

    void Write(std::int64_t ahead, off_t offset) {
        const int file = ::open(m_file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const bool isWritten = file >= 0 && ::pwrite(file, &ahead, sizeof ahead, offset) == sizeof ahead;
        ::close(file);
        if (!isWritten) throw std::runtime_error("cannot write " + m_file);
    }

    std::string m_file;
};

/// Ends the test as skipped where no library can be loaded into the processes.
#define SKIP_WITHOUT_JUMPING_CLOCK() \
    if (!JumpingClock::isPossible()) GTEST_SKIP() << "skipped: sanitizers let no other library be the first one"
