#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/cli/Progress.h"
#include "tools/cli/Values.h"
#include "tools/data/LayoutFile.h"
#include "tools/vexo/Command.h"
#include "tools/vexo/Launch.h"
#include "tools/vexo/run/Signals.h"
#include "tools/vexo/show/Harmless.h"
#include "tools/vexo/show/Terminal.h"
#include "tools/vexo/watch/Frame.h"
#include "tools/vexo/watch/Reports.h"
#include "tools/vexo/watch/Screen.h"
#include "tools/vexo/watch/Watched.h"

namespace vexo {
namespace {

using watch::Look;
using watch::Scene;
using watch::Watched;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr double kDay = 86400;
constexpr double kBetweenLooksAtAStart = 0.1;

struct Options {
    std::string config;
    std::optional<std::uint32_t> pid;
    std::string directory;
    std::vector<std::string> layouts;
    double interval = 1;
    std::optional<double> seconds;
    bool plain = false;
    bool json = false;
    std::string color;
};

enum class Manner { kView, kLines, kJson };

Manner mannerOf(const Options& options) {
    if (options.json) return Manner::kJson;
    return options.plain || !cli::isTerminal(STDOUT_FILENO) ? Manner::kLines : Manner::kView;
}

Clock::time_point after(Clock::time_point begin, double seconds) {
    return begin + std::chrono::duration_cast<Clock::duration>(Seconds(seconds));
}

/// Looks at what is watched again and again, until it ends, a signal comes or the time is over.
class Session {
public:
    Session(const Options& options, run::Signals& signals, Watched& watched)
        : m_options(options),
          m_signals(signals),
          m_watched(watched),
          m_manner(mannerOf(options)),
          m_colored(terminal::isColored(options.color)),
          m_screen(m_colored) {
        m_scene.source = watched.source();
        m_scene.countsInstruments = watched.countsInstruments();
    }

    int run() {
        look();
        bool isStopped = false;
        while (!isStopped && !isOver()) {
            show();
            isStopped = !waitForNext();
        }
        const std::string fault = isStopped ? "" : m_watched.fault();
        m_watched.end();
        summarize();
        return fault.empty() ? cli::kFine : cli::fail("vexo", kFinding, fault);
    }

private:
    void look() {
        m_now = m_watched.look(m_scene);
        if (!m_first && m_watched.isStarted()) m_first = m_now;
        if (!m_end && m_options.seconds && m_watched.isStarted()) m_end = after(Clock::now(), *m_options.seconds);
    }
    bool isOver() const { return m_watched.hasEnded() || (m_end && Clock::now() >= *m_end); }

    void show() {
        watch::compare(m_now, m_before ? &*m_before : nullptr, m_scene);
        m_before = m_now;
        if (m_manner == Manner::kView) return paint();
        const std::string text = m_manner == Manner::kJson ? watch::asJson(m_scene, "look")
                                                           : watch::asLines(m_scene, m_colored);
        print(text);
    }
    void paint() {
        const watch::Screen::Window window = watch::Screen::window();
        m_screen.paint(watch::frame(m_scene, window.columns, std::max<std::size_t>(window.rows, 2) - 1));
        m_scene.newLines = 0;
    }
    void print(const std::string& text) {
        std::fwrite(text.data(), 1, text.size(), stdout);
        terminal::statusOfOutput(0);
        m_scene.newLines = 0;
    }

    // Ends with a look. @return false after a stop signal
    bool waitForNext() {
        Clock::time_point next = after(Clock::now(), m_options.interval);
        if (m_end) next = std::min(next, *m_end);
        for (;;) {
            const double left = Seconds(next - Clock::now()).count();
            if (left <= 0) break;
            const bool isStarted = m_watched.isStarted();
            const auto signal = m_signals.wait(isStarted ? left : std::min(left, kBetweenLooksAtAStart));
            if (signal && run::isStop(signal->ssi_signo)) return false;
            if (signal && m_manner == Manner::kView) take(signal->ssi_signo);
            if (!isStarted) look();
            if (isOver() || (signal && signal->ssi_signo == SIGCHLD)) break;
        }
        look();
        return true;
    }
    void take(unsigned signal) {
        if (signal == SIGWINCH) {
            m_screen.resized();
        } else if (signal == SIGCONT) {
            m_screen.leave();
        } else {
            return;
        }
        paint();
    }

