#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <type_traits>

#include "tests/unit/dayfile/DayFileFixture.h"
#include "tests/unit/log/Interposed.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

namespace fs = std::filesystem;

class DayFileWrite : public DayFile {
protected:
    std::string FailedWrite(const std::string& why) const {
        return "WARN write contract index file failed " + morning + ", msg:" + why +
               ". It stays without its end tag, the next start won't load it.";
    }
    std::string LostLines(int count) const {
        return "WARN contract index file " + morning + " is not complete, lost lines: " + std::to_string(count) + '.';
    }
    std::string Incomplete(const std::string& why) const {
        return "WARN contract index file " + morning + " lacks an instrument, " + why +
               ". It stays without its end tag, the next start won't load it.";
    }
};

static_assert(std::has_virtual_destructor<CBrixBinFile>::value, "may be deleted through a base");

constexpr char kHeader[] = "inst_index,inst_id\n";

TEST_F(DayFileWrite, InitCreatesTheFileWithItsHeader) {
    int result = -2;

    log = LogOf([&] { result = bin.InstBinFileInit(); });

    EXPECT_EQ(result, 0);
    EXPECT_EQ(ReadFile(morning), kHeader);
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(DayFileWrite, FromFiveInTheAfternoonTheEveningFileIsWritten) {
    clock.Advance(7 * 3600);

    bin.InstBinFileInit();

    EXPECT_EQ(ReadFile(evening), kHeader);
    EXPECT_FALSE(fs::exists(morning));
}

TEST_F(DayFileWrite, InitDiscardsAnOlderFileOfTheHalfDay) {
    WriteFile(morning, "inst_index,inst_id\n1,OLD\nbin_file_over_tag\n");

    bin.InstBinFileInit();

    EXPECT_EQ(ReadFile(morning), kHeader);
}

TEST_F(DayFileWrite, EachLineIsInTheFileWhenItsCallReturns) {
    bin.InstBinFileInit();

    bin.WriteBinFileInst("SR505", 0);
    EXPECT_EQ(ReadFile(morning), "inst_index,inst_id\n0,SR505\n");

    bin.WriteBinFileInst("SPD-SR505/SR509", 65535);
    EXPECT_EQ(ReadFile(morning), "inst_index,inst_id\n0,SR505\n65535,SPD-SR505/SR509\n");

    bin.WriteBinFileEnd();
    EXPECT_EQ(ReadFile(morning), "inst_index,inst_id\n0,SR505\n65535,SPD-SR505/SR509\nbin_file_over_tag\n");
}

TEST_F(DayFileWrite, WhatOneProcessWroteTheNextOneLoads) {
    InstMap written;
    {
        CBrixBinFile writer(written, 0);
        writer.InstBinFileInit();
        writer.WriteBinFileInst("SR505C6000", 4094);
        writer.WriteBinFileInst("IPS-SF505/SM505", 12);
        writer.WriteBinFileEnd();
    }

    LogOf([this] { EXPECT_EQ(bin.CheckOrLoadBinFile(), 0); });

    EXPECT_EQ(insts, (InstMap{{"SR505C6000", 4094}, {"IPS-SF505/SM505", 12}}));
}

TEST_F(DayFileWrite, WithoutInitNothingIsWrittenAndNothingLogged) {
    log = LogOf([this] {
        bin.WriteBinFileInst("SR505", 1);
        bin.WriteBinFileEnd();
    });

    EXPECT_THAT(log, IsEmpty());
    EXPECT_FALSE(fs::exists(morning));
}

TEST_F(DayFileWrite, ASecondInitGoesOnInTheFileOfItsOwnHalfDay) {
    bin.InstBinFileInit();
    clock.Advance(7 * 3600);

    bin.InstBinFileInit();
    bin.WriteBinFileInst("SR505", 1);

    EXPECT_EQ(ReadFile(morning), kHeader);
    EXPECT_EQ(ReadFile(evening), "inst_index,inst_id\n1,SR505\n");
}

TEST_F(DayFileWrite, TheDestructorClosesTheFile) {
    const std::size_t before = OpenDescriptors();
    auto writer = std::make_unique<CBrixBinFile>(insts, 0);
    writer->InstBinFileInit();

    writer.reset();

    EXPECT_EQ(OpenDescriptors(), before);
}

// ---- a disk that is full ----

/// A disk with room for so many bytes of the file: one short write when it fills up, then errors.
class FullDisk {
public:
    explicit FullDisk(std::size_t room)
        : m_room(room), m_hook([this](int fd, const void* buf, std::size_t size) { return Take(fd, buf, size); }) {}

    int Attempts() const { return m_attempts; }

private:
    ssize_t Take(int fd, const void* buf, std::size_t size) {
        ++m_attempts;
        if (m_room == 0) {
            errno = ENOSPC;
            return -1;
        }
        const std::size_t taken = std::min(size, m_room);
        m_room -= taken;
        return WriteHook::Real(fd, buf, taken);
    }

    std::size_t m_room;
    int m_attempts = 0;
    WriteHook m_hook;
};

TEST_F(DayFileWrite, AFullDiskIsLoggedOnceWithTheLostLinesAndTheFileGetsNoEndTag) {
    const std::string whole = "inst_index,inst_id\n1,SR505\n22,SR507\nbin_file_over_tag\n";
    const std::size_t first = whole.find("22,");
    const std::size_t second = whole.find("bin");
    for (std::size_t room = 0; room < whole.size(); ++room) {
        log = LogOf([this, room] {
            const FullDisk disk(room);
            EXPECT_EQ(bin.InstBinFileInit(), 0);
            bin.WriteBinFileInst("SR505", 1);
            bin.WriteBinFileInst("SR507", 22);
            bin.WriteBinFileEnd();
            bin.WriteBinFileEnd();
        });

        EXPECT_EQ(ReadFile(morning), whole.substr(0, room));
        std::vector<std::string> expected;
        if (room < whole.size()) expected.push_back(FailedWrite("No space left on device"));
        if (room < second) expected.push_back(LostLines(room < first ? 2 : 1));
        EXPECT_EQ(log, expected) << "room for " << room << " bytes";
    }
}

TEST_F(DayFileWrite, AfterAFailedWriteNothingIsTriedAgain) {
    int attempts = 0;

    LogOf([this, &attempts] {
        const FullDisk disk(0);
        bin.InstBinFileInit();
        bin.WriteBinFileInst("SR505", 1);
        bin.WriteBinFileEnd();
        attempts = disk.Attempts();
    });

    EXPECT_EQ(attempts, 1);
}

TEST_F(DayFileWrite, AFailedWriteOfTheEndTagLeavesAFileThatIsNotLoaded) {
    log = LogOf([this] {
        const FullDisk disk(std::string("inst_index,inst_id\n1,SR505\nbin_file").size());
        bin.InstBinFileInit();
        bin.WriteBinFileInst("SR505", 1);
        bin.WriteBinFileEnd();
    });

    LogOf([this] { EXPECT_EQ(bin.CheckOrLoadBinFile(), -1); });
}

TEST_F(DayFileWrite, AWriteThatTakesNothingCountsAsFailed) {
    log = LogOf([this] {
        const WriteHook stuck([](int, const void*, std::size_t) -> ssize_t {
            errno = EINTR;  // left by some call before, and without a meaning here
            return 0;
        });
        bin.InstBinFileInit();
    });

    EXPECT_THAT(log, ElementsAre(FailedWrite("Input/output error")));
}

TEST_F(DayFileWrite, AnInterruptedWriteIsRepeated) {
    int interruptions = 3;
    const WriteHook interrupted([&interruptions](int fd, const void* buf, std::size_t size) -> ssize_t {
        if (interruptions-- <= 0) return WriteHook::Real(fd, buf, size);
        errno = EINTR;
        return -1;
    });

    bin.InstBinFileInit();

    EXPECT_EQ(ReadFile(morning), kHeader);
}

TEST_F(DayFileWrite, AShortWriteIsContinued) {
    const WriteHook slow(
        [](int fd, const void* buf, std::size_t size) { return WriteHook::Real(fd, buf, size < 3 ? size : 3); });

    bin.InstBinFileInit();

    EXPECT_EQ(ReadFile(morning), kHeader);
}

TEST_F(DayFileWrite, AFileThatCannotBeEmptiedIsNotUsed) {
    WriteFile(morning, "1,OLD\n");
    const FailingCall readOnly(FailingCall::kFtruncate, EROFS);
    int result = 0;

    log = LogOf([&] { result = bin.InstBinFileInit(); });

    EXPECT_EQ(result, -1);
    EXPECT_THAT(log, ElementsAre("WARN open contract index file failed " + morning + "."));
}

TEST_F(DayFileWrite, LostLinesAreReportedAtTheLatestWhenTheObjectEnds) {
    auto writer = std::make_unique<CBrixBinFile>(insts, 0);
    log = LogOf([&] {
        const FullDisk disk(std::string(kHeader).size());
        writer->InstBinFileInit();
        writer->WriteBinFileInst("SR505", 1);
    });
    EXPECT_THAT(log, ElementsAre(FailedWrite("No space left on device")));

    log = LogOf([&] { writer.reset(); });

    EXPECT_THAT(log, ElementsAre(LostLines(1)));
}

TEST_F(DayFileWrite, AFileBegunAfreshAfterAFullDiskGetsItsEndTag) {
    LogOf([this] {
        const FullDisk disk(0);
        bin.InstBinFileInit();
    });

    bin.InstBinFileInit();
    bin.WriteBinFileInst("SR505", 1);
    bin.WriteBinFileEnd();

    EXPECT_EQ(ReadFile(morning), "inst_index,inst_id\n1,SR505\nbin_file_over_tag\n");
}

// ---- a file that lacks an instrument ----

TEST_F(DayFileWrite, AnIdentifierWithALineFeedIsLeftOutAndTheFileGetsNoEndTag) {
    bin.InstBinFileInit();

    log = LogOf([this] {
        bin.WriteBinFileInst("SR505\nbin_file_over_tag", 1);
        bin.WriteBinFileInst("SR507\n", 2);
        bin.WriteBinFileInst("SR509", 3);
        bin.WriteBinFileEnd();
        bin.WriteBinFileEnd();
    });

    EXPECT_EQ(ReadFile(morning), "inst_index,inst_id\n3,SR509\n");
    EXPECT_THAT(log, ElementsAre(Incomplete("its id has a line feed"), LostLines(2)));
}

TEST_F(DayFileWrite, AnIdentifierWithALineFeedIsNotMentionedWithoutAFile) {
    log = LogOf([this] {
        bin.WriteBinFileInst("SR507\n", 2);
        bin.WriteBinFileEnd();
    });

    EXPECT_THAT(log, IsEmpty());
}

TEST_F(DayFileWrite, AFileThatIsMarkedIncompleteGetsNoEndTag) {
    bin.InstBinFileInit();

    log = LogOf([this] {
        bin.markIncomplete("memory is short");
        bin.markIncomplete("memory is short");
        bin.WriteBinFileInst("SR509", 3);
        bin.WriteBinFileEnd();
    });

    EXPECT_EQ(ReadFile(morning), "inst_index,inst_id\n3,SR509\n");
    EXPECT_THAT(log, ElementsAre(Incomplete("memory is short")));
}

TEST_F(DayFileWrite, AnInstrumentThatIsMissingBehindTheEndTagTakesTheTagAway) {
    bin.InstBinFileInit();
    bin.WriteBinFileInst("SR505", 1);
    bin.WriteBinFileEnd();
    bin.WriteBinFileInst("SR506", 2);
    bin.WriteBinFileEnd();

    log = LogOf([this] {
        bin.WriteBinFileInst("SR507\n", 3);
        bin.WriteBinFileInst("SR509", 4);
        bin.WriteBinFileEnd();
    });

    EXPECT_EQ(ReadFile(morning), "inst_index,inst_id\n1,SR505\n4,SR509\n");
    EXPECT_THAT(log, ElementsAre(Incomplete("its id has a line feed"), LostLines(1)));
}

TEST_F(DayFileWrite, ALineThatDoesNotFitBehindTheEndTagTakesTheTagAway) {
    bin.InstBinFileInit();
    bin.WriteBinFileInst("SR505", 1);
    bin.WriteBinFileEnd();

    log = LogOf([this] {
        const FullDisk disk(3);
        bin.WriteBinFileInst("SR507", 22);
    });

    EXPECT_EQ(ReadFile(morning), "inst_index,inst_id\n1,SR505\n");
    EXPECT_THAT(log, ElementsAre(FailedWrite("No space left on device")));
}

TEST_F(DayFileWrite, AFailedWriteAfterTheTagWasTakenAwayLeavesTheLinesBefore) {
    bin.InstBinFileInit();
    bin.WriteBinFileInst("SR505", 1);
    bin.WriteBinFileEnd();
    bin.markIncomplete("memory is short");
    bin.WriteBinFileInst("SR506", 2);

    const FullDisk disk(0);
    bin.WriteBinFileInst("SR507", 3);

    EXPECT_EQ(ReadFile(morning), "inst_index,inst_id\n1,SR505\n2,SR506\n");
}

TEST_F(DayFileWrite, AnEndTagThatCannotBeTakenAwayIsReported) {
    bin.InstBinFileInit();
    bin.WriteBinFileEnd();

    log = LogOf([this] {
        const FailingCall broken(FailingCall::kFtruncate, EIO);
        bin.markIncomplete("memory is short");
    });

    EXPECT_THAT(log, ElementsAre(Incomplete("memory is short"), "WARN contract index file " + morning +
                                                                    " keeps the end tag that it has already, remove "
                                                                    "it."));
}

TEST_F(DayFileWrite, AnIdentifierOfAnyLengthIsWrittenWhole) {
    bin.InstBinFileInit();
    std::string expected = kHeader;
    for (std::size_t length = 0; length <= 300; ++length) {
        bin.WriteBinFileInst(std::string(length, 'A'), 65535);
        expected += "65535," + std::string(length, 'A') + '\n';
    }

    EXPECT_EQ(ReadFile(morning), expected);
}

TEST_F(DayFileWrite, OthersMayReadTheFileAndNotWriteIt) {
    const mode_t before = ::umask(0);
    bin.InstBinFileInit();
    ::umask(before);

    EXPECT_EQ(fs::status(morning).permissions(), fs::perms{0644});
}

}  // namespace
