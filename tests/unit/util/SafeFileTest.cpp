#include "src/util/SafeFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "tests/support/StandardStreams.h"
#include "tests/support/TempDir.h"

namespace {

using test_support::InProcessWithout;

/// Which of the standard streams are open, bit n for descriptor n.
unsigned int OpenStreams() {
    unsigned int open = 0;
    for (int fd = 0; fd < 3; ++fd) open |= static_cast<unsigned int>(::fcntl(fd, F_GETFD) >= 0) << fd;
    return open;
}

bool IsSameFile(int fd, const std::string& path) {
    struct stat opened {};
    struct stat named {};
    return ::fstat(fd, &opened) == 0 && ::stat(path.c_str(), &named) == 0 && opened.st_ino == named.st_ino;
}

class OpenAboveStandard : public testing::Test {
protected:
    test_support::TempDir dir;
    const std::string path = dir.Write("file", "text");
};

TEST_F(OpenAboveStandard, GivesNoDescriptorBelowThreeWhicheverStreamsAreClosed) {
    for (const int flags : {O_RDONLY, O_WRONLY, O_RDWR}) {
        for (unsigned int closed = 0; closed < 8; ++closed) {
            SCOPED_TRACE(testing::Message() << "flags " << flags << ", closed " << closed);
            const auto open = [&] {
                const unsigned int before = OpenStreams();
                const int fd = safe_file::openAboveStandard(path.c_str(), flags | O_CLOEXEC);
                if (fd < 3 || ::fcntl(fd, F_GETFD) != FD_CLOEXEC) return 1;
                if (OpenStreams() != before) return 2;
                return IsSameFile(fd, path) ? 0 : 3;
            };
            EXPECT_EQ(InProcessWithout(closed, open), 0);
        }
    }
}

TEST_F(OpenAboveStandard, LeavesTheErrorOfAFailedOpenAndNoDescriptor) {
    const std::string missing = dir.Path("missing");
    for (const int flags : {O_RDONLY, O_WRONLY}) {
        const auto open = [&] {
            const int fd = safe_file::openAboveStandard(missing.c_str(), flags);
            if (fd != -1 || errno != ENOENT) return 1;
            return OpenStreams() == 0 ? 0 : 2;
        };
        EXPECT_EQ(InProcessWithout(7, open), 0);
    }
}

TEST_F(OpenAboveStandard, CreatesWithTheGivenPermissions) {
    const std::string created = dir.Path("created");
    const mode_t before = ::umask(0);

    const int fd = safe_file::openAboveStandard(created.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0640);

    ::umask(before);
    struct stat status {};
    ASSERT_EQ(::fstat(fd, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    ::close(fd);
}

TEST_F(OpenAboveStandard, AClosedStandardInputIsNotFound) {
    EXPECT_EQ(InProcessWithout(1,
                               [] {
                                   const int fd = safe_file::openAboveStandard("/dev/stdin", O_RDONLY);
                                   return fd == -1 && errno == ENOENT ? 0 : 1;
                               }),
              0);
}

TEST(SafeOutputFile, OneThatIsClosedTwiceClosesNobodyElsesDescriptor) {
    const auto close = [] {
        const test_support::TempDir directory;
        {
            safe_file::OutputFile file;
            std::string refusal;
            if (!file.open(directory.Path("file"), refusal)) return 1;
            file.close();
            const int others = ::open("/dev/null", O_RDONLY | O_CLOEXEC);  // gets the file's number
            file.close();
            if (::fcntl(others, F_GETFD) < 0) return 2;
        }
        return OpenStreams() == 7 ? 0 : 3;
    };
    EXPECT_EQ(InProcessWithout(0, close), 0);
}

}  // namespace
