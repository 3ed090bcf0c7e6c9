#include "tests/support/CaptureOutput.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <system_error>

namespace {

/// Buffered text belongs to the target that was in use when it was printed.
void FlushAll() {
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
}

/// Appending, so that writers with offsets of their own (child processes) never overwrite each other.
int OpenUnnamedFile() {
    std::string name = (std::filesystem::temp_directory_path() / "vexo-capture-XXXXXX").string();
    const int fd = ::mkostemp(name.data(), O_APPEND | O_CLOEXEC);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), name);
    ::unlink(name.c_str());
    return fd;
}

}  // namespace

namespace test_support {

CaptureOutput::CaptureOutput(int fd) : m_fd(fd), m_savedFd(-1), m_fileFd(OpenUnnamedFile()) {
    FlushAll();
    m_savedFd = ::fcntl(m_fd, F_DUPFD_CLOEXEC, 3);
    if (m_savedFd < 0 || ::dup2(m_fileFd, m_fd) < 0) {
        const int error = errno;
        ::close(m_fileFd);
        throw std::system_error(error, std::generic_category(), "capture of a descriptor");
    }
}

CaptureOutput::~CaptureOutput() {
    Stop();
    ::close(m_fileFd);
}

std::string CaptureOutput::Text() const {
    if (m_savedFd >= 0) FlushAll();
    std::string text;
    char block[4096];
    ssize_t got = 0;
    while ((got = ::pread(m_fileFd, block, sizeof block, static_cast<off_t>(text.size()))) > 0) {
        text.append(block, static_cast<std::size_t>(got));
    }
    return text;
}

std::string CaptureOutput::Stop() {
    if (m_savedFd >= 0) {
        FlushAll();
        ::dup2(m_savedFd, m_fd);
        ::close(m_savedFd);
        m_savedFd = -1;
    }
    return Text();
}

}  // namespace test_support
