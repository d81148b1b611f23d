// Stored-file read streams: delivery arithmetic, when O_DIRECT goes, links,
// faults, and readers in two processes.
#include "doubles/interpose.h"
#include "harness/store.h"

#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

using namespace kovtest;

namespace {

class Read : public Store {
protected:
    // Opens a file of `size` pattern bytes in "general".
    int OpenOf(const char *name, size_t size)
    {
        data_ = Pattern(size, static_cast<unsigned>(size));
        Put(name, 1, 0, 0, nullptr, 0, data_);
        int h = KovDskReadOpen(name, 1, 0, 0, nullptr, 0);
        EXPECT_GE(h, 0) << strerror(errno);
        return h;
    }
    std::string data_;
};

// Each read() the library makes: its length, and whether O_DIRECT was on.
struct FileRead {
    size_t count;
    bool direct;
};
std::vector<FileRead> reads;
void RecordRead(const CallInfo &c)
{
    int flags = fcntl(c.fd, F_GETFL);
    reads.push_back({c.count, flags != -1 && (flags & O_DIRECT) != 0});
}

} // namespace

TEST_F(Read, SmallFilesInPieces)
{
    int h = OpenOf("hundred", 100);
    const KovDskAccRdEnt &r = AccTbl->rd[h];
    EXPECT_EQ(r.remain, 100u);
    EXPECT_EQ(r.fd > 0, true);
    EXPECT_STREQ(r.dir, "general");
    EXPECT_STREQ(r.name, "hundred");
    EXPECT_EQ(AccTbl->acc_cnt, 1);  // busy while the stream is open

    char buf[4096];
    std::string got;
    for (int want : {30, 30, 30, 10}) {
        ASSERT_EQ(KovDskRead(h, buf, 30), want);
        got.append(buf, want);
    }
    EXPECT_EQ(KovDskRead(h, buf, 30), 0);
    EXPECT_EQ(got, data_);
    EXPECT_EQ(AccTbl->acc_cnt, 1);  // the end of the file ends nothing
    int accessed = AccTbl->accessed;
    EXPECT_EQ(KovDskReadClose(h), 0);
    EXPECT_EQ(AccTbl->accessed, accessed + 1);
    EXPECT_EQ(AccTbl->rd[h].used, 0);
    ExpectAllFree();

    h = OpenOf("empty", 0);
    OnCall spy("read", RecordRead);
    reads.clear();
    EXPECT_EQ(KovDskRead(h, buf, 4096), 0);
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_FALSE(reads[0].direct);
    EXPECT_EQ(KovDskReadClose(h), 0);
}

TEST_F(Read, FiveThousandBytes)
{
    int h = OpenOf("five", 5000);
    const KovDskAccRdEnt &r = AccTbl->rd[h];
    OnCall spy("read", RecordRead);
    reads.clear();
    char buf[5000];
    ASSERT_EQ(KovDskRead(h, buf, 100), 100);
    EXPECT_EQ(r.fill, 3996u);
    EXPECT_EQ(r.pos, 100u);
    EXPECT_EQ(r.remain, 904u);
    ASSERT_EQ(KovDskRead(h, buf + 100, 5000), 4900);
    EXPECT_EQ(std::string(buf, 5000), data_);
    EXPECT_EQ(r.pos, 0u);
    EXPECT_EQ(r.fill, 0u);
    ASSERT_EQ(reads.size(), 3u);  // a block, the 904 bytes, the end
    EXPECT_TRUE(reads[0].direct);
    EXPECT_FALSE(reads[1].direct);
    EXPECT_FALSE(reads[2].direct);
    for (const FileRead &rd : reads)
        EXPECT_EQ(rd.count, 4096u);  // always a whole block is asked for
    EXPECT_EQ(KovDskReadClose(h), 0);
}

