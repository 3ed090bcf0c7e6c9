// What a scenario file must not contain, and what its author is told.

#include <sys/stat.h>
#include <unistd.h>

#include "tests/unit/sim/scenario/ScenarioFixture.h"

using namespace vexo_sim;
using namespace vexo_sim::scenario;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

struct ErrorCase {
    const char* name;
    const char* content;
    const char* error;
};

class ScenarioError : public ScenarioTest, public ::testing::WithParamInterface<ErrorCase> {};

}  // namespace

TEST_P(ScenarioError, IsToldWithFileAndLine) {
    write("list.txt", "0,0,SR505\n");
    EXPECT_EQ(errorOf(GetParam().content), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    , ScenarioError,
    ::testing::Values(
        ErrorCase{"UnknownSection", "\n[cards]\n",
                  "a.ini:2: there is no section [cards]; use scenario, card, instruments, quotes, pace, replay or "
                  "fault NAME"},
        ErrorCase{"UnknownKey", "[pace]\n\nspeed = 1\n", "a.ini:3: [pace] has no key speed; use pace"},
        ErrorCase{"KeyOfAnotherSection", "[quotes]\nseed = 1\n",
                  "a.ini:2: [quotes] has no key seed; use per_second, per_instrument, burst_every_s, burst_ms, "
                  "burst_factor"},
        ErrorCase{"DuplicateKey", "[card]\nseed = 1\n\nSEED = 2\n",
                  "a.ini:4: key seed is in line 2 already; remove one of the two"},
        ErrorCase{"DuplicateSection", "[card]\nseed = 1\n[pace]\n[Card]\n",
                  "a.ini:4: section [card] begins in line 1 already; put its keys together, or choose another name"},
        ErrorCase{"KeyBeforeAnySection", "seed = 1\n", "a.ini:1: key seed belongs to no section; write one above it"},
        ErrorCase{"NeitherSectionNorKey", "[card]\nseed\n",
                  "a.ini:2: this is neither a section nor a key; write [section], or key = value"},
        ErrorCase{"SectionWithoutEnd", "[card\n", "a.ini:1: this is no section; write [name]"},
        ErrorCase{"TextBehindASection", "[card] seed = 1\n", "a.ini:1: this is no section; write [name]"},
        ErrorCase{"NoValue", "[card]\nseed =\n", "a.ini:2: seed: there is no value; give one, or remove the key"},
        ErrorCase{"ContinuedLine", "[card]\nseed = 1\\\n2\n",
                  "a.ini:2: the line ends in a backslash; write a value in one line"},
        ErrorCase{"ControlCharacter", "[card]\nseed = \x01\n",
                  "a.ini:2: the line has a control character in it; write plain text"},
        ErrorCase{"NotANumber", "[card]\nseed = many\n",
                  "a.ini:2: seed: \"many\" will not do; give a number from 0 to 18446744073709551615"},
        ErrorCase{"NumberWithATail", "[card]\nmtu = 4096b\n",
                  "a.ini:2: mtu: \"4096b\" will not do; give a number from 512 to 65536"},
        ErrorCase{"NumberTooLarge", "[quotes]\nper_second = 100000001\n",
                  "a.ini:2: per_second: \"100000001\" will not do; give a number from 0 to 100000000"},
        ErrorCase{"NumberTooSmall", "[card]\nmap_round_ms = 0\n",
                  "a.ini:2: map_round_ms: \"0\" will not do; give a number from 1 to 3600000"},
        ErrorCase{"NegativeNumber", "[card]\nlearning_ms = -1\n",
                  "a.ini:2: learning_ms: \"-1\" will not do; give a number from 0 to 3600000"},
        ErrorCase{"Bus", "[card]\nbus = 5\n", "a.ini:2: bus: \"5\" will not do; give a number from 0 to 4"},
        ErrorCase{"Date", "[card]\ndate = 20250230\n", "a.ini:2: date: \"20250230\" is no date; write YYYYMMDD"},
        ErrorCase{"Clock", "[card]\nclock = 24:00:00\n",
                  "a.ini:2: clock: \"24:00:00\" is no time of day; write HH:MM:SS"},
        ErrorCase{"ShortClock", "[card]\nclock = 9:30\n", "a.ini:2: clock: \"9:30\" is no time of day; write HH:MM:SS"},
        ErrorCase{"ClockAndOffset", "[card]\nclock = 09:30:00\nclock_offset = 1\n",
                  "a.ini:2: clock: it excludes clock_offset; remove one of the two"},
        ErrorCase{"Word", "[instruments]\nlist = some\n",
                  "a.ini:2: list: \"some\" will not do; choose from default, full, none"},
        ErrorCase{"Pace", "[pace]\npace = 10\n", "a.ini:2: pace: \"10\" will not do; write real, max, or x1 to x1000"},
        ErrorCase{"PaceFactor", "[pace]\npace = x1001\n",
                  "a.ini:2: pace: \"x1001\" will not do; write real, max, or x1 to x1000"},
        ErrorCase{"TwoInstrumentSources", "[instruments]\nlist = full\nfile = list.txt\n",
                  "a.ini:2: list: it excludes file; remove one of the two"},
        ErrorCase{"MissingList", "[instruments]\nfile = gone.txt\n",
                  "a.ini:2: file gone.txt: No such file or directory; paths are relative to the scenario's directory"},
        ErrorCase{"MissingDayFile", "[instruments]\nday_file = gone\n",
                  "a.ini:2: file gone: No such file or directory; paths are relative to the scenario's directory"},
        ErrorCase{"MissingCapture", "[replay]\nfile = gone.pcapng\n",
                  "a.ini:2: file gone.pcapng: No such file or directory; paths are relative to the scenario's "
                  "directory"},
        ErrorCase{"CaptureIsADirectory", "[replay]\nfile = .\n", "a.ini:2: file . is not a regular file; name one"},
        ErrorCase{"ReplayOfNothing", "\n[replay]\n",
                  "a.ini:2: [replay] needs the key file; give it, or remove the section"},
        ErrorCase{"MapOfNoReplay", "[replay]\nmap = card\n",
                  "a.ini:1: [replay] needs the key file; give it, or remove the section"},
        ErrorCase{"ReplayWithQuotes", "[replay]\nfile = list.txt\n[quotes]\nper_second = 1\n",
                  "a.ini:3: a card that replays a capture sends no quotes of its own; remove [quotes] or [replay]"},
        ErrorCase{"BurstWithoutLength", "[quotes]\nburst_every_s = 1\n",
                  "a.ini:2: burst_every_s: a burst must end before the next; give burst_ms, and less of it"},
        ErrorCase{"BurstTooLong", "[quotes]\nburst_every_s = 1\nburst_ms = 1001\n",
                  "a.ini:2: burst_every_s: a burst must end before the next; give burst_ms, and less of it"},
        ErrorCase{"LengthOfNoBurst", "[quotes]\nburst_ms = 10\n",
                  "a.ini:2: burst_ms: there is no burst; give burst_every_s, or remove it"},
        ErrorCase{"FactorOfNoBurst", "[quotes]\nper_second = 10\nburst_factor = 10\n",
                  "a.ini:3: burst_factor: there is no burst; give burst_every_s, or remove it"},
        ErrorCase{"RingTooSmall", "[card]\nring_bytes = 4096\n",
                  "a.ini:2: ring_bytes: a ring of 4096 bytes does not hold two packets of 4096; give ring_bytes more, "
                  "or mtu less"},
        ErrorCase{"FaultWithoutKind", "\n[fault a]\nfirst = 1\n", "a.ini:2: [fault a] needs the key kind; give it"},
        ErrorCase{"UnknownKind", "[fault a]\nkind = fire\n",
                  "a.ini:2: kind: there is no kind fire; use drop, double, cut, runt, type, head_length, flip, "
                  "map_length, map_area, map_count, map_index, mask_refused, stream_held, stream_errors, busy_sends, "
                  "frozen_counters, running_counters, reset_ignored, card_stops, call_fails"},
        ErrorCase{"KeyOfAnotherKind", "[fault a]\nkind = runt\nbytes = 3\n",
                  "a.ini:3: a fault of kind runt has no key bytes; use kind, channels, packets, first, every, times, "
                  "per_million"},
        ErrorCase{"MissingKeyOfAKind", "[fault a]\nkind = cut\n", "a.ini:1: [fault a] needs the key bytes; give it"},
        ErrorCase{"Channel", "[fault a]\nkind = drop\nchannels = 16\n",
                  "a.ini:3: channels: \"16\" will not do; give numbers from 0 to 15 such as 0, 3, 5-7, or all"},
        ErrorCase{"MapPacketsOfAChannelWithoutMap", "[fault a]\nkind = drop\npackets = map\nchannels = 1-3, 15\n",
                  "a.ini:4: channels: contract-map packets are on channel 0 alone; add 0, or choose other packets"},
        ErrorCase{"NoChance", "[fault a]\nkind = drop\nper_million = 0\n",
                  "a.ini:3: per_million: \"0\" will not do; give a number from 1 to 1000000"},
        ErrorCase{"RangeBackwards", "[fault a]\nkind = drop\nchannels = 5-3\n",
                  "a.ini:3: channels: \"5-3\" will not do; give numbers from 0 to 15 such as 0, 3, 5-7, or all"},
        ErrorCase{"Sends", "[fault a]\nkind = busy_sends\nsends = 0\n",
                  "a.ini:3: sends: \"0\" will not do; give a number from 1 to 4294967294, or all"},
        ErrorCase{"Call", "[fault a]\nkind = call_fails\ncall = enyx_hw_filter_destroy\nerrno = EIO\n",
                  "a.ini:3: call: \"enyx_hw_filter_destroy\" is no call that can fail; see enyx-hw-c/enyx_hw.h"},
        ErrorCase{"ResultOfAPointerCall",
                  "[fault a]\nkind = call_fails\ncall = enyx_hw_mmio_create\nerrno = EIO\nresult = 1\n",
                  "a.ini:3: call: this call cannot fail with a result of its own; remove result"},
        ErrorCase{"Errno", "[fault a]\nkind = call_fails\ncall = enyx_hw_read\nerrno = EFOO\n",
                  "a.ini:4: errno: \"EFOO\" is no errno; write a name such as EIO, or a number"},
        ErrorCase{"CardThatNeverStops", "[fault a]\nkind = card_stops\n",
                  "a.ini:1: it is not said when the card stops; give after_packets or after_ms"},
        ErrorCase{"CardThatStopsTwice",
                  "[fault a]\nkind = card_stops\nafter_ms = 5\n[fault b]\nkind = card_stops\nafter_packets = 5\n",
                  "a.ini:4: another section says when the card stops; remove one of the two"},
        ErrorCase{"TwoNumbersOfIgnoredResets",
                  "[fault a]\nkind = reset_ignored\ntimes = 5\n[fault b]\nkind = reset_ignored\ntimes = all\n",
                  "a.ini:4: another section says how many resets are ignored; remove one of the two"},
        ErrorCase{"ErrorsOfNoCounter", "[fault a]\nkind = stream_errors\nchannels = 1\n",
                  "a.ini:1: it is not said which counter stands wrong; give fifo_errors or errors"},
        ErrorCase{"TwoKindsOfCounters", "[fault a]\nkind = running_counters\n[fault b]\nkind = frozen_counters\n",
                  "a.ini:3: the counters cannot be two things at once; remove this section"}),
    [](const auto& testCase) { return testCase.param.name; });

namespace {

struct ListCase {
    const char* name;
    const char* content;
    const char* error;
};

class InstrumentListError : public ScenarioTest, public ::testing::WithParamInterface<ListCase> {};
class DayFileError : public ScenarioTest, public ::testing::WithParamInterface<ListCase> {};

}  // namespace

TEST_P(InstrumentListError, IsToldWithFileAndLine) {
    write("list.txt", GetParam().content);
    EXPECT_EQ(errorOf("[instruments]\nfile = list.txt\n"), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    , InstrumentListError,
    ::testing::Values(
        ListCase{"Empty", "# none\n", "list.txt: the file names no instrument; add some, or write list = none"},
        ListCase{"TwoFields", "0,0,SR505\n1,SR509\n", "list.txt:2: this is no instrument; write index,table,id"},
        ListCase{"Index", "8192,0,SR505\n", "list.txt:1: \"8192\" is no index; give a number from 0 to 8191"},
        ListCase{"Table", "0,2,SR505\n", "list.txt:1: \"2\" is no table; write 0 (single) or 1 (combination)"},
        ListCase{"NoId", "0,0,\n", "list.txt:1: \"\" is no instrument id; give 1 to 31 characters without blanks"},
        ListCase{"LongId", "0,0,12345678901234567890123456789012\n",
                 "list.txt:1: \"12345678901234567890123456789012\" is no instrument id; give 1 to 31 characters "
                 "without blanks"},
        ListCase{"RowTwice", "5,0,SR505\n5,1,SPD-SR505/SR509\n5,0,SR509\n",
                 "list.txt:3: index 5 of this table is in line 1 already; give each its own"}),
    [](const auto& testCase) { return testCase.param.name; });

TEST_P(DayFileError, IsToldWithFileAndLine) {
    write("day", GetParam().content);
    EXPECT_EQ(errorOf("[instruments]\nday_file = day\n"), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    , DayFileError,
    ::testing::Values(ListCase{"Empty", "", "day:1: this is no day file; it begins with inst_index,inst_id"},
                      ListCase{"NoHeader", "0,SR505\nbin_file_over_tag\n",
                               "day:1: this is no day file; it begins with inst_index,inst_id"},
                      ListCase{"NoEndTag", "inst_index,inst_id\n0,SR505\n",
                               "day:2: the day file has no end tag, so it is not whole; take another"},
                      ListCase{"NoInstrument", "inst_index,inst_id\nbin_file_over_tag\n",
                               "day: the file names no instrument; add some, or write list = none"},
                      ListCase{"Line", "inst_index,inst_id\n0\nbin_file_over_tag\n",
                               "day:2: this is no line of a day file; it is index,id"}),
    [](const auto& testCase) { return testCase.param.name; });

TEST_F(ScenarioTest, FaultsOfMapPacketsMayNameOtherChannelsBesideTheirs) {
    EXPECT_EQ(errorOf("[fault a]\nkind = drop\npackets = map\nchannels = 0, 3\n"), "");
    EXPECT_EQ(errorOf("[fault a]\nkind = drop\npackets = all\nchannels = 3\n"), "");
}

TEST_F(ScenarioTest, AFileThatIsNotThereIsAnError) {
    std::string error;
    EXPECT_FALSE(load("gone.ini", error).has_value());
    EXPECT_EQ(error, "gone.ini: No such file or directory; check the path");
}

TEST_F(ScenarioTest, ADirectoryIsNoScenario) {
    std::string error;
    EXPECT_FALSE(load(".", error).has_value());
    EXPECT_EQ(error, ".: this is not a regular file; name a file of text");
}

TEST_F(ScenarioTest, AFifoDoesNotHang) {
    ASSERT_EQ(::mkfifo("fifo", 0600), 0);
    std::string error;
    EXPECT_FALSE(load("fifo", error).has_value());
    EXPECT_EQ(error, "fifo: this is not a regular file; name a file of text");
}

TEST_F(ScenarioTest, ADeviceDoesNotHang) {
    std::string error;
    EXPECT_FALSE(load("/dev/zero", error).has_value());
    EXPECT_EQ(error, "/dev/zero: this is not a regular file; name a file of text");
}

TEST_F(ScenarioTest, AHugeFileIsNotReadToItsEnd) {
    write("a.ini", "");
    ASSERT_EQ(::truncate("a.ini", 1LL << 40), 0);
    std::string error;
    EXPECT_FALSE(load("a.ini", error).has_value());
    EXPECT_EQ(error, "a.ini: the file is far too large; check the path");
}

TEST_F(ScenarioTest, ALongLineIsAnError) {
    EXPECT_EQ(errorOf("[scenario]\ndescription = " + std::string(1000, 'x') + "\n"),
              "a.ini:2: the line is too long; keep it below 1,000 characters");
}

TEST_F(ScenarioTest, MorePacketFaultsThanTheCardHoldsAreAnError) {
    std::string content;
    for (int n = 0; n < 33; ++n) content += "[fault " + std::to_string(n) + "]\nkind = drop\n";
    EXPECT_EQ(errorOf(content), "a.ini:65: there are more than 32 packet faults; remove some");
}

TEST_F(ScenarioTest, EveryCutOfAFileEitherLoadsOrIsAnErrorWithItsName) {
    write("list.txt", "0,0,SR505\n");
    const std::string whole =
        "[scenario]\ndescription = \"a; b\"\n[card]\nseed = 1\ndate = 20250303\nclock = 09:30:00\n"
        "[instruments]\nfile = list.txt\n[quotes]\nper_second = 10\nburst_every_s = 9\nburst_ms = 13\n"
        "[fault a]\nkind = cut\nchannels = 0, 5-7\nbytes = 6\n[fault b]\nkind = call_fails\ncall = enyx_hw_read\n"
        "errno = EIO\n";
    int good = 0;
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        const std::string error = errorOf(whole.substr(0, size));
        if (error.empty())
            ++good;
        else
            EXPECT_THAT(error, ::testing::MatchesRegex("(a.ini|list.txt)(:[0-9]+)?: .+; .+"));
    }
    EXPECT_GT(good, 30);
    EXPECT_EQ(errorOf(whole), "");
}

TEST_F(ScenarioTest, AnyByteAnywhereEitherLoadsOrIsAnError) {
    const std::string whole = "[card]\nseed = 12\n[fault a]\nkind = cut\nbytes = 6\n";
    for (std::size_t at = 0; at < whole.size(); ++at) {
        for (std::size_t byte = 0; byte < 256; byte += at % 5 + 1) {
            std::string spoiled = whole;
            spoiled[at] = static_cast<char>(byte);
            errorOf(spoiled);  // its own check: an error exactly when nothing was loaded
        }
    }
}
