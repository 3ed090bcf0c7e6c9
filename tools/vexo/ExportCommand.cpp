#include <cstdio>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/cli/Values.h"
#include "tools/data/CaptureSource.h"
#include "tools/vexo/Command.h"
#include "tools/vexo/export/Exporter.h"
#include "tools/vexo/show/Harmless.h"
#include "tools/vexo/show/Terminal.h"

namespace vexo {
namespace {

using namespace exporting;

struct Options {
    std::vector<std::string> captures;
    std::string format;
    std::string output = "-";
    std::vector<std::string> columns;
    std::vector<std::string> layouts;
    std::string holidays;
    std::string from;
    std::string until;
    std::uint64_t limit = 0;
    bool listsColumns = false;
    Filter filter;
};

// The format that was asked for, or that the name of the output shows. A name that shows none is no guess: x.json could
// be lines or one text.
std::string formatOf(const Options& options) {
    if (!options.format.empty()) return options.format;
    if (options.output == "-") return "csv";
    std::string name = options.output;
    if (OutputFile::isCompressedName(name)) name.resize(name.size() - 4);
    const std::size_t dot = name.rfind('.');
    const std::string ending = dot == std::string::npos ? "" : name.substr(dot + 1);
    if (ending == "csv" || ending == "jsonl" || ending == "npy") return ending;
    throw Failure(kUsage, "--output " + harmless(options.output) +
                              ": the name does not show a format; let it end with .csv, .jsonl or .npy, or add --to");
}

std::unique_ptr<RowWriter> makeWriter(const std::string& format, OutputFile& file, const std::vector<Column>& columns) {
    if (format == "npy") return makeNpyWriter(file, columns);
    return format == "jsonl" ? makeJsonWriter(file, columns) : makeCsvWriter(file, columns);
}

void checkOutput(const Options& options, const std::string& format) {
    if (format != "npy") return;
    if (options.output == "-")
        throw Failure(kUsage, "an array of numpy cannot go to standard output; add --output FILE.npy");
    if (OutputFile::isCompressedName(options.output))
        throw Failure(kUsage, "numpy cannot map a compressed file; leave .zst out of --output");
}

std::optional<std::uint64_t> moment(const char* option, const std::string& text) {
    if (text.empty()) return std::nullopt;
    const auto found = momentOf(text);
    if (!found) {
        throw Failure(kUsage, std::string(option) + " " + harmless(text) +
                                  ": this is no time; write \"2026-11-22 21:30\" or 20261122, in the exchange's "
                                  "zone, or seconds since 1970");
    }
    return found;
}

void loadHolidayFile(const std::string& path, vexo_zce::HolidayList& list) {
    if (path.empty()) return;
    const vexo_zce::HolidayFault fault = vexo_zce::loadHolidays(list, path.c_str());
    if (fault.text == nullptr) return;
    const std::string line = fault.line > 0 ? ":" + std::to_string(fault.line) : "";
    throw Failure(kUsage, harmless(path) + line + ": " + fault.text);
}

int listColumns(const data::Layouts& layouts) {
    for (const Column& column : allColumns(layouts)) {
        std::printf("%-16s%s %s\n", column.name.c_str(), column.isDefault ? " " : " +",
                    harmless(column.meaning).c_str());
    }
    std::puts("\nColumns with + are written only if --columns names them.");
    return terminal::statusOfOutput(0);
}

// A word behind a list is a capture for the command line: --type 17 18.
std::string listAdvice(const Options& options) {
    const Filter& filter = options.filter;
    const bool hasList = !filter.types.empty() || !filter.channels.empty() || !filter.ids.empty() ||
                         !filter.sessions.empty() || !options.columns.empty();
    return hasList ? "\nIf it belongs to a list, write the list with commas: --type 17,18" : "";
}

// All before the first row is written: a wrong name in the middle must not cost a long run. One at a time: there may be
// more captures than a process may open.
std::uint64_t checkCaptures(const Options& options) {
    std::uint64_t all = 0;
    bool isKnown = true;
    unsigned standardInputs = 0;
    for (const std::string& path : options.captures) {
        if (path == "-" && ++standardInputs > 1) throw Failure(kUsage, "standard input (-) can be read only once");
        try {
            const std::uint64_t bytes = data::CaptureSource::check(path);
            isKnown = isKnown && bytes > 0;
            all += bytes;
        } catch (const data::SourceError& error) {
            throw Failure(kUsage, error.what() + listAdvice(options));
        }
    }
    return isKnown ? all : 0;  // a pipe among them: nobody knows
}

void checkTypes(const Filter& filter, const data::Layouts& layouts) {
    if (filter.takesUnknown) return;
    std::set<std::uint32_t> known;
    for (const auto& layout : layouts.all()) {
        for (const data::Payload& payload : layout->payloads) known.insert(payload.type);
    }
    for (const std::uint32_t type : filter.types) {
        if (known.count(type) > 0) continue;
        std::string list;
        for (const std::uint32_t one : known) list += (list.empty() ? "" : ", ") + std::to_string(one);
        throw Failure(kUsage, "--type " + std::to_string(type) + ": no layout describes this type; there are " + list +
                                  ". Give a layout with --layout, or name the column payload for its bytes");
    }
}

int exportAll(Options& options, const data::Layouts& layouts) {
    const std::vector<Column> columns = chosenColumns(layouts, options.columns);
    const std::string format = formatOf(options);
    checkOutput(options, format);
    checkSessions(options.filter.sessions);
    options.filter.fromNs = moment("--from", options.from);
    options.filter.untilNs = moment("--until", options.until);
    for (const Column& column : columns) options.filter.takesUnknown |= column.source == Source::kPayload;
    RowMaker maker(layouts, columns, !options.filter.sessions.empty());
    loadHolidayFile(options.holidays, maker.holidays());
    checkTypes(options.filter, layouts);
    const std::uint64_t allBytes = checkCaptures(options);
    OutputFile file(options.output);
    const std::unique_ptr<RowWriter> writer = makeWriter(format, file, columns);
    Exporter exporter(options.filter, options.limit, maker, *writer);
    {
        Progress progress(allBytes);
        std::uint64_t bytesBefore = 0;
        for (const std::string& path : options.captures) {
            if (exporter.isFull()) break;
            bytesBefore += exporter.take(path, progress, bytesBefore);
        }
    }
    const Outcome& outcome = exporter.outcome();
    // Without a row there is no file: one with a head alone would only stand in the way of the next try.
    if (outcome.rows > 0) {
        writer->finish(outcome.rows);
        file.finish();
    }
    sayWhatIsMissing(outcome, maker);
    return outcome.rows > 0 && !outcome.isDamaged ? 0 : kFinding;
}

int run(Options& options) {
    try {
        const data::Layouts layouts(options.layouts);
        if (options.listsColumns) return listColumns(layouts);
        if (options.captures.empty())
            throw Failure(kUsage, "nothing to export: name a capture\nSee vexo export --help");
        return exportAll(options, layouts);
    } catch (const data::LayoutError& error) {
        throw Failure(kUsage, error.what());
    } catch (const data::SourceError& error) {
        throw Failure(kUsage, error.what());
    }
}

void addFilters(const cli::Command& command, Options& options) {
    command.addOption("--id", options.filter.ids, "Only these ids, such as SR701; * stands for any characters: SR*")
        .takes("ID,...")
        .takesList();
    command.addOption("--type", options.filter.types, "Only these packet types: 17, 18, 19, 20")
        .takes("N,...")
        .takesList();
    command.addOption("--channel", options.filter.channels, "Only these channels").takes("N,...").takesList();
    command
        .addOption(
            "--from", options.from,
            "Only packets from this time on: \"2026-11-22 21:30\" or 20261122 of the exchange's zone, or seconds since "
            "1970")
        .takes("TIME")
        .check(cli::notEmpty());
    command.addOption("--until", options.until, "Only packets before this time").takes("TIME").check(cli::notEmpty());
    command
        .addOption("--session", options.filter.sessions,
                   "Only quotes of these sessions: night, day, morning, afternoon; by the exchange's time")
        .takes("NAME,...")
        .takesList();
    command.addOption("--limit", options.limit, "End after so many rows")
        .takes("N")
        .check(cli::wholeNumber(1, ~std::uint64_t{0}));
}

}  // namespace

void addExport(const cli::Command& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    const cli::Command command = app.addCommand("export",
                                                "Write the quotes of captures as CSV, JSON lines or a numpy array");
    command.addOption("captures", options->captures, "Captures, also compressed with zstd; - is standard input")
        .takes("FILE");
    command
        .addOption(
            "--to", options->format,
            "csv, jsonl or npy; the default is what the name of the output ends with, and csv on standard output")
        .takes("FORMAT")
        .check(cli::oneOf({"csv", "jsonl", "npy"}));
    command
        .addOption(
            "-o,--output", options->output,
            "File to write; compressed if it ends with .zst; - is standard output. A file that exists is never overwritten")
        .takes("FILE")
        .check(cli::notEmpty())
        .showsDefault();
    command.addOption("--columns", options->columns, "Columns, in this order; see --list-columns")
        .takes("NAME,...")
        .takesList();
    addFilters(command, *options);
    command
        .addOption("--layout", options->layouts,
                   "Layout of the payloads; the default is VEXO_LAYOUT, or simulated, the simulated card's")
        .takes("FILE")
        .check(cli::notEmpty())
        .takesOneEach();
    command.addOption("--holidays", options->holidays, "File with the exchange's holidays, for day and session")
        .takes("FILE")
        .check(cli::notEmpty());
    command.addFlag("--list-columns", options->listsColumns, "Show all columns, with those of the layouts");
    command.footer("Run it as:  vexo export [OPTIONS] CAPTURE...");
    cli::tellStatuses(command, {{cli::kFine, "rows written"},
                                {kFinding, "no row, or a damaged capture"},
                                {kUsage, "wrong usage, or a file that cannot be opened"}});
    command.whenChosen([options, &invocation] { invocation.run = [options] { return run(*options); }; });
}

}  // namespace vexo
