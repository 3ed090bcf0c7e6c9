#include "tools/vexo/watch/Receiver.h"

#include <VexoZceMdStatsPage.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <system_error>

#include "capture/StandardStreams.h"
#include "tools/vexo/Launch.h"
#include "tools/vexo/Places.h"
#include "tools/vexo/check/StartLog.h"
#include "tools/vexo/show/Harmless.h"
#include "tools/vexo/watch/Descriptor.h"

namespace vexo::watch {
namespace {

namespace fs = std::filesystem;

constexpr char kOutput[] = "output";  // what the library prints, in the receiver's directory
constexpr int kLooks = 500;           // at a process that is to end
constexpr useconds_t kBetweenLooks = 10000;

Failure noReceiver(const std::string& what, int error) {
    return {kCannotRun, "cannot receive: " + what + ": " + std::strerror(error)};
}

fs::path newDirectory() {
    std::error_code error;
    const fs::path parent = fs::temp_directory_path(error);
    std::string path = ((error ? fs::path("/tmp") : parent) / "vexo-watch-XXXXXX").string();
    if (::mkdtemp(path.data()) == nullptr) throw noReceiver(path, errno);
    return path;
}

struct SpawnActions {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;

    SpawnActions() {
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawnattr_init(&attributes);
    }
    ~SpawnActions() {
        ::posix_spawn_file_actions_destroy(&actions);
        ::posix_spawnattr_destroy(&attributes);
    }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
};

}  // namespace

Receiver::Receiver(const check::ConfigFacts& config, const run::Signals& signals) {
    const capture::StandardNumbersTaken taken;
    const Descriptor page(::memfd_create("vexo-instruments", MFD_CLOEXEC));
    if (page.get() < 0 || ::ftruncate(page.get(), sizeof *m_page) != 0) throw noReceiver("shared memory", errno);
    void* const at = ::mmap(nullptr, sizeof *m_page, PROT_READ | PROT_WRITE, MAP_SHARED, page.get(), 0);
    if (at == MAP_FAILED) throw noReceiver("shared memory", errno);
    m_page = static_cast<receiver::InstrumentPage*>(at);
    try {
        m_directory = newDirectory();
        start(fs::absolute(config.file).string(), signals, page.get());
    } catch (...) {
        std::error_code error;
        fs::remove_all(m_directory, error);
        ::munmap(m_page, sizeof *m_page);
        throw;
    }
}

void Receiver::start(const std::string& config, const run::Signals& signals, int page) {
    // This process has them, too, but does nothing with them.
    ::unsetenv(vexo_stats::kKeepVariable);
    keepPaths();
    preload(statsLibrary());
    const std::string program = receiverProgram().string();
    const std::string output = (m_directory / kOutput).string();
    const std::string words[] = {program, config, m_directory.string(), std::to_string(page),
                                 std::to_string(::getpid())};
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);

    SpawnActions spawn;
    sigset_t usual;
    ::sigemptyset(&usual);
    ::sigaddset(&usual, SIGPIPE);
    ::posix_spawnattr_setsigdefault(&spawn.attributes, &usual);
    ::posix_spawnattr_setsigmask(&spawn.attributes, &signals.before());
    ::posix_spawnattr_setflags(&spawn.attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    ::posix_spawn_file_actions_addopen(&spawn.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_addopen(&spawn.actions, STDOUT_FILENO, output.c_str(),
                                       O_WRONLY | O_CREAT | O_EXCL | O_APPEND, 0600);
    ::posix_spawn_file_actions_adddup2(&spawn.actions, STDOUT_FILENO, STDERR_FILENO);
    ::posix_spawn_file_actions_adddup2(&spawn.actions, page, page);  // it stays open over the exec
    const int error = ::posix_spawn(&m_pid, program.c_str(), &spawn.actions, &spawn.attributes, arguments.data(),
                                    environ);
    if (error != 0) throw noReceiver(program, error);
}

Receiver::~Receiver() {
    end();
    std::error_code error;
    fs::remove_all(m_directory, error);
    ::munmap(m_page, sizeof *m_page);
}

bool Receiver::hasEnded() {
    int status = 0;
    if (!m_status && ::waitpid(m_pid, &status, WNOHANG) == m_pid) m_status = status;
    return m_status.has_value();
}

void Receiver::end() {
    if (hasEnded()) return;
    ::kill(m_pid, SIGTERM);
    ::kill(m_pid, SIGCONT);  // Ctrl-Z may have stopped it
    for (int look = 0; look < kLooks && !hasEnded(); ++look) ::usleep(kBetweenLooks);
    if (hasEnded()) return;
    ::kill(m_pid, SIGKILL);
    int status = 0;
    while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_status = status;
}

std::string Receiver::whyEnded() const {
    if (!m_status || (WIFEXITED(*m_status) && WEXITSTATUS(*m_status) == 0)) return {};
    if (WIFSIGNALED(*m_status))
        return std::string("the receiver was ended by a signal: ") + ::strsignal(WTERMSIG(*m_status));
    return "the receiver ended with status " + std::to_string(WEXITSTATUS(*m_status)) + ": " + outputLine();
}

std::string Receiver::outputLine(const std::string& beginning) const {
    std::ifstream output(m_directory / kOutput);
    std::string last;
    for (std::string line; std::getline(output, line);)
        if (!line.empty() && line.compare(0, beginning.size(), beginning) == 0) last = line;
    return harmless(last);
}

void Receiver::failWithoutPage() const {
    throw Failure(kFinding, "the receiver has no statistics page: " + outputLine("vexo tap: "));
}

void Receiver::failStart() const {
    check::StartEnd end;
    try {
        end = check::endOfStart((m_directory / kOutput).string());
    } catch (const std::runtime_error&) {
        end = {};  // somebody removed the file
    }
    if (end.line == nullptr) throw Failure(kFinding, "the start failed: " + outputLine());
    throw Failure(
        end.line->again == check::Again::kNoCard ? kNoCard : kFinding,
        std::string("the start failed while ") + end.line->step + ": " + end.line->why + "\n" + end.line->todo);
}

Instruments Receiver::instruments() const {
    Instruments found;
    for (const receiver::Slot& slot : m_page->slots) {
        const std::uint64_t packets = slot.packets.load(std::memory_order_acquire);
        if (packets != 0) found.all.push_back({{slot.id, ::strnlen(slot.id, sizeof slot.id)}, packets});
    }
    found.unknown = m_page->unknown;
    found.crowded = m_page->crowded;
    return found;
}

}  // namespace vexo::watch
