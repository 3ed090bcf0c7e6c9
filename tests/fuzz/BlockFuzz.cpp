// A card in shared memory that another process fills with what it likes. Host and users work on it; nothing outside of
// it may be touched, and every call must end. And card files of any size and any first bytes, which are used only when
// they are whole and of this version.
//
// An input: a byte of switches, the number of changes, the changes (where: a byte and two bytes; what: a byte and four
// bytes), then actions, a byte each with its arguments.

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "interface/CardRegisters.h"
#include "sim/host/CardRecorder.h"
#include "sim/host/Status.h"
#include "sim/shm/SharedCard.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/support/TempDir.h"

namespace {

using namespace vexo_sim;

constexpr unsigned int kMostChanges = 48;
constexpr unsigned int kMostActions = 24;
constexpr unsigned int kRunsOfOneRecord = 5000;
constexpr std::size_t kPage = 4096;
constexpr std::size_t kInstruments = 60;

enum Switch : std::uint8_t {
    kFileInstead = 1,
    kCutFile = 2,
    kWithReset = 4 | 8,  // few inputs: a reset walks all rows and takes longer than all else
};

static_assert(sizeof(CardBlock) % kPage == 0, "the block fills its pages");

CardTime At(std::uint64_t ms) { return {ms * 1'000'000, 20250115, 100000, 0}; }

/// A block between two pages that nobody may touch. Each execution begins with the same content.
class GuardedBlock {
public:
    GuardedBlock() {
        constexpr std::size_t size = sizeof(CardBlock);
        const int fd = ::memfd_create("block", MFD_CLOEXEC);
        fuzz::Require(fd >= 0 && ::ftruncate(fd, static_cast<off_t>(size)) == 0, "no memory for a block");
        void* const made = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        fuzz::Require(made != MAP_FAILED, "no memory for a block");
        SetToWork(*static_cast<CardBlock*>(made));
        ::munmap(made, size);
        void* const room = ::mmap(nullptr, size + 2 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        fuzz::Require(room != MAP_FAILED, "no memory for a block");
        m_begin = static_cast<char*>(room) + kPage;
        m_fd = fd;
        Place();
    }

    CardBlock& Block() { return *reinterpret_cast<CardBlock*>(m_begin); }
    void Restore() {
        fuzz::Require(::madvise(m_begin, sizeof(CardBlock), MADV_DONTNEED) == 0, "the block is not restored");
    }
    /// The same when something else was mapped over parts of the block.
    void Place() {
        void* const placed = ::mmap(m_begin, sizeof(CardBlock), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_FIXED, m_fd,
                                    0);
        fuzz::Require(placed == m_begin, "no memory for a block");
    }
    /// Writes the content with which each execution begins.
    void CopyTo(int file) const {
        std::vector<char> bytes;
        off_t end = 0;
        for (off_t begin = 0; (begin = ::lseek(m_fd, end, SEEK_DATA)) >= 0;) {
            end = ::lseek(m_fd, begin, SEEK_HOLE);
            bytes.resize(static_cast<std::size_t>(end - begin));
            const auto size = static_cast<ssize_t>(bytes.size());
            fuzz::Require(::pread(m_fd, bytes.data(), bytes.size(), begin) == size &&
                              ::pwrite(file, bytes.data(), bytes.size(), begin) == size,
                          "the block is not copied");
        }
    }

private:
    // A card in full work: instruments learned, masks set, quotes and the contract map on their way.
    static void SetToWork(CardBlock& block) {
        block.init();
        Card card(block.state);
        CardConfig config;
        config.ringBytes = 16384;
        config.mtu = 1024;
        std::vector<Instrument> instruments(kInstruments);  // few: to learn them all takes long
        for (std::size_t n = 0; n < kInstruments; ++n) {
            const bool isSpread = n >= kInstruments / 2;
            instruments[n].row = static_cast<std::uint16_t>(n % (kInstruments / 2));
            instruments[n].table = isSpread ? 1 : 0;
            std::snprintf(instruments[n].id, sizeof instruments[n].id,
                          isSpread ? "SPD-SR5%02zu/SR511" : "SR5%02zuC6000", n);
        }
        fuzz::Require(card.powerOn(config, At(1000), instruments.data(), instruments.size()), "no card");
        card.openUp(0);
        card.openUp(3);
        card.advance(At(3000));
        for (std::uint32_t row = 0; row < kInstruments / 2; ++row) {
            card.write(card_reg::kTables[0].data * 4, 0, 32, 9);
            card.write(card_reg::kTables[0].command * 4, 0, 32, row << card_reg::kRowShift);
        }
        card.write(card_reg::kDecodeSwitch * 4, 0, 32, 3);
        card.write(card_reg::kMapTransmit * 4, 0, 32, 1);
        card.advance(At(3020));
    }

    int m_fd = -1;  // of the content
    char* m_begin = nullptr;
};

/// The name of a card in a directory, and a process that counts as its host.
class HostedFile {
public:
    HostedFile()
        : m_file(CardFile::create(m_dir.Path(), 0, 0600, getegid())), m_path(cardPath(m_dir.Path(), geteuid(), 0)) {
        fuzz::Require(m_file && m_file.publish(m_path), "no file for a card");
        ::setenv("VEXO_SIM_DIR", m_dir.Path().c_str(), 1);
        int ready[2];
        fuzz::Require(::pipe(ready) == 0, "no pipe");
        m_host = ::fork();
        if (m_host == 0) Host(ready[1]);
        ::close(ready[1]);
        char byte = 0;
        fuzz::Require(::read(ready[0], &byte, 1) == 1, "the host of the file does not start");
        ::close(ready[0]);
    }
    ~HostedFile() {
        ::kill(m_host, SIGKILL);
        ::waitpid(m_host, nullptr, 0);
    }
    HostedFile(const HostedFile&) = delete;
    HostedFile& operator=(const HostedFile&) = delete;

