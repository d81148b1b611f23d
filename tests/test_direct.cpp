// Direct streams on plain paths: truncation, the append head, blocks,
// failures, and the read side.
#include "doubles/interpose.h"
#include "harness/store.h"

#include <cstring>
#include <fcntl.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace kovtest;

namespace {

class Direct : public Store {};

struct DiskWrite {
    size_t count;
    bool direct;
};
std::vector<DiskWrite> writes;
void RecordWrite(const CallInfo &c)
{
    int flags = fcntl(c.fd, F_GETFL);
    writes.push_back({c.count, flags != -1 && (flags & O_DIRECT) != 0});
}

// The table lock and the operation counter as a spied call found them.
int lock_then = -1, ops_then = -1;
void RecordLock(const CallInfo &)
{
    lock_then = semctl(KovDskTblSem_id, 0, GETVAL);
    ops_then = AccTbl->op_cnt;
}

} // namespace

TEST_F(Direct, AppendWorkedExample)
{
    std::string old = Pattern(5000, 1), a = Pattern(3000, 2), b = Pattern(10000, 3);
    PutFile("log.bin", old);
    int h = KovDskWriteOpenDirect("log.bin", 1);
    ASSERT_GE(h, 0);
    const KovDskAccWrEnt &w = AccTbl->wr[h];
    EXPECT_EQ(w.head, 3192u);
    EXPECT_EQ(w.kind, 0);
    EXPECT_STREQ(w.file, "log.bin");
    EXPECT_STREQ(w.name, "");
    EXPECT_EQ(AccTbl->acc_cnt, 1);  // busy for the stream's whole life

    OnCall spy("write", RecordWrite);
    writes.clear();
    ASSERT_EQ(KovDskWriteDirect(h, a.data(), 3000), 3000);
    EXPECT_EQ(w.fill, 3000u);
    EXPECT_EQ(Size("log.bin"), 5000);
    ASSERT_EQ(KovDskWriteDirect(h, b.data(), 10000), 10000);
    EXPECT_EQ(Size("log.bin"), 16384);
    EXPECT_EQ(w.fill, 1616u);
    EXPECT_EQ(w.head, 0u);
    ASSERT_EQ(KovDskWriteCloseDirect(h), 0);
    EXPECT_EQ(Size("log.bin"), 18000);
    EXPECT_EQ(Content("log.bin"), old + a + b);

    ASSERT_EQ(writes.size(), 4u);
    EXPECT_EQ(writes[0].count, 3192u);  // the head, without O_DIRECT
    EXPECT_FALSE(writes[0].direct);
    for (int i : {1, 2}) {
        EXPECT_EQ(writes[i].count, 4096u);
        EXPECT_TRUE(writes[i].direct);
    }
    EXPECT_EQ(writes[3].count, 1616u);  // the tail at the close
    EXPECT_FALSE(writes[3].direct);
    ExpectAllFree();
}

