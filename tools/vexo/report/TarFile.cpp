#include "tools/vexo/report/TarFile.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <numeric>

#include "tools/vexo/Failure.h"

namespace vexo::report {
namespace {

constexpr std::size_t kBlock = 512;
constexpr mode_t kOwnerOnly = 0600;

// The head of a file, as POSIX fixes it. Numbers are octal digits.
struct Head {
    char name[100];
    char mode[8];
    char uid[8];
    char gid[8];
    char size[12];
    char time[12];
    char checksum[8];
    char type;
    char linkName[100];
    char magic[6];
    char version[2];
    char userName[32];
    char groupName[32];
    char deviceMajor[8];
    char deviceMinor[8];
    char prefix[155];
    char unused[12];
};
static_assert(sizeof(Head) == kBlock);

template <std::size_t size>
void putOctal(char (&field)[size], unsigned long long value) {
    std::snprintf(field, size, "%0*llo", static_cast<int>(size - 1), value);
}

// The sum of all bytes, while the field itself is blank.
void putChecksum(Head& head) {
    std::memset(head.checksum, ' ', sizeof head.checksum);
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&head);
    const unsigned sum = std::accumulate(bytes, bytes + sizeof head, 0U);
    std::snprintf(head.checksum, sizeof head.checksum, "%06o", sum);
    head.checksum[7] = ' ';
}

}  // namespace

std::string tarOf(const std::vector<Part>& parts, const std::string& folder, std::time_t time) {
    std::string tar;
    for (const Part& part : parts) {
        Head head{};
        const std::string name = folder + "/" + part.name;
        if (name.size() >= sizeof head.name) throw Failure(kFinding, name + ": this name is too long for the archive");
        std::memcpy(head.name, name.data(), name.size());
        putOctal(head.mode, kOwnerOnly);
        putOctal(head.uid, 0);
        putOctal(head.gid, 0);
        putOctal(head.size, part.content.size());
        putOctal(head.time, static_cast<unsigned long long>(time));
        head.type = '0';
        std::memcpy(head.magic, "ustar", 6);
        std::memcpy(head.version, "00", 2);
        putChecksum(head);
        tar.append(reinterpret_cast<const char*>(&head), sizeof head);
        tar += part.content;
        tar.resize((tar.size() + kBlock - 1) / kBlock * kBlock);
    }
    tar.append(2 * kBlock, '\0');  // the end
    return tar;
}

void writeNew(const std::string& path, const std::string& content) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kOwnerOnly);
    if (fd < 0) throw Failure(kUsage, path + ": " + std::strerror(errno));
    std::size_t done = 0;
    int error = 0;
    while (done < content.size() && error == 0) {
        const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n > 0) done += static_cast<std::size_t>(n);
        if (n <= 0 && errno != EINTR) error = n < 0 ? errno : EIO;
    }
    if (::close(fd) != 0 && error == 0) error = errno;
    if (error == 0) return;
    ::unlink(path.c_str());
    throw Failure(kFinding, path + ": " + std::strerror(error));
}

}  // namespace vexo::report
