#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "sim/shm/SharedCard.h"
#include "tests/support/TempDir.h"

namespace vexo_sim {

/// A card's file in a directory of its own, as its host makes it.
struct ShmFixture : ::testing::Test {
    test_support::TempDir dir;
    CardFile made = CardFile::create(dir.Path(), 0, 0600, getegid());
    CardBlock* block = made.map();
    std::string path = cardPath(dir.Path(), geteuid(), 0);

    ShmFixture() {
        block->init();
        made.publish(path);
    }

    /// The card as another process finds it. To be called in that process: a process opens a card's file once.
    std::unique_ptr<SharedCard> Open() const {
        CardFile file = CardFile::open(path, geteuid());
        CardBlock* mapped = file.map();
        return std::make_unique<SharedCard>(std::move(file), *mapped, "test");
    }
};

/// A copy of this process that does one thing and then waits to be killed.
class Child {
public:
    /// @p work runs in the child, and the constructor returns when it is done.
    template <typename Work>
    explicit Child(Work work) {
        int ready[2];
        if (pipe(ready) != 0) abort();
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            work();
            if (write(ready[1], "x", 1) != 1) _exit(1);
            for (;;) pause();
        }
        close(ready[1]);
        char byte = 0;
        m_isReady = read(ready[0], &byte, 1) == 1;
        close(ready[0]);
    }
    ~Child() { Kill(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool IsReady() const { return m_isReady; }
    pid_t Id() const { return m_pid; }
    void Kill() {
        if (m_pid == 0) return;
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = 0;
    }

private:
    pid_t m_pid = 0;
    bool m_isReady = false;
};

}  // namespace vexo_sim