    const test_support::TempDir& Dir() const { return m_dir; }
    /// Writes the begin of the file and gives it its size.
    void Write(const void* begin, std::size_t bytes, std::size_t size) const {
        fuzz::Require(::truncate(m_path.c_str(), static_cast<off_t>(size)) == 0, "the card's file is not cut");
        std::FILE* const file = std::fopen(m_path.c_str(), "r+");
        fuzz::Require(file != nullptr, "the card's file is not written");
        std::fwrite(begin, 1, std::min(bytes, size), file);
        std::fclose(file);
    }

private:
    [[noreturn]] void Host(int ready) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        const bool claimed = m_file.claim({CardPart::kHost});
        if (claimed && ::write(ready, "x", 1) != 1) ::_exit(1);
        for (;;) ::pause();
    }

    const test_support::TempDir m_dir;
    CardFile m_file;
    const std::string m_path;
    pid_t m_host = 0;
};

class Campaign {
public:
    void Run(fuzz::Input input) {
        // A place of the state that an input made up: parts of the card's file are mapped over the block since.
        if (m_card == nullptr || m_guarded.Block().place != 0) MakeCard();
        if (m_runs++ % kRunsOfOneRecord == 0) RecordAnew();
        m_guarded.Restore();
        const std::uint8_t switches = input.Byte();
        Change(input);
        if ((switches & kFileInstead) != 0) return UseFile(input, (switches & kCutFile) != 0);
        m_mayReset = (switches & kWithReset) == kWithReset;
        for (unsigned int n = 0; n < kMostActions && !input.IsEmpty(); ++n) Act(input);
    }

private:
    void Change(fuzz::Input& input) {
        struct Part {
            std::size_t begin, bytes;
        };
        constexpr std::size_t kState = offsetof(CardBlock, state);
        constexpr std::size_t kUp = kState + offsetof(CardState, up);
        constexpr std::size_t kHead = offsetof(UpStreamState, ring) + offsetof(RingState, bytes);
        // Counts, cursors and positions are few among the block's many bytes: they are aimed at.
        static const Part parts[] = {
            {0, kState},
            {kState, sizeof(CardConfig) + 64},
            {kState + offsetof(CardState, registers), sizeof(RegisterState)},
            {kState + offsetof(CardState, parser) + offsetof(ParserState, count), 64},
            {kState + offsetof(CardState, parser), 4096},
            {kState + offsetof(CardState, faults), sizeof(FaultState)},
            {kState + offsetof(CardState, map), sizeof(MapState)},
            {kState + offsetof(CardState, feed), 64},
            {kState + offsetof(CardState, feed) + offsetof(FeedState, subscribed), 4096},
            {kState + offsetof(CardState, feed) + offsetof(FeedState, prices), 8192},
            {kState + offsetof(CardState, tables), 65536},
            {kState + offsetof(CardState, down), sizeof(DownStreamState) * kStreams},
            {kUp, kHead + 4096},
            {kUp + 3 * sizeof(UpStreamState), kHead + 4096},
            {kUp + 15 * sizeof(UpStreamState), kHead + 64},
        };
        auto* const bytes = reinterpret_cast<unsigned char*>(&m_guarded.Block());
        for (unsigned int left = input.Byte() % kMostChanges; left > 0; --left) {
            const Part& part = parts[input.Byte() % std::size(parts)];
            const std::size_t at = part.begin + input.Word() * std::size_t{4} % part.bytes / 4 * 4;
            const std::uint8_t kind = input.Byte();
            auto value = static_cast<std::uint32_t>(input.Number(4));
            if (kind % 4 == 0) value = ~std::uint32_t{0};
            if (kind % 4 == 1) value %= 70'000;
            std::memcpy(bytes + at, &value, (kind & 4) != 0 ? 1 : sizeof value);
        }
    }

