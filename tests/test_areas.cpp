// Listings of the areas themselves, KovDskRmnFle, and the two lookups.
#include "doubles/interpose.h"
#include "harness/store.h"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace kovtest;

namespace {

class Areas : public Store {
protected:
    void SetUp() override
    {
        Store::SetUp();
        SetNow("2026-01-31 15:30:00");
    }
    std::vector<uint64_t> Ids(uint32_t mode, int expect = 0)
    {
        uint32_t count = 0;
        uint64_t *list = nullptr;
        int rc = KovDskUidList(mode, &count, &list);
        EXPECT_EQ(rc, expect);
        if (rc == -1)
            return {};
        std::vector<uint64_t> out(list, list + count);
        if (count)
            free(list);
        return out;
    }
};

} // namespace

TEST_F(Areas, IdsSortAsUnsignedNumbersAndExpiredAreasHideThenGo)
{
    const uint64_t ids[] = {0x100000000ull, 0xFFFFFFFFull, 0xFFFFFFFFFFFFFFFFull, 5};
    for (uint64_t id : ids)
        Put("f", 1, 1, id, nullptr, 0, "x");
    Put("old", 1, 1, 7, nullptr, 0, "x", 0, "2601311530");  // expires this minute
    PutFile("uid/stray", "a file, no area");
    EXPECT_EQ(Ids(0), (std::vector<uint64_t>{5, 7, 0xFFFFFFFFull, 0x100000000ull,
                                             0xFFFFFFFFFFFFFFFFull}));
    EXPECT_EQ(Ids(1), (std::vector<uint64_t>{5, 0xFFFFFFFFull, 0x100000000ull,
                                             0xFFFFFFFFFFFFFFFFull}));
    EXPECT_TRUE(Exists("uid/0000000000000007"));
    EXPECT_EQ(Ids(2).size(), 4u);
    EXPECT_FALSE(Exists("uid/0000000000000007"));
    ExpectAllFree();

    // With a failing date component mode 1 hides everything, without error.
    FailDate("utc");
    EXPECT_EQ(Ids(1).size(), 0u);
    EXPECT_EQ(Ids(2, -1).size(), 0u);
    EXPECT_EQ(errno, ETIME);
    FailDate(nullptr);
}

