#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "tools/cli/Progress.h"
#include "tools/cli/Values.h"
#include "tools/vexo/Command.h"
#include "tools/vexo/show/Harmless.h"
#include "tools/vexo/show/Terminal.h"
#include "tools/vexo/stat/Listen.h"
#include "tools/vexo/stat/Pages.h"
#include "tools/vexo/stat/Views.h"

namespace vexo {
namespace {

using stat::Page;

constexpr double kUsualWatch = 1;
constexpr double kLongestWatch = 86400;

struct Options {
    std::string directory;
    std::optional<std::uint32_t> pid;
    double watch = 0;
    bool json = false;
    bool loss = false;
    std::string prometheus;
    std::optional<std::uint16_t> port;
};

std::vector<Page> look(const Options& options, bool tellsFaults) {
    stat::Found found = stat::findPages(options.directory);
    if (tellsFaults) {
        for (const std::string& fault : found.faults) std::fprintf(stderr, "vexo: %s\n", harmless(fault).c_str());
    }
    if (options.pid) {
        const auto isOther = [&](const Page& page) { return page.process.pid != *options.pid; };
        found.pages.erase(std::remove_if(found.pages.begin(), found.pages.end(), isOther), found.pages.end());
    }
    return found.pages;
}

// A collector that reads the file at any moment finds it whole.
void writeFile(const std::string& path, const std::string& text) {
    struct ::stat there {};
    if (::lstat(path.c_str(), &there) == 0 && !S_ISREG(there.st_mode))
        throw Failure(kUsage, harmless(path) + ": this is no regular file; to write to standard output, give -");
    if (const std::string fault = cli::faultOfNewFile(path); !fault.empty())
        throw Failure(kUsage, harmless(path) + ": " + fault);
    const std::string temporary = path + "." + std::to_string(::getpid());
    const auto fail = [&](const std::string& name) {
        const std::string why = std::strerror(errno);
        ::unlink(temporary.c_str());
        throw Failure(kFinding, harmless(name) + ": " + why);
    };
    ::unlink(temporary.c_str());  // of a process that was killed
    std::FILE* const file = std::fopen(temporary.c_str(), "wxe");
    if (file == nullptr) throw Failure(kUsage, harmless(path) + ": " + std::strerror(errno));
    const bool isWritten = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    const bool isReadable = ::fchmod(::fileno(file), 0644) == 0;
    const bool isClosed = std::fclose(file) == 0;
    if (!isWritten || !isReadable || !isClosed) fail(temporary);
    if (std::rename(temporary.c_str(), path.c_str()) != 0) fail(path);
}

std::string view(const Options& options, const std::vector<Page>& pages, const std::vector<Page>& before) {
    if (options.json) return stat::asJson(pages);
    if (options.loss) return stat::asLossTable(pages);
    return stat::asText(pages, before);
}

// A table without a row would look like one that nothing was lost in.
void explainEmptyTable(const Options& options, const std::vector<Page>& pages) {
    const auto hasStream = [](const Page& page) { return !page.streams.empty(); };
    if (!options.loss || pages.empty() || std::any_of(pages.begin(), pages.end(), hasStream)) return;
    std::puts("no stream has been opened yet: the table has a line for each");
}

// Again and again, a file that cannot be written is told once, and tried again. The first time it ends the program: a
// wrong name is seen at once.
class MetricsFile {
public:
    explicit MetricsFile(std::string path) : m_path(std::move(path)) {}

