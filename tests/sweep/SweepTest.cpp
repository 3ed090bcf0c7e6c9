// Every call of the library to the operating system, for memory, and to the hardware interface fails at its k-th time,
// once and from then on, and does only a part of its work where it can. Some of the points run with the other tests.
// All of them run with VEXO_SWEEP=all in the environment, as scripts/soak.sh sweep does.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <tuple>

#include "tests/support/Sanitizers.h"
#include "tests/support/TempDir.h"
#include "tests/sweep/Sweep.h"

namespace {

using namespace sweep;

bool TakesAll() {
    const char* const value = std::getenv("VEXO_SWEEP");
    return value != nullptr && std::strcmp(value, "all") == 0;
}

// A sanitizer makes a point ten times as long, and looks at the same code each time.
constexpr bool kSanitized = kWithAddressSanitizer || kWithThreadSanitizer;

// Each point of a reset passes a million register accesses: some of them do, as the other calls are the same.
Choice ChoiceOf(Scene scene, Group group) {
    Choice choice;
    choice.group = group;
    choice.all = TakesAll() && scene != Scene::kReset;
    if (group == Group::kMemory) choice.perCall = 90;  // they are one call
    if (group == Group::kHardware && choice.all) choice.perCall = 300;
    if (scene == Scene::kReset) choice.perCall = 6;
    if (kSanitized) choice.perCall = 3;
    return choice;
}

// scripts/soak.sh adds these lines up.
void Tell(const Result& result) {
    std::printf("sweep: %zu points, %zu findings\n", result.points, result.findings.size());
}

void ExpectNothingFound(Scene scene, const Choice& choice, std::size_t leastPoints) {
    const Result result = Explore(scene, choice);
    Tell(result);
    for (const std::string& finding : result.findings) ADD_FAILURE() << finding;
    EXPECT_GE(result.points, scene == Scene::kReset || kSanitized ? 1 : leastPoints);
}

// The map comes from the file or, when that has no end tag, from the card again.
void ExpectRightMapAfterRestartWith(const std::string& dayFile, Scene scene) {
    const Remains sound = PlayOnce(scene, 0, &dayFile);
    EXPECT_EQ(Judge(sound, sound, 0, nullptr), "") << "restart with the day file:\n" << dayFile;
}

class Sweep : public ::testing::TestWithParam<Scene> {};

TEST_P(Sweep, OfTheCallsToTheOperatingSystem) {
    ExpectNothingFound(GetParam(), ChoiceOf(GetParam(), Group::kHost), 100);
}

TEST_P(Sweep, OfTheCallsToTheHardwareInterface) {
    ExpectNothingFound(GetParam(), ChoiceOf(GetParam(), Group::kHardware), 100);
}

TEST_P(Sweep, OfTheWritesToStandardOutput) {
    ExpectNothingFound(GetParam(), ChoiceOf(GetParam(), Group::kStandardOutput), 100);
}

// The exception reaches the application, or the start ends the process. Then the process starts again.
TEST_P(Sweep, OfTheAllocations) {
    if (kSanitized) GTEST_SKIP() << "the sanitizer has its own malloc";
    const Result result = Explore(GetParam(), ChoiceOf(GetParam(), Group::kMemory));
    Tell(result);
    for (const std::string& finding : result.findings) ADD_FAILURE() << finding;
    EXPECT_GE(result.points, GetParam() == Scene::kReset ? 1U : 100U);
    for (const std::string& dayFile : result.dayFiles) ExpectRightMapAfterRestartWith(dayFile, GetParam());
}

std::string SceneName(Scene scene) {
    return scene == Scene::kFresh ? "FreshStart" : scene == Scene::kRestart ? "Restart" : "Reset";
}

INSTANTIATE_TEST_SUITE_P(, Sweep,
                         ::testing::ValuesIn(TakesAll() ? std::vector{Scene::kFresh, Scene::kRestart, Scene::kReset}
                                                        : std::vector{Scene::kFresh, Scene::kRestart}),
                         [](const auto& scene) { return SceneName(scene.param); });

// ---- standard streams that are closed ----

std::string StreamsName(unsigned int closed) {
    std::string name = closed == 0 ? "NoStream" : "";
    for (const char* stream : {"Input", "Output", "Error"}) {
        if ((closed & 1) != 0) name += stream;
        closed >>= 1;
    }
    return name;
}

class ClosedStreams : public ::testing::TestWithParam<std::tuple<Scene, unsigned int>> {};

TEST_P(ClosedStreams, ChangeNothingButWhatIsPrinted) {
    const auto [scene, closed] = GetParam();
    const Remains sound = PlayOnce(scene, 0, nullptr);

    const Remains run = PlayOnce(scene, closed, nullptr);

    EXPECT_EQ(Judge(run, sound, closed, nullptr), "");
    EXPECT_EQ(run.log, sound.log);
    EXPECT_EQ(run.dayFile, sound.dayFile);
    EXPECT_EQ(run.out, (closed & 2) != 0 ? "" : sound.out);
}

class FaultsWithClosedStreams : public ClosedStreams {};

TEST_P(FaultsWithClosedStreams, TakeNoneOfTheirNumbers) {
    const auto [scene, closed] = GetParam();
    Choice choice;
    choice.group = Group::kHost;
    choice.perCall = TakesAll() ? 16 : 1;
    choice.closed = closed;
    ExpectNothingFound(scene, choice, 50);
}

using Scenes = std::vector<std::tuple<Scene, unsigned int>>;

// A sweep with each subset closed is for the long run alone.
Scenes EachSubsetOf(const std::vector<Scene>& scenes, unsigned int first) {
    Scenes all;
    for (const Scene scene : scenes) {
        for (unsigned int closed = first; closed < 8; ++closed) all.emplace_back(scene, closed);
    }
    return all;
}

std::string NameOfOne(const ::testing::TestParamInfo<ClosedStreams::ParamType>& one) {
    return SceneName(std::get<0>(one.param)) + StreamsName(std::get<1>(one.param));
}

INSTANTIATE_TEST_SUITE_P(, ClosedStreams, ::testing::ValuesIn(EachSubsetOf({Scene::kFresh, Scene::kRestart}, 0)),
                         NameOfOne);
INSTANTIATE_TEST_SUITE_P(, FaultsWithClosedStreams,
                         ::testing::ValuesIn(TakesAll() ? EachSubsetOf({Scene::kFresh, Scene::kRestart}, 1)
                                                        : EachSubsetOf({Scene::kRestart}, 7)),
                         NameOfOne);

// ---- the list of the calls ----

// The names of the functions that a shared library takes from others.
std::set<std::string> FunctionsTakenBy(const char* library) {
    std::set<std::string> names;
    const test_support::TempDir directory;
    const std::string command = std::string("nm -D --undefined-only '") + library + "' > names";
    EXPECT_EQ(std::system(command.c_str()), 0);
    std::istringstream lines(directory.Read("names"));
    for (std::string type, name; lines >> type >> name;) names.insert(name.substr(0, name.find('@')));
    return names;
}

// Not calls of the library: the language's own, and what sanitizers and coverage add.
bool IsOfCompiler(const std::string& name) { return name[0] == '_' && name != "__register_atfork"; }

TEST(SweptCalls, AreAllThatTheLibraryMakes) {
    if (kSanitized) GTEST_SKIP() << "the sanitizer adds calls of its own to the library";
    const std::set<std::string> known = {
        // allocate memory, and are swept with the allocations
        "__register_atfork", "dictionary_new", "strdup",
        // cannot fail, or have no result that the library could use
        "clock_nanosleep", "dictionary_del", "dictionary_hash", "exit", "fflush_unlocked", "fileno_unlocked",
        "flockfile", "free", "ftrylockfile", "funlockfile", "fwrite_unlocked", "geteuid", "getpid", "gettid", "getuid",
        "iniparser_freedict", "iniparser_getint", "iniparser_getstring", "pthread_mutex_destroy", "pthread_mutex_init",
        "pthread_mutex_lock", "pthread_mutex_trylock", "pthread_mutex_unlock", "pthread_mutexattr_destroy",
        "pthread_mutexattr_init", "pthread_mutexattr_settype", "pthread_self", "pthread_sigqueue", "rewind",
        "sched_yield", "sigemptyset", "sleep", "time", "tzset", "vfprintf",
        // of the intraday file alone, which the library itself does not use
        "fflush", "fprintf", "fputs", "fwrite", "getc",
        // work in memory
        "isalpha", "isspace", "memchr", "memcmp", "memcpy", "memmove", "memset", "snprintf", "strchrnul", "strcmp",
        "strerror", "strlen", "strncmp", "strnlen", "strrchr", "strtok_r", "strtol", "strtoul", "tolower", "vsnprintf",
        // data
        "daylight", "program_invocation_short_name", "stderr", "stdout", "timezone", "tzname"};
    std::set<std::string> swept;
    for (std::size_t call = 0; call < kCallCount; ++call) swept.insert(NameOf(call));

    const std::set<std::string> taken = FunctionsTakenBy(VEXO_LIBRARY);

    EXPECT_GT(taken.size(), 100U);
    for (const std::string& name : taken) {
        if (IsOfCompiler(name)) continue;
        EXPECT_TRUE(known.count(name) + swept.count(name) == 1)
            << name << ": if the call can fail, add a hook to tests/sweep/HostCallHooks.cpp";
    }
}

}  // namespace
