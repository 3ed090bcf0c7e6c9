#include "tools/vexo/report/Collect.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <ctime>
#include <filesystem>
#include <regex>

#include "tools/vexo/InputFile.h"
#include "tools/vexo/check/ConfigCheck.h"
#include "tools/vexo/check/DayFileState.h"
#include "tools/vexo/check/SimRun.h"
#include "tools/vexo/report/Host.h"
#include "tools/vexo/report/Mask.h"

namespace vexo::report {
namespace {

namespace fs = std::filesystem;

// A configuration has a few kilobytes, a line of the log some hundred characters: what is larger is something else.
constexpr off_t kMostOfConfig = 1 << 20;
constexpr off_t kMostOfLog = 16 << 20;

// The last bytes of a regular file. Nothing when there is none.
std::string endOf(const std::string& path, off_t most) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return {};
    struct stat status;
    std::string content;
    if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        content.resize(static_cast<std::size_t>(std::min(status.st_size, most)));
        const ssize_t n = ::pread(fd, content.data(), content.size(), status.st_size - std::min(status.st_size, most));
        content.resize(static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    }
    ::close(fd);
    return content;
}

std::string lastLines(const std::string& text, std::size_t lines) {
    std::size_t begin = text.size();
    for (; begin > 0 && lines > 0; --lines) {
        const std::size_t before = begin > 1 ? text.rfind('\n', begin - 2) : std::string::npos;
        begin = before == std::string::npos ? 0 : before + 1;
    }
    return text.substr(begin);
}

// For an archive that may be unpacked anywhere.
std::string plainName(const std::string& path) {
    std::string name = fs::path(path).filename().string().substr(0, 40);
    for (char& c : name)
        if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '.' && c != '-' && c != '_') c = '_';
    return name;
}

// The newest log of the library in a directory; empty when there is none.
std::string newestLog(const std::string& directory) {
    static const std::regex name("fpga_[0-9]{8}\\.log");
    std::string newest;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
        const std::string file = entry->path().filename().string();
        if (std::regex_match(file, name) && file > newest) newest = file;
    }
    return newest;
}

std::string dayFiles() {
    check::Report report;
    const std::string now = check::todaysDayFile(std::time(nullptr));
    const std::string date = now.substr(0, now.rfind('_'));
    const std::string directory = check::dayFileDirectory(std::nullopt);
    if (directory.empty()) return "there is no simulated card, so a start looks for no day file\n";
    const bool isPrivate = directory != check::kSharedDayFiles;
    for (const char* half : {"_am", "_pm"})
        report.add(check::findingOf(check::stateOfDayFile(directory + date + half), true, isPrivate));
    return asText(report, false);
}

void addConfigs(const Wanted& wanted, std::vector<Part>& parts) {
    std::size_t number = 0;
    for (const std::string& config : wanted.configs) {
        requireFile(config);
        std::error_code error;
        if (!fs::is_regular_file(config, error) || fs::file_size(config, error) > kMostOfConfig)
            throw Failure(kUsage, config + ": this is no configuration");
        parts.push_back({"config-" + std::to_string(++number) + "-" + plainName(config), "the configuration " + config,
                         endOf(config, kMostOfConfig)});
    }
}

void addCheck(const Wanted& wanted, std::vector<Part>& parts) {
    if (wanted.configs.empty()) return;
    check::Report report;
    std::vector<check::ConfigFacts> programs;
    for (const std::string& config : wanted.configs)
        programs.push_back(readable(config, [&] { return check::checkConfig(config, report); }));
    check::checkTogether(programs, report);
    check::checkHost(programs, wanted.places, report);
    parts.push_back({"check.txt", "what vexo check finds", asText(report, false)});
}

// The log of the library, and the outputs that vexo run has kept.
void addLogs(const Wanted& wanted, std::vector<Part>& parts) {
    const auto add = [&](const std::string& file, const std::string& what) {
        const std::string content = endOf(wanted.places.directory + "/" + file, kMostOfLog);
        if (!content.empty()) parts.push_back({plainName(file), what, lastLines(content, wanted.lines)});
    };
    const std::string last = "the last " + std::to_string(wanted.lines) + " lines of ";
    if (const std::string log = newestLog(wanted.places.directory); !log.empty()) add(log, last + log);
    for (const std::string& config : wanted.configs) {
        const std::string output = fs::path(config).stem().string() + ".out";
        for (const char* start : {"", ".1"}) add(output + start, last + output + start);
    }
}

}  // namespace

std::vector<Part> collect(const Wanted& wanted) {
    std::vector<Part> parts;
    parts.push_back({"versions.txt", "versions of vexo and of the system", versions()});
    addConfigs(wanted, parts);
    addCheck(wanted, parts);
    addLogs(wanted, parts);
    parts.push_back({"day-file.txt", "state of today's day files, not their content", dayFiles()});
    parts.push_back({"cpus.txt", "CPUs: isolation, governors, kernel options", cpus()});
    parts.push_back({"interrupts.txt", "interrupts and the CPUs that take them", interrupts()});
    parts.push_back({"devices.txt", "kernel modules and PCI devices", devices()});
    parts.push_back({"holders.txt", "processes with a card's library, a day file, a log or a device", holders()});
    Mask mask;
    for (Part& part : parts)
        if (wanted.masked) part.content = mask.apply(part.content);
    return parts;
}

}  // namespace vexo::report