    void UseFile(fuzz::Input& input, bool cut) {
        std::size_t size = sizeof(CardBlock);
        if (cut) size = input.Number(4) % (2 * sizeof(CardBlock));
        m_hosted.Write(&m_guarded.Block(), offsetof(CardBlock, state), size);
        const std::unique_ptr<SharedCard> card = attachCard(0, geteuid(), "fuzz");
        // A file is longer than the block once the state has moved.
        const bool good = size >= sizeof(CardBlock) && isCompatible(m_guarded.Block().header);
        fuzz::Require((card != nullptr) == good, "a card's file is used or refused wrongly");
        if (card == nullptr) return;
        Show(*card);
        ::munmap(&card->block(), sizeof(CardBlock));  // a program keeps a card for its life
    }

    // The card's file belongs to it alone: nobody cuts it, and the state finds two more places in it.
    void MakeCard() {
        m_card.reset();
        m_guarded.Place();
        CardFile file = CardFile::create(m_hosted.Dir().Path(), 1, 0600, getegid());
        fuzz::Require(file && ::unlink(file.path().c_str()) == 0 &&
                          ::ftruncate(file.descriptor(), sizeof(CardBlock) + 2 * sizeof(CardState)) == 0,
                      "no file for a card");
        m_guarded.CopyTo(file.descriptor());
        m_card = std::make_unique<SharedCard>(std::move(file), m_guarded.Block(), "fuzz");
    }

    static void Show(SharedCard& card) {
        const auto status = readStatus(card);
        fuzz::Require(!status || toJson(*status).size() > toText(*status).size(), "a status without its fields");
    }

    void RecordAnew() {
        m_recorder.reset();
        for (const auto& entry : std::filesystem::directory_iterator(m_hosted.Dir().Path()))
            if (entry.path().extension() == ".pcapng") std::filesystem::remove(entry.path());
        m_guarded.Restore();
        m_recorder = std::make_unique<CardRecorder>(m_hosted.Dir().Path("record.pcapng"), m_guarded.Block().state);
    }

    void Read(std::uint32_t channel) {
        CardState& state = m_guarded.Block().state;
        Card card(state);
        const RingState& ring = state.up[channel].ring;
        for (int n = 0; n < 20; ++n) {
            const PacketView packet = card.peek(channel);
            if (packet.data == nullptr) return;
            fuzz::Require(packet.data >= ring.bytes && packet.data + packet.size <= ring.bytes + sizeof ring.bytes,
                          "a packet lies outside of its ring");
            unsigned int sum = 0;
            for (std::uint32_t i = 0; i < packet.size; ++i) sum += packet.data[i];
            m_sum = sum;
            card.release(channel);
        }
    }

    void Access(fuzz::Input& input) {
        static constexpr std::uint32_t kWords[] = {card_reg::kReset,
                                                   card_reg::kDecodeSwitch,
                                                   card_reg::kMapTransmit,
                                                   card_reg::kTables[0].command,
                                                   card_reg::kTables[0].data,
                                                   card_reg::kTables[0].select,
                                                   card_reg::kTables[0].readBack,
                                                   card_reg::kTables[1].command,
                                                   card_reg::kTables[1].readBack,
                                                   card_reg::kParserCounters[0],
                                                   card_reg::kVerdictOrFibre,
                                                   card_reg::kTradingDate};
        Card card(m_guarded.Block().state);
        const std::uint8_t what = input.Byte();
        const std::uint64_t address = std::uint64_t{kWords[(what >> 1) % std::size(kWords)]} * 4;
        std::uint64_t value = 0;
        if ((what & 1) != 0)
            card.write(address, 0, 32, input.Number(3));
        else
            card.read(address, 0, 32, value);
    }

    void Act(fuzz::Input& input) {
        CardBlock& block = m_guarded.Block();
        const std::uint8_t action = input.Byte();
        const std::uint32_t channel = action >> 4;
        const StateLock lock(m_card->locks(), block.state);
        if (!lock.owns()) return;
        Card card(block.state);
        const unsigned char packet[64] = {2};
        switch (action & 15) {
            case 0: card.advance(At(3000 + input.Word())); break;
            case 1: card.advance(At(input.Number(5))); break;
            case 2: Access(input); break;
            case 3: card.openUp(channel); break;
            case 4: card.closeUp(channel); break;
            case 5: Read(channel); break;
            case 6: card.push(channel, packet, sizeof packet); break;
            case 7: card.deliver(channel, packet, sizeof packet); break;
            case 8: card.openDown(channel); break;
            case 9: card.closeDown(channel); break;
            case 10: card.send(channel, input.Word()); break;
            case 11: card.repair(); break;
            case 12:
                if (std::exchange(m_mayReset, false)) card.reset();
                break;
            case 13: m_recorder->collect(block.state); break;
            case 14: m_recorder->write(); break;
            default: card.stop((channel & 1) != 0); break;
        }
    }

    GuardedBlock m_guarded;
    HostedFile m_hosted;
    std::unique_ptr<SharedCard> m_card;
    std::unique_ptr<CardRecorder> m_recorder;
    unsigned int m_runs = 0;
    bool m_mayReset = false;
    volatile unsigned int m_sum = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Campaign campaign;
    campaign.Run({data, size});
    return 0;
}
