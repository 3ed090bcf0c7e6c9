#include <unistd.h>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/cli/Values.h"
#include "tools/vexo/Command.h"
#include "tools/vexo/show/Harmless.h"
#include "tools/vexo/show/LogJson.h"
#include "tools/vexo/show/LogLine.h"
#include "tools/vexo/show/LogSource.h"
#include "tools/vexo/show/MessageTable.h"
#include "tools/vexo/show/Messages.h"
#include "tools/vexo/show/Terminal.h"

namespace vexo {
namespace {

constexpr useconds_t kBetweenLooks = 200000;  // microseconds
constexpr std::size_t kTailOfFollow = 10;
constexpr std::size_t kMostLines = 1000000;
constexpr std::size_t kMostSimilar = 10;

struct Options {
    std::vector<std::string> paths;
    bool follow = false;
    std::string level;
    std::optional<std::size_t> lines;
    std::string color;
    std::string explain;
    bool json = false;
};

// ---- lines ----

// Shows lines; at first only the last ones, if so many are asked for.
class View {
public:
    View(const Options& options, bool named)
        : m_color(terminal::isColored(options.color)),
          m_json(options.json),
          m_named(named),
          m_level(options.level.empty() ? kNoLevel : levelNamed(options.level)),
          m_tail(options.follow && !options.lines ? kTailOfFollow : options.lines) {}

    void add(const LogSource& source, const ShownLine& line) {
        if (m_level != kNoLevel && (line.level == kNoLevel || line.level > m_level)) return;
        m_any = true;
        if (!m_tail) {
            print(source.name(), line);
            return;
        }
        m_held.emplace_back(source.name(), line);
        if (m_held.size() > *m_tail) m_held.pop_front();
    }
    // All that was there at first has been added: from now on every line is shown.
    void goOn() {
        for (const auto& [name, line] : m_held) print(name, line);
        m_held.clear();
        m_tail.reset();
        terminal::statusOfOutput(0);
    }
    bool hasAny() const { return m_any; }

private:
    void print(const std::string& name, const ShownLine& line) const {
        if (m_json) {
            std::puts(asJson(name, line).c_str());
            return;
        }
        std::string text = harmless(line.text);
        const std::size_t tag = parseLogLine(line.text).tag.size();
        const char* const color = m_color && tag > 0 ? terminal::colorOfLevel(parseLogLine(line.text).level) : "";
        if (*color != '\0') text = cli::painted(text.substr(0, tag), color, true) + text.substr(tag);
        if (m_named) text.insert(0, harmless(name) + ": ");
        std::puts(text.c_str());
    }

