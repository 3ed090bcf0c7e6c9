#include "tools/vexo/watch/Watched.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <optional>

#include "tools/vexo/Failure.h"
#include "tools/vexo/InputFile.h"
#include "tools/vexo/show/Harmless.h"
#include "tools/vexo/stat/Views.h"
#include "tools/vexo/watch/Channel.h"
#include "tools/vexo/watch/Descriptor.h"

namespace vexo::watch {
namespace {

using stat::Life;
using stat::Page;

constexpr std::size_t kKeptLines = 200;  // of the log
constexpr char kHowToGetOne[] = "A program gets a page when it is started by: vexo tap --stats-only -- PROGRAM";

// A process may have a page by the tap and one of its own. The tap knows more. A running process goes before one whose
// page was kept.
bool isBetter(const Page& one, const Page& other) {
    const bool isRunning = one.life == Life::kRunning;
    if (isRunning != (other.life == Life::kRunning)) return isRunning;
    return one.process.writer == vexo_stats::kTap && other.process.writer != vexo_stats::kTap;
}

template <typename Accepts>
std::optional<Page> bestPage(const std::string& directory, const Accepts& accepts) {
    std::optional<Page> best;
    for (Page& page : stat::findPages(directory).pages)
        if (accepts(page) && (!best || isBetter(page, *best))) best = std::move(page);
    return best;
}

bool holds(const Page& page, const check::Device& device) {
    return std::any_of(page.streams.begin(), page.streams.end(), [&](const vexo_stats::Stream& stream) {
        return stream.state == vexo_stats::kOpen && stream.card == device.card && stream.channel == device.channel;
    });
}

constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// The log of a process lies in its working directory. The directory of the process in /proc is opened first: it stays
// that of this process, whatever gets the number later.
LogTail logOf(const Page& page, const stat::OpenPage& file) {
    const Descriptor process(::open(("/proc/" + std::to_string(page.process.pid)).c_str(), kDirectory));
    Page again;
    const bool isSame = file.read(again).empty() && again.life == Life::kRunning &&
                        again.process.pid == page.process.pid;
    if (!isSame) {
        errno = ESRCH;
        return LogTail(-1, page.owner);
    }
    return LogTail(process.get() < 0 ? -1 : ::openat(process.get(), "cwd", kDirectory), page.owner);
}

std::string nameOf(const check::Device& device) {
    return "card " + std::to_string(device.card) + " channel " + std::to_string(device.channel);
}

}  // namespace

void Watched::openPage(const Page& page) {
    m_page = std::make_unique<stat::OpenPage>(page.file);
    if (!m_receiver) m_log = logOf(page, *m_page);
}

Watched Watched::process(const std::string& directory, pid_t pid) {
    const std::optional<Page> page = bestPage(
        directory, [&](const Page& one) { return one.process.pid == static_cast<std::uint32_t>(pid); });
    if (!page) {
        const bool isThere = ::kill(pid, 0) == 0 || errno == EPERM;
        throw Failure(kFinding, isThere ? "process " + std::to_string(pid) + " has no statistics page\n" + kHowToGetOne
                                        : "there is no process " + std::to_string(pid));
    }
    Watched watched;
    watched.openPage(*page);
    return watched;
}

Watched Watched::channel(const std::string& config, const std::string& directory, const run::Signals& signals) {
    requireFile(config);
    check::Report report;
    const check::ConfigFacts facts = readable(config, [&] { return check::checkConfig(config, report); });
    if (!facts.device.valid)
        throw Failure(kUsage,
                      harmless(config) + ": [config] device names no channel; see: vexo check " + harmless(config));
    const CardState card = lookAtCard(facts);
    Watched watched;
    if (card.taken) {
        const std::optional<Page> page = bestPage(directory, [&](const Page& one) {
            if (one.life != Life::kRunning) return false;
            return card.taken->pid ? one.process.pid == static_cast<std::uint32_t>(*card.taken->pid)
                                   : holds(one, facts.device);
        });
        if (!page) throw Failure(kFinding, nameOf(facts.device) + " is taken" + card.taken->by + "\n" + kHowToGetOne);
        watched.m_source = nameOf(facts.device) + " is in use: shown from the page of " + stat::processName(*page);
        watched.openPage(*page);
        return watched;
    }
    watched.m_source = (card.isSimulated ? "SIMULATED card: " : "") + nameOf(facts.device) + ", received with " +
                       harmless(facts.file);
    watched.m_receiver = std::make_unique<Receiver>(facts, signals);
    watched.m_log = LogTail(::open(watched.m_receiver->directory().c_str(), kDirectory), ::geteuid());
    return watched;
}

void Watched::findOwnPage() {
    const auto pid = static_cast<std::uint32_t>(m_receiver->pid());
    const std::optional<Page> page = bestPage("", [&](const Page& one) {
        return one.process.pid == pid && one.life == Life::kRunning && one.owner == ::geteuid();
    });
    if (page) openPage(*page);
}

bool Watched::isStarted() const { return m_page != nullptr && (m_receiver == nullptr || m_receiver->isStarted()); }

void Watched::takeLog(Scene& scene) {
    std::vector<ShownLine> lines = m_log.more();
    scene.newLines += lines.size();
    for (ShownLine& line : lines) scene.log.push_back(std::move(line));
    while (scene.log.size() > kKeptLines) scene.log.pop_front();
    scene.logName = m_log.name();
    scene.logFault = m_log.fault();
}

Look Watched::look(Scene& scene) {
    const bool isOver = m_receiver && m_receiver->hasEnded();
    takeLog(scene);
    if (isOver && !m_receiver->isStarted() && !m_wasEnded) m_receiver->failStart();
    if (m_receiver && !m_page && !isOver) {
        const bool isStarted = m_receiver->isStarted();  // its page is older than that
        findOwnPage();
        if (isStarted && !m_page) m_receiver->failWithoutPage();
    }
    Look look;
    if (m_page) {
        Page page;
        const std::string fault = m_page->read(page);
        if (!fault.empty()) throw Failure(kFinding, "the statistics page: " + fault);
        // The own receiver has ended when its status is there, which comes after the end of its page.
        if (!m_receiver) m_hasEnded = page.life == Life::kEnded || page.life == Life::kDied;
        look.totals = totalsOf(page);
        look.page = std::move(page);
    }
    if (m_receiver) look.instruments = m_receiver->instruments();
    m_hasEnded = m_hasEnded || isOver;
    return look;
}

void Watched::end() {
    m_wasEnded = true;
    if (m_receiver) m_receiver->end();
}

std::string Watched::fault() const { return m_receiver ? m_receiver->whyEnded() : ""; }

}  // namespace vexo::watch
