#include <future>
#include <memory>
#include <thread>
#include <type_traits>

#include "src/log/Logger.h"
#include "src/log/elog_mutex.h"
#include "tests/unit/log/LogFixture.h"

namespace {

using MOSK2::CThreadGuard;
using MOSK2::CThreadMutex;

template <typename Call>
auto OnAnotherThread(Call call) {
    return std::async(std::launch::async, call).get();
}

/// Whether another thread could have the mutex now.
bool IsFree(CThreadMutex& mutex) {
    return OnAnotherThread([&mutex] {
        if (mutex.TryAcquire() != 0) return false;
        mutex.Release();
        return true;
    });
}

// ---- logger ----

using Logger = LogCore;

static_assert(std::is_abstract<ILogger>::value, "a logger is made through an implementation");
static_assert(std::has_virtual_destructor<ILogger>::value, "loggers are deleted through the interface");
static_assert(sizeof(CKwLogger) == sizeof(void*), "no fields of its own");

TEST_F(Logger, InitOpensTheFileAndWritesTheFirstLine) {
    const std::unique_ptr<ILogger> logger(new CKwLogger);
    int result = -2;

    const std::string printed = Printed([&] { result = logger->Init(0, "./", "fpga"); });

    EXPECT_EQ(result, 0);
    EXPECT_EQ(printed, "[INFO   ][20250303-10:00:00][log]log is initialized successfully.\n");
    EXPECT_EQ(dir.Read("fpga_20250303.log"), printed);
}

TEST_F(Logger, TheLevelIsNotUsed) {
    CKwLogger logger;
    Printed([&logger] { logger.Init(1, "./", "fpga"); });

    EXPECT_EQ(Printed([] { elog_output(kInfo, "fpga", "file", "func", 1, "text"); }),
              "[INFO   ][20250303-10:00:00][fpga]text\n");
}

TEST_F(Logger, InitWithADirectoryThatCannotBeCreatedFailsAndLeavesOutputDisabled) {
    CKwLogger logger;
    dir.Write("file", "");
    int result = 0;

    Printed([&] { result = logger.Init(0, "file/logs", "fpga"); }, 2);

    EXPECT_EQ(result, -1);
    EXPECT_FALSE(elog_get_output_enabled());
}

TEST_F(Logger, DeletingItClosesTheFile) {
    std::unique_ptr<ILogger> logger(new CKwLogger);
    Printed([&logger] { logger->Init(0, "./", "fpga"); });

    logger.reset();

    EXPECT_EQ(elog_file_fp, nullptr);
    EXPECT_FALSE(elog_file_init_ok);
}

// ---- mutex ----

TEST(ThreadMutex, AFreeMutexIsAcquiredAndReleasedWithZero) {
    CThreadMutex mutex;

    EXPECT_EQ(mutex.Acquire(), 0);
    EXPECT_FALSE(IsFree(mutex));
    EXPECT_EQ(mutex.Release(), 0);
    EXPECT_TRUE(IsFree(mutex));
}

TEST(ThreadMutex, TryAcquireOfAMutexThatAnotherThreadHoldsFailsAtOnce) {
    CThreadMutex mutex;
    mutex.Acquire();

    EXPECT_NE(OnAnotherThread([&mutex] { return mutex.TryAcquire(); }), 0);

    mutex.Release();
}

TEST(ThreadMutex, TheSameThreadMayAcquireItAgainAndHoldsItUntilTheLastRelease) {
    CThreadMutex mutex;

    EXPECT_EQ(mutex.Acquire(), 0);
    EXPECT_EQ(mutex.Acquire(), 0);
    EXPECT_EQ(mutex.TryAcquire(), 0);

    EXPECT_EQ(mutex.Release(), 0);
    EXPECT_EQ(mutex.Release(), 0);
    EXPECT_FALSE(IsFree(mutex));
    EXPECT_EQ(mutex.Release(), 0);
    EXPECT_TRUE(IsFree(mutex));
}

TEST(ThreadMutex, AGuardHoldsItForItsScope) {
    CThreadMutex mutex;
    {
        const CThreadGuard guard(mutex);
        EXPECT_FALSE(IsFree(mutex));
    }
    EXPECT_TRUE(IsFree(mutex));
}

TEST(ThreadMutex, TheLogLockIsTheGlobalMutex) {
    EXPECT_EQ(elog_mutex_lock(), 0);
    EXPECT_FALSE(IsFree(g_log_mutex));
    EXPECT_EQ(elog_mutex_unlock(), 0);
    EXPECT_TRUE(IsFree(g_log_mutex));
}

TEST_F(StartedLog, AMessageFromTheThreadThatHoldsTheLogLockIsWritten) {
    elog_mutex_lock();

    const std::string printed = Printed([] { elog_output(kInfo, "fpga", "file", "func", 1, "text"); });

    elog_mutex_unlock();
    EXPECT_EQ(printed, "[INFO   ][20250303-10:00:00][fpga]text\n");
}

TEST_F(StartedLog, EveryOutputGivesTheLogLockBack) {
    Printed([] {
        elog_output(kInfo, "fpga", "file", "func", 1, "text");
        elog_raw("text");
        elog_raw_huge("text");
        elog_hexdump("name", 16, "text", 4);
    });

    EXPECT_TRUE(IsFree(g_log_mutex));
}

}  // namespace