    void write(const std::vector<Page>& pages) {
        try {
            writeFile(m_path, stat::asPrometheus(pages));
            m_isWritten = true;
            m_fault.clear();
        } catch (const Failure& failure) {
            if (!m_isWritten) throw;
            if (m_fault != failure.what()) std::fprintf(stderr, "vexo: %s; it will be tried again\n", failure.what());
            m_fault = failure.what();
        }
    }

private:
    const std::string m_path;
    std::string m_fault;  // that was told
    bool m_isWritten = false;
};

// @return whether there was a page
bool showOnce(const Options& options, MetricsFile& metrics, std::vector<Page>& before, bool isFirst) {
    std::vector<Page> pages = look(options, isFirst);
    const bool isAny = !pages.empty();
    if (!options.prometheus.empty() && options.prometheus != "-") {
        metrics.write(pages);
        return isAny;
    }
    const bool repaints = options.watch > 0 && !options.json && options.prometheus.empty() &&
                          cli::isTerminal(STDOUT_FILENO);
    if (repaints) std::fputs("\033[H\033[2J", stdout);
    const std::string text = options.prometheus == "-" ? stat::asPrometheus(pages) : view(options, pages, before);
    std::fputs(text.c_str(), stdout);
    explainEmptyTable(options, pages);
    if (options.watch > 0 && !repaints && !options.json && options.prometheus.empty()) std::puts("");
    terminal::statusOfOutput(0);
    before = std::move(pages);
    return isAny;
}

// What a page is missing for.
std::string whyNoPage(const Options& options) {
    if (options.pid) {
        std::string others;
        for (const Page& page : stat::findPages(options.directory).pages)
            others += (others.empty() ? "" : ", ") + std::to_string(page.process.pid);
        const std::string rest = others.empty() ? "" : "; there are those of " + others;
        return "no statistics page of process " + std::to_string(*options.pid) + rest;
    }
    return "no statistics page" + (options.directory.empty() ? "" : " in " + harmless(options.directory));
}

int run(const Options& options) {
    if (options.port) {
        stat::listen(*options.port, [&options] { return stat::asPrometheus(look(options, false)); });
        return 0;
    }
    MetricsFile metrics(options.prometheus);
    std::vector<Page> before;
    bool isAny = showOnce(options, metrics, before, true);
    while (options.watch > 0) {
        std::this_thread::sleep_for(std::chrono::duration<double>(options.watch));
        isAny = showOnce(options, metrics, before, false);
    }
    if (isAny || !options.prometheus.empty()) return 0;
    return cli::fail("vexo", kFinding,
                     whyNoPage(options) + "; a program gets one by: vexo tap --stats-only -- PROGRAM");
}

}  // namespace

void addStat(const cli::Command& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    const cli::Command stat = app.addCommand("stat", "Show what running programs receive and lose");
    stat.addOption("--dir", options->directory,
                   "Directory of the pages; the default is $VEXO_STATS_DIR, or else those of all users")
        .takes("DIR")
        .check(cli::directory());
    stat.addOption("--pid", options->pid, "Show only this process").takes("PID").check(cli::processId());
    const cli::Option loss = stat.addFlag("--loss", options->loss, "Show one table: packets lost, by cause");
    const cli::Option json = stat.addFlag("--json", options->json, "Show one line of JSON for each process");
    const cli::Option prometheus = stat.addOption(
        "--prometheus", options->prometheus,
        "Write metrics of Prometheus into this file, for the node exporter's textfile directory; - is standard output");
    prometheus.takes("FILE");
    const cli::Option watch = stat.addOption("--watch", options->watch,
                                             "Show again after so many seconds, until Ctrl-C");
    watch.takes("SECONDS").check(cli::number(0.1, kLongestWatch)).mayStandAlone("1");
    const cli::Option listen = stat.addOption(
        "--listen", options->port, "Serve metrics over HTTP at this port of 127.0.0.1, until Ctrl-C; 0 is any");
    listen.takes("PORT").check(cli::wholeNumber(0, 65535));
    json.excludes(loss).excludes(prometheus).excludes(listen);
    prometheus.excludes(loss).excludes(listen);
    listen.excludes(loss).excludes(watch);
    cli::tellStatuses(stat, {{cli::kFine, "there was a page, or metrics were written"},
                             {kFinding, "no page, or a failure"},
                             {kUsage, "wrong usage"}});
    stat.whenChosen([options, watch, &invocation] {
        if (watch.isGiven() && options->watch == 0) options->watch = kUsualWatch;
        invocation.run = [options] { return run(*options); };
    });
}

}  // namespace vexo
