#include "tools/vexo/report/Host.h"

#include <gnu/libc-version.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <vector>

#include "VexoZceUtil.h"
#include "tools/Version.h"
#include "tools/vexo/check/CardUsers.h"

namespace vexo::report {
namespace {

namespace fs = std::filesystem;

// Not the files of /proc, which are read to their end: what a file may add at most.
constexpr std::size_t kMost = 1U << 20;

std::string contentOf(const fs::path& path) {
    std::ifstream file(path);
    std::string content(kMost, '\0');
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<std::size_t>(std::max<std::streamsize>(file.gcount(), 0)));
    return content;
}

std::string firstLineOf(const fs::path& path) {
    const std::string content = contentOf(path);
    return content.substr(0, content.find('\n'));
}

// "/sys/.../online: 0-3"; nothing when the kernel has no such file.
std::string labelled(const fs::path& path) {
    std::error_code error;
    return fs::exists(path, error) ? path.string() + ": " + firstLineOf(path) + "\n" : "";
}

std::string whole(const fs::path& path) { return "== " + path.string() + "\n" + contentOf(path) + "\n"; }

// The entries of a directory, in order. None when it cannot be read.
std::vector<fs::path> entriesOf(const fs::path& directory) {
    std::vector<fs::path> entries;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error))
        entries.push_back(entry->path());
    std::sort(entries.begin(), entries.end());
    return entries;
}

std::string targetOf(const fs::path& link) {
    std::error_code error;
    return fs::read_symlink(link, error).string();
}

// What comes behind this name in a file of /proc.
std::string fieldOf(const fs::path& path, const std::string& name) {
    std::istringstream text(contentOf(path));
    for (std::string line; std::getline(text, line);) {
        if (line.compare(0, name.size(), name) != 0) continue;
        const std::size_t value = line.find_first_not_of(": \t", name.size());
        return value != std::string::npos ? line.substr(value) : "";
    }
    return {};
}

// Devices that every process has open tell nothing.
bool isOfInterest(const std::string& file) {
    static const std::set<std::string> usual = {"/dev/null", "/dev/zero",    "/dev/full", "/dev/random",
                                                "/dev/tty",  "/dev/urandom", "/dev/ptmx"};
    const bool isDevice = file.compare(0, 5, "/dev/") == 0 && usual.count(file) == 0 &&
                          file.compare(0, 9, "/dev/pts/") != 0;
    return isDevice || file.find("/.zce_") != std::string::npos || file.find("/fpga_") != std::string::npos;
}

std::string threadsOf(const fs::path& process) {
    std::string text;
    for (const fs::path& thread : entriesOf(process / "task"))
        text += "    thread " + thread.filename().string() + " (" + firstLineOf(thread / "comm") + "): may use CPU " +
                fieldOf(thread / "status", "Cpus_allowed_list") + "\n";
    return text;
}

// Neither its arguments nor its environment: they may hold passwords.
std::string describe(const fs::path& process) {
    const std::set<std::string> libraries = check::cardLibrariesOf(process);
    std::set<std::string> files;
    for (const fs::path& descriptor : entriesOf(process / "fd"))
        if (const std::string file = targetOf(descriptor); isOfInterest(file)) files.insert(file);
    if (libraries.empty() && files.empty()) return {};
    std::string text = check::describeProcess(process) + ", in " + targetOf(process / "cwd") + "\n";
    for (const std::string& library : libraries) text += "    has loaded " + library + "\n";
    for (const std::string& file : files) text += "    has open " + file + "\n";
    return text + (libraries.empty() ? "" : threadsOf(process));
}

}  // namespace

std::string versions() {
    utsname system{};
    ::uname(&system);
    std::string text = std::string("vexo: ") + kVexoVersion + "\n";
    text += std::string("library of vexo: ") + GetUpDmaLibVersion() + "\n";
    text += std::string("kernel: ") + system.sysname + " " + system.release + " " + system.version + " " +
            system.machine + "\n";
    text += std::string("C library: ") + ::gnu_get_libc_version() + "\n";
    text += "distribution: " + fieldOf("/etc/os-release", "PRETTY_NAME=") + "\n";
    return text + "time zone: " + targetOf("/etc/localtime") + "\n";
}

std::string cpus() {
    const fs::path system = "/sys/devices/system/cpu";
    std::string text = "model: " + fieldOf("/proc/cpuinfo", "model name") + "\n";
    for (const char* file : {"possible", "online", "isolated", "nohz_full", "smt/active"})
        text += labelled(system / file);
    text += labelled("/proc/cmdline");
    for (const char* file : {"sched_rt_runtime_us", "numa_balancing", "timer_migration"})
        text += labelled(fs::path("/proc/sys/kernel") / file);
    text += labelled("/sys/devices/system/clocksource/clocksource0/current_clocksource");
    text += labelled("/sys/kernel/mm/transparent_hugepage/enabled");
    for (const fs::path& cpu : entriesOf(system)) text += labelled(cpu / "cpufreq/scaling_governor");
    return text + "CPUs of this process: " + fieldOf("/proc/self/status", "Cpus_allowed_list") + "\n";
}

std::string interrupts() {
    std::string text = whole("/proc/interrupts") + whole("/proc/softirqs") + labelled("/proc/irq/default_smp_affinity");
    for (const fs::path& interrupt : entriesOf("/proc/irq")) text += labelled(interrupt / "smp_affinity_list");
    return text;
}

std::string devices() {
    std::string text = whole("/proc/modules") + "== /sys/bus/pci/devices\n";
    for (const fs::path& device : entriesOf("/sys/bus/pci/devices"))
        text += device.filename().string() + " class " + firstLineOf(device / "class") + " vendor " +
                firstLineOf(device / "vendor") + " device " + firstLineOf(device / "device") + " driver " +
                fs::path(targetOf(device / "driver")).filename().string() + "\n";
    return text;
}

std::string holders() {
    std::string text;
    std::size_t hidden = 0;
    for (const fs::path& process : check::allProcesses()) {
        if (::access((process / "fd").c_str(), R_OK | X_OK) != 0) ++hidden;
        text += describe(process);
    }
    if (hidden != 0)
        text += std::to_string(hidden) + " processes of other users could not be looked at; root sees them\n";
    return text + whole("/proc/locks");
}

}  // namespace vexo::report
