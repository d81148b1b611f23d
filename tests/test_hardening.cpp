// What other processes, crashes and careless scripts may leave in the
// store, and what the library must never do about it: block with the table
// lock held, follow a link it did not make, walk through a linked directory,
// or leave the root by a plain path.
#include "doubles/interpose.h"
#include "harness/store.h"

#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

using namespace kovtest;

namespace {

class Hardening : public Store {
protected:
    void SetUp() override
    {
        Store::SetUp();
        outside_ = root_ + "-outside";
        ASSERT_EQ(mkdir(outside_.c_str(), 0777), 0);
        Plant("secret", "keep out");
        Plant("t05tn41n.1", "temporary outside");            // temporary
        Plant("t05tn42nd26010100dm00m.0", "expired outside");  // expired
    }
    void TearDown() override
    {
        Output("rm -rf '" + outside_ + "'");
        Store::TearDown();
    }
    void Plant(const std::string &name, const std::string &bytes)
    {
        int fd = open((outside_ + "/" + name).c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0666);
        ASSERT_EQ(write(fd, bytes.data(), bytes.size()), (ssize_t)bytes.size());
        close(fd);
    }
    // Nothing outside the root was touched.
    void ExpectOutsideIntact()
    {
        EXPECT_EQ(Output("cat '" + outside_ + "/secret'"), "keep out");
        EXPECT_EQ(Output("ls '" + outside_ + "' | wc -l"), "3\n");
    }
    void Link(const std::string &target, const std::string &rel)
    {
        ASSERT_EQ(symlink(target.c_str(), Path(rel).c_str()), 0) << rel;
    }
    std::string outside_;
};

struct Row {
    const char *what;
    std::function<int()> call;
    int rc;   // expected result
    int err;  // and errno, where rc is -1
};

// Runs the rows in a child with a watchdog, so that a call that blocks
// fails the test instead of hanging the suite. The child's exit code is
// the number of rows that went wrong.
int RunRows(const std::vector<Row> &rows)
{
    return RunChild([&rows] {
        alarm(10);
        int wrong = 0;
        for (const Row &r : rows) {
            errno = 0;
            int rc = r.call();
            int err = errno;
            if (rc != r.rc || (r.rc == -1 && err != r.err)) {
                fprintf(stderr, "%s: %d (%s), expected %d (%s)\n", r.what, rc, strerror(err), r.rc,
                        strerror(r.err));
                wrong++;
            }
        }
        return wrong;
    });
}

} // namespace

TEST_F(Hardening, NothingBlocksWhileTheTableLockIsHeld)
{
    // FIFOs where a stored file, a pass area's file behind its links, and a
    // plain file are looked for; and one in place of a stored file whose
    // write stream is open.
    ASSERT_EQ(mkfifo(Path("general/t01tn41n.0").c_str(), 0666), 0);
    ASSERT_EQ(mkdir(Path("usr/4142").c_str(), 0777), 0);
    ASSERT_EQ(mkdir(Path("usr/4142/0000000000000001").c_str(), 0777), 0);
    std::string real = Path("usr/4142/0000000000000001/t01tn42n.0");
    ASSERT_EQ(mkfifo(real.c_str(), 0666), 0);
    Link(real, "general/t01tn42n.0");
    Link(real, "usr/4142/t01tn42n.0");
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0666), 0);
    ASSERT_EQ(mkdir(Path("uid/0000000000000001").c_str(), 0777), 0);
    ASSERT_EQ(mkfifo(Path("uid/0000000000000001/t01tn43n.0").c_str(), 0666), 0);
    int h = KovDskWriteOpen("D", nullptr, nullptr, 1, 0, 0, nullptr, 0, 0, nullptr);
    ASSERT_GE(h, 0);
    ASSERT_EQ(KovDskWrite(h, "tail", 4), 4);
    char *raw = AccTbl->wr[h].rawbuf;  // the child's close frees only its copy
    ASSERT_EQ(unlink(Path("general/t01tn44n.0").c_str()), 0);
    ASSERT_EQ(mkfifo(Path("general/t01tn44n.0").c_str(), 0666), 0);
    std::string block(5000, 'b');

    EXPECT_EQ(RunRows({
                  {"read open, general", [] { return KovDskReadOpen("A", 1, 0, 0, nullptr, 0); }, -1, ENOENT},
                  {"read open, by link", [] { return KovDskReadOpen("B", 1, 0, 0, nullptr, 0); }, -1, ENOENT},
                  {"read open, pass area", [] { return KovDskReadOpen("B", 1, 3, 0, "AB", 1); }, -1, ENOENT},
                  {"write open in the way", [] { return KovDskWriteOpen("C", nullptr, nullptr, 1, 1, 1, nullptr, 0, 0, nullptr); }, -1, EEXIST},
                  {"write of a stream", [&] { return KovDskWrite(h, block.data(), 5000); }, -1, ENOENT},
                  {"close of a stream", [&] { return KovDskWriteClose(h); }, -1, ENOENT},
                  {"direct read open", [] { return KovDskReadOpenDirect("fifo"); }, -1, ENFILE},
                  {"direct write open", [] { return KovDskWriteOpenDirect("fifo", 0); }, -1, ENFILE},
                  {"direct append open", [] { return KovDskWriteOpenDirect("fifo", 1); }, -1, ENFILE},
              }),
              0);
    free(raw);
    EXPECT_EQ(AccTbl->wr[h].used, 0);
    ExpectAllFree();
}

