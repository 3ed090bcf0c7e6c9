#include "tools/share/SharedRing.h"

#include <VexoZceMdStatsFile.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace share {

// Absolute: a program may change its directory later.
std::string directory() {
    const char* const named = ::secure_getenv(kDirectoryVariable);
    if (named == nullptr || *named == '\0') return kDirectoryPrefix + std::to_string(::geteuid());
    if (*named == '/') return named;
    char* const here = ::getcwd(nullptr, 0);
    const std::string path = (here != nullptr ? std::string(here) + "/" : "") + named;
    std::free(here);
    return path;
}

// Others must not be able to exchange files in it.
int openDirectory(std::string& fault) {
    const std::string path = directory();
    const bool isNew = ::mkdir(path.c_str(), 0700) == 0;
    const int fd = vexo_stats::aboveStandardStreams(
        ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat found {};
    fault.clear();
    if (fd < 0 || ::fstat(fd, &found) != 0) {
        fault = path + ": " + std::strerror(errno);
    } else if (found.st_uid != ::geteuid()) {
        fault = path + ": the directory belongs to another user";
    } else if ((found.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        fault = path + ": other users can write to the directory";
    } else if (isNew) {
        ::fchmod(fd, 0700);  // whatever the umask says
    }
    if (fault.empty()) return fd;
    if (fd >= 0) ::close(fd);
    return -1;
}

std::string fileName(std::uint32_t card, std::uint32_t channel) {
    return std::to_string(card) + "." + std::to_string(channel) + ".ring";
}

}  // namespace share
