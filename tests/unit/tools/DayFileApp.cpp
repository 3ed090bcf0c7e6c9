// Opens the card, then writes or reads a file the way the library does.
//     vexo_day_file_app [--no-card] write FILE TEXT | read FILE
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <enyx-hw-c/enyx_hw.h>

namespace {

void openCard() {
    enyx_hw_filter* anything = enyx_hw_filter_create();
    enyx_hw_accelerator_descriptor* descriptor = nullptr;
    if (enyx_hw_enumerate_accelerators(anything, &descriptor, 1) > 0) enyx_hw_accelerator_get(descriptor);
    enyx_hw_free_accelerator_descriptors(&descriptor, 1);
    enyx_hw_filter_destroy(anything);
}

int writeFile(const std::string& path, const std::string& text) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
    if (fd < 0 || ::write(fd, text.data(), text.size()) < 0) return std::perror(path.c_str()), 1;
    struct stat status {};
    ::fstat(fd, &status);
    std::printf("wrote with mode %o\n", status.st_mode & 0777U);
    return 0;
}

int readFile(const std::string& path) {
    char text[256] = "";
    errno = 0;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::printf("not read: %s\n", std::strerror(errno)), 0;
    std::printf("read %.*s\n", static_cast<int>(::read(fd, text, sizeof text)), text);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    if (!words.empty() && words[0] == "--no-card")
        words.erase(words.begin());
    else
        openCard();
    ::umask(022);
    return words.size() == 3 ? writeFile(words[1], words[2]) : readFile(words.at(1));
}
