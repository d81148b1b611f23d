// Deletion by rule: KovDskDel, and the expiry and temporary sweeps.
#include "doubles/interpose.h"
#include "harness/store.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace kovtest;

namespace {

class Delete : public Store {
protected:
    void SetUp() override
    {
        Store::SetUp();
        SetNow("2026-01-31 15:30:00");  // the current-time text is 2601311530
    }
};

} // namespace

TEST_F(Delete, ByExactNameByPrefixAndAll)
{
    Put("alpha", 1, 1, 9, nullptr, 0, "a");
    Put("alpha", 2, 1, 9, nullptr, 0, "a2");
    Put("alps", 1, 1, 9, nullptr, 0, "b");
    Put("beta", 0, 1, 9, nullptr, 0, "c");
    PutFile("uid/0000000000000009/junk-t", "x");

    ASSERT_EQ(KovDskDel("nothing", 1, 1, 1, 9, nullptr, 0), 0);
    ASSERT_EQ(KovDskDel("beta", 1, 1, 1, 9, nullptr, 0), 0);  // kind 1: not beta of kind 0
    EXPECT_TRUE(Exists("uid/0000000000000009/t00tn62657461n.0"));
    ASSERT_EQ(KovDskDel("beta", 0, 1, 1, 9, nullptr, 0), 0);  // kind 0 exactly
    EXPECT_FALSE(Exists("uid/0000000000000009/t00tn62657461n.0"));
    ASSERT_EQ(KovDskDel("al", 1, 2, 1, 9, nullptr, 0), 0);     // prefix, kind 1
    EXPECT_EQ(Entries("uid/0000000000000009"), "junk-t t02tn616C706861n.0");
    // Everything that parses; the name that does not keeps the directory.
    ASSERT_EQ(KovDskDel("", 0, 2, 1, 9, nullptr, 0), 0);
    EXPECT_EQ(Entries("uid/0000000000000009"), "junk-t");
    ASSERT_EQ(unlink(Path("uid/0000000000000009/junk-t").c_str()), 0);
    ASSERT_EQ(KovDskDel("x", 7, 1, 1, 9, nullptr, 0), 0);  // empty: the directory goes
    EXPECT_FALSE(Exists("uid/0000000000000009"));
    ExpectAllFree();
}

TEST_F(Delete, PassAreaFilesGoWithTheirLinksFromAnyArea)
{
    Put("memo", 3, 3, 0, "abc", 1, "m");
    Put("note", 3, 3, 0, "abc", 2, "n");
    Put("list", 3, 3, 0, "abc", 2, "l");
    ASSERT_EQ(KovDskDel("memo", 3, 1, 0, 0, nullptr, 0), 0);  // through "general"
    EXPECT_FALSE(Exists("usr/616263/0000000000000001"));
    EXPECT_EQ(Entries("general"), "t03tn6C697374n.0 t03tn6E6F7465n.0");
    ASSERT_EQ(KovDskDel("note", 3, 1, 2, 0, "abc", 0), 0);  // through the user area
    EXPECT_EQ(Entries("usr/616263"), "0000000000000002 t03tn6C697374n.0");
    ASSERT_EQ(KovDskDel("", 0, 0, 3, 0, "abc", 2), 0);  // the pass area, any mode
    EXPECT_FALSE(Exists("usr/616263"));
    EXPECT_EQ(Entries("general"), "");
    EXPECT_EQ(Entries("usr"), "");
    ExpectAllFree();
}

