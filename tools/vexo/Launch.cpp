#include "tools/vexo/Launch.h"

#include <VexoZceMdStatsPage.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/data/LayoutFile.h"
#include "tools/vexo/show/Harmless.h"

namespace vexo {
namespace {

// Memory, processes and files come back, and a program that somebody writes will be whole.
bool isForTheMoment(int error) {
    return error == EAGAIN || error == ENOMEM || error == EMFILE || error == ENFILE || error == ETXTBSY;
}

}  // namespace

void takeProgram(const cli::Command& subcommand, const std::string& name, Invocation& invocation,
                 const std::string& notes) {
    subcommand.footer("Run it as:  vexo " + name + " [OPTIONS] -- PROGRAM [ARGUMENTS]" +
                      (notes.empty() ? "" : "\n" + notes));
    cli::tellStatuses(subcommand, {{kFinding, "the program cannot be run for the moment"},
                                   {kUsage, "wrong usage, or a file that was named and cannot be read"},
                                   {kCannotRun, "the program cannot be run"},
                                   {kNotFound, "the program is not there"},
                                   {cli::kElse, "that of the program"}});
    invocation.takeProgram.push_back(subcommand);
}

void requireProgram(const Program& program) {
    if (program.empty()) throw Failure(kUsage, "no program to run: put it after --, as in: -- ./app app.ini");
}

void prepend(const char* variable, const std::filesystem::path& path) {
    const std::string text = path.string();
    if (text.find_first_of(":;") != std::string::npos) {
        throw Failure(kCannotRun, text + ": a colon or a semicolon in this path would mislead the loader");
    }
    const char* before = std::getenv(variable);
    set(variable, before != nullptr && *before != '\0' ? text + ":" + before : text);
}

void preload(const std::filesystem::path& library) {
    // A program that was built with the address sanitizer ends at once when anything is loaded before it.
    const char* sanitizer = std::getenv("ASAN_OPTIONS");
    set("ASAN_OPTIONS", std::string("verify_asan_link_order=0") + (sanitizer != nullptr ? ":" : "") +
                            (sanitizer != nullptr ? sanitizer : ""));
    if (library.string().find_first_of(" \t") == std::string::npos) {
        prepend("LD_PRELOAD", library);
        return;
    }
    // The loader splits LD_PRELOAD at blanks, but not LD_LIBRARY_PATH, where it looks for a name without a directory.
    prepend("LD_LIBRARY_PATH", library.parent_path());
    prepend("LD_PRELOAD", library.filename());
}

void set(const char* variable, const std::string& value) {
    if (::setenv(variable, value.c_str(), 1) != 0) throw Failure(kCannotRun, std::strerror(errno));
}

void keepPaths() {
    namespace fs = std::filesystem;
    const char* const named = std::getenv(data::kLayoutVariable);
    std::string layouts;
    for (std::string rest = named != nullptr ? named : ""; !rest.empty();) {
        const std::string name = rest.substr(0, rest.find(':'));
        rest.erase(0, name.size() + 1);
        if (name.empty()) continue;
        const std::string path = name == data::kSimulated ? name : fs::absolute(name).string();
        if (path.find(':') != std::string::npos)
            throw Failure(kUsage, harmless(path) + ": give a layout without a colon in its path");
        layouts += (layouts.empty() ? "" : ":") + path;
    }
    if (!layouts.empty()) set(data::kLayoutVariable, layouts);
    const char* const pages = std::getenv(vexo_stats::kDirectoryVariable);
    if (pages != nullptr && *pages != '\0') set(vexo_stats::kDirectoryVariable, fs::absolute(pages).string());
}

void become(const Program& program) {
    std::vector<char*> words;
    words.reserve(program.size() + 1);
    for (const std::string& word : program) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    ::execvp(words[0], words.data());
    const int error = errno;
    const int status = isForTheMoment(error) ? kFinding : error == ENOENT ? kNotFound : kCannotRun;
    throw Failure(status, program[0] + ": " + std::strerror(error));
}

}  // namespace vexo
