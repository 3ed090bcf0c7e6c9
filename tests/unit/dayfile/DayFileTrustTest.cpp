#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "tests/support/TempDir.h"
#include "tests/unit/dayfile/DayFileFixture.h"
#include "tests/unit/log/Interposed.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;
constexpr uid_t kOtherUser = 65533;

constexpr char kGood[] = "inst_index,inst_id\n1,SR505\nbin_file_over_tag\n";

/// The effective user of the process, which files are opened as, while it lives. For root only.
class EffectiveUser {
public:
    explicit EffectiveUser(uid_t uid) {
        if (::seteuid(uid) != 0) throw std::system_error(errno, std::generic_category(), "seteuid");
    }
    ~EffectiveUser() {
        if (::seteuid(0) != 0) std::abort();
    }
    EffectiveUser(const EffectiveUser&) = delete;
    EffectiveUser& operator=(const EffectiveUser&) = delete;
};

/// What stands at the path of the morning file, put there by another user of the host.
class DayFileTrust : public DayFile {
protected:
    /// Nothing is loaded, and the map stays as it is.
    void LoadInVain() {
        insts["KEPT"] = 3;
        int result = 0;

        log = LogOf([&] { result = bin.CheckOrLoadBinFile(); });

        EXPECT_EQ(result, -1);
        EXPECT_THAT(insts, ElementsAre(Pair("KEPT", 3)));
    }

    void ExpectRefusedForLoading(const std::string& why) {
        LoadInVain();
        EXPECT_THAT(log, ElementsAre("WARN contract index file " + morning + " is not used, " + why + '.',
                                     "INFO bin file is not exists , [" + morning + "]."));
    }

    void ExpectNotReadable() {
        LoadInVain();
        EXPECT_THAT(log, ElementsAre("INFO bin file is not exists , [" + morning + "]."));
    }

    void ExpectRefusedForWriting() {
        int result = 0;

        log = LogOf([&] {
            result = bin.InstBinFileInit();
            bin.WriteBinFileInst("SR505", 1);
            bin.WriteBinFileEnd();
        });

        EXPECT_EQ(result, -1);
        EXPECT_THAT(log, ElementsAre("WARN open contract index file failed " + morning + "."));
    }

    void MakeSocket() const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, morning.c_str(), sizeof address.sun_path - 1);
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        const int result = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        ::close(fd);
        if (result != 0) throw std::system_error(errno, std::generic_category(), morning);
    }

    void MakeFifo() const {
        if (::mkfifo(morning.c_str(), 0600) != 0) throw std::system_error(errno, std::generic_category(), morning);
    }

    test_support::TempDir dir;
};

// ---- symbolic links ----

TEST_F(DayFileTrust, ASymbolicLinkIsNotFollowedForLoading) {
    fs::create_symlink(dir.Write("target", kGood), morning);

    ExpectRefusedForLoading("it is a symbolic link, remove it");
}

TEST_F(DayFileTrust, ASymbolicLinkIsNotFollowedForWriting) {
    fs::create_symlink(dir.Write("target", "precious"), morning);

    ExpectRefusedForWriting();

    EXPECT_EQ(dir.Read("target"), "precious");
    EXPECT_TRUE(fs::is_symlink(morning));
}

TEST_F(DayFileTrust, ALinkToNothingCreatesNothing) {
    fs::create_symlink(dir.Path("target"), morning);

    ExpectRefusedForWriting();

    EXPECT_FALSE(fs::exists(dir.Path("target")));
}

TEST_F(DayFileTrust, ALinkToNothingIsNotTakenForAMissingFile) {
    fs::create_symlink(dir.Path("target"), morning);

    ExpectRefusedForLoading("it is a symbolic link, remove it");
}

// ---- what is not a regular file ----

TEST_F(DayFileTrust, ADirectoryIsNotLoaded) {
    fs::create_directory(morning);

    ExpectRefusedForLoading("it is not a regular file, remove it");
}

TEST_F(DayFileTrust, ADirectoryIsNotWritten) {
    fs::create_directory(morning);

    ExpectRefusedForWriting();
}

// Waits for ever when the open does.
TEST_F(DayFileTrust, AFifoBlocksNeitherLoadingNorWriting) {
    MakeFifo();

    ExpectRefusedForLoading("it is not a regular file, remove it");
    ExpectRefusedForWriting();
}

TEST_F(DayFileTrust, AFifoThatSomebodyReadsGetsNothing) {
    MakeFifo();
    const int reader = ::open(morning.c_str(), O_RDONLY | O_NONBLOCK);

    ExpectRefusedForWriting();

    char byte = 0;
    EXPECT_EQ(::read(reader, &byte, 1), 0);
    ::close(reader);
}

TEST_F(DayFileTrust, ASocketIsNeitherLoadedNorWritten) {
    MakeSocket();

    ExpectNotReadable();
    ExpectRefusedForWriting();
}

// ---- owners ----