TEST_F(Delete, BusySlotsRefuseBeforeAnythingIsDeleted)
{
    Put("keep", 1, 0, 0, nullptr, 0, "k");
    Put("open", 1, 0, 0, nullptr, 0, "o");
    int h = KovDskReadOpen("open", 1, 0, 0, nullptr, 0);
    ASSERT_GE(h, 0);
    int acc = AccTbl->acc_cnt;
    EXPECT_EQ(KovDskDel("", 0, 2, 0, 0, nullptr, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(KovDskDel("op", 0, 2, 0, 0, nullptr, 0), -1);
    EXPECT_EQ(KovDskDel("open", 1, 1, 0, 0, nullptr, 0), -1);
    EXPECT_EQ(AccTbl->acc_cnt, acc);
    EXPECT_EQ(Entries("general"), "t01tn6B656570n.0 t01tn6F70656En.0");
    ASSERT_EQ(KovDskDel("keep", 1, 1, 0, 0, nullptr, 0), 0);  // another file: fine
    EXPECT_EQ(KovDskDel("", 2, 2, 0, 0, nullptr, 0), 0);      // another kind: fine
    // A slot counts only under its own area path.
    Put("user", 1, 3, 0, "u", 1, "x");
    int w = KovDskWriteOpen("late", 0, 0, 1, 3, 0, "u", 1, 0, 0);
    ASSERT_GE(w, 0);
    EXPECT_EQ(KovDskDel("", 0, 2, 2, 0, "u", 0), 0);  // user area: not its dir
    EXPECT_FALSE(Exists("general/t01tn75736572n.0"));
    EXPECT_EQ(KovDskDel("", 0, 2, 3, 0, "u", 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(KovDskWriteClose(w), 0);
    // Any other mode deletes open files without refusal.
    ASSERT_EQ(KovDskDel("", 0, 7, 0, 0, nullptr, 0), 0);
    EXPECT_FALSE(Exists("general/t01tn6F70656En.0"));
    EXPECT_EQ(KovDskReadClose(h), 0);
    ExpectAllFree();
}

TEST_F(Delete, AStreamOfAnotherProcessRefusesTheDelete)
{
    Put("shared", 5, 1, 3, nullptr, 0, "s");
    int ready[2], done[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    pid_t child = StartChild([&] {
        Detach();
        if (KovDskInit() != 0)
            return 1;
        int h = KovDskReadOpen("shared", 5, 1, 3, nullptr, 0);
        char c = h >= 0 ? 'y' : 'n';
        if (write(ready[1], &c, 1) != 1 || read(done[0], &c, 1) != 1)
            return 2;
        return KovDskReadClose(h) == 0 ? 0 : 3;
    });
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    ASSERT_EQ(c, 'y');
    EXPECT_EQ(KovDskDel("shared", 5, 1, 1, 3, nullptr, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_TRUE(Exists("uid/0000000000000003/t05tn736861726564n.0"));
    ASSERT_EQ(write(done[1], "x", 1), 1);
    EXPECT_EQ(WaitChild(child), 0);
    EXPECT_EQ(KovDskDel("shared", 5, 1, 1, 3, nullptr, 0), 0);
    EXPECT_FALSE(Exists("uid/0000000000000003"));
    for (int fd : {ready[0], ready[1], done[0], done[1]})
        close(fd);
    ExpectAllFree();
}

TEST_F(Delete, BadArgumentsAndFailures)
{
    auto fails = [](int rc, int err) { return rc == -1 && errno == err; };
    {
        Fault nolock("semop", EDEADLK, 1, -1);
        EXPECT_TRUE(fails(KovDskDel(nullptr, 0, 2, 0, 0, nullptr, 0), EINVAL));
        EXPECT_TRUE(fails(KovDskDel("", 256, 2, 0, 0, nullptr, 0), EINVAL));
        EXPECT_TRUE(fails(KovDskDel("", 0, 2, 4, 0, nullptr, 0), EINVAL));
        EXPECT_TRUE(fails(KovDskDel("", 0, 2, 2, 0, nullptr, 0), EINVAL));
    }
    EXPECT_TRUE(fails(KovDskDel("", 0, 2, 1, 404, nullptr, 0), ENOENT));  // absent area
    Put("a", 1, 0, 0, nullptr, 0, "a");
    Put("b", 1, 0, 0, nullptr, 0, "b");
    {
        Fault f("remove", EROFS, 2);
        EXPECT_TRUE(fails(KovDskDel("", 0, 2, 0, 0, nullptr, 0), EROFS));
    }
    EXPECT_EQ(Entries("general").size(), std::string("t01tn61n.0").size());  // one went
    ExpectAllFree();
    Detach();
    EXPECT_TRUE(fails(KovDskDel("", 0, 2, 0, 0, nullptr, 0), EINIT));
}

TEST_F(Delete, ExpirySweepIsAllOrNothing)
{
    Put("now", 1, 0, 0, nullptr, 0, "x", 0, "2601311530");     // this very minute
    Put("later", 1, 0, 0, nullptr, 0, "x", 0, "2601311531");
    Put("forever", 1, 1, 4, nullptr, 0, "x");
    Put("old", 2, 1, 4, nullptr, 0, "x", 1, "2501010000");
    Put("gone", 2, 1, 5, nullptr, 0, "x", 0, "2601010000");
    Put("pass", 7, 3, 0, "abc", 1, "x", 0, "2601311500");
    PutFile("uid/stray", "a file lying in uid");
    PutFile(".trash/000000000000002A", "left from trash mode");

    // An open expired file of a non-zero kind stops everything.
    int h = KovDskReadOpen("gone", 2, 1, 5, nullptr, 0);
    ASSERT_GE(h, 0);
    int acc = AccTbl->acc_cnt;
    EXPECT_EQ(KovDskTimeDel(), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(AccTbl->acc_cnt, acc);
    EXPECT_TRUE(Exists("general/t01tn6E6F77nd26013115dm30m.0"));
    EXPECT_TRUE(Exists("usr/616263/0000000000000001"));
    EXPECT_TRUE(Exists(".trash/000000000000002A"));
    ASSERT_EQ(KovDskReadClose(h), 0);

    long syncs = Calls("sync");
    ASSERT_EQ(KovDskTimeDel(), 0);
    EXPECT_EQ(Calls("sync"), syncs + 1 + 5);  // the sweep's, each discard's, the linked removal's
    EXPECT_EQ(Entries("general"), "t01tn6C61746572nd26013115dm31m.0");
    EXPECT_EQ(Entries("uid"), "0000000000000004 stray");
    EXPECT_EQ(Entries("uid/0000000000000004"), "t01tn666F7265766572n.0");
    EXPECT_FALSE(Exists("usr/616263"));  // with both links and its directories
    EXPECT_EQ(Entries(".trash"), "");
    ExpectAllFree();

    // Kind 0 open and expired does not stop the sweep, and still goes.
    Put("zero", 0, 0, 0, nullptr, 0, "x", 0, "2601311530");
    h = KovDskReadOpen("zero", 0, 0, 0, nullptr, 0);
    ASSERT_GE(h, 0);
    ASSERT_EQ(KovDskTimeDel(), 0);
    EXPECT_FALSE(Exists("general/t00tn7A65726Fnd26013115dm30m.0"));
    ASSERT_EQ(KovDskReadClose(h), 0);
}

TEST_F(Delete, ExpirySweepFailures)
{
    FailDate("utc");
    EXPECT_EQ(KovDskTimeDel(), -1);
    EXPECT_EQ(errno, ETIME);
    FailDate(nullptr);

    // Trash mode on: ".trash" is not swept, and expired files pile up there.
    ASSERT_EQ(KovDskSelDel(1), 0);
    PutFile(".trash/0000000000000005", "old");
    Put("e", 1, 1, 6, nullptr, 0, "x", 0, "2601010000");
    ASSERT_EQ(KovDskTimeDel(), 0);
    EXPECT_EQ(Entries(".trash"), "0000000000000000 0000000000000005");
    ASSERT_EQ(KovDskSelDel(0), 0);

    // An absent ".trash" fails, after the rest was swept.
    ASSERT_EQ(rename(Path(".trash").c_str(), Path("aside").c_str()), 0);
    Put("f", 1, 0, 0, nullptr, 0, "x", 0, "2601010000");
    EXPECT_EQ(KovDskTimeDel(), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(Entries("general"), "");
    ExpectAllFree();
    {
        Fault f("opendir", EMFILE);
        EXPECT_EQ(KovDskTimeDel(), -1);
        EXPECT_EQ(errno, EMFILE);
    }
    ExpectAllFree();
}

TEST_F(Delete, TemporarySweep)
{
    Put("t1", 1, 0, 0, nullptr, 0, "x", 1);
    Put("t0", 1, 0, 0, nullptr, 0, "x", 0, "2001010000");  // expired, not temporary
    Put("u1", 1, 1, 2, nullptr, 0, "x", 1);
    Put("p1", 1, 3, 0, "abc", 1, "x", 1);
    PutFile("general/junk.1", "unparsed but marked");
    ASSERT_EQ(mkdir(Path("uid/0000000000000003").c_str(), 0777), 0);

    int w = KovDskWriteOpen("busy", 0, 0, 1, 1, 8, 0, 0, 1, 0);
    ASSERT_GE(w, 0);
    EXPECT_EQ(KovDskTmpDel(), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(KovDskWriteClose(w), 0);
    int r = KovDskReadOpen("t1", 1, 0, 0, nullptr, 0);
    ASSERT_GE(r, 0);
    EXPECT_EQ(KovDskTmpDel(), -1);
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_EQ(KovDskReadClose(r), 0);

    ASSERT_EQ(KovDskTmpDel(), 0);
    EXPECT_EQ(Entries("general"), "t01tn7430nd20010100dm00m.0");
    EXPECT_EQ(Entries("uid"), "");  // emptied and empty id areas both go
    EXPECT_FALSE(Exists("usr/616263"));
    ExpectAllFree();
}
