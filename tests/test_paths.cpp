// Plain operations on one path below the root, with their failure rows.
#include "doubles/interpose.h"
#include "harness/boot.h"

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

using namespace kovtest;

namespace {
class Paths : public Boot {
protected:
    void SetUp() override
    {
        Boot::SetUp();
        Create();
    }
    // Every exit releases the table lock and the counters.
    void ExpectAllFree()
    {
        EXPECT_EQ(SemValue(KovDskTblSem_id), 1);
        EXPECT_EQ(SemValue(KovDskAccSem_id), 1);
        EXPECT_EQ(AccTbl->op_cnt, 0);
        EXPECT_EQ(AccTbl->acc_cnt, 0);
    }
    mode_t Mode(const std::string &rel)
    {
        struct stat st;
        return stat(Path(rel).c_str(), &st) == 0 ? st.st_mode : 0;
    }
    long Mtime(const std::string &rel)
    {
        struct stat st;
        return stat(Path(rel).c_str(), &st) == 0 ? (long)st.st_mtime : -1;
    }
};
} // namespace

TEST_F(Paths, UnattachedProcessGetsEinit)
{
    Detach();
    struct Case { const char *what; int rc; } cases[] = {
        {"DirMake", KovDskDirMake("d")},
        {"FileChk", KovDskFileChk("d", 0)},
        {"FileRemove", KovDskFileRemove("d")},
        {"FileRename", KovDskFileRename("d", "e")},
        {"ChgTimeStamp", KovDskChgTimeStamp("d")},
        {"FileSize", KovDskFileSize("d")},
    };
    for (const Case &c : cases)
        EXPECT_EQ(c.rc, -1) << c.what;
    EXPECT_EQ(KovDskFileSize(nullptr), -1);
    EXPECT_EQ(errno, EINIT);  // attachment is tested before the pointer
}

