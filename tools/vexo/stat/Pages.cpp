#include "tools/vexo/stat/Pages.h"

#include <VexoZceMdStats.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
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

bool isRunning(const Process& process, uid_t owner) {
    struct ::stat found {};
    const std::string path = "/proc/" + std::to_string(process.pid);
    return ::stat(path.c_str(), &found) == 0 && found.st_uid == owner &&
           vexo_stats::processStart(process.pid) == process.processStart;
}

std::string faultOf(const Process& process) {
    if (process.magic != vexo_stats::kMagic) return "this is no statistics page";
    if (process.version < vexo_stats::kOldestVersion || process.version > vexo_stats::kVersion) {
        return "its layout is number " + std::to_string(process.version) + ", this vexo knows number " +
               std::to_string(vexo_stats::kVersion);
    }
    if (process.blockBytes != kBlockBytes || process.streams > vexo_stats::kStreams) return "it is damaged";
    if (process.clockPerSecond < kSlowestClock || process.clockPerSecond > kFastestClock) return "it is damaged";
    return "";
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

bool isPageName(const std::string& name) {
    constexpr char kEnd[] = ".page";
    constexpr std::size_t kEndSize = sizeof kEnd - 1;
    return name.size() > kEndSize && name.compare(name.size() - kEndSize, kEndSize, kEnd) == 0;
}

void readDirectory(const std::string& directory, Found& found) {
    std::error_code error;
    for (fs::directory_iterator at(directory, error), end; !error && at != end; at.increment(error)) {
        const std::string path = at->path().string();
        if (!isPageName(at->path().filename().string())) continue;
        Page page;
        const std::string fault = readPage(path, page);
        if (fault.empty()) {
            found.pages.push_back(std::move(page));
        } else {
            found.faults.push_back(path + ": " + fault);
        }
    }
}

template <std::size_t n>
std::uint64_t sum(const std::uint64_t (&words)[n]) {
    return std::accumulate(std::begin(words), std::end(words), std::uint64_t{0});
}

}  // namespace

std::string Page::program() const { return {process.program, ::strnlen(process.program, sizeof process.program)}; }

double Page::seconds(std::uint64_t clock) const {
    return static_cast<double>(clock) / static_cast<double>(process.clockPerSecond);
}

double Page::timeOfDay(std::uint64_t clock) const {
    const auto since = static_cast<double>(static_cast<std::int64_t>(clock - process.startClock));
    return static_cast<double>(process.startNs) / 1e9 + since / static_cast<double>(process.clockPerSecond);
}

std::uint64_t packetsOf(const Stream& stream) { return sum(stream.packets); }
std::uint64_t bytesOf(const Stream& stream) { return sum(stream.bytes); }
bool knowsCallbacks(const Stream& stream) { return sum(stream.callbacks) != 0; }

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
    for (std::size_t i = 1; i <= page.process.streams; ++i) {
        Stream stream;
        std::memcpy(&stream, bytes.data() + i * kBlockBytes, sizeof stream);
        if (page.process.version < 2) stream.cardPackets = stream.lostByTap = stream.lostByRelay = kUnknown;
        if (stream.state != vexo_stats::kUnused) page.streams.push_back(stream);
    }
    page.file = m_path;
    page.owner = found.st_uid;
    page.life = page.process.steps[vexo_stats::kEnded] != 0 ? Life::kEnded
                : isRunning(page.process, page.owner)       ? Life::kRunning
                                                            : Life::kDied;
    page.readClock = vexo_stats::startNow();
    return "";
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
