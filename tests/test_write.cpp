// Stored-file write streams: the open with its scans, replacements and
// failure exits; the block writer as seen on the disk.
#include "doubles/interpose.h"
#include "harness/store.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace kovtest;

namespace {

class Write : public Store {};

// Every write() the library makes, as the disk sees it at that moment.
struct BlockWrite {
    size_t count;
    bool aligned_buf, aligned_offset, direct;
};
std::vector<BlockWrite> writes;
void RecordWrite(const CallInfo &c)
{
    struct stat st;
    int flags = fcntl(c.fd, F_GETFL);
    bool at_grid = fstat(c.fd, &st) == 0 && st.st_size % 4096 == 0;  // O_APPEND writes at the end
    writes.push_back({c.count, reinterpret_cast<uintptr_t>(c.buf) % 4096 == 0, at_grid,
                      flags != -1 && (flags & O_DIRECT) != 0});
}

} // namespace

TEST_F(Write, OpenCreatesTheStoredFileAndFillsTheSlot)
{
    SetNow("2029-09-09 09:09:00");
    int h = KovDskWriteOpen("abc", "xy", "memo", 42, 3, 0, "abc", 1, 5, "2601311530");
    ASSERT_GE(h, 0);
    const KovDskAccWrEnt &w = AccTbl->wr[h];
    EXPECT_EQ(w.used, 1);
    EXPECT_EQ(w.fd, 0);
    EXPECT_STREQ(w.name, "abc");
    EXPECT_EQ(w.kind, 42);
    EXPECT_EQ(w.tmp, 1);
    EXPECT_STREQ(w.dir, "usr/616263/0000000000000001");
    EXPECT_STREQ(w.file, "t2atn616263nf7879fs6D656D6Fsd26013115dm30m.1");
    ASSERT_NE(w.rawbuf, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(w.buf) % 4096, 0u);
    EXPECT_GE(w.buf, w.rawbuf);
    EXPECT_LE(w.buf + 4096, w.rawbuf + 8192);
    EXPECT_EQ(w.fill, 0u);

    std::string real = "usr/616263/0000000000000001/" + std::string(w.file);
    EXPECT_EQ(Size(real), 0);
    EXPECT_EQ(LinkText(std::string("general/") + w.file), Path(real));
    EXPECT_EQ(LinkText(std::string("usr/616263/") + w.file), Path(real));
    struct stat st;
    ASSERT_EQ(stat(Path(real).c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, Utc(2029, 9, 9, 9, 9, 0));
    for (const char *d : {"usr/616263", "usr/616263/0000000000000001"}) {
        ASSERT_EQ(stat(Path(d).c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0666u) << d;
    }
    ExpectAllFree();
    EXPECT_EQ(KovDskWriteClose(h), 0);
    EXPECT_EQ(AccTbl->wr[h].used, 0);
    EXPECT_EQ(AccTbl->wr[h].rawbuf, nullptr);
}

TEST_F(Write, ArgumentsAreTestedBeforeTheLock)
{
    Fault nolock("semop", EDEADLK, 1, -1);
    auto einval = [](int rc) { return rc == -1 && errno == EINVAL; };
    EXPECT_TRUE(einval(KovDskWriteOpen(nullptr, 0, 0, 1, 0, 0, 0, 0, 0, 0)));
    EXPECT_TRUE(einval(KovDskWriteOpen("", 0, 0, 1, 0, 0, 0, 0, 0, 0)));
    EXPECT_TRUE(einval(KovDskWriteOpen("a", 0, 0, 256, 0, 0, 0, 0, 0, 0)));
    EXPECT_TRUE(einval(KovDskWriteOpen("a", 0, 0, 1, 2, 0, "u", 0, 0, 0)));
    EXPECT_TRUE(einval(KovDskWriteOpen("a", 0, 0, 1, 4, 0, "u", 0, 0, 0)));
    EXPECT_TRUE(einval(KovDskWriteOpen("a", 0, 0, 1, 3, 0, nullptr, 0, 0, 0)));
    EXPECT_TRUE(einval(KovDskWrite(0, nullptr, 1)));
    EXPECT_TRUE(einval(KovDskWrite(0, "x", 0)));
    EXPECT_TRUE(einval(KovDskWrite(32, "x", 1)));
    EXPECT_TRUE(einval(KovDskWrite(-1, "x", 1)));
    EXPECT_TRUE(einval(KovDskWriteClose(32)));
    EXPECT_EQ(KovDskWrite(31, "x", 1), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(KovDskWriteClose(31), -1);
    EXPECT_EQ(errno, ENOENT);
    Detach();
    EXPECT_EQ(KovDskWriteOpen("a", 0, 0, 1, 0, 0, 0, 0, 0, 0), -1);
    EXPECT_EQ(errno, EINIT);
    EXPECT_EQ(KovDskWrite(0, "x", 1), -1);
    EXPECT_EQ(errno, EINIT);
}

TEST_F(Write, OddValuesGiveNoError)
{
    EXPECT_EQ(Put("k255", 255, 0, 0, nullptr, 0, ""), "tfftn6B323535n.0");
    for (const char *bad : {"260131153", "26013115305", "26013115a0"})
        EXPECT_EQ(Put("d", 1, 0, 0, nullptr, 0, "", 0, bad), "t01tn64n.0") << bad;
    // A name of more than 32 bytes: the slot's name keeps 33 of them.
    std::string n40(40, 'n');
    int h = KovDskWriteOpen(n40.c_str(), 0, 0, 1, 1, 7, 0, 0, 0, 0);
    ASSERT_GE(h, 0);
    EXPECT_EQ(std::string(AccTbl->wr[h].name, 33), n40.substr(0, 33));
    EXPECT_EQ(std::string(AccTbl->wr[h].name + 33, 3), std::string(3, '\0'));
    EXPECT_EQ(KovDskWriteClose(h), 0);
}

TEST_F(Write, BusyFilesAreRefusedBeforeAFullTable)
{
    int h = KovDskWriteOpen("a", 0, 0, 1, 0, 0, 0, 0, 0, 0);
    ASSERT_GE(h, 0);
    EXPECT_EQ(KovDskWriteOpen("a", 0, 0, 1, 0, 0, 0, 0, 0, 0), -1);
    EXPECT_EQ(errno, EALREADY);
    int other_kind = KovDskWriteOpen("a", 0, 0, 2, 0, 0, 0, 0, 0, 0);
    int other_area = KovDskWriteOpen("a", 0, 0, 1, 1, 9, 0, 0, 0, 0);
    EXPECT_GE(other_kind, 0);
    EXPECT_GE(other_area, 0);
    std::vector<int> all = {h, other_kind, other_area};
    while (all.size() < 32) {
        int n = KovDskWriteOpen(("f" + std::to_string(all.size())).c_str(), 0, 0, 6, 0, 0, 0, 0, 0, 0);
        ASSERT_GE(n, 0);
        all.push_back(n);
    }
    EXPECT_EQ(KovDskWriteOpen("a", 0, 0, 1, 0, 0, 0, 0, 0, 0), -1);
    EXPECT_EQ(errno, EALREADY);
    EXPECT_EQ(KovDskWriteOpen("new", 0, 0, 1, 0, 0, 0, 0, 0, 0), -1);
    EXPECT_EQ(errno, ENFILE);
    for (int slot : all)
        EXPECT_EQ(KovDskWriteClose(slot), 0);
    ExpectAllFree();
}

TEST_F(Write, NamesakesAreReplacedFromGeneralAndTheTargetArea)
{
    Put("n", 4, 0, 0, nullptr, 0, "general one");
    Put("n", 5, 0, 0, nullptr, 0, "other kind");
    Put("n", 4, 1, 7, nullptr, 0, "id one");
    // Into an id area: the namesake in "general" goes, the other kind stays.
    Put("n", 4, 1, 7, nullptr, 0, "id two");
    EXPECT_EQ(Entries("general"), "t05tn6En.0");
    EXPECT_EQ(Content("uid/0000000000000007/t04tn6En.0"), "id two");

    // Into a pass area while "general" links to a namesake of another pass
    // area: that whole file goes, links and emptied directories with it.
    Put("p", 4, 3, 0, "abc", 1, "first");
    Put("p", 4, 3, 0, "abc", 2, "second");
    EXPECT_FALSE(Exists("usr/616263/0000000000000001"));
    EXPECT_EQ(Content("usr/616263/0000000000000002/t04tn70n.0"), "second");
    EXPECT_EQ(Get("p", 4, 0, 0, nullptr, 0), "second");
    // And again into the same pass area: replaced in place.
    Put("p", 4, 3, 0, "abc", 2, "third");
    EXPECT_EQ(Entries("usr/616263"), "0000000000000002 t04tn70n.0");
    EXPECT_EQ(Get("p", 4, 2, 0, "abc", 0), "third");
    ExpectAllFree();
}

TEST_F(Write, FailureExitsKeepWhatTheyMust)
{
    // A file where an area directory belongs: the open fails, the namesake
    // in "general" is gone already.
    Put("x", 1, 0, 0, nullptr, 0, "old");
    PutFile("uid/0000000000000005", "in the way");
    EXPECT_EQ(KovDskWriteOpen("x", 0, 0, 1, 1, 5, 0, 0, 0, 0), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(Entries("general"), "");
    ExpectAllFree();

    // A directory that cannot be made.
    {
        Fault f("mkdir", EROFS);
        EXPECT_EQ(KovDskWriteOpen("y", 0, 0, 1, 3, 0, "u", 1, 0, 0), -1);
        EXPECT_EQ(errno, EROFS);
    }
    // The file cannot be created.
    {
        Fault f("open", EMFILE);
        EXPECT_EQ(KovDskWriteOpen("y", 0, 0, 1, 1, 6, 0, 0, 0, 0), -1);
        EXPECT_EQ(errno, EMFILE);
    }
    // The link in the user's directory cannot be made: the file stays,
    // empty, with the link in "general".
    {
        Fault f("symlink", ENOSPC, 2);
        EXPECT_EQ(KovDskWriteOpen("z", 0, 0, 1, 3, 0, "u", 1, 0, 0), -1);
        EXPECT_EQ(errno, ENOSPC);
    }
    EXPECT_EQ(Size("usr/75/0000000000000001/t01tn7An.0"), 0);
    EXPECT_TRUE(Exists("general/t01tn7An.0"));
    EXPECT_FALSE(Exists("usr/75/t01tn7An.0"));
    ExpectAllFree();

    // No memory for the block: the new file is removed, its links stay.
    {
        Fault f("malloc", ENOMEM, 1, 1, 8192);
        EXPECT_EQ(KovDskWriteOpen("m", 0, 0, 1, 3, 0, "u", 1, 0, 0), -1);
        EXPECT_EQ(errno, ENOMEM);
    }
    EXPECT_FALSE(Exists("usr/75/0000000000000001/t01tn6Dn.0"));
    EXPECT_TRUE(Exists("general/t01tn6Dn.0"));
    for (const KovDskAccWrEnt &w : AccTbl->wr)
        EXPECT_EQ(w.used, 0);
    ExpectAllFree();
}

TEST_F(Write, BlocksReachTheDiskWholeAlignedAndDirect)
{
    int h = KovDskWriteOpen("b", 0, 0, 1, 0, 0, 0, 0, 0, 0);
    ASSERT_GE(h, 0);
    std::string rel = std::string("general/") + AccTbl->wr[h].file;
    OnCall spy("write", RecordWrite);
    writes.clear();

    // 4096 writes of one byte: nothing on disk before the last.
    std::string data = Pattern(4096);
    for (int i = 0; i < 4095; i++)
        ASSERT_EQ(KovDskWrite(h, &data[i], 1), 1);
    EXPECT_EQ(Size(rel), 0);
    EXPECT_EQ(AccTbl->wr[h].fill, 4095u);
    ASSERT_EQ(KovDskWrite(h, &data[4095], 1), 1);
    EXPECT_EQ(Size(rel), 4096);
    EXPECT_EQ(AccTbl->wr[h].fill, 0u);

    // 100 bytes, then 10000: two blocks, 1908 left.
    std::string more = Pattern(10100, 2);
    ASSERT_EQ(KovDskWrite(h, more.data(), 100), 100);
    ASSERT_EQ(KovDskWrite(h, more.data() + 100, 10000), 10000);
    EXPECT_EQ(Size(rel), 3 * 4096);
    EXPECT_EQ(AccTbl->wr[h].fill, 1908u);
    // Exactly a block on an empty buffer, and one more byte.
    std::string tail = Pattern(4096 - 1908 + 4097, 3);
    ASSERT_EQ(KovDskWrite(h, tail.data(), 4096 - 1908), 4096 - 1908);
    EXPECT_EQ(AccTbl->wr[h].fill, 0u);
    ASSERT_EQ(KovDskWrite(h, tail.data() + 4096 - 1908, 4097), 4097);
    EXPECT_EQ(AccTbl->wr[h].fill, 1u);
    EXPECT_EQ(Size(rel), 5 * 4096);

    ASSERT_EQ(writes.size(), 5u);
    for (const BlockWrite &b : writes) {
        EXPECT_EQ(b.count, 4096u);
        EXPECT_TRUE(b.aligned_buf);
        EXPECT_TRUE(b.aligned_offset);
        EXPECT_TRUE(b.direct);
    }
    ASSERT_EQ(KovDskWriteClose(h), 0);
    ASSERT_EQ(writes.size(), 6u);
    EXPECT_EQ(writes[5].count, 1u);
    EXPECT_FALSE(writes[5].direct);
    EXPECT_EQ(Content(rel), data + more + tail);
    ExpectAllFree();
}

TEST_F(Write, FileOfFiveThousandBytesAndStreamsOfKindSix)
{
    std::string data = Pattern(5000);
    int h = KovDskWriteOpen("five", 0, 0, 1, 0, 0, 0, 0, 0, 0);
    ASSERT_GE(h, 0);
    std::string rel = std::string("general/") + AccTbl->wr[h].file;
    ASSERT_EQ(KovDskWrite(h, data.data(), 1000), 1000);
    ASSERT_EQ(KovDskWrite(h, data.data() + 1000, 4000), 4000);
    EXPECT_EQ(Size(rel), 4096);
    int accessed = AccTbl->accessed;
    ASSERT_EQ(KovDskWriteClose(h), 0);
    EXPECT_EQ(Size(rel), 5000);
    EXPECT_EQ(Content(rel), data);
    EXPECT_EQ(AccTbl->accessed, accessed + 1);

    // Kind 6: byte for byte at each write, no buffer, counted each time.
    h = KovDskWriteOpen("six", 0, 0, 6, 0, 0, 0, 0, 0, 0);
    ASSERT_GE(h, 0);
    EXPECT_EQ(AccTbl->wr[h].rawbuf, nullptr);
    rel = std::string("general/") + AccTbl->wr[h].file;
    accessed = AccTbl->accessed;
    long size = 0;
    for (int len : {1, 4095, 7}) {
        ASSERT_EQ(KovDskWrite(h, data.data(), len), len);
        size += len;
        EXPECT_EQ(Size(rel), size);
    }
    long syncs = Calls("sync");
    ASSERT_EQ(KovDskWriteClose(h), 0);
    EXPECT_EQ(Size(rel), size);
    EXPECT_EQ(Calls("sync"), syncs);
    EXPECT_EQ(AccTbl->accessed, accessed + 4);

    // Nothing written: an empty file.
    EXPECT_EQ(Size("general/" + Put("none", 1, 0, 0, nullptr, 0, "")), 0);
    ExpectAllFree();
}

TEST_F(Write, FailedWritesKeepTheStreamAndItsBuffer)
{
    int h = KovDskWriteOpen("w", 0, 0, 1, 1, 3, 0, 0, 0, 0);
    ASSERT_GE(h, 0);
    std::string rel = std::string("uid/0000000000000003/") + AccTbl->wr[h].file;
    std::string data = Pattern(20000);
    ASSERT_EQ(KovDskWrite(h, data.data(), 100), 100);

    // The second block of this call fails: the first stays, fill is 0.
    {
        Fault f("write", EIO, 2);
        EXPECT_EQ(KovDskWrite(h, data.data() + 100, 10000), -1);
        EXPECT_EQ(errno, EIO);
    }
    EXPECT_EQ(Size(rel), 4096);
    EXPECT_EQ(AccTbl->wr[h].fill, 0u);
    // The first block fails: fill keeps its value.
    ASSERT_EQ(KovDskWrite(h, data.data(), 50), 50);
    {
        Fault f("write", EIO);
        EXPECT_EQ(KovDskWrite(h, data.data(), 5000), -1);
    }
    EXPECT_EQ(AccTbl->wr[h].fill, 50u);
    {
        Fault f("open", EMFILE);
        EXPECT_EQ(KovDskWrite(h, data.data(), 10), -1);
        EXPECT_EQ(errno, EMFILE);
    }
    EXPECT_EQ(AccTbl->wr[h].used, 1);
    ExpectAllFree();

    // The area vanishes: writes fail, the close loses the tail and ends
    // the stream all the same.
    ASSERT_EQ(rename(Path("uid/0000000000000003").c_str(), Path("uid/gone").c_str()), 0);
    EXPECT_EQ(KovDskWrite(h, data.data(), 10), -1);
    EXPECT_EQ(errno, ENOENT);
    int accessed = AccTbl->accessed;
    EXPECT_EQ(KovDskWriteClose(h), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(AccTbl->wr[h].used, 0);
    EXPECT_EQ(AccTbl->accessed, accessed);
    EXPECT_EQ(KovDskWriteClose(h), -1);
    EXPECT_EQ(errno, ENOENT);
    ExpectAllFree();
}
