#include "sim/shm/Holder.h"

#include <pwd.h>
#include <sys/stat.h>

#include <fstream>
#include <vector>

namespace vexo_sim {
std::string userName(uid_t uid) {
    std::vector<char> room(4096);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(uid, &entry, room.data(), room.size(), &found) == 0 && found != nullptr) return found->pw_name;
    return std::to_string(uid);
}

Holder describeProcess(pid_t pid) {
    Holder holder;
    holder.pid = pid;
    const std::string folder = "/proc/" + std::to_string(pid);
    std::getline(std::ifstream(folder + "/comm"), holder.program);
    struct stat status {};
    if (pid != 0 && stat(folder.c_str(), &status) == 0) holder.user = userName(status.st_uid);
    return holder;
}

bool isStopped(pid_t pid) {
    std::string line;
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/stat"), line);
    const std::size_t state = line.rfind(") ") + 2;  // the name before it may hold anything
    return state + 1 < line.size() && (line[state] == 'T' || line[state] == 't');
}

std::string toText(const Holder& holder) {
    if (holder.pid == 0) return "a process of another container";
    std::string text = "process " + std::to_string(holder.pid);
    if (holder.program.empty()) return text;
    return text + " (" + holder.program + ", user " + holder.user + ")";
}

}  // namespace vexo_sim
