// The files and the catalogue of a relay's archive, and what is left of them when something goes wrong.

#include <sqlite3.h>
#include <sys/resource.h>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "capture/Reader.h"
#include "tests/unit/sim/remote/Messages.h"
#include "tests/unit/tools/RelayArchiveFixture.h"
#include "tools/data/CaptureSource.h"

namespace relay {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/// No file grows beyond this many bytes, as on a full disk.
class FullDisk {
public:
    explicit FullDisk(rlim_t bytes) {
        ::getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit{bytes, m_before.rlim_max};
        m_handler = std::signal(SIGXFSZ, SIG_IGN);
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk() {
        ::setrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, m_handler);
    }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

private:
    rlimit m_before{};
    void (*m_handler)(int) = nullptr;
};

/// Another relay, which writes into the catalogue for a moment.
class OtherRelay {
public:
    explicit OtherRelay(const std::string& path) {
        sqlite3_open(path.c_str(), &m_database);
        sqlite3_busy_timeout(m_database, 2000);  // as a relay has it: somebody may read just when it ends
        EXPECT_EQ(sqlite3_exec(m_database, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
        m_thread = std::thread([this] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            EXPECT_EQ(sqlite3_exec(m_database, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
        });
    }
    ~OtherRelay() {
        m_thread.join();
        sqlite3_close(m_database);
    }
    OtherRelay(const OtherRelay&) = delete;
    OtherRelay& operator=(const OtherRelay&) = delete;

private:
    sqlite3* m_database = nullptr;
    std::thread m_thread;
};

/// A block with packets 5 to 7, and 9 behind a gap.
capture::BlockBuffer SomeBlock() {
    ArchiveBlock block;
    for (const auto& [first, packets] : {std::pair{5U, 3U}, std::pair{9U, 1U}}) {
        wire::Head head;
        head.epoch = 1;
        head.first = first;
        head.timeNs = 1000;
        const wire::Packet message = wire::MessageOf(head, packets);
        block.add(wire::decode(message.data(), message.size()));
    }
    return block.encode();
}

/// Sums up all bytes of the packets: a sanitizer sees a byte that is not theirs.
std::uint64_t Walk(const ArchiveBlock& block, std::vector<std::uint64_t>& numbers) {
    std::uint64_t sum = 0;
    block.forEachPacket([&](const ArchiveBlock::Packet& packet) {
        numbers.push_back(packet.number);
        for (std::uint32_t n = 0; n < packet.size; ++n) sum += packet.data[n];
    });
    return sum;
}

/// Of the stream, in a whole file of an archive.
std::optional<capture::InterfaceCounts> StatisticsOf(const std::string& path) {
    vexo::data::CaptureSource source(path);
    capture::Reader reader(source.stream());
    for (capture::Packet packet; reader.next(packet);) {
    }
    EXPECT_FALSE(reader.damage()) << reader.damage()->text;
    return reader.interfaces()[0].counts;
}

void Overwrite(const std::string& path, std::uint64_t offset, const std::string& bytes) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(offset));
    file << bytes;
}

}  // namespace

TEST(ArchiveBlock, IsReadAsItWasWritten) {
    const auto block = ArchiveBlock::decode(SomeBlock());
    ASSERT_TRUE(block);
    std::vector<std::uint64_t> numbers;
    EXPECT_GT(Walk(*block, numbers), 0U);
    EXPECT_THAT(numbers, ::testing::ElementsAre(5, 6, 7, 9));
    EXPECT_EQ(block->facts().first, 5U);
    EXPECT_EQ(block->facts().end, 10U);
    EXPECT_EQ(block->facts().packets, 4U);
}

TEST(ArchiveBlock, ThatIsCutOrChangedIsNoneOrStaysInsideItsBytes) {
    const capture::BlockBuffer whole = SomeBlock();
    for (std::size_t size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(ArchiveBlock::decode({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)})) << size;
    std::size_t refused = 0;
    for (std::size_t at = 0; at < whole.size(); ++at) {
        for (const int value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
            capture::BlockBuffer changed = whole;
            changed[at] = static_cast<unsigned char>(value);
            const auto block = ArchiveBlock::decode(changed);
            std::vector<std::uint64_t> numbers;
            if (block) Walk(*block, numbers);
            refused += block ? 0 : 1;
            EXPECT_TRUE(!block || numbers.size() == block->facts().packets);
        }
    }
    EXPECT_GT(refused, 100U);
}

TEST_F(RelayArchive, ItsFilesAreCapturesThatOtherCommandsRead) {
    Start();
    counts.lostByRing = 4;
    Feed(0, 30'000);
    Feed(30'010, 40'000);
    Close();
    ASSERT_THAT(Files(), SizeIs(1));
    EXPECT_NE(Files()[0].find("/colo.0.3.00000001."), std::string::npos);
    vexo::data::CaptureSource source(Files()[0]);
    capture::Reader reader(source.stream());
    capture::Packet packet;
    std::uint64_t next = 0;
    for (; reader.next(packet); ++next) {
        if (next == 30'000) next += 10;
        ASSERT_EQ(wire::Packet(packet.data, packet.data + packet.size), wire::PacketOf(next));
        ASSERT_EQ(packet.timeNs, TimeOf(next));
    }
    EXPECT_EQ(next, 40'000U);
    EXPECT_FALSE(reader.damage()) << reader.damage()->text;
    const capture::Interface& stream = reader.interfaces()[0];
    EXPECT_EQ(stream.info.name, "channel 3");
    ASSERT_TRUE(stream.counts);
    EXPECT_EQ(stream.counts->received, 40'000U);
    EXPECT_EQ(stream.counts->dropped, 10U);
    EXPECT_EQ(stream.counts->card->backPressure, 4U);
}

TEST_F(RelayArchive, TheCatalogueSaysWhatIsWhere) {
    Start();
    Feed(0, 30'000);
    counts.lostByRelay = 10;
    lost = 5;
    Feed(30'015, 40'000);
    Close();
    EXPECT_EQ(Catalogued("SELECT site, bus, channel, epoch, first, last, packets, missing, lost_relay, lost_archive "
                         "FROM files"),
              "colo|0|3|000000000000000a|0|39999|39985|15|10|5");
    EXPECT_EQ(Catalogued("SELECT begins FROM files"), "2023-11-15 06:13:20.000");
    EXPECT_EQ(Catalogued("SELECT missing, by_relay, by_archive FROM gaps"), "15|10|5");
    EXPECT_EQ(Catalogued("SELECT file FROM files"), fs::path(Files()[0]).filename().string());
}

TEST_F(RelayArchive, TheNextRunGoesOnBehindTheFilesOfTheLast) {
    Start();
    Feed(0, 25'000);
    Close();
    Start(kNextEpoch);
    Feed(0, 1000);
    EXPECT_EQ(All(), "0-24999 B:0-999");
    Close();
    EXPECT_THAT(Files(), SizeIs(2));
    EXPECT_EQ(Catalogued("SELECT count(*) FROM files"), "2");
}

TEST_F(RelayArchive, AKillLosesOnlyWhatWasNotWritten) {
    Start();
    Feed(0, 100'000);
    const std::string before = Catalogued("SELECT max(\"end\") FROM blocks");
    Kill();
    const std::string file = Files()[0];
    const auto whole = fs::file_size(file);
    std::ofstream(file, std::ios::app | std::ios::binary) << "\x28\xB5\x2F\xFD half a frame";
    Start(kNextEpoch);
    Feed(0, 100);
    EXPECT_GT(std::stoull(before), 90'000U);
    EXPECT_EQ(All(), "0-" + std::to_string(std::stoull(before) - 1) + " B:0-99");
    EXPECT_GE(fs::file_size(file), whole);
}

TEST_F(RelayArchive, WhatTheCatalogueDoesNotKnowYetIsFoundInTheFile) {
    Start();
    Feed(0, 50'000);
    Close();
    Catalogued("DELETE FROM blocks WHERE place > 1");
    Start(kNextEpoch);
    EXPECT_EQ(All(), "0-49999");
    EXPECT_NE(Catalogued("SELECT count(*) FROM blocks"), "2");
}

TEST_F(RelayArchive, ACatalogueThatIsGoneIsMadeFromTheFiles) {
    Start();
    Feed(0, 50'000);
    Close();
    const std::string before = Catalogued("SELECT * FROM blocks");
    fs::remove(dir.Path(ArchiveCatalogue::kName));
    Start(kNextEpoch);
    EXPECT_EQ(All(), "0-49999");
    EXPECT_TRUE(IsTold("1 file was read again"));
    EXPECT_EQ(Catalogued("SELECT * FROM blocks"), before);
}

TEST_F(RelayArchive, ADamagedCatalogueIsPutAsideAndLosesNothing) {
    for (const std::uint64_t offset : {0U, 4096U}) {
        Start();
        Feed(0, 50'000);
        Close();
        const std::string catalogue = dir.Path(ArchiveCatalogue::kName);
        Overwrite(catalogue, offset, std::string(6000, 'x'));
        lines.clear();
        Start(kNextEpoch);
        EXPECT_EQ(All(), "0-49999") << offset;
        EXPECT_TRUE(IsTold("is no catalogue of an archive, or damaged")) << offset;
        EXPECT_EQ(Catalogued("PRAGMA integrity_check"), "ok");
        store.reset();
        for (const std::string& file : Files()) fs::remove(file);
        fs::remove(catalogue);
    }
}

TEST_F(RelayArchive, ADatabaseOfSomebodyElseIsPutAsideAsItIs) {
    Catalogued("CREATE TABLE recipes (name TEXT); INSERT INTO recipes VALUES ('soup')");
    Start();
    Feed(0, 1000);
    EXPECT_EQ(All(), "0-999");
    Close();
    EXPECT_EQ(Catalogued("SELECT packets FROM files"), "1000");
    fs::remove(dir.Path(ArchiveCatalogue::kName));
    fs::rename(dir.Path("catalogue.sqlite.aside1"), dir.Path(ArchiveCatalogue::kName));
    EXPECT_EQ(Catalogued("SELECT name FROM recipes"), "soup");
}

TEST_F(RelayArchive, ANewCatalogueThatAnotherRelayMakesAtTheSameTimeIsWaitedFor) {
    const OtherRelay other(dir.Path(ArchiveCatalogue::kName));
    Start();
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(RelayArchive, ACatalogueThatAnotherRelayChangesAtTheStartIsWaitedFor) {
    Start();
    Close();
    Catalogued("PRAGMA journal_mode = DELETE");  // as it is until the first relay has made it
    const OtherRelay other(dir.Path(ArchiveCatalogue::kName));
    Start();
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(RelayArchive, TheCatalogueOfAnEarlierVersionGetsThePresentViews) {
    Start();
    lost = 40;
    counts.lostByRelay = 10;
    Feed(50, 1050);
    Close();
    Catalogued(
        "DROP VIEW files; DROP VIEW gaps; DROP VIEW counted; PRAGMA user_version = 0;"
        "CREATE VIEW files AS SELECT max(\"end\") - min(first) - sum(packets) AS missing FROM blocks;"
        "CREATE VIEW gaps AS SELECT \"end\" - first - packets AS missing FROM blocks WHERE missing > 0");
    EXPECT_EQ(Catalogued("SELECT missing FROM files"), "0");
    EXPECT_EQ(Catalogued("SELECT count(*) FROM gaps"), "0");
    Start(kNextEpoch);
    EXPECT_EQ(Catalogued("SELECT missing FROM files"), "50");
    EXPECT_EQ(Catalogued("SELECT missing, by_relay, by_archive FROM gaps"), "50|10|40");
    EXPECT_EQ(Catalogued("SELECT packets FROM files"), "1000");
    EXPECT_THAT(lines, SizeIs(1)) << "which file it writes";
}

TEST_F(RelayArchive, TheViewsOfALaterVersionStay) {
    Start();
    Feed(0, 1000);
    Close();
    Catalogued("DROP VIEW files; CREATE VIEW files AS SELECT 'later' AS missing; PRAGMA user_version = 1000000");
    Start(kNextEpoch);
    EXPECT_EQ(Catalogued("SELECT missing FROM files"), "later");
    EXPECT_EQ(Catalogued("PRAGMA user_version"), "1000000");
}

TEST_F(RelayArchive, ACatalogueThatCouldNotBeMadeIsMadeLater) {
    {
        const FullDisk full(0);
        Start();
        EXPECT_TRUE(IsTold("the archive goes on without it and tries again"));
    }
    Feed(0, 1000);
    Close();
    EXPECT_EQ(Catalogued("SELECT packets FROM files"), "1000");
}

TEST_F(RelayArchive, ACatalogueThatCannotBeMadeIsToldOfWithTheReason) {
    const FullDisk full(0);
    Start();
    EXPECT_THAT(lines, ElementsAre(dir.Path(ArchiveCatalogue::kName) +
                                   ": disk I/O error; the archive goes on without it and tries again"));
}

TEST_F(RelayArchive, ACatalogueThatLiesIsFoundOut) {
    Start();
    Feed(0, 50'000);
    Close();
    Catalogued("UPDATE blocks SET offset = offset + 7, bytes = -1 WHERE place = 0");
    Start(kNextEpoch);
    const std::string all = All();
    EXPECT_EQ(all.substr(all.find('-')), "-49999");
    EXPECT_TRUE(IsTold("is damaged at byte"));
}

TEST_F(RelayArchive, ADamagedBlockIsLeftOutAndToldOfOnce) {
    Start();
    Feed(0, 50'000);
    Close();
    Overwrite(Files()[0], fs::file_size(Files()[0]) / 2, "damaged");
    Start(kNextEpoch);
    const std::vector<Inbox::Packet> packets = Since(0);
    EXPECT_GT(packets.size(), 30'000U);
    EXPECT_LT(packets.size(), 50'000U);
    EXPECT_EQ(packets.front().number, 0U);
    EXPECT_EQ(packets.back().number, 49'999U);
    EXPECT_TRUE(IsTold("is damaged at byte"));
}

TEST_F(RelayArchive, AFileThatIsRemovedUnderItIsAGap) {
    settings.rotateBytes = 20'000;  // a block or two
    Start();
    Feed(0, 100'000);
    const std::vector<std::string> files = Files();
    ASSERT_GT(files.size(), 3U);
    const std::string query = "SELECT last FROM files ORDER BY file LIMIT 1 OFFSET ";
    const std::string first = Catalogued(query + "0");
    const std::string second = Catalogued(query + "1");
    fs::remove(files[1]);
    EXPECT_EQ(All(), "0-" + first + " " + std::to_string(std::stoull(second) + 1) + "-99999");
    Feed(100'000, 150'000);  // further files: the catalogue forgets the one that is gone
    EXPECT_EQ(Catalogued("SELECT count(*) FROM files WHERE file = '" + fs::path(files[1]).filename().string() + "'"),
              "0");
}

TEST_F(RelayArchive, TheOldestFilesGoWhenThereAreTooMany) {
    settings.rotateBytes = 20'000;  // a block or two
    settings.keep = 2;
    Start();
    dir.Write("colo.0.3.00000000.20200101T000000Z.pcapng.zst", "somebody else's");
    Feed(0, 100'000);
    Tick();
    EXPECT_THAT(Files(), SizeIs(3));
    EXPECT_EQ(dir.Read("colo.0.3.00000000.20200101T000000Z.pcapng.zst"), "somebody else's");
    const std::string all = All();
    EXPECT_EQ(all.find(' '), std::string::npos);
    EXPECT_EQ(all.substr(all.find('-')), "-99999");
    EXPECT_NE(all.substr(0, 2), "0-");
    Close();
    EXPECT_EQ(Catalogued("SELECT count(*) FROM files"), "2");
    Start(kNextEpoch);
    EXPECT_EQ(All(), all);
}

TEST_F(RelayArchive, AFileBeginsAtEachFullHour) {
    settings.rotateEveryNs = kSecond / 10;
    Start();
    Feed(0, 35'000);  // 0.35 s
    Close();
    EXPECT_EQ(Catalogued("SELECT first FROM files ORDER BY file"), "0|10000|20000|30000");
}

TEST_F(RelayArchive, LossesForWhichTheDiskHasNoRoomAtTheEndOfAFileAreInTheNextOne) {
    settings.rotateEveryNs = 20 * kSecond;
    Start();
    Feed(0, 1000);
    Tick();
    counts.lostByRing = 4;
    Heartbeat(1010);
    Tick();
    {
        const FullDisk full(fs::file_size(Files()[0]));
        nowNs += settings.rotateEveryNs;
        store->tick(nowNs);
    }
    setBackNs -= settings.rotateEveryNs;
    Feed(1010, 1020);
    Close();
    ASSERT_THAT(Files(), SizeIs(2));
    EXPECT_FALSE(StatisticsOf(Files()[0]));
    const auto statistics = StatisticsOf(Files()[1]);
    ASSERT_TRUE(statistics);
    EXPECT_EQ(statistics->received, 20U);
    EXPECT_EQ(statistics->dropped, 10U);
    EXPECT_EQ(statistics->card->packets, 20U);
    EXPECT_EQ(statistics->card->backPressure, 4U);
}

TEST_F(RelayArchive, AFullDiskCostsTheArchiveAloneAndIsToldOnce) {
    Start();
    Feed(0, 50'000);
    std::uint64_t behind = 0;
    {
        const FullDisk full(fs::file_size(Files()[0]) + 1000);
        Feed(50'000, 100'000);
        behind = store->live().first;
    }
    EXPECT_EQ(behind, 100'000U);
    EXPECT_GT(store->totals().lost, 10'000U);
    Feed(100'000, 150'000);
    Tick();
    EXPECT_EQ(store->totals().packets + store->totals().lost, 150'000U);
    const std::vector<Inbox::Packet> packets = Since(0);
    EXPECT_EQ(packets.size(), store->totals().packets);
    EXPECT_EQ(packets.back().number, 149'999U);
    Close();
    int told = 0;
    for (const std::string& line : lines)
        if (line.find("cannot write") != std::string::npos && line.find("catalogue") == std::string::npos) ++told;
    EXPECT_EQ(told, 1);
    EXPECT_TRUE(IsTold("packets were lost to the archive while it could not be written"));
    EXPECT_EQ(Catalogued("SELECT sum(packets) FROM files"), std::to_string(packets.size()));
    vexo::data::CaptureSource source(Files()[0]);
    capture::Reader reader(source.stream());
    capture::Packet packet;
    std::size_t read = 0;
    while (reader.next(packet)) ++read;
    EXPECT_EQ(read, packets.size());
    EXPECT_FALSE(reader.damage());
}

}  // namespace relay
