#pragma once

#include <sys/types.h>
#include <deque>
#include <memory>
#include <string>

#include "tools/vexo/run/Signals.h"
#include "tools/vexo/stat/Pages.h"
#include "tools/vexo/watch/LogTail.h"
#include "tools/vexo/watch/Receiver.h"
#include "tools/vexo/watch/Scene.h"

namespace vexo::watch {

/// What is watched: a process that is counted, or a receiver of our own.
class Watched {
public:
    /// The page of a running process, or one that was kept. @param directory  as of stat::findPages(). Throws Failure.
    static Watched process(const std::string& directory, pid_t pid);
    /// The channel of a configuration. If another process has it, and that process has a page, the page is watched.
    /// Throws Failure.
    static Watched channel(const std::string& config, const std::string& directory, const run::Signals& signals);

    /// Reads everything again. The log goes to @p scene. Throws Failure when a start has failed.
    Look look(Scene& scene);
    /// Whether the numbers have begun to count: false while a receiver of our own starts.
    bool isStarted() const;
    /// Whether nothing more will come.
    bool hasEnded() const { return m_hasEnded; }
    /// Ends a receiver of our own. A last look then shows all that it has received.
    void end();
    /// Why a receiver of our own has ended; empty while it runs, and after an orderly end.
    std::string fault() const;

    const std::string& source() const { return m_source; }
    bool countsInstruments() const { return m_receiver != nullptr; }

private:
    Watched() = default;
    void openPage(const stat::Page& page);
    void findOwnPage();
    void takeLog(Scene& scene);

    std::string m_source;
    std::unique_ptr<Receiver> m_receiver;
    std::unique_ptr<stat::OpenPage> m_page;
    LogTail m_log;
    bool m_hasEnded = false;
    bool m_wasEnded = false;  // by end()
};

}  // namespace vexo::watch