TEST_F(DayFileTrust, AFileOfAnotherOrdinaryUserIsNotLoaded) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file to another user";
    WriteFile(morning, kGood);
    ASSERT_EQ(::chown(morning.c_str(), kOtherUser, kOtherUser), 0);

    ExpectRefusedForLoading("another user owns it, remove it");
}

TEST_F(DayFileTrust, AnOrdinaryUserDoesNotLoadAnotherOnesFile) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file to another user";
    WriteFile(morning, kGood);
    ASSERT_EQ(::chown(morning.c_str(), kOtherUser, kOtherUser), 0);
    const EffectiveUser ordinary(kNobody);

    ExpectRefusedForLoading("another user owns it, remove it");
}

TEST_F(DayFileTrust, AnOrdinaryUserLoadsAFileOfRoot) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can make a file of root";
    WriteFile(morning, kGood);
    const EffectiveUser ordinary(kNobody);

    LogOf([this] { EXPECT_EQ(bin.CheckOrLoadBinFile(), 0); });

    EXPECT_THAT(insts, ElementsAre(Pair("SR505", 1)));
}

TEST_F(DayFileTrust, AnOrdinaryUserLoadsItsOwnFile) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can act as another user";
    WriteFile(morning, kGood);
    ASSERT_EQ(::chown(morning.c_str(), kNobody, kNobody), 0);
    const EffectiveUser ordinary(kNobody);

    LogOf([this] { EXPECT_EQ(bin.CheckOrLoadBinFile(), 0); });
}

TEST_F(DayFileTrust, AFileThatMayNotBeReadOrWrittenCountsAsMissing) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can make a file of root";
    WriteFile(morning, kGood);
    fs::permissions(morning, fs::perms{0600});
    const EffectiveUser ordinary(kNobody);

    ExpectNotReadable();
    ExpectRefusedForWriting();
}

TEST_F(DayFileTrust, AFileOfAnotherOrdinaryUserIsReplacedForWriting) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file to another user";
    WriteFile(morning, kGood);
    ASSERT_EQ(::chown(morning.c_str(), kOtherUser, kOtherUser), 0);
    const int left = ::open(morning.c_str(), O_RDONLY | O_CLOEXEC);

    EXPECT_EQ(bin.InstBinFileInit(), 0);
    bin.WriteBinFileInst("SR507", 2);

    char seen[sizeof kGood] = {};
    EXPECT_EQ(::read(left, seen, sizeof seen), static_cast<ssize_t>(sizeof kGood - 1)) << "their file is not touched";
    ::close(left);
    EXPECT_EQ(ReadFile(morning), "inst_index,inst_id\n2,SR507\n");
    struct stat status {};
    ASSERT_EQ(::stat(morning.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 0u);
}

TEST_F(DayFileTrust, AnOrdinaryUserCannotReplaceAnotherOnesFile) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file to another user";
    WriteFile(morning, kGood);
    fs::permissions(morning, fs::perms{0666});
    ASSERT_EQ(::chown(morning.c_str(), kOtherUser, kOtherUser), 0);
    {
        const EffectiveUser ordinary(kNobody);
        ExpectRefusedForWriting();
    }

    EXPECT_EQ(ReadFile(morning), kGood);
}

// ---- other names and sizes ----

TEST_F(DayFileTrust, AFileWithASecondNameIsNeitherLoadedNorWritten) {
    const std::string other = morning + ".other-name";
    WriteFile(morning, kGood);
    fs::create_hard_link(morning, other);

    ExpectRefusedForLoading("it has another name too, remove it");
    ExpectRefusedForWriting();
    EXPECT_EQ(ReadFile(other), kGood);

    fs::remove(other);
}

TEST_F(DayFileTrust, AFileOfUpTo64MegabytesIsLoaded) {
    constexpr std::uintmax_t kLargest = 64U << 20;
    WriteFile(morning, kGood);
    fs::resize_file(morning, kLargest);

    LogOf([this] { EXPECT_EQ(bin.CheckOrLoadBinFile(), 0); });

    EXPECT_THAT(insts, ElementsAre(Pair("SR505", 1)));

    insts.clear();
    fs::resize_file(morning, kLargest + 1);
    ExpectRefusedForLoading("it is far too large, remove it");
}

// ---- errors of the system ----

TEST_F(DayFileTrust, AReadErrorLoadsNothing) {
    WriteFile(morning, kGood);
    const FailingCall broken(FailingCall::kRead, EIO);

    ExpectNotReadable();
}

TEST_F(DayFileTrust, AnInterruptedReadIsRepeated) {
    WriteFile(morning, kGood);
    int result = -2;

    LogOf([&] {
        const FailingCall interrupted(FailingCall::kRead, EINTR, 2);
        result = bin.CheckOrLoadBinFile();
    });

    EXPECT_EQ(result, 0);
}

TEST_F(DayFileTrust, AFileWhoseKindCannotBeHadIsNotUsed) {
    WriteFile(morning, kGood);
    const FailingCall unknown(FailingCall::kFstat, EIO);

    ExpectRefusedForLoading("it is not a regular file, remove it");
    ExpectRefusedForWriting();
    EXPECT_EQ(ReadFile(morning), kGood);
}

}  // namespace
