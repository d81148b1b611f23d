// How a stored file leaves the store: discard, the removal of a pass-area
// file with its links, and the run of shred.
#include "doubles/interpose.h"
#include "harness/boot.h"

#include "store/store.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

using namespace kovtest;

namespace {

class Trash : public Boot {
protected:
    void SetUp() override
    {
        Boot::SetUp();
        Create();
        for (const char *d : {"general", "uid", "usr", ".trash"})
            ASSERT_EQ(mkdir(Path(d).c_str(), 0777), 0);
    }
    bool Exists(const std::string &rel)
    {
        struct stat st;
        return lstat(Path(rel).c_str(), &st) == 0;
    }
    // A file of pass area usr/616263/<pass> with its two links.
    void PassFile(const std::string &pass, const std::string &stored)
    {
        mkdir(Path("usr/616263").c_str(), 0777);
        mkdir(Path("usr/616263/" + pass).c_str(), 0777);
        std::string rel = "usr/616263/" + pass + "/" + stored;
        PutFile(rel);
        ASSERT_EQ(KovDskLinkMake(Path(rel).c_str()), 0);
    }
};

// Runs KovDskShredRun against the recording stand-in; its argument lines.
std::string ShredArgs(const char *path, int passes, int zero, long long size, int unlink_flag, int *rc)
{
    char log[] = "/tmp/kovdsk-test-shredlog-XXXXXX";
    int fd = mkstemp(log);
    close(fd);
    std::string oldpath = getenv("PATH");
    setenv("PATH", (std::string(KOVTEST_STANDIN_BIN) + ":" + oldpath).c_str(), 1);
    setenv("KOVTEST_SHRED_LOG", log, 1);
    *rc = KovDskShredRun(path, passes, zero, size, unlink_flag);
    setenv("PATH", oldpath.c_str(), 1);
    std::ifstream in(log);
    std::stringstream text;
    text << in.rdbuf();
    ::unlink(log);
    return text.str();
}

} // namespace

