#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cstdio>
#include <string>

namespace vexo::check {

/// While it lives, nothing reaches standard output and error: the library's checks and the commands that they start
/// complain there, and the report says the same in its own words.
class Quiet {
public:
    Quiet() {
        const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        for (Redirected& one : m_streams) {
            std::fflush(one.stream);
            one.saved = ::fcntl(one.number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
            if (one.saved >= 0 && nowhere >= 0) ::dup2(nowhere, one.number);
        }
        if (nowhere >= 0) ::close(nowhere);
    }
    ~Quiet() {
        for (const Redirected& one : m_streams) {
            std::fflush(one.stream);
            if (one.saved < 0) continue;
            ::dup2(one.saved, one.number);
            ::close(one.saved);
        }
    }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

private:
    struct Redirected {
        std::FILE* stream;
        int number;
        int saved;
    };
    Redirected m_streams[2] = {{stdout, STDOUT_FILENO, -1}, {stderr, STDERR_FILENO, -1}};
};

/// While it lives, what a card's library writes to standard error is kept: the report quotes it.
class StandardError {
public:
    StandardError()
        : m_saved(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)),
          m_text(::memfd_create("standard-error", MFD_CLOEXEC)) {
        std::fflush(stderr);
        if (m_saved >= 0 && m_text >= 0) ::dup2(m_text, STDERR_FILENO);
    }
    ~StandardError() {
        std::fflush(stderr);
        if (m_saved >= 0) {
            ::dup2(m_saved, STDERR_FILENO);
            ::close(m_saved);
        }
        if (m_text >= 0) ::close(m_text);
    }
    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;

    /// "; the card's library says: ..." with its last line; empty when it wrote nothing.
    std::string taken() const {
        char part[4096];
        const off_t end = ::lseek(m_text, 0, SEEK_CUR);
        const off_t begin = end > static_cast<off_t>(sizeof part) ? end - static_cast<off_t>(sizeof part) : 0;
        const ssize_t n = m_text >= 0 ? ::pread(m_text, part, sizeof part, begin) : -1;
        std::string text(part, static_cast<std::size_t>(n > 0 ? n : 0));
        while (!text.empty() && (text.back() == '\n' || text.back() == '.')) text.pop_back();
        text.erase(0, text.rfind('\n') + 1);
        return text.empty() ? "" : "; the card's library says: " + text;
    }

private:
    int m_saved;
    int m_text;
};

}  // namespace vexo::check
