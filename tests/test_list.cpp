// KovDskList: records byte for byte, filters, the three sort orders, and
// partial lists when memory runs out.
#include "doubles/interpose.h"
#include "harness/store.h"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

using namespace kovtest;

namespace {

class List : public Store {
protected:
    void SetUp() override
    {
        Store::SetUp();
        SetNow("2026-01-31 15:30:00");
    }
    // A stored file with tags, made through the streams.
    void Tagged(const char *name, const char *stag, unsigned kind, long atime = 0)
    {
        int h = KovDskWriteOpen(name, stag, nullptr, kind, 0, 0, nullptr, 0, 0, nullptr);
        ASSERT_GE(h, 0);
        std::string file = std::string("general/") + AccTbl->wr[h].file;
        ASSERT_EQ(KovDskWriteClose(h), 0);
        if (atime != 0) {
            struct utimbuf t = {atime, atime};
            ASSERT_EQ(utime(Path(file).c_str(), &t), 0);
        }
    }
    // "name/tag" of each record in order.
    std::string Order(uint32_t sort)
    {
        KovDskListRes res = {};
        EXPECT_EQ(KovDskList(nullptr, 0, 0, 0, nullptr, 0, 0, &res, sort), 0);
        std::string out;
        for (uint32_t i = 0; i < res.count; i++)
            out += std::string(out.empty() ? "" : " ") + res.entries[i].name + "/" +
                   res.entries[i].short_tag + std::to_string(res.entries[i].kind);
        if (res.count)
            free(res.entries);
        return out;
    }
};

} // namespace

TEST_F(List, RecordOfTheWorkedExampleByteForByte)
{
    SetNow("2026-01-31 15:00:00");  // before the deadline
    int h = KovDskWriteOpen("abc", "xy", "memo", 42, 0, 0, nullptr, 0, 1, "2601311530");
    ASSERT_GE(h, 0);
    ASSERT_EQ(KovDskWrite(h, "12345", 5), 5);
    ASSERT_EQ(KovDskWriteClose(h), 0);

    KovDskListRes res;
    memset(&res, 0x77, sizeof res);
    ASSERT_EQ(KovDskList("", 0, 0, 0, nullptr, 0, 0, &res, 0), 0);
    ASSERT_EQ(res.count, 1u);
    EXPECT_EQ(res.reserved, 0x77777777u);  // never written
    EXPECT_EQ(res.total, 5u);
    const unsigned char *b = reinterpret_cast<const unsigned char *>(res.entries);
    auto text = [&](int at) { return std::string(reinterpret_cast<const char *>(b + at)); };
    auto u32 = [&](int at) { uint32_t v; memcpy(&v, b + at, 4); return v; };
    EXPECT_EQ(text(0), "xy");
    EXPECT_EQ(text(17), "memo");
    EXPECT_EQ(text(82), "abc");
    EXPECT_EQ(u32(116), 42u);
    EXPECT_EQ(u32(120), 1u);
    EXPECT_EQ(text(124), "2601311530");
    EXPECT_EQ(static_cast<long>(static_cast<int32_t>(u32(136))), Utc(2026, 1, 31, 15, 0, 0));
    int64_t size;
    memcpy(&size, b + 144, 8);
    EXPECT_EQ(size, 5);
    // Every byte not written is 0.
    for (int i : {3, 16, 22, 81, 86, 114, 115, 135, 140, 141, 142, 143})
        EXPECT_EQ(b[i], 0) << "byte " << i;
    free(res.entries);
    ExpectAllFree();
}

TEST_F(List, SortOrdersTakeTheirKeysInTurn)
{
    Tagged("b", "a", 2, 3000);
    Tagged("a", "b", 2, 1000);
    Tagged("c", "c", 1, 2000);
    Tagged("a", "a", 3, 1000);
    EXPECT_EQ(Order(0), "c/c1 a/b2 b/a2 a/a3");  // kind, name, tag
    EXPECT_EQ(Order(1), "c/c1 b/a2 a/b2 a/a3");  // kind, tag, name
    EXPECT_EQ(Order(2), "a/b2 a/a3 c/c1 b/a2");  // time, then kind
}