TEST_F(Hardening, WalksNeverGoThroughALinkedDirectory)
{
    // Each row: a link planted in place of a store directory, the calls that
    // would walk through it, and what they give instead.
    Put("g", 5, 0, 0, nullptr, 0, "g");
    Put("p", 5, 3, 0, "AB", 1, "p");
    struct Plant {
        const char *rel;
        std::vector<Row> rows;
    } plants[] = {
        {"uid/0000000000000002",
         {{"temporary sweep", [] { return KovDskTmpDel(); }, 0, 0},
          {"expiry sweep", [] { return KovDskTimeDel(); }, 0, 0},
          {"delete all", [] { return KovDskDel("", 0, 0, 1, 2, nullptr, 0); }, -1, ENOTDIR},
          {"list", [] {
               KovDskListRes r;
               return KovDskList(nullptr, 0, 1, 2, nullptr, 0, 0, &r, 0);
           }, -1, ENOTDIR},
          {"read open", [] { return KovDskReadOpen("A", 5, 1, 2, nullptr, 0); }, -1, ENOENT},
          {"write open", [] { return KovDskWriteOpen("N", nullptr, nullptr, 5, 1, 2, nullptr, 0, 0, nullptr); }, -1, ENOTDIR}}},
        {".trash",
         {{"expiry sweep, trash off", [] { return KovDskTimeDel(); }, -1, ENOTDIR},
          {"delete in trash mode", [] {
               KovDskSelDel(1);
               int rc = KovDskDel("g", 5, 1, 0, 0, nullptr, 0);
               KovDskSelDel(0);
               return rc;
           }, -1, ENOTDIR},
          {"shred", [] {
               KovDskSelDel(1);
               AccTbl->gbg_flag = 1;
               int rc = KovDskFleSrd();
               KovDskSelDel(0);
               return rc;
           }, -1, ENOTDIR}}},
        {"usr/4142",
         {{"delete through general", [] { return KovDskDel("p", 5, 1, 0, 0, nullptr, 0); }, 0, 0},
          {"pass list", [] {
               uint32_t n;
               uint64_t *l;
               return KovDskPasList(0, "AB", &n, &l);
           }, -1, ENOTDIR},
          {"write open", [] { return KovDskWriteOpen("N", nullptr, nullptr, 5, 3, 0, "AB", 1, 0, nullptr); }, -1, ENOTDIR}}},
        {"general",
         {{"temporary sweep", [] { return KovDskTmpDel(); }, -1, ENOTDIR},
          {"read open", [] { return KovDskReadOpen("g", 5, 0, 0, nullptr, 0); }, -1, ENOENT}}},
    };
    for (const Plant &p : plants) {
        SCOPED_TRACE(p.rel);
        std::string aside = Path(std::string(p.rel) + ".aside");
        ASSERT_EQ(rename(Path(p.rel).c_str(), aside.c_str()) == 0 || errno == ENOENT, true);
        Link(outside_, p.rel);
        EXPECT_EQ(RunRows(p.rows), 0);
        ExpectOutsideIntact();
        ASSERT_EQ(unlink(Path(p.rel).c_str()), 0);
        rename(aside.c_str(), Path(p.rel).c_str());
    }
    // What was stored is still there, bar the one the delete took.
    EXPECT_EQ(Get("g", 5, 0, 0, nullptr, 0), "g");
    ExpectAllFree();
}

