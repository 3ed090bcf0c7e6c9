// The output of an export on file systems that cannot do everything, and when the end fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <filesystem>

#include "tests/support/StandardStreams.h"
#include "tests/support/TempDir.h"
#include "tools/vexo/Failure.h"
#include "tools/vexo/export/OutputFile.h"

using ::testing::HasSubstr;
using vexo::exporting::OutputFile;

namespace {

// What the file system of the test cannot do; errno, 0 = it can.
int g_namelessError = 0;
int g_linkError = 0;
int g_renameError = 0;
int g_closeError = 0;  // of files that are open for writing

bool IsWriting(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && (flags & O_ACCMODE) == O_WRONLY;
}

class ExportOutput : public ::testing::Test {
protected:
    ~ExportOutput() override { g_namelessError = g_linkError = g_renameError = g_closeError = 0; }

    static std::string FaultOf(OutputFile& file) {
        try {
            file.finish();
        } catch (const vexo::Failure& failure) {
            return failure.what();
        }
        return "";
    }
    std::size_t files() const {
        const std::filesystem::directory_iterator all(dir.Path());
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }

    test_support::TempDir dir;
};

}  // namespace

extern "C" int open(const char* path, int flags, ...) {
    std::va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    if (g_namelessError != 0 && (flags & O_TMPFILE) == O_TMPFILE) {
        errno = g_namelessError;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

extern "C" int linkat(int from, const char* old, int to, const char* name, int flags) noexcept {
    if (g_linkError == 0) return static_cast<int>(::syscall(SYS_linkat, from, old, to, name, flags));
    errno = g_linkError;
    return -1;
}

extern "C" int renameat2(int from, const char* old, int to, const char* name, unsigned flags) noexcept {
    if (g_renameError == 0) return static_cast<int>(::syscall(SYS_renameat2, from, old, to, name, flags));
    errno = g_renameError;
    return -1;
}

extern "C" int close(int fd) {
    const bool fails = g_closeError != 0 && IsWriting(fd);
    const long result = ::syscall(SYS_close, fd);
    if (!fails) return static_cast<int>(result);
    errno = g_closeError;
    return -1;
}

TEST_F(ExportOutput, GetsItsNameAtTheEndOnEveryFileSystem) {
    for (const int nameless : {0, EOPNOTSUPP}) {
        for (const int rename : {0, EINVAL}) {
            g_namelessError = nameless;
            g_renameError = rename;
            OutputFile file("out.csv");
            file.write("row", 3);
            EXPECT_FALSE(std::filesystem::exists("out.csv"));
            file.finish();
            EXPECT_EQ(dir.Read("out.csv"), "row");
            EXPECT_EQ(files(), 1U);
            std::filesystem::remove("out.csv");
        }
    }
}

TEST_F(ExportOutput, AFileThatCameMeanwhileStays) {
    for (const int nameless : {0, EOPNOTSUPP}) {
        for (const int rename : {0, EINVAL}) {
            g_namelessError = nameless;
            g_renameError = rename;
            {
                OutputFile file("out.csv");
                file.write("row", 3);
                dir.Write("out.csv", "precious");
                EXPECT_EQ(FaultOf(file), "out.csv: cannot get its name: File exists");
            }
            EXPECT_EQ(dir.Read("out.csv"), "precious");
            EXPECT_EQ(files(), 1U);
            std::filesystem::remove("out.csv");
        }
    }
}

TEST_F(ExportOutput, AWriteThatFailsOnlyAtTheEndIsAFailureWithoutAFile) {
    for (const int nameless : {0, EOPNOTSUPP}) {
        g_namelessError = nameless;
        {
            OutputFile file("out.csv");
            file.write("row", 3);
            g_closeError = EDQUOT;
            EXPECT_EQ(FaultOf(file), "out.csv: cannot be written: Disk quota exceeded");
            g_closeError = 0;
        }
        EXPECT_EQ(files(), 0U);
    }
}

TEST_F(ExportOutput, IsNotThereWhenItWasNotFinished) {
    for (const int nameless : {0, EOPNOTSUPP}) {
        g_namelessError = nameless;
        {
            OutputFile file("out.csv");
            file.write("row", 3);
        }
        EXPECT_EQ(files(), 0U);
    }
}

TEST_F(ExportOutput, APartOfAnotherExportIsNamedAndStays) {
    g_namelessError = EOPNOTSUPP;
    dir.Write("out.csv.part", "half");
    try {
        const OutputFile file("out.csv");
        FAIL() << "it was taken";
    } catch (const vexo::Failure& failure) {
        EXPECT_THAT(failure.what(), HasSubstr("out.csv.part is of an export that runs, or was killed; remove it"));
    }
    EXPECT_EQ(dir.Read("out.csv.part"), "half");
}

TEST_F(ExportOutput, NeverGetsAStandardDescriptor) {
    for (const int nameless : {0, EOPNOTSUPP}) {
        g_namelessError = nameless;
        EXPECT_EQ(test_support::InProcessWithout(test_support::kAllStandardStreams,
                                                 [] {
                                                     const OutputFile file("out.csv");
                                                     return test_support::AreStandardNumbersFree() ? 0 : 1;
                                                 }),
                  0);
    }
}
