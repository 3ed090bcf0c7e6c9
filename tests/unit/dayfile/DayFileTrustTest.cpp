#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
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

constexpr char kLink[] = "it is a symbolic link, remove it";
constexpr char kNotRegular[] = "it is not a regular file, remove it";
constexpr char kAfresh[] = "inst_index,inst_id\n2,SR507\nbin_file_over_tag\n";
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

    void ExpectRefusedForWriting(const std::string& why) {
        int result = 0;

        log = LogOf([&] {
            result = bin.InstBinFileInit();
            bin.WriteBinFileInst("SR505", 1);
            bin.WriteBinFileEnd();
        });

        EXPECT_EQ(result, -1);
        EXPECT_THAT(log, ElementsAre("WARN contract index file " + morning + " is not written, " + why + '.',
                                     "WARN open contract index file failed " + morning + "."));
    }

    /// The system itself does not open it.
    void ExpectNotWritable() {
        int result = 0;

        log = LogOf([&] { result = bin.InstBinFileInit(); });

        EXPECT_EQ(result, -1);
        EXPECT_THAT(log, ElementsAre("WARN open contract index file failed " + morning + "."));
    }

    /// The whole life of a file that is written: what stands in it afterwards.
    std::string Written() {
        EXPECT_EQ(bin.InstBinFileInit(), 0);
        bin.WriteBinFileInst("SR507", 2);
        bin.WriteBinFileEnd();
        return ReadFile(morning);
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

    ExpectRefusedForLoading(kLink);
}

TEST_F(DayFileTrust, ASymbolicLinkIsNotFollowedForWriting) {
    fs::create_symlink(dir.Write("target", "precious"), morning);

    ExpectRefusedForWriting(kLink);

    EXPECT_EQ(dir.Read("target"), "precious");
    EXPECT_TRUE(fs::is_symlink(morning));
}

TEST_F(DayFileTrust, ALinkToNothingCreatesNothing) {
    fs::create_symlink(dir.Path("target"), morning);

    ExpectRefusedForWriting(kLink);

    EXPECT_FALSE(fs::exists(dir.Path("target")));
}

TEST_F(DayFileTrust, ALinkToNothingIsNotTakenForAMissingFile) {
    fs::create_symlink(dir.Path("target"), morning);

    ExpectRefusedForLoading(kLink);
}

// ---- what is not a regular file ----

TEST_F(DayFileTrust, ADirectoryIsNotLoaded) {
    fs::create_directory(morning);

    ExpectRefusedForLoading(kNotRegular);
}

TEST_F(DayFileTrust, ADirectoryIsNotWritten) {
    fs::create_directory(morning);

    ExpectNotWritable();
}

// Waits for ever when the open does.
TEST_F(DayFileTrust, AFifoBlocksNeitherLoadingNorWriting) {
    MakeFifo();

    ExpectRefusedForLoading(kNotRegular);
    ExpectRefusedForWriting(kNotRegular);
}

TEST_F(DayFileTrust, AFifoThatSomebodyReadsGetsNothing) {
    MakeFifo();
    const int reader = ::open(morning.c_str(), O_RDONLY | O_NONBLOCK);

    ExpectRefusedForWriting(kNotRegular);

    char byte = 0;
    EXPECT_EQ(::read(reader, &byte, 1), 0);
    ::close(reader);
}

TEST_F(DayFileTrust, ASocketIsNeitherLoadedNorWritten) {
    MakeSocket();

    ExpectNotReadable();
    ExpectRefusedForWriting(kNotRegular);
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
    ExpectNotWritable();
}

TEST_F(DayFileTrust, RootEmptiesAnotherUsersFileInPlaceSoThatThisUserCanStillWriteIt) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file to another user";
    WriteFile(morning, kGood);
    ASSERT_EQ(::chown(morning.c_str(), kOtherUser, kOtherUser), 0);
    struct stat before {};
    ASSERT_EQ(::stat(morning.c_str(), &before), 0);

    EXPECT_EQ(Written(), kAfresh);

    struct stat after {};
    ASSERT_EQ(::stat(morning.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_uid, kOtherUser);
    const EffectiveUser owner(kOtherUser);
    EXPECT_EQ(Written(), kAfresh);
}

TEST_F(DayFileTrust, WhatIsWrittenIntoAnotherUsersFileIsNotLoaded) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file to another user";
    WriteFile(morning, kGood);
    ASSERT_EQ(::chown(morning.c_str(), kOtherUser, kOtherUser), 0);
    EXPECT_EQ(Written(), kAfresh);

    ExpectRefusedForLoading("another user owns it, remove it");
}