TEST_F(Trash, DiscardRemovesOrMovesToTrash)
{
    PutFile("general/a");
    long syncs = Calls("sync");
    ASSERT_EQ(KovDskDiscard(Path("general/a").c_str()), 0);
    EXPECT_FALSE(Exists("general/a"));
    EXPECT_EQ(Calls("sync"), syncs + 1);
    EXPECT_EQ(KovDskDiscard(Path("general/a").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);

    AccTbl->trash_mode = 1;
    AccTbl->trash_seq = 42;
    PutFile("general/b", "bytes");
    syncs = Calls("sync");
    ASSERT_EQ(KovDskDiscard(Path("general/b").c_str()), 0);
    EXPECT_TRUE(Exists(".trash/000000000000002A"));
    EXPECT_EQ(AccTbl->trash_seq, 43);
    EXPECT_EQ(AccTbl->gbg_flag, 1);
    EXPECT_EQ(Calls("sync"), syncs);  // the callers sync

    // 65535 is followed by 0, and an old file of that name is replaced.
    AccTbl->trash_seq = 65535;
    PutFile(".trash/0000000000000000", "old");
    PutFile("general/c", "new c");
    PutFile("general/d", "new d");
    ASSERT_EQ(KovDskDiscard(Path("general/c").c_str()), 0);
    ASSERT_EQ(KovDskDiscard(Path("general/d").c_str()), 0);
    EXPECT_TRUE(Exists(".trash/000000000000FFFF"));
    EXPECT_EQ(KovDskFileSize(".trash/0000000000000000"), 5);
    EXPECT_EQ(AccTbl->trash_seq, 1);

    // No ".trash": the file stays, the flag too, the number moves on.
    ASSERT_EQ(rename(Path(".trash").c_str(), Path("aside").c_str()), 0);
    AccTbl->gbg_flag = 0;
    PutFile("general/e");
    EXPECT_EQ(KovDskDiscard(Path("general/e").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(Exists("general/e"));
    EXPECT_EQ(AccTbl->gbg_flag, 0);
    EXPECT_EQ(AccTbl->trash_seq, 2);
}

TEST_F(Trash, LinkedDelFromAnyEntryTakesAllThreeAndPrunes)
{
    const char *entries[] = {"general/t01tn41n.0", "usr/616263/t01tn41n.0",
                             "usr/616263/0000000000000001/t01tn41n.0"};
    for (const char *entry : entries) {
        PassFile("0000000000000001", "t01tn41n.0");
        long syncs = Calls("sync");
        ASSERT_EQ(KovDskLinkedDel(Path(entry).c_str()), 0) << entry;
        EXPECT_FALSE(Exists("general/t01tn41n.0"));
        EXPECT_FALSE(Exists("usr/616263/t01tn41n.0"));
        EXPECT_FALSE(Exists("usr/616263"));  // both directories emptied and gone
        EXPECT_TRUE(Exists("usr"));
        EXPECT_EQ(Calls("sync"), syncs + 2);  // the discard's and the end's
    }

    // Two files in one pass directory: both directories stay.
    PassFile("0000000000000001", "t01tn41n.0");
    PassFile("0000000000000001", "t01tn42n.0");
    ASSERT_EQ(KovDskLinkedDel(Path("general/t01tn41n.0").c_str()), 0);
    EXPECT_TRUE(Exists("usr/616263/0000000000000001/t01tn42n.0"));
    EXPECT_TRUE(Exists("usr/616263/t01tn42n.0"));

    // A second pass directory: the emptied one goes, the user's stays.
    PassFile("0000000000000002", "t01tn43n.0");
    ASSERT_EQ(KovDskLinkedDel(Path("general/t01tn43n.0").c_str()), 0);
    EXPECT_FALSE(Exists("usr/616263/0000000000000002"));
    EXPECT_TRUE(Exists("usr/616263"));
}

TEST_F(Trash, LinkedDelInTrashModeMovesOnlyTheFile)
{
    AccTbl->trash_mode = 1;
    PassFile("0000000000000001", "t01tn41n.0");
    ASSERT_EQ(KovDskLinkedDel(Path("general/t01tn41n.0").c_str()), 0);
    EXPECT_TRUE(Exists(".trash/0000000000000000"));
    EXPECT_FALSE(Exists("general/t01tn41n.0"));
    EXPECT_FALSE(Exists("usr/616263"));
}

TEST_F(Trash, LinkedDelStopsAtTheFirstFailureWithoutRollback)
{
    PutFile("general/t01tn41n.0");
    EXPECT_EQ(KovDskLinkedDel(Path("general/t01tn41n.0").c_str()), -1);  // outside "usr"
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(Exists("general/t01tn41n.0"));

    // The link in "general" gone already: the file and the other link stay.
    PassFile("0000000000000001", "t01tn42n.0");
    ASSERT_EQ(unlink(Path("general/t01tn42n.0").c_str()), 0);
    long syncs = Calls("sync");
    EXPECT_EQ(KovDskLinkedDel(Path("usr/616263/t01tn42n.0").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(Exists("usr/616263/0000000000000001/t01tn42n.0"));
    EXPECT_TRUE(Exists("usr/616263/t01tn42n.0"));
    EXPECT_EQ(Calls("sync"), syncs);

    // A pass directory that cannot be read: the file is gone, the rest stays.
    PassFile("0000000000000003", "t01tn43n.0");
    {
        Fault f("opendir", EMFILE);
        EXPECT_EQ(KovDskLinkedDel(Path("general/t01tn43n.0").c_str()), -1);
        EXPECT_EQ(errno, EMFILE);
    }
    EXPECT_FALSE(Exists("usr/616263/0000000000000003/t01tn43n.0"));
    EXPECT_TRUE(Exists("usr/616263/t01tn43n.0"));
}

TEST_F(Trash, ShredArgumentVectorsAndResults)
{
    int rc;
    EXPECT_EQ(ShredArgs("/f", 1, 1, 0, 1, &rc), "shred\n-u\n-n 1\n-z\n/f\n");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(ShredArgs("/f", 3, 0, 1024, 0, &rc), "shred\n-n 3\n-s 1024\n/f\n");
    setenv("KOVTEST_SHRED_EXIT", "7", 1);
    ShredArgs("/f", 9, 0, -5, 0, &rc);
    unsetenv("KOVTEST_SHRED_EXIT");
    EXPECT_EQ(rc, 7);

    long forks = Calls("fork");
    for (auto bad : {std::make_tuple(0, 0, 0), std::make_tuple(10, 0, 0),
                     std::make_tuple(1, 2, 0), std::make_tuple(1, 0, 2)}) {
        EXPECT_EQ(KovDskShredRun("/f", std::get<0>(bad), std::get<1>(bad), 0, std::get<2>(bad)), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(KovDskShredRun(nullptr, 1, 0, 0, 0), -1);
    EXPECT_EQ(Calls("fork"), forks);  // no child for a bad argument

    // No shred on PATH: the child's failed exec gives 255.
    std::string oldpath = getenv("PATH");
    setenv("PATH", "/nonexistent", 1);
    EXPECT_EQ(KovDskShredRun("/f", 1, 0, 0, 0), 255);
    setenv("PATH", oldpath.c_str(), 1);
    {
        Fault f("fork", EAGAIN);
        EXPECT_EQ(KovDskShredRun("/f", 1, 0, 0, 0), -1);
        EXPECT_EQ(errno, EAGAIN);
    }
}

TEST_F(Trash, RealShredOverwritesWithZeros)
{
    PutFile("victim", std::string(5000, 'S'));
    EXPECT_EQ(KovDskShredRun(Path("victim").c_str(), 1, 1, 0, 0), 0);
    std::ifstream in(Path("victim"), std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_GE(bytes.size(), 5000u);
    EXPECT_EQ(bytes.find_first_not_of('\0'), std::string::npos);
}
