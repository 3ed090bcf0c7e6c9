#include "tools/vexo/stat/Pages.h"

#include <VexoZceMdStatsFile.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <system_error>

#include "capture/StandardStreams.h"

namespace vexo::stat {
namespace {

namespace fs = std::filesystem;
using vexo_stats::kBlockBytes;
using vexo_stats::kUnknown;
using vexo_stats::Process;
using vexo_stats::Stream;

constexpr std::uint64_t kSlowestClock = 1'000'000;
constexpr std::uint64_t kFastestClock = 1'000'000'000'000;
// Whoever fills a directory with files must not keep a reader busy for ever.
constexpr int kMostEntries = 10'000;
constexpr std::size_t kMostPages = 1'000;  // of a directory

// A process of another user may be hidden, and one of another container has another number here. The lock is seen all
// the same. A child of its may have kept the lock.
Life lifeOf(const Process& process, int file, uid_t owner) {
    if (process.steps[vexo_stats::kEnded] != 0) return Life::kEnded;
    const bool isNear = process.pidNamespace == 0 || process.pidNamespace == vexo_stats::pidNamespace();
    const std::uint64_t start = isNear ? vexo_stats::processStart(process.pid) : 0;
    const int held = process.isLocked != 0 ? vexo_stats::isHeld(file) : -1;
    if (held == 0) return Life::kDied;
    if (held == 1) return start == 0 || start == process.processStart ? Life::kRunning : Life::kDied;
    if (!isNear) return Life::kUnseen;
    struct ::stat found {};
    const std::string path = "/proc/" + std::to_string(process.pid);
    const bool isOwners = ::stat(path.c_str(), &found) == 0 && found.st_uid == owner;
    return isOwners && start == process.processStart ? Life::kRunning : Life::kDied;
}

// The three digits in the page make times drift. A second pair of readings, long after the first, is exact; but not
// when the clock of the day was set meanwhile, or the machine was started again.
double rateOf(const Process& process, const vexo_stats::ClockPair& now) {
    const auto rounded = static_cast<double>(process.clockPerSecond);
    vexo_stats::ClockPair end = now;
    if (process.steps[vexo_stats::kEnded] != 0 && process.endNs != 0) {
        end = {process.steps[vexo_stats::kEnded], process.endNs};
    } else if (process.clockIsEven == 0 || process.boot == 0 || process.boot != vexo_stats::bootNumber()) {
        return rounded;
    }
    constexpr double kShortest = 1e7;
    constexpr double kFurthest = 0.01;
    const auto clock = static_cast<double>(static_cast<std::int64_t>(end.clock - process.startClock));
    const auto ns = static_cast<double>(static_cast<std::int64_t>(end.ns - process.startNs));
    if (ns < kShortest) return rounded;
    const double rate = clock * 1e9 / ns;
    return std::abs(rate / rounded - 1) < kFurthest ? rate : rounded;
}

std::string faultOf(const Process& process) {
    if (process.magic != vexo_stats::kMagic) return "this is no statistics page";
    if (process.version != vexo_stats::kVersion) {
        return "its layout is number " + std::to_string(process.version) + ", this vexo knows number " +
               std::to_string(vexo_stats::kVersion);
    }
    if (process.blockBytes != kBlockBytes || process.streams > vexo_stats::kStreams) return "it is damaged";
    if (process.clockPerSecond < kSlowestClock || process.clockPerSecond > kFastestClock) return "it is damaged";
    return "";
}

vexo_stats::Writer writerIn(const Process& process) {
    if (process.writer == vexo_stats::kTap) return vexo_stats::kTap;
    return process.writer == vexo_stats::kRelay ? vexo_stats::kRelay : vexo_stats::kApplication;
}

// Two pages of one process number would be one process in metrics.
std::string nameFault(const std::string& path, const Process& process) {
    const std::string name = fs::path(path).filename().string();
    if (vexo_stats::pidOfPage(name.c_str(), writerIn(process)) == process.pid) return "";
    return "it is the page of process " + std::to_string(process.pid) + ", which has another name";
}

std::vector<std::string> directoriesOfAllUsers() {
    const fs::path prefix = vexo_stats::kDirectoryPrefix;
    const std::string start = prefix.filename().string();
    std::vector<std::string> found;
    std::error_code error;
    for (fs::directory_iterator at(prefix.parent_path(), error), end; !error && at != end; at.increment(error)) {
        const std::string name = at->path().filename().string();
        struct ::stat directory {};
        if (name.rfind(start, 0) != 0 || ::lstat(at->path().c_str(), &directory) != 0) continue;
        // Nobody makes pages for another user.
        if (S_ISDIR(directory.st_mode) && name == start + std::to_string(directory.st_uid)) found.push_back(at->path());
    }
    return found;
}

// Only these names: what else lies there is not a page, or its name would not be the process's.
bool isPageName(const std::string& name) {
    return vexo_stats::pidOfPage(name.c_str(), vexo_stats::kTap) != 0 ||
           vexo_stats::pidOfPage(name.c_str(), vexo_stats::kApplication) != 0 ||
           vexo_stats::pidOfPage(name.c_str(), vexo_stats::kRelay) != 0;
}

void readNamed(const std::string& path, Found& found) {
    Page page;
    const std::string fault = readPage(path, page);
    struct ::stat there {};
    if (fault.empty()) {
        found.pages.push_back(std::move(page));
    } else if (::lstat(path.c_str(), &there) == 0) {  // a process that ended meanwhile has removed its own
        found.faults.push_back(path + ": " + fault);
    }
}

void readDirectory(const std::string& directory, Found& found) {
    std::error_code error;
    int entries = 0;
    const std::size_t before = found.pages.size();
    for (fs::directory_iterator at(directory, error), end; !error && at != end; at.increment(error)) {
        if (++entries > kMostEntries || found.pages.size() - before >= kMostPages) {
            found.faults.push_back(directory + ": there are too many files; not all of them were looked at");
            return;
        }
        if (isPageName(at->path().filename().string())) readNamed(at->path().string(), found);
    }
}

template <std::size_t n>
std::uint64_t sum(const std::uint64_t (&words)[n]) {
    return std::accumulate(std::begin(words), std::end(words), std::uint64_t{0});
}

}  // namespace

std::string Page::program() const { return {process.program, ::strnlen(process.program, sizeof process.program)}; }

double Page::seconds(std::uint64_t clock) const { return static_cast<double>(clock) / rate; }

double Page::endOfBucket(std::size_t b) const {
    return std::ldexp(1.0, static_cast<int>(b) + 1) / static_cast<double>(process.clockPerSecond);
}

double Page::timeOfDay(std::uint64_t clock) const {
    const auto since = static_cast<double>(static_cast<std::int64_t>(clock - process.startClock));
    return static_cast<double>(process.startNs) / 1e9 + since / rate;
}

const Stream* sameStream(const Page& now, std::size_t i, const Page& before) {
    const auto found = std::find(before.places.begin(), before.places.end(), now.places[i]);
    if (found == before.places.end()) return nullptr;
    const Stream& old = before.streams[static_cast<std::size_t>(found - before.places.begin())];
    // Another stream may have taken the place over.
    return old.card == now.streams[i].card && old.channel == now.streams[i].channel ? &old : nullptr;
}

std::uint64_t packetsOf(const Stream& stream) { return sum(stream.packets); }
std::uint64_t bytesOf(const Stream& stream) { return sum(stream.bytes); }
bool knowsCallbacks(const Stream& stream) { return sum(stream.callbacks) != 0; }

// A copy may be from between two words of one packet, so that a later moment is older than an earlier one.
std::uint64_t lastPacketOf(const Stream& stream) {
    const auto since = static_cast<std::int64_t>(stream.lastPacket - stream.firstPacket);
    return since >= 0 ? stream.lastPacket : stream.firstPacket;
}

std::uint64_t gapsOf(const Stream& stream) {
    const std::uint64_t all = lastPacketOf(stream) - stream.firstPacket;
    return all > stream.closedClock ? all - stream.closedClock : 0;
}

data::Losses lossOf(const Stream& stream) {
    const auto known = [](std::uint64_t n) { return n == kUnknown ? data::Count() : data::Count(n); };
    data::LossCounts counts;
    counts.backPressure = known(stream.backPressure);
    counts.backPressureByApplication = known(stream.backPressureInCallbacks);
    if (stream.sequenceKnown != 0 && counts.backPressure) counts.lostBeforeCard = stream.lostBeforeCard;
    counts.fifoErrors = known(stream.fifoErrors);
    counts.errors = known(stream.errors);
    counts.byTap = known(stream.lostByTap);
    counts.byRelay = known(stream.lostByRelay);
    return data::lossesOf(counts);
}

OpenPage::OpenPage(std::string path) : m_path(std::move(path)) {
    const capture::StandardNumbersTaken taken;
    // A FIFO or a device in its place must not make us wait.
    m_fd = ::open(m_path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (m_fd < 0) m_fault = std::strerror(errno);
}

OpenPage::~OpenPage() {
    if (m_fd >= 0) ::close(m_fd);
}

std::string OpenPage::read(Page& page) const {
    struct ::stat found {};
    if (m_fd < 0) return m_fault;
    if (::fstat(m_fd, &found) != 0) return std::strerror(errno);
    if (!S_ISREG(found.st_mode)) return "this is no statistics page";
    // A copy: a page that is mapped here could be cut while it is read, which would end this process.
    std::vector<unsigned char> bytes(vexo_stats::kPageBytes);
    const ssize_t got = ::pread(m_fd, bytes.data(), bytes.size(), 0);
    if (got < 0) return std::strerror(errno);
    bytes.resize(static_cast<std::size_t>(got));
    if (bytes.size() < sizeof page.process) return "this is no statistics page";
    std::memcpy(&page.process, bytes.data(), sizeof page.process);
    const std::string fault = faultOf(page.process);
    if (!fault.empty()) return fault;
    if (bytes.size() < kBlockBytes * (1 + page.process.streams)) return "it is cut off";
    page.streams.clear();
    page.places.clear();
    for (std::size_t i = 1; i <= page.process.streams; ++i) {
        Stream stream;
        std::memcpy(&stream, bytes.data() + i * kBlockBytes, sizeof stream);
        if (stream.state == vexo_stats::kUnused || stream.state == vexo_stats::kPreparing) continue;
        page.streams.push_back(stream);
        page.places.push_back(i - 1);
    }
    page.file = m_path;
    page.owner = found.st_uid;
    page.life = lifeOf(page.process, m_fd, page.owner);
    const vexo_stats::ClockPair now = vexo_stats::readPair(CLOCK_REALTIME);
    page.readClock = now.clock;
    page.rate = rateOf(page.process, now);
    return nameFault(m_path, page.process);
}

std::string readPage(const std::string& path, Page& page) { return OpenPage(path).read(page); }

Found findPages(const std::string& directory) {
    Found found;
    const char* const named = std::getenv(vexo_stats::kDirectoryVariable);
    if (!directory.empty()) {
        readDirectory(directory, found);
    } else if (named != nullptr && *named != '\0') {
        readDirectory(named, found);
    } else {
        for (const std::string& one : directoriesOfAllUsers()) readDirectory(one, found);
    }
    std::sort(found.pages.begin(), found.pages.end(), [](const Page& a, const Page& b) { return a.file < b.file; });
    std::sort(found.faults.begin(), found.faults.end());
    return found;
}

}  // namespace vexo::stat