TEST_F(List, FiltersByKindNameAndDeadline)
{
    Put("now", 1, 0, 0, nullptr, 0, "abc", 0, "2601311530");
    Put("next", 1, 0, 0, nullptr, 0, "ab", 0, "2601311531");
    Put("other", 2, 0, 0, nullptr, 0, "a");
    KovDskListRes res = {};
    ASSERT_EQ(KovDskList(nullptr, 0, 0, 0, nullptr, 0, 1, &res, 0), 0);
    ASSERT_EQ(res.count, 2u);  // the deadline of this very minute is hidden
    EXPECT_STREQ(res.entries[0].name, "next");
    EXPECT_EQ(res.total, 3u);
    free(res.entries);
    ASSERT_EQ(KovDskList("n", 1, 0, 0, nullptr, 0, 0, &res, 0), 0);
    EXPECT_EQ(res.count, 2u);
    free(res.entries);
    ASSERT_EQ(KovDskList("o", 1, 0, 0, nullptr, 0, 0, &res, 0), 0);
    EXPECT_EQ(res.count, 0u);
    // Filter 2 sweeps the whole store first.
    ASSERT_EQ(KovDskList(nullptr, 0, 0, 0, nullptr, 0, 2, &res, 0), 0);
    EXPECT_EQ(res.count, 2u);
    free(res.entries);
    EXPECT_FALSE(Exists("general/t01tn6E6F77nd26013115dm30m.0"));
    ExpectAllFree();
}

TEST_F(List, LinksShowTheRealFileAndEmptyAreasGo)
{
    Put("memo", 9, 3, 0, "abc", 1, std::string(7000, 'm'));
    KovDskListRes res = {};
    for (unsigned area : {0u, 2u, 3u}) {
        ASSERT_EQ(KovDskList(nullptr, 0, area, 0, "abc", 1, 0, &res, 0), 0) << area;
        ASSERT_EQ(res.count, 1u);
        EXPECT_EQ(res.entries[0].size, 7000);
        free(res.entries);
    }
    // A link whose file vanished shows the link itself.
    ASSERT_EQ(unlink(Path("usr/616263/0000000000000001/t09tn6D656D6Fn.0").c_str()), 0);
    ASSERT_EQ(KovDskList(nullptr, 0, 0, 0, nullptr, 0, 0, &res, 0), 0);
    ASSERT_EQ(res.count, 1u);
    EXPECT_EQ(res.entries[0].size, (int64_t)LinkText("general/t09tn6D656D6Fn.0").size());
    free(res.entries);
    // A link that cannot be resolved is not even seen.
    ASSERT_EQ(symlink("/nowhere/at/all", Path("general/t01tn41n.0").c_str()), 0);

    // Empty id area: gone. Empty "general": stays. A user area holding a
    // pass directory: seen, stays. A missing id area: an empty list.
    ASSERT_EQ(mkdir(Path("uid/0000000000000001").c_str(), 0777), 0);
    ASSERT_EQ(KovDskList(nullptr, 0, 1, 1, nullptr, 0, 0, &res, 0), 0);
    EXPECT_EQ(res.count, 0u);
    EXPECT_FALSE(Exists("uid/0000000000000001"));
    errno = 0;
    EXPECT_EQ(KovDskList(nullptr, 0, 1, 77, nullptr, 0, 0, &res, 0), 0);
    EXPECT_EQ(errno, ENOENT);
    ASSERT_EQ(KovDskList(nullptr, 0, 2, 0, "abc", 0, 0, &res, 0), 0);
    EXPECT_EQ(res.count, 1u);
    free(res.entries);
    ASSERT_EQ(mkdir(Path("usr/7A").c_str(), 0777), 0);
    ASSERT_EQ(mkdir(Path("usr/7A/0000000000000001").c_str(), 0777), 0);
    ASSERT_EQ(KovDskList(nullptr, 0, 2, 0, "z", 0, 0, &res, 0), 0);
    EXPECT_EQ(res.count, 0u);
    EXPECT_TRUE(Exists("usr/7A"));
    ExpectAllFree();
}

