// An ini file that is no regular file.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "tests/unit/config/ConfigFixture.h"

namespace {

using testing::ElementsAre;

constexpr std::uint32_t kFailure = 0xFFFFFFFF;
constexpr char kText[] = "[config]\ndevice=xilinx2:3\n";
const std::string kNoDevice = "Error! Invalid parameter! Input:  ";

std::string DescriptorPath(int fd) { return "/dev/fd/" + std::to_string(fd); }

/// A process that writes a text to a path or descriptor and ends, while it lives.
class Writer {
public:
    template <typename Act>
    explicit Writer(Act act) : m_pid(::fork()) {
        if (m_pid < 0) throw std::runtime_error("fork");
        if (m_pid == 0) {
            act();
            ::_exit(0);
        }
    }
    ~Writer() {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

private:
    pid_t m_pid;
};

void WriteAll(int fd, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
        if (written <= 0) ::_exit(1);
        done += static_cast<std::size_t>(written);
    }
}

class Pipe {
public:
    Pipe() {
        if (::pipe2(m_ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    }
    ~Pipe() {
        Close(0);
        Close(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int ReadEnd() const { return m_ends[0]; }
    int WriteEnd() const { return m_ends[1]; }
    void CloseWriteEnd() { Close(1); }

private:
    void Close(int end) {
        if (m_ends[end] >= 0) ::close(m_ends[end]);
        m_ends[end] = -1;
    }
    int m_ends[2];
};

class ConfigSource : public ConfigTest {
protected:
    Config& At(const std::string& path) {
        config = std::make_unique<Config>(path, &drv, nullptr);
        return *config;
    }
    void ExpectLoaded(const std::string& path) {
        EXPECT_EQ(At(path).Init(), 0U) << path;
        EXPECT_EQ(config->m_uiBusId, 2U);
        EXPECT_EQ(config->m_uiChannelId, 3U);
    }
    void ExpectRefused(const std::string& path, const std::string& why) {
        std::uint32_t result = 0;
        At(path);

        const Lines output = OutputOf([&] { result = config->Init(); });

        EXPECT_EQ(result, kFailure);
        EXPECT_THAT(output, ElementsAre("ERROR config file " + path + " is not used, " + why + '.',
                                        "ERROR Failed to load file " + path));
        EXPECT_EQ(config->m_pDict, nullptr);
    }
    void ExpectEmptyConfiguration(const std::string& path) {
        std::uint32_t result = 0;
        At(path);

        const Lines output = OutputOf([&] { result = config->Init(); });

        EXPECT_EQ(result, kFailure);
        EXPECT_THAT(output, ElementsAre(kNoDevice, "ERROR Get dma chan fail!"));
    }
    std::string MakeFifo() const {
        const std::string path = dir.Path("fifo");
        if (::mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error(path);
        return path;
    }
};

TEST_F(ConfigSource, APipeIsLoadedToItsEnd) {
    Pipe pipe;
    WriteAll(pipe.WriteEnd(), kText);
    pipe.CloseWriteEnd();

    ExpectLoaded(DescriptorPath(pipe.ReadEnd()));
}

// Waits for ever when the end of the text is taken for an interruption.
TEST_F(ConfigSource, AnErrorFromLongAgoDoesNotCount) {
    dir.Write("zce.ini", kText);
    errno = EINTR;

    ExpectLoaded(dir.Path("zce.ini"));
}

TEST_F(ConfigSource, APipeWhoseWriterTakesItsTimeIsWaitedFor) {
    Pipe pipe;
    const Writer writer([&] {
        ::close(pipe.ReadEnd());
        WriteAll(pipe.WriteEnd(), std::string(300000, '\n') + kText);
    });
    pipe.CloseWriteEnd();

    ExpectLoaded(DescriptorPath(pipe.ReadEnd()));
}

TEST_F(ConfigSource, APipeWithoutTextIsAnEmptyConfiguration) {
    Pipe pipe;
    pipe.CloseWriteEnd();

    ExpectEmptyConfiguration(DescriptorPath(pipe.ReadEnd()));
}

TEST_F(ConfigSource, StandardInputIsLoaded) {
    const int saved = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    Pipe pipe;
    WriteAll(pipe.WriteEnd(), kText);
    pipe.CloseWriteEnd();
    ::dup2(pipe.ReadEnd(), STDIN_FILENO);

    ExpectLoaded("/dev/stdin");

    if (saved >= 0) ::dup2(saved, STDIN_FILENO);
    ::close(saved >= 0 ? saved : STDIN_FILENO);
}

TEST_F(ConfigSource, ADescriptorOfARegularFileIsLoaded) {
    const int fd = ::open(dir.Write("zce.ini", kText).c_str(), O_RDONLY | O_CLOEXEC);

    ExpectLoaded(DescriptorPath(fd));

    ::close(fd);
}

TEST_F(ConfigSource, AFifoWithAWriterIsLoaded) {
    const std::string path = MakeFifo();
    Pipe opened;
    const int keepOpen = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const Writer writer([&] {
        const int fd = ::open(path.c_str(), O_WRONLY);
        ::close(opened.WriteEnd());
        WriteAll(fd, kText);
    });
    opened.CloseWriteEnd();
    char byte;
    ASSERT_EQ(::read(opened.ReadEnd(), &byte, 1), 0);  // the writer has the FIFO open

    ExpectLoaded(path);

    ::close(keepOpen);
}

// Waits for ever when the open does.
TEST_F(ConfigSource, AFifoThatNobodyWritesToIsRefused) { ExpectRefused(MakeFifo(), "nobody writes to this FIFO"); }

TEST_F(ConfigSource, TheNullDeviceIsAnEmptyConfiguration) { ExpectEmptyConfiguration("/dev/null"); }

TEST_F(ConfigSource, ATerminalIsWaitedFor) {
    const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    const char* name = terminal < 0 || ::grantpt(terminal) != 0 || ::unlockpt(terminal) != 0 ? nullptr
                                                                                             : ::ptsname(terminal);
    const int user = name == nullptr ? -1 : ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (user < 0) GTEST_SKIP() << "no pseudo-terminal: " << std::strerror(errno);
    // The source finds nothing to read at first, unless this test is very slow. Then it finds the text at once.
    const Writer writer([&] {
        ::usleep(50'000);
        WriteAll(terminal, kText + std::string("\4"));
        ::pause();
    });

    ExpectLoaded(name);

    ::close(user);
    ::close(terminal);
}

TEST_F(ConfigSource, AnEndlessDeviceIsRefused) { ExpectRefused("/dev/zero", "it does not end"); }

TEST_F(ConfigSource, ASocketCannotBeOpened) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    At(DescriptorPath(ends[0]));
    std::uint32_t result = 0;

    const Lines output = OutputOf([&] { result = config->Init(); });

    EXPECT_EQ(result, kFailure);
    EXPECT_THAT(output, ElementsAre("ERROR Failed to load file " + DescriptorPath(ends[0])));
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(ConfigSource, ATextThatCannotBeReadToItsEndIsRefused) {
    // The memory of a process can be opened, but its first page cannot be read.
    ExpectRefused("/proc/self/mem", "Input/output error");
}

TEST_F(ConfigSource, AMillionLinesAreLoaded) {
    std::string text = kText;
    for (int i = 0; i < 1000000; ++i) text += "; a comment that nobody reads\n";
    for (int i = 0; i < 50000; ++i) text += "key" + std::to_string(i) + " = value\n";

    ASSERT_EQ(Make(text).Init(), 0U);

    EXPECT_STREQ(iniparser_getstring(config->m_pDict, "config:key49999", nullptr), "value");
}

}  // namespace
