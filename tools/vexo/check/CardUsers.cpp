#include "tools/vexo/check/CardUsers.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cctype>
#include <fstream>

namespace vexo::check {
namespace {

namespace fs = std::filesystem;

bool isNumber(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

std::string userOf(const fs::path& path) {
    struct stat status;
    if (::stat(path.c_str(), &status) != 0) return "unknown";
    const passwd* const user = ::getpwuid(status.st_uid);
    return user != nullptr ? user->pw_name : std::to_string(status.st_uid);
}

bool isCardLibrary(const std::string& file) { return file.find("/libenyx-hw-c.so") != std::string::npos; }

}  // namespace

std::set<std::string> cardLibrariesOf(const fs::path& process) {
    std::set<std::string> libraries;
    std::ifstream maps(process / "maps");
    for (std::string line; std::getline(maps, line);) {
        const std::size_t path = line.find('/');
        const std::string file = path != std::string::npos ? line.substr(path) : "";
        if (isCardLibrary(file) || file.find("/libvexo_zce_md.so") != std::string::npos) libraries.insert(file);
    }
    return libraries;
}

std::string describeProcess(const fs::path& process) {
    std::ifstream comm(process / "comm");
    std::string program;
    std::getline(comm, program);
    return "process " + process.filename().string() + " (" + program + ", user " + userOf(process) + ")";
}

std::vector<fs::path> allProcesses() {
    std::vector<fs::path> processes;
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error))
        if (isNumber(entry->path().filename().string())) processes.push_back(entry->path());
    std::sort(processes.begin(), processes.end());
    return processes;
}

std::vector<std::string> cardUsers() {
    std::vector<std::string> users;
    const std::string self = std::to_string(::getpid());
    for (const fs::path& process : allProcesses()) {
        const std::set<std::string> libraries = cardLibrariesOf(process);
        const bool uses = std::any_of(libraries.begin(), libraries.end(), isCardLibrary);
        if (uses && process.filename() != self) users.push_back(describeProcess(process));
    }
    return users;
}

}  // namespace vexo::check
