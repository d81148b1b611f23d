// KovDskDirList: its records, patterns and failures.
#include "doubles/interpose.h"
#include "harness/store.h"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

using namespace kovtest;

namespace {

class DirList : public Store {
protected:
    void SetUp() override
    {
        Store::SetUp();
        ASSERT_EQ(mkdir(Path("d").c_str(), 0777), 0);
        PutFile("d/file", "12345");
        ASSERT_EQ(symlink(Path("d/file").c_str(), Path("d/good").c_str()), 0);
        ASSERT_EQ(symlink("/nowhere", Path("d/bad").c_str()), 0);
        ASSERT_EQ(mkdir(Path("d/sub").c_str(), 0777), 0);
        struct utimbuf t = {100000, 200000};  // atime, mtime
        ASSERT_EQ(utime(Path("d/file").c_str(), &t), 0);
    }
};

} // namespace

TEST_F(DirList, SortedRecordsWithTheZeroRecordInPlace)
{
    KovDskDirRes res;
    memset(&res, 0x66, sizeof res);
    ASSERT_EQ(KovDskDirList("d", "", &res, 0), 0);
    ASSERT_EQ(res.count, 6);  // . .. bad file good sub
    EXPECT_EQ(res.reserved, 0x66666666u);
    const char *names[] = {".", "..", "", "file", "good", "sub"};
    for (int i = 0; i < 6; i++)
        EXPECT_STREQ(res.entries[i].name, names[i]) << i;
    const KovDskDirEnt &bad = res.entries[2];
    EXPECT_EQ(bad.size, 0);
    EXPECT_EQ(bad.mode, 0u);
    EXPECT_EQ(bad.time, 0);
    EXPECT_EQ(res.entries[3].size, 5);
    EXPECT_EQ(res.entries[4].size, 5);  // the link's target
    EXPECT_TRUE(S_ISREG(res.entries[4].mode));
    EXPECT_TRUE(S_ISDIR(res.entries[5].mode));
    uint64_t sum = 0;
    for (int i = 0; i < 6; i++)
        sum += static_cast<uint64_t>(res.entries[i].size);
    EXPECT_EQ(res.total, sum);
    EXPECT_EQ(res.entries[3].time, 100000);  // st_atime, no difference
    free(res.entries);

    SetDiffer(3600);
    ASSERT_EQ(KovDskDirList("d", "file", &res, 1), 0);
    ASSERT_EQ(res.count, 1);
    EXPECT_EQ(res.entries[0].time, 103600);
    free(res.entries);
    FailDate("differ");
    ASSERT_EQ(KovDskDirList("d", "f", &res, 2), 0);
    ASSERT_EQ(res.count, 1);
    EXPECT_EQ(res.entries[0].time, 200000);  // st_mtime when the difference fails
    free(res.entries);
    ExpectAllFree();
}

TEST_F(DirList, PatternsRootAndFailures)
{
    KovDskDirRes res = {};
    ASSERT_EQ(KovDskDirList("", "d", &res, 1), 0);  // the root itself
    ASSERT_EQ(res.count, 1);
    free(res.entries);
    ASSERT_EQ(KovDskDirList("d", "zz", &res, 2), 0);
    EXPECT_EQ(res.count, 0);
    EXPECT_EQ(res.entries, nullptr);
    EXPECT_EQ(res.total, 0u);

    memset(&res, 0x66, sizeof res);
    auto untouched = [&] { return res.count == 0x66666666; };
    std::string p256(256, 'p');
    {
        Fault nolock("semop", EDEADLK, 1, -1);
        EXPECT_EQ(KovDskDirList(nullptr, "", &res, 0), -1);
        EXPECT_EQ(KovDskDirList("d", nullptr, &res, 0), -1);
        EXPECT_EQ(KovDskDirList("d", "", nullptr, 0), -1);
        EXPECT_EQ(KovDskDirList("d", "", &res, 3), -1);
        EXPECT_EQ(KovDskDirList("d", p256.c_str(), &res, 1), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(KovDskDirList("missing", "", &res, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(untouched());
    {
        Fault f("calloc", ENOMEM, 1, 1, 6 * sizeof(KovDskDirEnt));
        EXPECT_EQ(KovDskDirList("d", "", &res, 0), -1);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(res.entries, nullptr);
    }
    ExpectAllFree();
    Detach();
    EXPECT_EQ(KovDskDirList("d", "", &res, 0), -1);
    EXPECT_EQ(errno, EINIT);
}