    const bool m_color;
    const bool m_json;
    const bool m_named;
    const std::uint8_t m_level;
    std::optional<std::size_t> m_tail;
    std::deque<std::pair<std::string, ShownLine>> m_held;  // name, line
    bool m_any = false;
};

// A log that cannot be read does not hide the others. @return the status of the worst failure
int openAll(const Options& options, std::vector<LogSource>& sources) {
    int worst = cli::kFine;
    for (const std::string& path : options.paths) {
        LogSource source(path, options.follow);
        try {
            source.open();
            if (!source.isOpen())
                std::fprintf(stderr, "vexo: %s: no log here yet, waiting for one\n", harmless(path).c_str());
            sources.push_back(std::move(source));
        } catch (const Failure& failure) {
            if (options.paths.size() == 1) throw;
            worst = std::max(worst, cli::fail("vexo", failure.status, failure.what()));
        }
    }
    return worst;
}

// The source whose next line is the oldest; null when none has a line.
LogSource* earliest(std::vector<LogSource>& sources) {
    LogSource* first = nullptr;
    for (LogSource& source : sources) {
        const ShownLine* line = source.peek();
        if (line != nullptr && (first == nullptr || line->time < first->peek()->time)) first = &source;
    }
    return first;
}

int show(const Options& options) {
    std::vector<LogSource> sources;
    const int opened = openAll(options, sources);
    if (sources.empty()) return opened;
    View view(options, options.paths.size() > 1);
    for (;;) {
        while (LogSource* source = earliest(sources)) {
            view.add(*source, *source->peek());
            source->drop();
        }
        view.goOn();
        if (!options.follow) break;
        ::usleep(kBetweenLooks);
    }
    if (view.hasAny()) return opened;
    return std::max(
        opened,
        cli::fail("vexo", kFinding, options.level.empty() ? "no line at all" : "no line of this level or a worse one"));
}

// ---- messages ----

void print(const Message& message) {
    std::printf("%s\n  level:       %s (%s)\n  when:        %s\n  what to do:  %s\n", message.format.c_str(),
                message.level.c_str(), message.place.c_str(), message.when.c_str(), message.cure.c_str());
}

int explain(const std::string& text, bool json) {
    if (text.find_first_not_of(" \t\n") == std::string::npos) throw Failure(kUsage, "--explain: the text is empty");
    const std::vector<Message> all = parseMessages(kMessagesPage);
    std::vector<Message> found = messagesOf(text, all);
    if (found.empty()) found = messagesWith(text, all);
    if (found.empty()) {
        throw Failure(kFinding, "no message of the library has this text: " + harmless(text) +
                                    "\nGive less of it, for example the words before the first number.");
    }
    if (json) {
        std::puts(asJson(found).c_str());
        return terminal::statusOfOutput(0);
    }
    for (std::size_t i = 0; i < found.size() && i < kMostSimilar; ++i) {
        if (i > 0) std::puts("");
        print(found[i]);
    }
    if (found.size() > kMostSimilar) {
        std::printf("\n%zu more messages have this text: give more of it.\n", found.size() - kMostSimilar);
    }
    return terminal::statusOfOutput(0);
}

std::string levelFault(const std::string& name) {
    return levelNamed(name) == kNoLevel ? name + " is no level; give assert, error, warn, event, info, debug or verbose"
                                        : "";
}

int run(Options& options) {
    if (options.paths.empty()) options.paths.emplace_back(".");
    return show(options);
}

}  // namespace

void addLog(const cli::Command& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    const cli::Command log = app.addCommand("log", "Show logs of the library, and explain their messages");
    const cli::Option paths = log.addOption(
        "paths", options->paths,
        "Log files, or working directories of programs; several are merged by time. "
        "The default is the newest log of this directory");
    paths.takes("FILE|DIRECTORY");
    const cli::Option follow = log.addFlag("-f,--follow", options->follow,
                                           "Go on showing what comes, also in the files of later days");
    const cli::Option level = log.addOption(
        "--level", options->level,
        "Show only this level and worse ones: assert, error, warn (or warning), event, info, debug, "
        "verbose");
    level.takes("LEVEL").check({levelFault});
    const cli::Option lines = log.addOption("-n,--lines", options->lines,
                                            "Show only the last lines, so many; with --follow, 10 unless given");
    lines.takes("N").check(cli::wholeNumber(0, kMostLines));
    log.addFlag("--json", options->json,
                "Write JSON: one object a line of the log; with --explain one for all messages");
    terminal::addColorOption(log, options->color);
    const cli::Option explained = log.addOption("--explain", options->explain,
                                                "Explain a message: a line of a log, or a part of one");
    explained.takes("TEXT").excludes(paths).excludes(follow).excludes(level).excludes(lines);
    log.footer("Run it as:  vexo log [OPTIONS] [FILE|DIRECTORY]...");
    cli::tellStatuses(log, {{cli::kFine, "there was something to show"},
                            {kFinding, "no log, no such line, or no such message"},
                            {kUsage, "wrong usage, or a log that was named and cannot be read"}});
    log.whenChosen([options, explained, &invocation] {
        const bool wantsExplanation = explained.isGiven();
        invocation.run = [options, wantsExplanation] {
            return wantsExplanation ? explain(options->explain, options->json) : run(*options);
        };
    });
}

}  // namespace vexo
