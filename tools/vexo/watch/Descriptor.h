#pragma once

#include <unistd.h>

namespace vexo::watch {

/// Closes a file descriptor at the end of its scope.
class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) ::close(m_fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return m_fd; }  ///< negative if there is none

private:
    int m_fd;
};

}  // namespace vexo::watch