TEST_F(Paths, EmptyOrNullPathsAreRefusedBeforeTheLock)
{
    Fault nolock("semop", EDEADLK, 1, -1);  // any lock taken would show here
    for (const char *p : {(const char *)nullptr, ""}) {
        errno = 0;
        EXPECT_EQ(KovDskDirMake(p), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(KovDskFileChk(p, 0), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(KovDskFileRemove(p), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(KovDskFileRename(p, "x"), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(KovDskFileRename("x", p), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(KovDskFileSize(p), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(KovDskFileChk("x", 2), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(KovDskChgTimeStamp(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Paths, PathsTooLongForTheBufferAreRefused)
{
    std::string deep(4096 - root_.size() - 1, 'a');  // root + "/" + deep = 4097 with NUL
    EXPECT_EQ(KovDskFileChk(deep.c_str(), 0), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(KovDskDirMake(deep.c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(KovDskFileRename("a", deep.c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    ExpectAllFree();
}

TEST_F(Paths, DirMakeMakesOneStampedDirectoryWithMode0666)
{
    SetNow("2030-05-06 07:08:09");
    mode_t old = umask(077);
    long syncs = Calls("sync");
    ASSERT_EQ(KovDskDirMake("general"), 0);
    umask(old);
    EXPECT_EQ(Mode("general"), S_IFDIR | 0666u);
    EXPECT_EQ(Mtime("general"), Utc(2030, 5, 6, 7, 8, 9));
    EXPECT_EQ(Calls("sync"), syncs + 1);

    EXPECT_EQ(KovDskDirMake("general"), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(KovDskDirMake("missing/child"), -1);
    EXPECT_EQ(errno, ENOENT);
    {
        Fault f("mkdir", ENOSPC);
        EXPECT_EQ(KovDskDirMake("uid"), -1);
        EXPECT_EQ(errno, ENOSPC);
    }
    {
        // errno survives even a release of the lock that fails
        Fault f("mkdir", ENOSPC);
        Fault g("semop", EINVAL, 2);
        EXPECT_EQ(KovDskDirMake("uid"), -1);
        EXPECT_EQ(errno, ENOSPC);
        KovDskTblSemFree();  // the failed release left it taken
    }
    ExpectAllFree();
}

TEST_F(Paths, FileChkTellsFilesFromDirectories)
{
    PutFile("file");
    ASSERT_EQ(mkdir(Path("dir").c_str(), 0777), 0);
    ASSERT_EQ(symlink(Path("dir").c_str(), Path("dirlink").c_str()), 0);

    EXPECT_EQ(KovDskFileChk("file", 0), 0);
    EXPECT_EQ(KovDskFileChk("file", 1), 1);
    EXPECT_EQ(KovDskFileChk("dir", 0), 1);
    EXPECT_EQ(KovDskFileChk("dir", 1), 0);
    EXPECT_EQ(KovDskFileChk("dir", -5), 0);    // any other value below 2
    EXPECT_EQ(KovDskFileChk("dirlink", 1), 0); // stat follows the link
    EXPECT_EQ(KovDskFileChk("absent", 0), 1);
    EXPECT_EQ(KovDskFileChk("absent", 1), 1);
    EXPECT_EQ(KovDskFileChk("file/below", 0), 1);  // ENOTDIR
    {
        Fault f("stat", EACCES);
        EXPECT_EQ(KovDskFileChk("file", 0), -1);
        EXPECT_EQ(errno, EACCES);
    }
    {
        Fault f("stat", EFAULT);
        EXPECT_EQ(KovDskFileChk("file", 0), 1);
        EXPECT_EQ(errno, EFAULT);
    }
    ExpectAllFree();
}

TEST_F(Paths, FileRemoveRemovesAtOnceAndSyncsOnlyOnSuccess)
{
    PutFile("file");
    ASSERT_EQ(mkdir(Path("full").c_str(), 0777), 0);
    PutFile("full/inner");

    long syncs = Calls("sync");
    ASSERT_EQ(KovDskFileRemove("file"), 0);
    EXPECT_EQ(access(Path("file").c_str(), F_OK), -1);
    EXPECT_EQ(Calls("sync"), syncs + 1);

    EXPECT_EQ(KovDskFileRemove("full"), -1);
    EXPECT_EQ(errno, ENOTEMPTY);
    EXPECT_EQ(KovDskFileRemove("absent"), -1);
    EXPECT_EQ(errno, ENOENT);
    {
        Fault f("remove", EROFS);
        EXPECT_EQ(KovDskFileRemove("full/inner"), -1);
        EXPECT_EQ(errno, EROFS);
    }
    EXPECT_EQ(Calls("sync"), syncs + 1);
    ASSERT_EQ(KovDskFileRemove("full/inner"), 0);
    ASSERT_EQ(KovDskFileRemove("full"), 0);
    ExpectAllFree();
}

TEST_F(Paths, FileRenameKeepsTheTimeAndDoesNotSync)
{
    PutFile("old", "content");
    struct utimbuf t = {1000000, 1000000};
    ASSERT_EQ(utime(Path("old").c_str(), &t), 0);
    long syncs = Calls("sync");
    ASSERT_EQ(KovDskFileRename("old", "new"), 0);
    EXPECT_EQ(access(Path("old").c_str(), F_OK), -1);
    EXPECT_EQ(Mtime("new"), 1000000);
    EXPECT_EQ(Calls("sync"), syncs);

    EXPECT_EQ(KovDskFileRename("old", "newer"), -1);
    EXPECT_EQ(errno, ENOENT);
    ExpectAllFree();
}

TEST_F(Paths, FileSizeOfFilesAndDirectories)
{
    PutFile("five", "12345");
    EXPECT_EQ(KovDskFileSize("five"), 5);
    ASSERT_EQ(mkdir(Path("dir").c_str(), 0777), 0);
    struct stat st;
    ASSERT_EQ(stat(Path("dir").c_str(), &st), 0);
    EXPECT_EQ(KovDskFileSize("dir"), (int)st.st_size);
    EXPECT_EQ(KovDskFileSize("absent"), -1);
    EXPECT_EQ(errno, ENOENT);
    ExpectAllFree();
}