TEST_F(Direct, HeadsOfEveryShape)
{
    // Mode 1 on a new file: head 4096, written in one go without O_DIRECT.
    int h = KovDskWriteOpenDirect("new", 1);
    ASSERT_GE(h, 0);
    EXPECT_EQ(AccTbl->wr[h].head, 4096u);
    struct stat st;
    ASSERT_EQ(stat(Path("new").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);
    std::string data = Pattern(4096);
    ASSERT_EQ(KovDskWriteDirect(h, data.data(), 4096), 4096);
    EXPECT_EQ(Size("new"), 4096);
    EXPECT_EQ(AccTbl->wr[h].fill, 0u);
    ASSERT_EQ(KovDskWriteCloseDirect(h), 0);

    // A file of 8192 bytes: head 4096, not 0.
    PutFile("eight", Pattern(8192));
    h = KovDskWriteOpenDirect("eight", 1);
    EXPECT_EQ(AccTbl->wr[h].head, 4096u);
    ASSERT_EQ(KovDskWriteCloseDirect(h), 0);

    // Exactly the head: out at once, nothing for the close.
    PutFile("five", Pattern(5000));
    h = KovDskWriteOpenDirect("five", 1);
    ASSERT_EQ(KovDskWriteDirect(h, data.data(), 3192), 3192);
    EXPECT_EQ(Size("five"), 8192);
    long writes_before = Calls("write");
    ASSERT_EQ(KovDskWriteCloseDirect(h), 0);
    EXPECT_EQ(Calls("write"), writes_before);

    // One byte short of the head: all of it waits for the close.
    PutFile("short", Pattern(5000));
    h = KovDskWriteOpenDirect("short", 1);
    ASSERT_EQ(KovDskWriteDirect(h, data.data(), 3191), 3191);
    EXPECT_EQ(Size("short"), 5000);
    ASSERT_EQ(KovDskWriteCloseDirect(h), 0);
    EXPECT_EQ(Size("short"), 8191);

    // Mode 0 truncates: no head, a short write waits, the close writes it.
    PutFile("trunc", Pattern(9999));
    h = KovDskWriteOpenDirect("trunc", 0);
    EXPECT_EQ(Size("trunc"), 0);
    EXPECT_EQ(AccTbl->wr[h].head, 0u);
    ASSERT_EQ(KovDskWriteDirect(h, data.data(), 100), 100);
    EXPECT_EQ(Size("trunc"), 0);
    int accessed = AccTbl->accessed;
    long syncs = Calls("sync");
    ASSERT_EQ(KovDskWriteCloseDirect(h), 0);
    EXPECT_EQ(Content("trunc"), data.substr(0, 100));
    EXPECT_EQ(AccTbl->accessed, accessed + 1);
    EXPECT_EQ(Calls("sync"), syncs + 1);
    ExpectAllFree();
}

TEST_F(Direct, FailuresAndRefusals)
{
    auto fails = [](int rc, int err) { return rc == -1 && errno == err; };
    std::string p256(256, 'p');
    {
        Fault nolock("semop", EDEADLK, 1, -1);
        EXPECT_TRUE(fails(KovDskWriteOpenDirect(nullptr, 0), EINVAL));
        EXPECT_TRUE(fails(KovDskWriteOpenDirect("", 0), EINVAL));
        EXPECT_TRUE(fails(KovDskWriteOpenDirect("x", 2), EINVAL));
        EXPECT_TRUE(fails(KovDskWriteOpenDirect(p256.c_str(), 0), EINVAL));
        EXPECT_TRUE(fails(KovDskWriteDirect(32, "x", 1), EINVAL));
        EXPECT_TRUE(fails(KovDskWriteDirect(0, nullptr, 1), EINVAL));
        EXPECT_TRUE(fails(KovDskWriteDirect(0, "x", 0), EINVAL));
        EXPECT_TRUE(fails(KovDskWriteDirect(0, "x", 1), ENOENT));
        EXPECT_TRUE(fails(KovDskWriteCloseDirect(32), EINVAL));
        EXPECT_TRUE(fails(KovDskWriteCloseDirect(0), ENOENT));
        EXPECT_TRUE(fails(KovDskReadOpenDirect(""), EINVAL));
    }
    EXPECT_TRUE(fails(KovDskWriteOpenDirect("missing/dir/file", 0), ENFILE));
    EXPECT_TRUE(fails(KovDskReadOpenDirect("missing"), ENFILE));
    {
        Fault f("open", EMFILE);
        EXPECT_TRUE(fails(KovDskWriteOpenDirect("x", 0), ENFILE));
    }
    // No memory: mode 1 keeps the data, mode 0 removes what it truncated.
    // Both close the descriptor, and mode 0 removes, only once the counter
    // is down and the table lock given back.
    PutFile("keep", "precious");
    for (const char *spied : {"close", "remove"}) {
        for (uint32_t mode : {1u, 0u}) {
            if (mode == 1 && strcmp(spied, "remove") == 0)
                continue;
            SCOPED_TRACE(std::string(spied) + " in mode " + std::to_string(mode));
            lock_then = ops_then = -1;
            OnCall spy(spied, RecordLock);
            Fault f("malloc", ENOMEM, 1, 1, 8192);
            EXPECT_TRUE(fails(KovDskWriteOpenDirect("keep", mode), ENOSPC));
            EXPECT_EQ(lock_then, 1);
            EXPECT_EQ(ops_then, 0);
            EXPECT_EQ(Exists("keep"), mode == 1);
            if (mode == 1)
                EXPECT_EQ(Content("keep"), "precious");
            else
                PutFile("keep", "precious");
        }
    }
    PutFile("r", "read me");
    {
        Fault f("malloc", ENOMEM, 1, 1, 8192);
        EXPECT_TRUE(fails(KovDskReadOpenDirect("r"), ENOSPC));
    }
    {
        Fault f("fstat", EIO);
        EXPECT_TRUE(fails(KovDskReadOpenDirect("r"), EIO));
    }
    for (const KovDskAccWrEnt &w : AccTbl->wr)
        EXPECT_EQ(w.used, 0);
    ExpectAllFree();
}

TEST_F(Direct, ShortBlocksCountAsTheyCome)
{
    // The first block takes 2048 bytes only: the rest is offered again in
    // the next block, and nothing is lost.
    std::string data = Pattern(10000, 4);
    int h = KovDskWriteOpenDirect("s", 0);
    ASSERT_GE(h, 0);
    {
        ShortWrite disk(1, 2048, 4096);
        ASSERT_EQ(KovDskWriteDirect(h, data.data(), 10000), 10000);
    }
    EXPECT_EQ(Size("s"), 6144);
    EXPECT_EQ(AccTbl->wr[h].fill, 3856u);
    // A block that takes fewer than the bytes carried into it keeps the
    // rest of them carried.
    std::string more = Pattern(5000, 5);
    {
        ShortWrite disk(1, 1024, 4096);
        ASSERT_EQ(KovDskWriteDirect(h, more.data(), 5000), 5000);
    }
    ASSERT_EQ(KovDskWriteCloseDirect(h), 0);
    EXPECT_EQ(Content("s"), data + more);

    // A stored file's stream refuses a short block: its file must stay on
    // the grid its next O_DIRECT open needs.
    int w = KovDskWriteOpen("f", nullptr, nullptr, 1, 0, 0, nullptr, 0, 0, nullptr);
    ASSERT_GE(w, 0);
    {
        ShortWrite disk(1, 2048, 4096);
        EXPECT_EQ(KovDskWrite(w, data.data(), 10000), -1);
        EXPECT_EQ(errno, ENOSPC);
    }
    EXPECT_EQ(KovDskWriteClose(w), 0);
    ExpectAllFree();
}

TEST_F(Direct, AFailedHeadWriteCanBeRepeated)
{
    PutFile("f", Pattern(5000));
    int h = KovDskWriteOpenDirect("f", 1);
    ASSERT_GE(h, 0);
    std::string data = Pattern(5000, 9);
    ASSERT_EQ(KovDskWriteDirect(h, data.data(), 100), 100);
    {
        Fault f("write", EIO);
        EXPECT_EQ(KovDskWriteDirect(h, data.data() + 100, 4900), -1);
        EXPECT_EQ(errno, EIO);
    }
    EXPECT_EQ(AccTbl->wr[h].fill, 100u);
    EXPECT_EQ(AccTbl->wr[h].head, 3192u);
    EXPECT_EQ(AccTbl->acc_cnt, 1);  // the stream keeps its unit
    EXPECT_EQ(AccTbl->op_cnt, 0);
    ASSERT_EQ(KovDskWriteDirect(h, data.data() + 100, 4900), 4900);
    ASSERT_EQ(KovDskWriteCloseDirect(h), 0);
    EXPECT_EQ(Content("f"), Pattern(5000) + data);

    // A block that fails: the stream stays; the close still ends it.
    h = KovDskWriteOpenDirect("g", 0);
    {
        Fault f("write", ENOSPC);
        EXPECT_EQ(KovDskWriteDirect(h, data.data(), 5000), -1);
        EXPECT_EQ(errno, ENOSPC);
    }
    EXPECT_EQ(AccTbl->wr[h].used, 1);
    EXPECT_EQ(AccTbl->wr[h].fill, 0u);
    // The tail fails at the close: the stream ends, unstamped and uncounted.
    ASSERT_EQ(KovDskWriteDirect(h, data.data(), 10), 10);
    int accessed = AccTbl->accessed;
    {
        Fault f("write", EIO);
        EXPECT_EQ(KovDskWriteCloseDirect(h), -1);
        EXPECT_EQ(errno, EIO);
    }
    EXPECT_EQ(AccTbl->wr[h].used, 0);
    EXPECT_EQ(AccTbl->accessed, accessed);
    ExpectAllFree();
}

TEST_F(Direct, ReadSideIsTheStoredFileReader)
{
    std::string data = Pattern(10000);
    PutFile("r", data);
    PutFile("empty", "");
    int h = KovDskReadOpenDirect("r");
    ASSERT_GE(h, 0);
    EXPECT_EQ(AccTbl->rd[h].remain, 10000u);
    EXPECT_STREQ(AccTbl->rd[h].file, "");
    EXPECT_EQ(KovDskOpenTblCheck(), 1);  // a direct stream counts as open
    std::string got(10000, '\0');
    ASSERT_EQ(KovDskReadDirect(h, got.data(), 6000), 6000);
    ASSERT_EQ(KovDskRead(h, got.data() + 6000, 6000), 4000);
    EXPECT_EQ(got, data);
    ASSERT_EQ(KovDskReadCloseDirect(h), 0);
    int e = KovDskReadOpenDirect("empty");
    ASSERT_GE(e, 0);
    EXPECT_EQ(AccTbl->rd[e].remain, 0u);
    EXPECT_EQ(KovDskReadClose(e), 0);
    ExpectAllFree();

    // A direct stream protects no stored file: it has no name and no area,
    // whatever a failed store read open left in the free slot it takes.
    Put("a", 0, 0, 0, nullptr, 0, "x");
    {
        Fault f("malloc", ENOMEM, 1, 1, 8192);
        EXPECT_EQ(KovDskReadOpen("a", 0, 0, 0, nullptr, 0), -1);
    }
    EXPECT_STREQ(AccTbl->rd[0].name, "a");
    h = KovDskReadOpenDirect("r");
    ASSERT_EQ(h, 0);
    EXPECT_STREQ(AccTbl->rd[h].name, "");
    EXPECT_STREQ(AccTbl->rd[h].dir, "");
    EXPECT_STREQ(AccTbl->rd[h].file, "");
    int a = KovDskWriteOpen("a", nullptr, nullptr, 0, 0, 0, nullptr, 0, 0, nullptr);
    EXPECT_GE(a, 0) << strerror(errno);
    EXPECT_EQ(KovDskWriteClose(a), 0);
    EXPECT_EQ(KovDskReadCloseDirect(h), 0);
    Put("f", 1, 0, 0, nullptr, 0, "x");
    int w = KovDskWriteOpenDirect("general/t01tn66n.0", 1);
    ASSERT_GE(w, 0);
    EXPECT_EQ(KovDskDel("f", 1, 1, 0, 0, nullptr, 0), 0);
    EXPECT_EQ(KovDskWriteCloseDirect(w), 0);
}

TEST_F(Direct, HandlesOfTheOtherKindOfStreamAreRefused)
{
    int store = KovDskWriteOpen("s", nullptr, nullptr, 1, 0, 0, nullptr, 0, 0, nullptr);
    int direct = KovDskWriteOpenDirect("d", 0);
    ASSERT_GE(store, 0);
    ASSERT_GE(direct, 0);
    long writes = Calls("write");
    // A store stream keeps no descriptor: the direct calls must not write
    // to descriptor 0 or close it.
    EXPECT_EQ(KovDskWriteDirect(store, "x", 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(KovDskWriteCloseDirect(store), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(KovDskWrite(direct, "x", 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(KovDskWriteClose(direct), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(Calls("write"), writes);
    EXPECT_EQ(fcntl(0, F_GETFD), 0);
    EXPECT_EQ(AccTbl->acc_cnt, 1);  // the direct stream's unit, still there
    EXPECT_EQ(KovDskWriteClose(store), 0);
    EXPECT_EQ(KovDskWriteCloseDirect(direct), 0);
    ExpectAllFree();
}
