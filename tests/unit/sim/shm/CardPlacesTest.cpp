// Where cards lie, also when somebody else was there first.

#include "sim/shm/CardPlaces.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/support/TempDir.h"

namespace vexo_sim {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

struct CardPlaces : ::testing::Test {
    test_support::TempDir dir;
    CardRoots roots{dir.Path("run"), dir.Path("shm")};
    std::string session = roots.run + "/" + std::to_string(geteuid());
    std::string ownName = roots.shared + "/vexo-simcard-" + std::to_string(geteuid());

    CardPlaces() {
        unsetenv("VEXO_SIM_DIR");
        std::filesystem::create_directory(roots.run);
        std::filesystem::create_directory(roots.shared);
    }

    static unsigned ModeOf(const std::string& path) {
        struct stat status {};
        return lstat(path.c_str(), &status) == 0 ? status.st_mode & 0777U : 0;
    }
};

TEST_F(CardPlaces, TheSessionsOwnDirectoryComesFirst) {
    mkdir(session.c_str(), 0700);
    EXPECT_EQ(makeCardDirectory(std::nullopt, roots).directory, session);
    EXPECT_THAT(cardDirectories(geteuid(), roots), ElementsAre(session));
    EXPECT_FALSE(std::filesystem::exists(ownName));
}

TEST_F(CardPlaces, WithoutASessionThereIsAPrivateDirectoryMadeOnce) {
    EXPECT_THAT(cardDirectories(geteuid(), roots), IsEmpty());
    for (int time = 0; time < 2; ++time) {
        const NewCardPlace place = makeCardDirectory(std::nullopt, roots);
        EXPECT_EQ(place.directory, ownName);
        EXPECT_THAT(place.notice, IsEmpty());
    }
    EXPECT_EQ(ModeOf(ownName), 0700U);
    EXPECT_THAT(cardDirectories(geteuid(), roots), ElementsAre(ownName));
}

TEST_F(CardPlaces, ACardForAGroupLiesWhereItsMembersReachItAndNobodyElse) {
    mkdir(session.c_str(), 0700);
    const NewCardPlace place = makeCardDirectory(getegid(), roots);
    EXPECT_EQ(place.directory, ownName + "-g" + std::to_string(getegid()));
    EXPECT_EQ(ModeOf(place.directory), 0710U);
    EXPECT_THAT(cardDirectories(geteuid(), roots), ElementsAre(session, place.directory));
}

TEST_F(CardPlaces, ADirectoryThatOthersMayWriteIntoIsNotLookedInto) {
    mkdir(session.c_str(), 0700);
    chmod(session.c_str(), 0770);
    mkdir(ownName.c_str(), 0700);
    chmod(ownName.c_str(), 0707);
    EXPECT_THAT(cardDirectories(geteuid(), roots), IsEmpty());
    EXPECT_EQ(makeCardDirectory(std::nullopt, roots).directory, ownName);
    EXPECT_EQ(ModeOf(ownName), 0700U) << "its own directory is put in order";
}

TEST_F(CardPlaces, ANameThatIsTakenCostsTheNameAndSaysWhy) {
    const std::string elsewhere = dir.Path("elsewhere");
    mkdir(elsewhere.c_str(), 0700);
    ASSERT_EQ(symlink(elsewhere.c_str(), ownName.c_str()), 0);
    const NewCardPlace place = makeCardDirectory(std::nullopt, roots);
    EXPECT_THAT(place.directory, StartsWith(ownName + "."));
    EXPECT_EQ(place.notice, ownName + " is no directory; the card lies in " + place.directory);
    EXPECT_THAT(cardDirectories(geteuid(), roots), ElementsAre(place.directory));
    EXPECT_EQ(makeCardDirectory(std::nullopt, roots).directory, place.directory) << "it is found again";
    EXPECT_TRUE(std::filesystem::is_empty(elsewhere));
}

TEST_F(CardPlaces, ADirectoryOfAnotherUserIsNeitherUsedNorAnObstacle) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can make another user's directory";
    mkdir(ownName.c_str(), 0777);
    ASSERT_EQ(chown(ownName.c_str(), 65534, 65534), 0);
    EXPECT_THAT(cardDirectories(geteuid(), roots), IsEmpty());
    const NewCardPlace place = makeCardDirectory(std::nullopt, roots);
    EXPECT_THAT(place.directory, StartsWith(ownName + "."));
    EXPECT_THAT(place.notice, HasSubstr("belongs to user nobody"));
}

TEST_F(CardPlaces, AnotherUsersNumberThatBeginsAlikeIsAnotherUser) {
    mkdir((ownName + "1").c_str(), 0700);
    EXPECT_THAT(cardDirectories(geteuid(), roots), IsEmpty());
}

TEST_F(CardPlaces, NoPlaceIsAnErrorWithItsReason) {
    const NewCardPlace place = makeCardDirectory(std::nullopt, {dir.Path("none"), dir.Path("none")});
    EXPECT_THAT(place.directory, IsEmpty());
    EXPECT_THAT(place.error, HasSubstr("No such file or directory"));
}

TEST(FindUser, KnowsNamesAndNumbers) {
    EXPECT_EQ(findUser("root"), 0U);
    EXPECT_EQ(findUser("4711"), 4711U);
    EXPECT_EQ(findUser("no-such-user"), std::nullopt);
    EXPECT_EQ(findUser("12x"), std::nullopt);
    EXPECT_EQ(findUser(""), std::nullopt);
}

}  // namespace
}  // namespace vexo_sim
