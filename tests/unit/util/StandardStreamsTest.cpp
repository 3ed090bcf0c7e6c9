#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>

#include "VexoZceUtil.h"
#include "src/util/StandardStreams.h"
#include "tests/support/CaptureOutput.h"
#include "tests/support/StandardStreams.h"
#include "tests/support/TempDir.h"

namespace {

using testing::IsEmpty;

/// Runs @p body in a fork without descriptors 0 to 2. @return its result
int WithoutStandardStreams(const std::function<int()>& body) {
    return test_support::InProcessWithout(test_support::kAllStandardStreams, body);
}

/// The number that the next open() gets.
int NextDescriptor() {
    const int fd = ::open("/dev/null", O_RDONLY);
    ::close(fd);
    return fd;
}

class StandardStreams : public testing::Test {
protected:
    test_support::TempDir dir;
};

TEST_F(StandardStreams, ADescriptorMovesOutOfTheirNumbersWithCloseOnExec) {
    EXPECT_EQ(WithoutStandardStreams([] {
                  const int fd = standard_streams::moveAbove(::open("/dev/null", O_RDONLY));
                  return fd > 2 && ::fcntl(fd, F_GETFD) == FD_CLOEXEC && NextDescriptor() == 0 ? 0 : 1;
              }),
              0);
}

TEST_F(StandardStreams, AnotherDescriptorStaysWhereItIs) {
    EXPECT_EQ(standard_streams::moveAbove(3), 3);
    EXPECT_EQ(standard_streams::moveAbove(-1), -1);
}

TEST_F(StandardStreams, LookingForClosedStreamsLeavesErrno) {
    EXPECT_EQ(WithoutStandardStreams([] {
                  errno = ERANGE;
                  standard_streams::noteClosed();
                  return errno;
              }),
              ERANGE);
}

TEST_F(StandardStreams, NothingIsPrintedOnceStandardOutputWasFoundClosed) {
    EXPECT_EQ(WithoutStandardStreams([] {
                  standard_streams::noteClosed();
                  ::open("/dev/null", O_RDONLY);
                  ::open("data", O_WRONLY | O_CREAT, 0600);
                  const int length = bind_to_cpu(1024);
                  std::fflush(stdout);
                  return length;
              }),
              static_cast<int>(sizeof "Invalid CPU 1024 > CPU_SETSIZE(1024), WE don't bind to anycore." - 1));
    EXPECT_THAT(dir.Read("data"), IsEmpty());
}

TEST_F(StandardStreams, NothingIsPrintedOnceStandardErrorWasFoundClosed) {
    EXPECT_EQ(WithoutStandardStreams([] {
                  standard_streams::noteClosed();
                  ::open("/dev/null", O_RDONLY);
                  ::open("/dev/null", O_RDONLY);
                  const bool isError = ::open("data", O_WRONLY | O_CREAT, 0600) == STDERR_FILENO;
                  standard_streams::printError("text");
                  return isError ? 0 : 1;
              }),
              0);
    EXPECT_THAT(dir.Read("data"), IsEmpty());
}

constexpr char kInside[] = "VEXO_TEST_STARTED_WITHOUT_STANDARD_STREAMS";

// What the test below starts: this program again, which ends here.
__attribute__((constructor)) void PrintIntoAFileInThePlaceOfStandardOutput() {
    if (::getenv(kInside) == nullptr) return;
    ::open("/dev/null", O_RDONLY);
    const bool isOutput = ::open("data", O_WRONLY | O_CREAT, 0600) == STDOUT_FILENO;
    standard_streams::print("text");
    std::fflush(stdout);
    ::_exit(isOutput ? 77 : 1);
}

TEST_F(StandardStreams, OneThatIsClosedAtTheStartOfTheProcessIsNotOurs) {
    EXPECT_EQ(WithoutStandardStreams([] {
                  ::setenv(kInside, "1", 1);
                  ::execl("/proc/self/exe", "test", nullptr);
                  return 1;
              }),
              77);
    EXPECT_THAT(dir.Read("data"), IsEmpty());
}

TEST_F(StandardStreams, ATextIsPrintedWhereStandardOutputIsOurs) {
    test_support::CaptureOutput out;

    const int length = standard_streams::print("%s %d", "text", 7);

    EXPECT_EQ(out.Stop(), "text 7");
    EXPECT_EQ(length, 6);
}

}  // namespace