TEST_F(Hardening, ALinkTheLibraryDidNotMakeIsNoStoredFile)
{
    // A link out of the root, one whose path runs through a linked user
    // directory, and one in an id area, where the library makes none.
    Link(outside_ + "/secret", "general/t01tn41n.0");
    Link(outside_ + "/t05tn41n.1", "general/t05tn41n.1");
    Link(outside_ + "/t05tn42nd26010100dm00m.0", "general/t05tn42nd26010100dm00m.0");
    Link(outside_, "usr/4142");
    Link(Path("usr/4142/0000000000000001/secret"), "general/t01tn42n.0");
    ASSERT_EQ(mkdir(Path("uid/0000000000000001").c_str(), 0777), 0);
    Link(outside_ + "/secret", "uid/0000000000000001/t01tn43n.0");
    const std::string before = Entries("general") + "|" + Entries("uid/0000000000000001");

    KovDskListRes list;
    char path[KOVDSK_PATH_MAX];
    uint32_t flag;
    alignas(8) unsigned char pass[17];
    EXPECT_EQ(RunRows({
                  {"read open", [] { return KovDskReadOpen("A", 1, 0, 0, nullptr, 0); }, -1, ENOENT},
                  {"read open through a linked directory", [] { return KovDskReadOpen("B", 1, 0, 0, nullptr, 0); }, -1, ENOENT},
                  {"read open in an id area", [] { return KovDskReadOpen("C", 1, 1, 1, nullptr, 0); }, -1, ENOENT},
                  {"real path", [&] { return KovDskGetRealFileName("A", 1, 0, 0, nullptr, 0, path); }, -1, ENOENT},
                  {"pass check", [&] { return KovDskPasCheck("A", 1, &flag, pass); }, -1, EINVAL},
                  {"list", [&] { return KovDskList(nullptr, 0, 0, 0, nullptr, 0, 0, &list, 0) == 0 ? (int)list.count : -1; }, 0, 0},
                  {"delete by name", [] { return KovDskDel("A", 1, 1, 0, 0, nullptr, 0); }, 0, 0},
                  {"delete all of general", [] { return KovDskDel("", 0, 0, 0, 0, nullptr, 0); }, 0, 0},
                  {"delete all of the id area", [] { return KovDskDel("", 0, 0, 1, 1, nullptr, 0); }, 0, 0},
                  {"temporary sweep", [] { return KovDskTmpDel(); }, 0, 0},
                  {"expiry sweep", [] { return KovDskTimeDel(); }, 0, 0},
                  {"write open onto it", [] { return KovDskWriteOpen("A", nullptr, nullptr, 1, 0, 0, nullptr, 0, 0, nullptr); }, -1, EEXIST},
              }),
              0);
    // Passed over, not taken: the links are all still there.
    EXPECT_EQ(Entries("general") + "|" + Entries("uid/0000000000000001"), before);
    ExpectOutsideIntact();
    ExpectAllFree();
}

TEST_F(Hardening, PlainPathsStayBelowTheRoot)
{
    PutFile("x", "x");
    KovDskDirRes dirs;
    for (const char *p : {"..", "../x", "a/../../x", "a/..", "../"}) {
        SCOPED_TRACE(p);
        Fault nolock("semop", EDEADLK, 1, -1);  // refused before the lock
        std::vector<std::pair<const char *, std::function<int()>>> calls = {
            {"DirMake", [p] { return KovDskDirMake(p); }},
            {"FileChk", [p] { return KovDskFileChk(p, 0); }},
            {"FileRemove", [p] { return KovDskFileRemove(p); }},
            {"FileRename from", [p] { return KovDskFileRename(p, "x"); }},
            {"FileRename to", [p] { return KovDskFileRename("x", p); }},
            {"ChgTimeStamp", [p] { return KovDskChgTimeStamp(p); }},
            {"FileSize", [p] { return KovDskFileSize(p); }},
            {"WriteOpenDirect", [p] { return KovDskWriteOpenDirect(p, 1); }},
            {"ReadOpenDirect", [p] { return KovDskReadOpenDirect(p); }},
            {"DirList", [&dirs, p] { return KovDskDirList(p, "", &dirs, 0); }},
        };
        for (auto &c : calls) {
            errno = 0;
            EXPECT_EQ(c.second(), -1) << c.first;
            EXPECT_EQ(errno, EINVAL) << c.first;
        }
    }
    // ".." inside a name is no step up.
    PutFile("a..b", "xy");
    EXPECT_EQ(KovDskFileSize("a..b"), 2);
    EXPECT_EQ(Content("x"), "x");
    ExpectOutsideIntact();
}
