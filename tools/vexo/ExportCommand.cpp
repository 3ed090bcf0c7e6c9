#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/data/CaptureSource.h"
#include "tools/vexo/Command.h"
#include "tools/vexo/export/Filter.h"
#include "tools/vexo/export/Progress.h"
#include "tools/vexo/export/RowWriter.h"
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

/// What has been exported, and what not.
struct Outcome {
    std::uint64_t rows = 0;
    std::map<std::uint32_t, std::uint64_t> unknown;  // packets that no layout describes, by type
    bool isDamaged = false;
};

// The format that was asked for, or that the name of the output shows.
std::string formatOf(const Options& options) {
    if (!options.format.empty()) return options.format;
    std::string name = options.output;
    if (OutputFile::isCompressedName(name)) name.resize(name.size() - 4);
    const std::size_t dot = name.rfind('.');
    const std::string ending = dot == std::string::npos ? "" : name.substr(dot + 1);
    return ending == "jsonl" || ending == "npy" ? ending : "csv";
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
                                  ": this is no time; write \"2026-11-22 21:30\", in the exchange's zone, or seconds "
                                  "since 1970");
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

/// Reads captures, one after the other, into one output.
class Exporter {
public:
    Exporter(const Options& options, RowMaker& maker, RowWriter& writer)
        : m_options(options), m_maker(maker), m_writer(writer) {}

    void take(const std::string& path, data::CaptureSource& source, Progress& progress, std::uint64_t bytesBefore) {
        capture::Reader reader(source.stream());
        m_maker.beginCapture();
        capture::Packet packet;
        Row row;
        while (!isFull() && reader.next(packet)) {
            takePacket(packet, row);
            progress.update(m_outcome.rows, bytesBefore + source.readBytes());
        }
        if (!reader.damage()) return;
        m_outcome.isDamaged = true;
        progress.clear();
        const std::string why = source.failure().empty() ? "" : ": " + source.failure();
        std::fprintf(stderr, "vexo: %s: %s%s; what precedes it is exported\n", harmless(path).c_str(),
                     reader.damage()->text.c_str(), why.c_str());
    }
    bool isFull() const { return m_options.limit > 0 && m_outcome.rows >= m_options.limit; }
    const Outcome& outcome() const { return m_outcome; }

private:
    static constexpr std::uint32_t kContractMap = 2;  // has no payload that a layout could describe

    void takePacket(const capture::Packet& packet, Row& row) {
        if (!m_maker.begin(packet, row)) return;
        if (!m_options.filter.takes(row)) return;
        if (row.payload == nullptr && !m_options.filter.takesUnknown) {
            if (row.type != kContractMap) ++m_outcome.unknown[row.type];
            return;
        }
        m_maker.addQuoteTime(row);
        if (!m_options.filter.takesSession(row)) return;
        m_maker.complete(row);
        m_writer.add(m_maker, row);
        ++m_outcome.rows;
    }

    const Options& m_options;
    RowMaker& m_maker;
    RowWriter& m_writer;
    Outcome m_outcome;
};

void sayWhatIsMissing(const Outcome& outcome, const RowMaker& maker) {
    for (const auto& [type, count] : outcome.unknown) {
        std::fprintf(stderr,
                     "vexo: no layout describes %llu packets of type %u: left out. Give a layout with --layout, or "
                     "their bytes with the column payload\n",
                     static_cast<unsigned long long>(count), type);
    }
    if (maker.nonsenseTimes() > 0) {
        std::fprintf(stderr, "vexo: %llu quotes have an exchange time that is none: without day and session\n",
                     static_cast<unsigned long long>(maker.nonsenseTimes()));
    }
    if (outcome.rows == 0) std::fprintf(stderr, "vexo: no packet became a row\n");
}

using Sources = std::vector<std::unique_ptr<data::CaptureSource>>;

// All before the first row is written: a wrong name in the middle must not cost a long run.
Sources openAll(const std::vector<std::string>& paths) {
    Sources sources;
    for (const std::string& path : paths) sources.push_back(std::make_unique<data::CaptureSource>(path));
    return sources;
}

