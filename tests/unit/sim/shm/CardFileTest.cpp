// What a process believes of a file that may be a card.

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <random>

#include "tests/support/StandardStreams.h"
#include "tests/unit/sim/shm/ShmFixture.h"

namespace vexo_sim {
namespace {

using CardFileTest = ShmFixture;

TEST_F(CardFileTest, ACardOfThisVersionIsMapped) {
    CardFile file = CardFile::open(path, geteuid());
    ASSERT_TRUE(file);
    EXPECT_NE(file.map(), nullptr);
}

TEST_F(CardFileTest, ACardOfAnotherVersionIsRecognisedWhateverItsSizeAndNotMapped) {
    block->header.layout = kCardLayout + 1;
    block->header.bytes = 4096;
    for (const off_t size :
         {off_t{4096}, static_cast<off_t>(sizeof(CardBlock)), static_cast<off_t>(sizeof(CardBlock)) * 2}) {
        ASSERT_EQ(truncate(path.c_str(), size), 0);
        CardFile file = CardFile::open(path, geteuid());
        ASSERT_TRUE(file);
        EXPECT_EQ(file.header().layout, kCardLayout + 1);
        errno = 0;
        EXPECT_EQ(file.map(), nullptr);
        EXPECT_EQ(errno, EPROTO);
    }
}

TEST_F(CardFileTest, ACardThatIsCutIsNotMapped) {
    for (off_t size = sizeof(CardBlock) - 1; size > 16; size /= 2) {
        ASSERT_EQ(truncate(path.c_str(), size), 0);
        CardFile file = CardFile::open(path, geteuid());
        ASSERT_TRUE(file);
        EXPECT_EQ(file.map(), nullptr);
    }
    for (off_t size = 15; size >= 0; --size) {
        ASSERT_EQ(truncate(path.c_str(), size), 0);
        EXPECT_FALSE(CardFile::open(path, geteuid()));
    }
}

TEST_F(CardFileTest, NeitherAHostNorAUserGetsAStandardDescriptor) {
    EXPECT_EQ(test_support::InProcessWithout(test_support::kAllStandardStreams,
                                             [this] {
                                                 const CardFile user = CardFile::open(path, geteuid());
                                                 const CardFile host = CardFile::create(dir.Path(), 1, 0600, getegid());
                                                 if (!user || !host) return 2;
                                                 return test_support::AreStandardNumbersFree() ? 0 : 1;
                                             }),
              0);
}

TEST_F(CardFileTest, ACardOfAnotherOwnerIsNotOpened) {
    EXPECT_FALSE(CardFile::open(path, geteuid() + 1));
    EXPECT_EQ(errno, EACCES);
}

TEST_F(CardFileTest, WhatIsNoRegularFileIsNotOpened) {
    const std::string other = dir.Path("other");
    ASSERT_EQ(symlink(path.c_str(), other.c_str()), 0);
    EXPECT_FALSE(CardFile::open(other, geteuid()));
    unlink(other.c_str());
    ASSERT_EQ(mkfifo(other.c_str(), 0600), 0);
    EXPECT_FALSE(CardFile::open(other, geteuid()));
    EXPECT_FALSE(CardFile::open(dir.Path(), geteuid()));
}

}  // namespace
}  // namespace vexo_sim