TEST_F(DayFileTrust, AFileThatItsOwnerLetsEverybodyWriteIsEmptiedInPlace) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file to another user";
    WriteFile(morning, kGood);
    fs::permissions(morning, fs::perms{0666});
    ASSERT_EQ(::chown(morning.c_str(), kOtherUser, kOtherUser), 0);
    const EffectiveUser ordinary(kNobody);

    EXPECT_EQ(Written(), kAfresh);
}

// ---- locks ----

/// A lock of another open file, which conflicts with those of this process as a lock of another process does.
class ForeignLock {
public:
    ForeignLock(const std::string& path, int flags, short type) : m_fd(::open(path.c_str(), flags | O_CLOEXEC)) {
        struct flock whole {};
        whole.l_type = type;
        held = ::fcntl(m_fd, F_OFD_SETLK, &whole) == 0;
    }
    ~ForeignLock() { ::close(m_fd); }
    ForeignLock(const ForeignLock&) = delete;
    ForeignLock& operator=(const ForeignLock&) = delete;

    bool held;

private:
    int m_fd;
};

TEST_F(DayFileTrust, AReadersLockDoesNotKeepTheFileFromBeingRewritten) {
    WriteFile(morning, kGood);
    const ForeignLock reader(morning, O_RDONLY, F_RDLCK);
    ASSERT_TRUE(reader.held);

    log = LogOf([this] { EXPECT_EQ(Written(), kAfresh); });

    EXPECT_THAT(log, IsEmpty());
}

TEST_F(DayFileTrust, TheFileIsLockedAsSoonAsItsReaderGoes) {
    WriteFile(morning, kGood);
    {
        const ForeignLock reader(morning, O_RDONLY, F_RDLCK);
        bin.InstBinFileInit();
        EXPECT_TRUE(ForeignLock(morning, O_RDONLY, F_RDLCK).held);
    }

    bin.WriteBinFileInst("SR507", 2);

    EXPECT_FALSE(ForeignLock(morning, O_RDONLY, F_RDLCK).held);
}

// Two writers can only meet while a reader keeps both from the lock.
TEST_F(DayFileTrust, AWriterThatFindsAnotherOnesTextInTheFileStopsAndLeavesItAlone) {
    for (const bool atEnd : {false, true}) {
        WriteFile(morning, kGood);
        const ForeignLock reader(morning, O_RDONLY, F_RDLCK);
        bin.InstBinFileInit();
        bin.WriteBinFileInst("SR507", 2);
        WriteFile(morning, "inst_index,inst_id\n");

        log = LogOf([&] {
            if (!atEnd) bin.WriteBinFileInst("SR509", 3);
            bin.WriteBinFileEnd();
        });

        EXPECT_EQ(ReadFile(morning), "inst_index,inst_id\n");
        ASSERT_FALSE(log.empty());
        EXPECT_EQ(log[0], "WARN write contract index file failed " + morning +
                              ", msg:another process writes it too. It stays without its end tag, the next start "
                              "won't load it.");
    }
}

TEST_F(DayFileTrust, AFileThatAnotherProcessIsWritingIsLeftAlone) {
    WriteFile(morning, "1,SR505\n");
    const ForeignLock writer(morning, O_RDWR, F_WRLCK);
    ASSERT_TRUE(writer.held);

    ExpectRefusedForWriting("another process is writing it");

    EXPECT_EQ(ReadFile(morning), "1,SR505\n");
}

TEST_F(DayFileTrust, TheProcessThatWritesTheFileIsNamed) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        bin.InstBinFileInit();
        ::close(ready[1]);
        ::pause();
    }
    ::close(ready[1]);
    char byte;
    EXPECT_EQ(::read(ready[0], &byte, 1), 0);

    ExpectRefusedForWriting("process " + std::to_string(child) + " is writing it");

    ::close(ready[0]);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(Written(), kAfresh) << "its lock ends with it";
}

TEST_F(DayFileTrust, AFileThatIsBeingWrittenIsLockedForOthers) {
    bin.InstBinFileInit();

    EXPECT_FALSE(ForeignLock(morning, O_RDWR, F_WRLCK).held);
}

// ---- other names and sizes ----

TEST_F(DayFileTrust, AFileWithASecondNameIsNeitherLoadedNorWritten) {
    const std::string other = morning + ".other-name";
    WriteFile(morning, kGood);
    fs::create_hard_link(morning, other);

    ExpectRefusedForLoading("it has another name too, remove it");
    ExpectRefusedForWriting("it has another name too, remove it");
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

    ExpectRefusedForLoading(kNotRegular);
    ExpectRefusedForWriting(kNotRegular);
    EXPECT_EQ(ReadFile(morning), kGood);
}

}  // namespace