    void summarize() {
        m_now = m_watched.look(m_scene);
        const bool hasLooked = m_before.has_value();
        watch::compare(m_now, hasLooked && m_first ? &*m_first : nullptr, m_scene);
        if (m_manner == Manner::kJson) return print(watch::asJson(m_scene, "summary"));
        print((m_manner == Manner::kView && hasLooked ? "\n" : "") +
              watch::asSummary(m_scene, hasLooked && m_first ? &*m_first->page : nullptr, m_colored));
    }

    const Options& m_options;
    run::Signals& m_signals;
    Watched& m_watched;
    const Manner m_manner;
    const bool m_colored;
    watch::Screen m_screen;
    Scene m_scene;
    Look m_now;
    std::optional<Look> m_first;   // after a start
    std::optional<Look> m_before;  // the last one that was shown
    std::optional<Clock::time_point> m_end;
};

// The receiver finds them in the environment.
void useLayouts(const std::vector<std::string>& names) {
    try {
        const data::Layouts layouts(names);
    } catch (const data::LayoutError& error) {
        throw Failure(kUsage, error.what());
    }
    std::string list;
    for (const std::string& name : names) {
        if (name.find(':') != std::string::npos)
            throw Failure(kUsage, harmless(name) + ": give a layout without a colon in its path");
        list += (list.empty() ? "" : ":") + name;
    }
    if (!list.empty()) set(data::kLayoutVariable, list);
}

int follow(const Options& options) {
    if (options.config.empty() && !options.pid)
        throw Failure(kUsage, "nothing to watch: name a configuration, or a process with --pid\nSee vexo watch --help");
    run::Signals signals({SIGWINCH, SIGCONT});
    std::signal(SIGPIPE, SIG_DFL);  // as of every program whose reader has enough
    if (options.pid) {
        Watched watched = Watched::process(options.directory, static_cast<pid_t>(*options.pid));
        return Session(options, signals, watched).run();
    }
    useLayouts(options.layouts);
    Watched watched = Watched::channel(options.config, options.directory, signals);
    return Session(options, signals, watched).run();
}

}  // namespace

void addWatch(const cli::Command& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    const cli::Command watch = app.addCommand("watch", "Show live what a channel or a process receives and loses");
    const cli::Option config = watch.addOption("CONFIG.ini", options->config,
                                               "Receive on the channel of this configuration, and show it");
    const cli::Option pid = watch.addOption("--pid", options->pid, "Show a process that has a statistics page");
    pid.takes("PID").check(cli::processId()).excludes(config);
    watch
        .addOption("--dir", options->directory,
                   "Directory of the pages; the default is $VEXO_STATS_DIR, or else those of all users")
        .takes("DIR");
    watch
        .addOption("--layout", options->layouts,
                   "Layout file of the payload, for the ids of instruments; may be given several times")
        .takes("FILE")
        .takesOneEach()
        .excludes(pid);
    watch.addOption("--interval", options->interval, "Look again after so many seconds")
        .takes("SECONDS")
        .check(cli::number(0.1, kDay))
        .showsDefault();
    watch.addOption("--seconds", options->seconds, "End after so many seconds; without it, on Ctrl-C")
        .takes("SECONDS")
        .check(cli::number(0.1, 366 * kDay));
    const cli::Option plain = watch.addFlag("--plain", options->plain,
                                            "Write lines, one for each look; so it does where there is no terminal");
    watch.addFlag("--json", options->json, "Write one line of JSON for each look").excludes(plain);
    terminal::addColorOption(watch, options->color);
    watch.footer(
        "The start of a master, channel 0, resets the card: while other processes use the card, watch them with "
        "--pid.");
    cli::tellStatuses(watch, {{cli::kFine, "the numbers were shown"},
                              {kFinding, "no page, the channel is taken, or the start failed"},
                              {kUsage, "wrong usage, or a file that cannot be read"},
                              {kNoCard, "no card"}});
    watch.whenChosen([options, &invocation] { invocation.run = [options] { return follow(*options); }; });
}

}  // namespace vexo