TEST_F(Read, TwentyThousandAndEightThousandOneHundredNinetyTwo)
{
    int h = OpenOf("twenty", 20000);
    const KovDskAccRdEnt &r = AccTbl->rd[h];
    long before = Calls("read");
    std::vector<char> buf(20000);
    ASSERT_EQ(KovDskRead(h, buf.data(), 10000), 10000);
    EXPECT_EQ(Calls("read"), before + 3);
    EXPECT_EQ(r.fill, 2288u);
    EXPECT_EQ(r.pos, 1808u);
    EXPECT_EQ(r.remain, 7712u);
    // A request of 4096 with bytes waiting: those first, then a block.
    ASSERT_EQ(KovDskRead(h, buf.data() + 10000, 4096), 4096);
    EXPECT_EQ(r.fill, 2288u);
    ASSERT_EQ(KovDskRead(h, buf.data() + 14096, 10000), 5904);
    EXPECT_EQ(std::string(buf.data(), 20000), data_);
    EXPECT_EQ(KovDskReadClose(h), 0);

    h = OpenOf("eight", 8192);
    OnCall spy("read", RecordRead);
    reads.clear();
    ASSERT_EQ(KovDskRead(h, buf.data(), 8192), 8192);
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_TRUE(reads[0].direct);
    EXPECT_TRUE(reads[1].direct);
    EXPECT_EQ(AccTbl->rd[h].remain, 0u);
    EXPECT_EQ(KovDskRead(h, buf.data(), 8192), 0);
    EXPECT_EQ(reads.size(), 3u);
    EXPECT_FALSE(reads[2].direct);
    EXPECT_EQ(KovDskReadClose(h), 0);
    ExpectAllFree();
}

