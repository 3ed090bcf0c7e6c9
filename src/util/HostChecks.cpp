#include <errno.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "VexoZceUtil.h"
#include "src/util/SafeFile.h"
#include "src/util/StandardStreams.h"

namespace {

constexpr unsigned int kNoBoard = 0;
constexpr unsigned int kOneEBoard = 1;
constexpr unsigned int kOneXiBoard = 2;
constexpr unsigned int kSeveralEBoards = 3;
constexpr unsigned int kSeveralXiBoards = 4;
constexpr unsigned int kBothKinds = 5;
constexpr unsigned int kNotDetected = 6;

constexpr int kBoardLineSize = 256;     // lspci and lsmod
constexpr int kProcessLineSize = 2048;  // ps, whose lines carry whole command lines
constexpr int kLongestLineSize = kProcessLineSize;

constexpr char kSiblingName[] = "RwDeliverDmaServer";
constexpr char kListSiblings[] = "ps -ef | grep -w RwDeliverDmaServer | grep -v grep";

/// A shell command whose output can be read; waits for its end when it goes out of scope.
class ShellCommand {
public:
    explicit ShellCommand(const char* command) {
        const safe_file::Placeholders noPipeIsLow;
        m_output = ::popen(command, "re");
    }
    ~ShellCommand() {
        if (m_output != nullptr) ::pclose(m_output);
    }
    ShellCommand(const ShellCommand&) = delete;
    ShellCommand& operator=(const ShellCommand&) = delete;

    bool started() const { return m_output != nullptr; }

    /// 0 when the command could not be started.
    /// @param lineSize at most kLongestLineSize; a line that does not fit with its terminator counts as several.
    unsigned int countLines(int lineSize) {
        char line[kLongestLineSize];
        unsigned int lines = 0;
        while (m_output != nullptr && std::fgets(line, lineSize, m_output) != nullptr) ++lines;
        return lines;
    }

private:
    std::FILE* m_output = nullptr;
};

unsigned int countLines(const char* command, int lineSize) { return ShellCommand(command).countLines(lineSize); }

unsigned int boardType(unsigned int eBoards, unsigned int xiBoards) {
    if (eBoards > 0 && xiBoards > 0) return kBothKinds;
    if (eBoards > 0) return eBoards == 1 ? kOneEBoard : kSeveralEBoards;
    if (xiBoards > 0) return xiBoards == 1 ? kOneXiBoard : kSeveralXiBoards;
    return kNoBoard;
}

int requireEDriver() {
    if (IsEDriverInstalled()) return 0;
    standard_streams::print("There exist E board, but the E driver not installed, please install first.\n");
    return -1;
}

int requireXiDriver() {
    if (IsXiDriverInstalled()) return 0;
    standard_streams::print("There exist Xi board, but the Xi driver not installed, please install first.\n");
    return -1;
}

/// A host with both kinds of board may use either of them, so a missing driver is only reported.
int noticeMissingDrivers() {
    const char* const eNotice = IsEDriverInstalled() ? "" : "Attention! the E driver not installed!";
    const char* const xiNotice = IsXiDriverInstalled() ? "" : "Attention! the Xi driver not installed!";
    standard_streams::print("%s%s \n", eNotice, xiNotice);
    return 0;
}

}  // namespace

unsigned int g_curEnvBrdType = kNotDetected;
const char* g_szBrdChkCmd[2] = {"lspci | grep Enyx", "lspci | grep Xilinx"};

int CheckEnvBoard() {
    if (g_curEnvBrdType == kNotDetected) {
        const unsigned int eBoards = countLines(g_szBrdChkCmd[0], kBoardLineSize);
        const unsigned int xiBoards = countLines(g_szBrdChkCmd[1], kBoardLineSize);
        g_curEnvBrdType = boardType(eBoards, xiBoards);
    }
    return static_cast<int>(g_curEnvBrdType);
}

// The output is left unread on purpose: the E driver counts as loaded wherever a shell runs, and applications that
// start on hosts without a module of that name depend on it.
bool IsEDriverInstalled() { return ShellCommand("lsmod | grep hfp").started(); }

bool IsXiDriverInstalled() { return countLines("lsmod | grep xdma", kBoardLineSize) > 0; }

int CheckBeforeRun() {
    switch (CheckEnvBoard()) {
        case kNoBoard:
            standard_streams::print(
                "Unable to recongnize fpga board! if there indeed exist fpga board, firmware maybe error.\n");
            return -1;
        case kOneEBoard:
        case kSeveralEBoards: return requireEDriver();
        case kOneXiBoard:
        case kSeveralXiBoards: return requireXiDriver();
        case kBothKinds: return noticeMissingDrivers();
        default: standard_streams::print("Unsupport board type.%d\n", static_cast<int>(g_curEnvBrdType)); return 0;
    }
}

bool IsProdProgRunning() {
    const bool callerIsSibling = std::strncmp(program_invocation_short_name, kSiblingName, std::strlen(kSiblingName)) ==
                                 0;
    return countLines(kListSiblings, kProcessLineSize) == (callerIsSibling ? 2U : 1U);
}

const char* GetCurUserName() {
    const passwd* const user = ::getpwuid(::getuid());
    return user != nullptr ? user->pw_name : "";
}

bool IsCurUserRoot() { return std::strcmp(GetCurUserName(), "root") == 0; }