TEST_F(Areas, UsersAndPasses)
{
    Put("a", 1, 3, 0, "zed", 2, "x");
    Put("c", 1, 3, 0, "zed", 1, "x");  // another name: "a" would replace the first
    Put("b", 1, 3, 0, "amy", 0xABCull, "x");
    Put("old", 1, 3, 0, "old", 1, "x", 0, "2001010000");
    ASSERT_EQ(symlink(Path("usr/7A6564").c_str(), Path("usr/6C696E6B").c_str()), 0);  // "link"

    uint32_t count = 0;
    char *users = nullptr;
    ASSERT_EQ(KovDskUsrList(0, &count, &users), 0);
    ASSERT_EQ(count, 4u);
    const char *want[] = {"amy", "link", "old", "zed"};  // a link to a directory is a user
    for (uint32_t i = 0; i < count; i++)
        EXPECT_STREQ(users + i * 65, want[i]);
    free(users);
    ASSERT_EQ(KovDskUsrList(1, &count, &users), 0);
    EXPECT_EQ(count, 2u);  // "old" has no live link, and "link" is not looked into
    free(users);

    uint64_t *passes = nullptr;
    ASSERT_EQ(KovDskPasList(0, "zed", &count, &passes), 0);
    ASSERT_EQ(count, 2u);  // the links in the user directory are no passes
    EXPECT_EQ(passes[0], 1u);
    EXPECT_EQ(passes[1], 2u);
    free(passes);
    EXPECT_EQ(KovDskPasList(0, "nobody", &count, &passes), -1);
    EXPECT_EQ(errno, ENOENT);

    // Memory: the first record, and one in the middle of the scan.
    {
        Fault f("malloc", ENOMEM, 1, 1, 65);
        EXPECT_EQ(KovDskUsrList(0, &count, &users), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(users, nullptr);
    }
    {
        Fault f("realloc", ENOMEM, 3);
        EXPECT_EQ(KovDskUsrList(0, &count, &users), 1);
    }
    ASSERT_EQ(count, 2u);
    EXPECT_LT(strcmp(users, users + 65), 0);
    free(users);
    ExpectAllFree();
}

TEST_F(Areas, RemainingFilesCountOnlyLiveStoredNames)
{
    Put("a", 1, 1, 1, nullptr, 0, "x");
    Put("b", 1, 1, 1, nullptr, 0, "x", 1, "2601311531");
    Put("c", 1, 1, 1, nullptr, 0, "x", 0, "2601311530");
    PutFile("uid/0000000000000001/no-name-t", "x");
    std::string dir = Path("uid/0000000000000001");
    EXPECT_EQ(KovDskRmnFle(dir.c_str()), 2);
    Put("p", 1, 3, 0, "u", 1, "x");
    ASSERT_EQ(symlink("/nowhere", Path("usr/75/t01tn71n.0").c_str()), 0);  // does not resolve
    EXPECT_EQ(KovDskRmnFle(Path("usr/75").c_str()), 1);
    EXPECT_EQ(KovDskRmnFle(Path("uid/none").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    FailDate("utc");
    EXPECT_EQ(KovDskRmnFle(dir.c_str()), -1);
    EXPECT_EQ(errno, ETIME);
}

TEST_F(Areas, PassCheckAndRealFileName)
{
    Put("common", 4, 0, 0, nullptr, 0, "x");
    Put("mine", 4, 3, 0, "abc", 0x1234567890ull, "x");
    uint32_t flag = 7;
    alignas(8) unsigned char pass[17];
    memset(pass, 0xEE, sizeof pass);
    EXPECT_EQ(KovDskPasCheck("common", 4, &flag, pass), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(flag, 0u);
    for (unsigned char c : pass)
        EXPECT_EQ(c, 0);
    ASSERT_EQ(KovDskPasCheck("mine", 4, &flag, pass), 0);
    EXPECT_EQ(flag, 1u);
    uint64_t value;
    memcpy(&value, pass, 8);
    EXPECT_EQ(value, 0x1234567890ull);
    EXPECT_EQ(KovDskPasCheck("mine", 0, &flag, pass), -1);  // kind 0 is kind 0
    EXPECT_EQ(KovDskPasCheck("mine", 256, &flag, pass), -1);
    EXPECT_EQ(KovDskPasCheck(nullptr, 4, &flag, pass), -1);
    EXPECT_EQ(KovDskPasCheck("mine", 4, &flag, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);

    std::string real = Path("usr/616263/0000001234567890/t04tn6D696E65n.0");
    char path[4096];
    for (unsigned area : {0u, 2u, 3u}) {
        ASSERT_EQ(KovDskGetRealFileName("mine", 4, area, 0, "abc", 0x1234567890ull, path), 0);
        EXPECT_EQ(std::string(path), real) << area;
    }
    ASSERT_EQ(KovDskGetRealFileName("common", 4, 0, 0, nullptr, 0, path), 0);
    EXPECT_EQ(std::string(path), Path("general/t04tn636F6D6D6F6En.0"));
    EXPECT_EQ(KovDskGetRealFileName("common", 4, 1, 3, nullptr, 0, path), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(KovDskGetRealFileName("common", 4, 4, 3, nullptr, 0, path), -1);
    EXPECT_EQ(errno, EINVAL);

    // A dangling link still names its pass and its path.
    ASSERT_EQ(unlink(real.c_str()), 0);
    ASSERT_EQ(KovDskPasCheck("mine", 4, &flag, pass), 0);
    ASSERT_EQ(KovDskGetRealFileName("mine", 4, 0, 0, nullptr, 0, path), 0);
    EXPECT_EQ(std::string(path), real);
    // A link the library did not make (no usr part) is no stored file.
    ASSERT_EQ(symlink("/elsewhere/file", Path("general/t04tn6F6464n.0").c_str()), 0);
    EXPECT_EQ(KovDskPasCheck("odd", 4, &flag, pass), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(KovDskGetRealFileName("odd", 4, 0, 0, nullptr, 0, path), -1);
    EXPECT_EQ(errno, ENOENT);
    {
        Fault f("readlink", EIO, 2);  // the search reads the link first
        EXPECT_EQ(KovDskPasCheck("mine", 4, &flag, pass), -1);
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(flag, 0u);
    }
    ExpectAllFree();
}