TEST_F(Read, PassAreaFileThroughItsLinks)
{
    std::string data = Pattern(9000);
    Put("memo", 9, 3, 0, "abc", 1, data);
    int h = KovDskReadOpen("memo", 9, 0, 0, nullptr, 0);
    ASSERT_GE(h, 0);
    EXPECT_STREQ(AccTbl->rd[h].dir, "general");
    EXPECT_STREQ(AccTbl->rd[h].file, "t09tn6D656D6Fn.0");
    // A reader through "general" does not stop a write into the pass area.
    int w = KovDskWriteOpen("memo", 0, 0, 9, 3, 0, "abc", 1, 0, 0);
    EXPECT_GE(w, 0);
    EXPECT_EQ(KovDskWriteClose(w), 0);
    EXPECT_EQ(KovDskReadClose(h), 0);
    Put("memo", 9, 3, 0, "abc", 1, data);
    EXPECT_EQ(Get("memo", 9, 2, 0, "abc", 0), data);
    EXPECT_EQ(Get("memo", 9, 3, 0, "abc", 1), data);

    // A link whose file vanished is found, and then cannot be opened.
    ASSERT_EQ(unlink(Path("usr/616263/0000000000000001/t09tn6D656D6Fn.0").c_str()), 0);
    EXPECT_EQ(KovDskReadOpen("memo", 9, 0, 0, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    ExpectAllFree();
}

TEST_F(Read, RefusalsAndFaults)
{
    auto fails = [](int rc, int err) { return rc == -1 && errno == err; };
    Put("f", 1, 0, 0, nullptr, 0, Pattern(10000));
    {
        Fault nolock("semop", EDEADLK, 1, -1);
        EXPECT_TRUE(fails(KovDskReadOpen(nullptr, 1, 0, 0, 0, 0), EINVAL));
        EXPECT_TRUE(fails(KovDskReadOpen("f", 256, 0, 0, 0, 0), EINVAL));
        EXPECT_TRUE(fails(KovDskReadOpen("f", 1, 4, 0, "u", 0), EINVAL));
        EXPECT_TRUE(fails(KovDskReadOpen("f", 1, 2, 0, nullptr, 0), EINVAL));
    }
    EXPECT_TRUE(fails(KovDskReadOpen("f", 2, 0, 0, 0, 0), ENOENT));
    EXPECT_TRUE(fails(KovDskReadOpen("f", 1, 1, 77, 0, 0), ENOENT));  // no such area
    char buf[100];
    EXPECT_TRUE(fails(KovDskRead(0, buf, 1), ENFILE));
    EXPECT_TRUE(fails(KovDskReadClose(0), ENOENT));
    EXPECT_TRUE(fails(KovDskRead(32, buf, 1), EINVAL));
    EXPECT_TRUE(fails(KovDskRead(-1, buf, 1), EINVAL));
    EXPECT_TRUE(fails(KovDskReadClose(32), EINVAL));

    int h = KovDskReadOpen("f", 1, 0, 0, nullptr, 0);
    ASSERT_GE(h, 0);
    EXPECT_TRUE(fails(KovDskRead(h, nullptr, 1), EINVAL));
    EXPECT_TRUE(fails(KovDskRead(h, buf, 0), EINVAL));
    ASSERT_EQ(KovDskRead(h, buf, 10), 10);
    const KovDskAccRdEnt &r = AccTbl->rd[h];
    {
        std::string big(5000, '\0');
        Fault f("read", EIO);
        EXPECT_TRUE(fails(KovDskRead(h, big.data(), 5000), EIO));
    }
    EXPECT_EQ(r.fill, 4086u);
    EXPECT_EQ(r.pos, 10u);
    EXPECT_EQ(KovDskReadClose(h), 0);
    ExpectAllFree();

    for (const char *call : {"open", "fstat"}) {
        Fault f(call, EACCES);
        EXPECT_TRUE(fails(KovDskReadOpen("f", 1, 0, 0, nullptr, 0), EACCES)) << call;
    }
    {
        Fault f("malloc", ENOMEM, 1, 1, 8192);
        EXPECT_TRUE(fails(KovDskReadOpen("f", 1, 0, 0, nullptr, 0), ENOMEM));
    }
    for (const KovDskAccRdEnt &rd : AccTbl->rd)
        EXPECT_EQ(rd.used, 0);
    ExpectAllFree();

    // The 33rd reader: no slot, looked for before the file.
    std::vector<int> all;
    for (int i = 0; i < 32; i++) {
        all.push_back(KovDskReadOpen("f", 1, 0, 0, nullptr, 0));
        ASSERT_GE(all.back(), 0);
    }
    EXPECT_EQ(AccTbl->acc_cnt, 32);
    EXPECT_TRUE(fails(KovDskReadOpen("f", 1, 0, 0, nullptr, 0), ENFILE));
    EXPECT_TRUE(fails(KovDskReadOpen("missing", 1, 0, 0, nullptr, 0), ENFILE));
    for (int slot : all)
        EXPECT_EQ(KovDskReadClose(slot), 0);
    ExpectAllFree();
}

TEST_F(Read, TwoProcessesReadOneFileWhileAWriterIsRefused)
{
    std::string data = Pattern(30000);
    Put("shared", 3, 1, 5, nullptr, 0, data);
    int h = KovDskReadOpen("shared", 3, 1, 5, nullptr, 0);
    ASSERT_GE(h, 0);
    char first[1000];
    ASSERT_EQ(KovDskRead(h, first, sizeof first), 1000);

    int rc = RunChild([&] {
        Detach();
        if (KovDskInit() != 0)
            return 1;
        // The parent's reader stops a write open of the same file.
        if (KovDskWriteOpen("shared", 0, 0, 3, 1, 5, 0, 0, 0, 0) != -1 || errno != EAGAIN)
            return 2;
        int mine = KovDskReadOpen("shared", 3, 1, 5, nullptr, 0);
        if (mine < 0 || mine == h)
            return 3;
        std::string got(30000, '\0');
        if (KovDskRead(mine, got.data(), 30000) != 30000 || got != data)
            return 4;
        return KovDskReadClose(mine) == 0 ? 0 : 5;
    });
    EXPECT_EQ(rc, 0);
    std::string rest(29000, '\0');
    ASSERT_EQ(KovDskRead(h, rest.data(), 29000), 29000);
    EXPECT_EQ(std::string(first, 1000) + rest, data);
    EXPECT_EQ(AccTbl->acc_cnt, 1);  // the child's reader came and went
    EXPECT_EQ(KovDskReadClose(h), 0);
    ExpectAllFree();
}
