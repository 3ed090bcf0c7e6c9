#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tests/unit/log/Interposed.h"
#include "tests/unit/log/LogFixture.h"

namespace {

using testing::IsEmpty;

constexpr std::size_t kLineSize = 2048;
constexpr std::size_t kHugeSize = 2048000;

using RawOutput = StartedLog;

// What a raw output of `size` bytes of room gives for `length` letters: the text's terminator is the last byte of the
// room, and it is written like the others.
std::string CutRaw(std::size_t length, std::size_t size) {
    return length < size ? std::string(length, 'a') : std::string(size - 1, 'a') + '\0';
}

TEST_F(RawOutput, IsTheFormattedTextAloneInBothPlaces) {
    const std::string printed = Printed([] {
        elog_raw("row %d, ", 7);
        elog_raw_huge("%s\n", "end");
    });

    EXPECT_EQ(printed, "row 7, end\n");
    EXPECT_EQ(dir.Read(kToday), printed);
}

TEST_F(RawOutput, KnowsNoLevel) {
    elog_set_filter_lvl(0);

    EXPECT_EQ(Printed([] {
                  elog_raw("line");
                  elog_raw_huge("huge");
              }),
              "linehuge");
}

TEST_F(RawOutput, WritesNothingWhileOutputIsDisabled) {
    elog_set_output_enabled(false);

    EXPECT_THAT(Printed([] {
                    elog_raw("line");
                    elog_raw_huge("huge");
                }),
                IsEmpty());
    EXPECT_THAT(dir.Read(kToday), IsEmpty());
}

TEST_F(RawOutput, IsCutAt2048Bytes) {
    for (const std::size_t length : {kLineSize - 2, kLineSize - 1, kLineSize, kLineSize + 1, 3 * kLineSize}) {
        const std::string text(length, 'a');

        EXPECT_EQ(Printed([&text] { elog_raw("%s", text.c_str()); }), CutRaw(length, kLineSize)) << length;
    }
}

TEST_F(RawOutput, HugeIsCutAt2048000Bytes) {
    for (const std::size_t length : {kLineSize, kHugeSize - 1, kHugeSize, kHugeSize + 1, kHugeSize + 5000}) {
        const std::string text(length, 'a');

        const std::string printed = Printed([&text] { elog_raw_huge("%s", text.c_str()); });

        EXPECT_TRUE(printed == CutRaw(length, kHugeSize)) << length << " letters gave " << printed.size() << " bytes";
    }
}

TEST_F(RawOutput, AnEmptyTextAndOneThatCannotBeFormattedWriteNothing) {
    const wchar_t unknown[] = {static_cast<wchar_t>(0xFFFFFFF), 0};

    EXPECT_THAT(Printed([&unknown] {
                    elog_raw("%s", "");
                    elog_raw("%ls", unknown);
                    elog_raw_huge("%ls", unknown);
                }),
                IsEmpty());
}

TEST_F(RawOutput, PortOutputWritesExactlyTheBytesItIsGiven) {
    const std::string bytes("a\0b%s\n", 6);

    EXPECT_EQ(Printed([&bytes] { elog_port_output(bytes.data(), bytes.size() - 1); }), bytes.substr(0, 5));
    EXPECT_EQ(dir.Read(kToday), bytes.substr(0, 5));
}

TEST_F(RawOutput, FileWriteReachesTheFileAlone) {
    EXPECT_THAT(Printed([] { elog_file_write("text\n", 5); }), IsEmpty());

    EXPECT_EQ(dir.Read(kToday), "text\n");
}

// ---- the file under the log ----

TEST_F(RawOutput, AShortWriteGoesOnWhereItStopped) {
    const WriteHook slow([](int fd, const void* buf, std::size_t size) {
        return WriteHook::Real(fd, buf, std::min<std::size_t>(size, 3));
    });

    Printed([] { elog_raw("0123456789\n"); });

    EXPECT_EQ(dir.Read(kToday), "0123456789\n");
}

TEST_F(RawOutput, AnInterruptedWriteIsRepeated) {
    int interruptions = 2;
    const WriteHook interrupted([&interruptions](int fd, const void* buf, std::size_t size) -> ssize_t {
        if (interruptions-- <= 0) return WriteHook::Real(fd, buf, size);
        errno = EINTR;
        return -1;
    });

    Printed([] { elog_raw("text\n"); });

    EXPECT_EQ(dir.Read(kToday), "text\n");
}

TEST_F(RawOutput, AFullDiskLosesTheLineInTheFileAndStopsNothing) {
    int writes = 0;
    const WriteHook full([&writes](int, const void*, std::size_t) -> ssize_t {
        ++writes;
        errno = ENOSPC;
        return -1;
    });

    EXPECT_EQ(Printed([] { elog_raw("text\n"); }), "text\n");
    EXPECT_EQ(writes, 1) << "a write that fails is not repeated";
}

TEST_F(RawOutput, AWriteOfNothingEndsTheAttempt) {
    int writes = 0;
    const WriteHook stuck([&writes](int, const void*, std::size_t) -> ssize_t { return ++writes, 0; });

    Printed([] { elog_raw("text\n"); });

    EXPECT_EQ(writes, 1);
}

// ---- errno ----

TEST_F(RawOutput, NoOutputChangesErrno) {
    const WriteHook full([](int, const void*, std::size_t) -> ssize_t {
        errno = ENOSPC;
        return -1;
    });
    std::vector<int> after;
    const auto keep = [&after](auto output) {
        errno = 77;
        output();
        after.push_back(errno);
    };

    Printed([&keep] {
        keep([] { elog_output(kInfo, "fpga", "file", "func", 1, "text"); });
        keep([] { elog_output_from_handler(kInfo, "fpga", "file", "func", 1, "text", 0); });
        keep([] { elog_raw("text"); });
        keep([] { elog_raw_huge("text"); });
        keep([] { elog_hexdump("name", 16, "text", 4); });
    });

    EXPECT_EQ(after, std::vector<int>(5, 77));
}

}  // namespace
