#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tools/cli/Values.h"
#include "tools/data/CaptureSource.h"
#include "tools/vexo/Command.h"
#include "tools/vexo/export/OutputFile.h"
#include "tools/vexo/export/Progress.h"
#include "tools/vexo/info/Collector.h"
#include "tools/vexo/info/Views.h"
#include "tools/vexo/show/Terminal.h"

namespace vexo {
namespace {

using info::Summary;

constexpr std::uint64_t kNsOfMicrosecond = 1000;
constexpr std::uint64_t kLongestBurstGapUs = 60'000'000;

struct Options {
    std::vector<std::string> captures;
    std::vector<std::string> others;
    std::vector<std::string> layouts;
    std::string html;
    std::size_t top = 10;
    std::uint64_t burstUs = 10;
    bool json = false;
};

Summary summaryOf(data::CaptureSet& captures, const data::Layouts& layouts, const Options& options) {
    exporting::Progress progress(captures.fileBytes(), "packets");
    const info::Collector* counted = nullptr;
    info::Collector collector(layouts, options.burstUs * kNsOfMicrosecond,
                              [&] { progress.show(counted->packets(), captures.readBytes()); });
    counted = &collector;
    captures.read(collector);
    return collector.finish(captures.paths());
}

// Says what a reader has to know. @return whether there is a packet, and no damage
bool tell(const Summary& summary) {
    for (const std::string& note : info::notesOf(summary)) std::fprintf(stderr, "vexo: %s\n", note.c_str());
    if (summary.packets == 0) std::fprintf(stderr, "vexo: there is no packet of a stream\n");
    const auto isWhole = [](const info::CaptureFile& file) { return file.fault.empty(); };
    return summary.packets > 0 && std::all_of(summary.files.begin(), summary.files.end(), isWhole);
}

void showSummary(const Options& options, const info::View& view, exporting::OutputFile* page) {
    if (page != nullptr) {
        const std::string html = info::asHtml(view);
        page->write(html.data(), html.size());
        page->finish();
        return;
    }
    const std::string text = options.json ? info::asJson(view) : info::asText(view);
    std::fwrite(text.data(), 1, text.size(), stdout);
}

int showAll(const Options& options) {
    if (options.captures.empty()) throw Failure(kUsage, "nothing to show: name a capture\nSee vexo info --help");
    const auto hasInput = [](const std::vector<std::string>& paths) {
        return std::find(paths.begin(), paths.end(), "-") != paths.end();
    };
    if (hasInput(options.captures) && hasInput(options.others))
        throw Failure(kUsage, "standard input cannot be compared with itself");
    const data::Layouts layouts(options.layouts);
    // All before anything is read: a wrong name must not cost a long run.
    data::CaptureSet captures(options.captures);
    std::unique_ptr<data::CaptureSet> others;
    if (!options.others.empty()) others = std::make_unique<data::CaptureSet>(options.others);
    std::unique_ptr<exporting::OutputFile> page;
    if (!options.html.empty()) page = std::make_unique<exporting::OutputFile>(options.html, "--html");

    Summary summary = summaryOf(captures, layouts, options);
    bool isGood = tell(summary);
    info::View view;
    Summary other;
    view.summary = &summary;
    view.top = options.top;
    if (others != nullptr) {
        other = summaryOf(*others, layouts, options);
        isGood = tell(other) && isGood;
        info::align(summary, other);
        view.other = &other;
    }
    showSummary(options, view, page.get());
    return terminal::statusOfOutput(isGood ? 0 : kFinding);
}

int run(const Options& options) {
    try {
        return showAll(options);
    } catch (const data::LayoutError& error) {
        throw Failure(kUsage, error.what());
    } catch (const data::SourceError& error) {
        throw Failure(kUsage, error.what());
    }
}

}  // namespace

void addInfo(const cli::Command& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    const cli::Command command = app.addCommand("info", "Show what captures hold: rates, gaps, losses, instruments");
    command
        .addOption("captures", options->captures,
                   "Captures of one recording, in any order, also compressed with zstd; - is standard input")
        .takes("FILE");
    const cli::Option json = command.addFlag("--json", options->json, "Show it as JSON");
    command
        .addOption("--html", options->html,
                   "Write a page for a browser into this file; a file that exists is never overwritten; - is standard "
                   "output")
        .takes("FILE")
        .check(cli::notEmpty())
        .excludes(json);
    command
        .addOption("--compare", options->others,
                   "Compare with this capture; once for each capture of the other recording")
        .takes("FILE")
        .check(cli::notEmpty())
        .takesOneEach();
    command.addOption("--top", options->top, "Show so many instruments, the busiest first")
        .takes("N")
        .check(cli::wholeNumber(0, info::Collector::kMostInstruments))
        .showsDefault();
    command
        .addOption("--burst", options->burstUs,
                   "Packets belong to one burst if each comes no more than so many microseconds after the one before")
        .takes("US")
        .check(cli::wholeNumber(0, kLongestBurstGapUs))
        .showsDefault();
    command
        .addOption("--layout", options->layouts,
                   "Layout of the payloads; the default is VEXO_LAYOUT, or simulated, the simulated card's")
        .takes("FILE")
        .check(cli::notEmpty())
        .takesOneEach();
    command.footer("Run it as:  vexo info [OPTIONS] CAPTURE...");
    cli::tellStatuses(command, {{cli::kFine, "shown"},
                                {kFinding, "no packet, or a damaged capture"},
                                {kUsage, "wrong usage, or a file that cannot be opened"}});
    command.whenChosen([options, &invocation] { invocation.run = [options] { return run(*options); }; });
}

}  // namespace vexo