TEST_F(List, RefusalsAndFailures)
{
    KovDskListRes res;
    auto fails = [&](int rc, int err) { return rc == -1 && errno == err && res.count == 0 && res.total == 0; };
    memset(&res, 0x55, sizeof res);
    EXPECT_TRUE(fails(KovDskList(nullptr, 256, 0, 0, nullptr, 0, 0, &res, 0), EINVAL));
    EXPECT_TRUE(fails(KovDskList(nullptr, 0, 4, 0, nullptr, 0, 0, &res, 0), EINVAL));
    EXPECT_TRUE(fails(KovDskList(nullptr, 0, 0, 0, nullptr, 0, 3, &res, 0), EINVAL));
    EXPECT_TRUE(fails(KovDskList(nullptr, 0, 0, 0, nullptr, 0, 0, &res, 3), EINVAL));
    // Filter 2 sweeps even when the kind is refused afterwards.
    Put("x", 1, 0, 0, nullptr, 0, "x", 0, "2001010000");
    EXPECT_TRUE(fails(KovDskList(nullptr, 300, 0, 0, nullptr, 0, 2, &res, 0), EINVAL));
    EXPECT_EQ(Entries("general"), "");
    FailDate("utc");
    EXPECT_TRUE(fails(KovDskList(nullptr, 0, 0, 0, nullptr, 0, 0, &res, 0), ETIME));
    memset(&res, 0x55, sizeof res);
    EXPECT_EQ(KovDskList(nullptr, 0, 0, 0, nullptr, 0, 2, &res, 0), -1);  // the sweep fails
    EXPECT_EQ(errno, ETIME);
    EXPECT_EQ(res.count, 0x55555555u);  // header untouched
    FailDate(nullptr);
    ASSERT_EQ(rename(Path("general").c_str(), Path("aside").c_str()), 0);
    EXPECT_TRUE(fails(KovDskList(nullptr, 0, 0, 0, nullptr, 0, 0, &res, 0), ENOENT));
    ASSERT_EQ(rename(Path("aside").c_str(), Path("general").c_str()), 0);
    {
        Fault f("opendir", EACCES);
        EXPECT_TRUE(fails(KovDskList(nullptr, 0, 1, 1, nullptr, 0, 0, &res, 0), EACCES));
    }
    ExpectAllFree();
    Detach();
    EXPECT_TRUE(fails(KovDskList(nullptr, 0, 0, 0, nullptr, 0, 0, &res, 0), EINIT));
}

TEST_F(List, MemoryThatRunsOutGivesACompleteSortedPart)
{
    for (const char *n : {"e", "d", "c", "b", "a"})
        Put(n, 1, 0, 0, nullptr, 0, "12");
    KovDskListRes res = {};
    {
        Fault f("malloc", ENOMEM, 1, 1, sizeof(KovDskListEnt));
        EXPECT_EQ(KovDskList(nullptr, 0, 0, 0, nullptr, 0, 0, &res, 0), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(res.count, 0u);
        EXPECT_EQ(res.entries, nullptr);
    }
    {
        Fault f("realloc", ENOMEM, 4);  // the fourth record
        EXPECT_EQ(KovDskList(nullptr, 0, 0, 0, nullptr, 0, 0, &res, 0), 1);
    }
    ASSERT_EQ(res.count, 3u);
    EXPECT_EQ(res.total, 6u);
    EXPECT_LT(strcmp(res.entries[0].name, res.entries[1].name), 0);
    EXPECT_LT(strcmp(res.entries[1].name, res.entries[2].name), 0);
    free(res.entries);
    {
        Fault f("realloc", ENOMEM);  // the first record
        EXPECT_EQ(KovDskList(nullptr, 0, 0, 0, nullptr, 0, 0, &res, 0), 1);
        EXPECT_EQ(res.count, 0u);
    }
    ExpectAllFree();
}