std::uint64_t bytesOf(const Sources& sources) {
    std::uint64_t all = 0;
    for (const auto& source : sources) {
        if (source->fileBytes() == 0) return 0;  // a pipe among them: nobody knows
        all += source->fileBytes();
    }
    return all;
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
    Sources sources = openAll(options.captures);
    OutputFile file(options.output);
    const std::unique_ptr<RowWriter> writer = makeWriter(format, file, columns);
    Exporter exporter(options, maker, *writer);
    {
        Progress progress(bytesOf(sources));
        std::uint64_t bytesBefore = 0;
        for (std::size_t i = 0; i < sources.size() && !exporter.isFull(); ++i) {
            exporter.take(options.captures[i], *sources[i], progress, bytesBefore);
            bytesBefore += sources[i]->fileBytes();
        }
    }
    writer->finish(exporter.outcome().rows);
    file.finish();
    sayWhatIsMissing(exporter.outcome(), maker);
    return exporter.outcome().rows > 0 && !exporter.outcome().isDamaged ? 0 : kFinding;
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

void addFilters(CLI::App& command, Options& options) {
    command.add_option("--id", options.filter.ids, "Only these ids, such as SR701; * stands for any characters: SR*")
        ->type_name("ID,...")
        ->delimiter(',')
        ->allow_extra_args(false);
    command.add_option("--type", options.filter.types, "Only these packet types: 17, 18, 19, 20")
        ->type_name("N,...")
        ->delimiter(',')
        ->allow_extra_args(false);
    command.add_option("--channel", options.filter.channels, "Only these channels")
        ->type_name("N,...")
        ->delimiter(',')
        ->allow_extra_args(false);
    command
        .add_option(
            "--from", options.from,
            "Only packets from this time on: \"2026-11-22 21:30\" of the exchange's zone, or seconds since 1970")
        ->type_name("TIME");
    command.add_option("--until", options.until, "Only packets before this time")->type_name("TIME");
    command
        .add_option("--session", options.filter.sessions,
                    "Only quotes of these sessions: night, day, morning, afternoon; by the exchange's time")
        ->type_name("NAME,...")
        ->delimiter(',')
        ->allow_extra_args(false);
    command.add_option("--limit", options.limit, "End after so many rows")
        ->type_name("N")
        ->check(CLI::Range(std::uint64_t{1}, ~std::uint64_t{0}));
}

}  // namespace

void addExport(CLI::App& app, Invocation& invocation) {
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("export",
                                           "Write the quotes of captures as CSV, JSON lines or a numpy array");
    command->add_option("captures", options->captures, "Captures, also compressed with zstd; - is standard input")
        ->type_name("FILE");
    command
        ->add_option("--to", options->format,
                     "csv, jsonl or npy; the default is what the name of the output ends with, or csv")
        ->type_name("FORMAT")
        ->check(CLI::IsMember({"csv", "jsonl", "npy"}));
    command
        ->add_option(
            "-o,--output", options->output,
            "File to write; compressed if it ends with .zst; - is standard output. A file that exists is never overwritten")
        ->type_name("FILE")
        ->capture_default_str();
    command->add_option("--columns", options->columns, "Columns, in this order; see --list-columns")
        ->type_name("NAME,...")
        ->delimiter(',')
        ->allow_extra_args(false);
    addFilters(*command, *options);
    command
        ->add_option("--layout", options->layouts,
                     "Layout of the payloads; the default is VEXO_LAYOUT, or simulated, the simulated card's")
        ->type_name("FILE")
        ->allow_extra_args(false);
    command->add_option("--holidays", options->holidays, "File with the exchange's holidays, for day and session")
        ->type_name("FILE");
    command->add_flag("--list-columns", options->listsColumns, "Show all columns, with those of the layouts");
    command->footer("Run it as:  vexo export [OPTIONS] CAPTURE...");
    cli::tellStatuses(*command, {{cli::kFine, "rows written"},
                                 {kFinding, "no row, or a damaged capture"},
                                 {kUsage, "wrong usage, or a file that cannot be opened"}});
    command->callback([options, &invocation] { invocation.run = [options] { return run(*options); }; });
}

}  // namespace vexo
