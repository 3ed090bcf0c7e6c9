#include "tests/fuzz/Fuzz.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace fuzz {

void Require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "FINDING: %s\n", what);
    std::abort();
}

void RequireEqual(const std::string& ours, const std::string& expected, const char* what) {
    if (ours == expected) return;
    std::fprintf(stderr, "FINDING: %s\n--- is\n%s\n--- should be\n%s\n", what, ours.c_str(), expected.c_str());
    std::abort();
}

std::uint8_t Input::Byte() { return static_cast<std::uint8_t>(Number(1)); }

std::uint16_t Input::Word() { return static_cast<std::uint16_t>(Number(2)); }

std::uint64_t Input::Number(unsigned int bytes) {
    std::uint64_t number = 0;
    for (unsigned int i = 0; i < bytes && m_left > 0; ++i, --m_left) number |= std::uint64_t{*m_data++} << (8 * i);
    return number;
}

const std::uint8_t* Input::Bytes(std::size_t& size) {
    size = std::min(size, m_left);
    const std::uint8_t* const begin = m_data;
    m_data += size;
    m_left -= size;
    return begin;
}

std::string Input::Rest() {
    std::size_t size = m_left;
    const auto* begin = reinterpret_cast<const char*>(Bytes(size));
    return size == 0 ? std::string() : std::string(begin, size);
}

std::unique_ptr<unsigned char[]> ExactCopy(const std::uint8_t* data, std::size_t size) {
    std::unique_ptr<unsigned char[]> copy(new unsigned char[size]);
    std::copy(data, data + size, copy.get());
    return copy;
}

void DropStandardOutput() {
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null < 0 || ::dup2(null, STDOUT_FILENO) < 0) Require(false, "standard output cannot be dropped");
    ::close(null);
}

MemoryFile::MemoryFile() : m_fd(::memfd_create("fuzz", MFD_CLOEXEC)) {
    Require(m_fd >= 0, "no file in memory");
    m_path = "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(m_fd);
}

MemoryFile::~MemoryFile() { ::close(m_fd); }

void MemoryFile::Write(const void* data, std::size_t size) const {
    Require(::ftruncate(m_fd, 0) == 0, "the file in memory is not emptied");
    const auto* from = static_cast<const char*>(data);
    for (std::size_t done = 0; done < size;) {
        const ssize_t written = ::pwrite(m_fd, from + done, size - done, static_cast<off_t>(done));
        Require(written > 0, "the file in memory is not written");
        done += static_cast<std::size_t>(written);
    }
}

}  // namespace fuzz
