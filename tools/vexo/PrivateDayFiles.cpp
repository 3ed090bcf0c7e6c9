#include "tools/vexo/PrivateDayFiles.h"

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>

#include "sim/shm/CardPlaces.h"
#include "tools/vexo/Failure.h"

namespace vexo {
namespace {

namespace fs = std::filesystem;

constexpr auto kKept = std::chrono::hours(48);  // a day file is loaded only in its own half-day

[[noreturn]] void fail(const std::string& command, const std::string& why) {
    throw Failure(kCannotRun,
                  "no place for the day file: " + why + "\nTo use the one in /tmp: " + command + " --shared-day-file");
}

// Whoever can write here decides which rows a simulated start subscribes.
bool isPrivate(const std::string& directory) {
    struct stat status {};
    return ::lstat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::geteuid() &&
           (status.st_mode & 0077) == 0;
}

bool isOld(const fs::directory_entry& entry) {
    std::error_code error;
    const fs::file_time_type written = entry.last_write_time(error);
    return !error && fs::file_time_type::clock::now() - written > kKept;
}

void removeOld(const std::string& directory) {
    std::error_code error;
    for (const fs::directory_entry& card : fs::directory_iterator(directory, error)) {
        const bool unused = isOld(card);  // another program may just have made it
        for (const fs::directory_entry& file : fs::directory_iterator(card.path(), error))
            if (isOld(file)) fs::remove(file.path(), error);
        if (unused) fs::remove(card.path(), error);  // not when files are left
    }
}

}  // namespace

std::string privateDayFiles(const std::string& command) {
    // Where the user's hosted cards would lie: out of reach of other users, and gone after a restart of the machine.
    const vexo_sim::NewCardPlace place = vexo_sim::makeCardDirectory(std::nullopt);
    if (place.directory.empty()) fail(command, place.error);
    const std::string directory = fs::absolute(place.directory).string() + "/vexo-day-files-" +
                                  std::to_string(::geteuid());
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST)
        fail(command, directory + ": " + std::strerror(errno));
    if (!isPrivate(directory)) fail(command, directory + " is not a directory that only this user can use; remove it");
    removeOld(directory);
    return directory;
}

}  // namespace vexo
