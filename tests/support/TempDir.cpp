#include "tests/support/TempDir.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace {

[[noreturn]] void Throw(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

}  // namespace

namespace test_support {

TempDir::TempDir()
    : m_path((std::filesystem::temp_directory_path() / "vexo-test-XXXXXX").string()),
      m_oldCwdFd(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    if (m_oldCwdFd < 0) Throw("old working directory");
    if (::mkdtemp(m_path.data()) == nullptr || ::chdir(m_path.c_str()) != 0) {
        const int error = errno;
        ::close(m_oldCwdFd);
        errno = error;
        Throw(m_path);
    }
}

TempDir::~TempDir() {
    if (::fchdir(m_oldCwdFd) != 0) std::perror("back to the old working directory");
    ::close(m_oldCwdFd);
    ::chmod(m_path.c_str(), 0700);  // a test may have locked the directory
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string TempDir::Write(const std::string& name, const std::string& content, unsigned int mode) const {
    const std::string path = Path(name);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    if (!file || ::chmod(path.c_str(), mode) != 0) Throw(path);
    return path;
}

std::string TempDir::Read(const std::string& name) const {
    std::ifstream file(Path(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

}  // namespace test_support
