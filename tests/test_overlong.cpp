// Over-long and out-of-range input: every text argument of every exported
// operation at 4095, 4096 and 10000 bytes, every handle from -1 to 32 (and
// the ends of int), every selector, kind, mode, filter and sort at its
// limits and just beyond. Each call gives a clean result, the documented -1
// with its errno or a valid outcome, and leaves the table as it was: both
// locks free, the counters back, no slot used. The tests are tables of
// cases, each case one call and what it must give.
#include "harness/store.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <vector>

using namespace kovtest;

namespace {

const size_t kLengths[] = {4095, 4096, 10000};
constexpr char kNoDevice[] = "/nonexistent-kovdsk-device";

// What a call gave: its result, and errno when that is -1.
struct Outcome {
    int rc;
    int err;
};

Outcome Result(int rc) { return {rc, rc == -1 ? errno : 0}; }

// A handle from an open: -1 with its errno, or `use` runs on the handle
// (and closes it) and the outcome is 0.
Outcome Opened(int h, const std::function<void(int)> &use)
{
    if (h < 0)
        return Result(h);
    use(h);
    return {0, 0};
}

struct Case {
    std::string what;
    std::function<Outcome()> call;
    int rc;   // expected result
    int err;  // expected errno when rc is -1
};

Case Fails(std::string what, std::function<Outcome()> call, int err)
{
    return {std::move(what), std::move(call), -1, err};
}

Case Gives(std::string what, std::function<Outcome()> call, int rc = 0)
{
    return {std::move(what), std::move(call), rc, 0};
}

std::string UpperHex(const std::string &s)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : s) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

class OverLong : public Store {
protected:
    void SetUp() override
    {
        Store::SetUp();
        tool_log_ = Path("tool.log");
    }
    void TearDown() override
    {
        unsetenv("KOVTEST_TOOL_LOG");
        unsetenv("KOVTEST_TOOL_EXIT");
        if (!old_path_.empty())
            setenv("PATH", old_path_.c_str(), 1);
        Store::TearDown();
    }

    // Locks free, counters at rest, every slot free.
    void ExpectConsistent() const
    {
        ExpectAllFree();
        for (int i = 0; i < KOVDSK_SLOTS; i++) {
            EXPECT_EQ(AccTbl->wr[i].used, 0) << "write slot " << i;
            EXPECT_EQ(AccTbl->rd[i].used, 0) << "read slot " << i;
        }
    }

    void Run(const std::vector<Case> &cases, const std::string &at = "")
    {
        for (const Case &c : cases) {
            SCOPED_TRACE(c.what + at);
            errno = 0;
            Outcome got = c.call();
            EXPECT_EQ(got.rc, c.rc);
            if (c.rc == -1) {
                EXPECT_EQ(got.err, c.err) << "errno " << strerror(got.err);
            }
            ExpectConsistent();
        }
    }

    // The stand-in mke2fs and e2fsck first on PATH, exiting with 0.
    void Standins()
    {
        if (old_path_.empty())
            old_path_ = getenv("PATH");
        setenv("PATH", (std::string(KOVTEST_STANDIN_BIN) + ":" + old_path_).c_str(), 1);
        setenv("KOVTEST_TOOL_LOG", tool_log_.c_str(), 1);
        setenv("KOVTEST_TOOL_EXIT", "0", 1);
    }
    // The stand-in's argument vector, one per line.
    std::string ToolArgs() const
    {
        std::ifstream in(tool_log_);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    std::vector<Case> PathCases(const std::string &text);
    std::vector<Case> StoreCases(const std::string &text);

    std::string tool_log_, old_path_;
};

// Each text argument of the operations on plain paths, the direct streams,
// the directory listing and the drive commands. A relative path that does
// not fit the 4096-byte path behind the root is refused with ENAMETOOLONG,
// a direct-stream path of 256 bytes or more and a pattern of 256 or more
// with EINVAL; device paths go to open (or to the tool) as they are.
std::vector<Case> OverLong::PathCases(const std::string &text)
{
    const char *s = text.c_str();  // text lives as long as the cases
    auto list = [](const char *dir, const char *pattern, uint32_t mode) {
        KovDskDirRes res = {};
        Outcome o = Result(KovDskDirList(dir, pattern, &res, mode));
        free(res.entries);
        return o;
    };
    return {
        Fails("KovDskDirMake", [=] { return Result(KovDskDirMake(s)); }, ENAMETOOLONG),
        Fails("KovDskFileChk type 0", [=] { return Result(KovDskFileChk(s, 0)); }, ENAMETOOLONG),
        Fails("KovDskFileChk type 1", [=] { return Result(KovDskFileChk(s, 1)); }, ENAMETOOLONG),
        Fails("KovDskFileRemove", [=] { return Result(KovDskFileRemove(s)); }, ENAMETOOLONG),
        Fails("KovDskFileRename old", [=] { return Result(KovDskFileRename(s, "general")); }, ENAMETOOLONG),
        Fails("KovDskFileRename new", [=] { return Result(KovDskFileRename("general", s)); }, ENAMETOOLONG),
        Fails("KovDskChgTimeStamp", [=] { return Result(KovDskChgTimeStamp(s)); }, ENAMETOOLONG),
        Fails("KovDskFileSize", [=] { return Result(KovDskFileSize(s)); }, ENAMETOOLONG),
        Fails("KovDskRmnFle", [=] { return Result(KovDskRmnFle(("/" + text).c_str())); }, ENAMETOOLONG),
        Fails("KovDskWriteOpenDirect mode 0", [=] { return Result(KovDskWriteOpenDirect(s, 0)); }, EINVAL),
        Fails("KovDskWriteOpenDirect mode 1", [=] { return Result(KovDskWriteOpenDirect(s, 1)); }, EINVAL),
        Fails("KovDskReadOpenDirect", [=] { return Result(KovDskReadOpenDirect(s)); }, ENAMETOOLONG),
        Fails("KovDskDirList dir", [=] { return list(s, "", 0); }, ENAMETOOLONG),
        Fails("KovDskDirList pattern mode 0", [=] { return list("general", s, 0); }, EINVAL),
        Fails("KovDskDirList pattern mode 1", [=] { return list("general", s, 1); }, EINVAL),
        Fails("KovDskDirList pattern mode 2", [=] { return list("", s, 2); }, EINVAL),
        Fails("KovDskSetPasswd", [=] { return Result(KovDskSetPasswd(s, "secret", 0)); }, ENAMETOOLONG),
        Fails("KovDskUnlockPasswd", [=] { return Result(KovDskUnlockPasswd(s, "secret", 1)); }, ENAMETOOLONG),
        Fails("KovDskDisablePasswd", [=] { return Result(KovDskDisablePasswd(s, "secret", 0)); }, ENAMETOOLONG),
        Fails("KovDskReset", [=] { return Result(KovDskReset(s)); }, ENAMETOOLONG),
        Fails("KovDskGetIdentify", [=] {
            unsigned char id[512];
            memset(id, 0x5A, sizeof id);
            Outcome o = Result(KovDskGetIdentify(s, id));
            EXPECT_EQ(std::string(reinterpret_cast<char *>(id), sizeof id), std::string(512, '\0'));
            return o;
        }, ENAMETOOLONG),
        Fails("KovDskFdisk", [=] { return Result(KovDskFdisk(s, 1, 100, 0, 0, 0)); }, ENAMETOOLONG),
        // The tools get the path as it is, and their exit code is the result.
        Gives("KovDskFormat", [=, this] {
            Standins();
            Outcome o = Result(KovDskFormat(s, 0, 0));
            EXPECT_EQ(ToolArgs(), "mke2fs\n" + text + "\n-q\n");
            return o;
        }),
        Gives("KovDskChk", [=, this] {
            Standins();
            Outcome o = Result(KovDskChk(s));
            EXPECT_EQ(ToolArgs(), "e2fsck\n-f\n-F\n-y\n" + text + "\n");
            return o;
        }),
    };
}

// Each text argument of the store's operations. Values are cut where the
// stored name or the area path holds no more (file name 32 bytes, short tag
// 16, long tag 64, user 63), a deadline that is no ten digits is none, and
// a name that no stored name can hold is found nowhere.
std::vector<Case> OverLong::StoreCases(const std::string &text)
{
    const char *s = text.c_str();  // text lives as long as the cases
    const std::string name32 = text.substr(0, 32), user63 = text.substr(0, 63);
    const std::string stored = "t01tn" + UpperHex(name32) + "n.0";
    auto write_close = [](int h) {
        EXPECT_EQ(KovDskWrite(h, "data", 4), 4);
        EXPECT_EQ(KovDskWriteClose(h), 0);
    };
    auto list = [](const char *name, uint32_t area, const char *user) {
        KovDskListRes res = {};
        Outcome o = Result(KovDskList(name, 0, area, 0, user, 0, 0, &res, 0));
        EXPECT_EQ(res.count, 0u);
        free(res.entries);
        return o;
    };
    return {
        Gives("KovDskWriteOpen name", [=, this] {
            return Opened(KovDskWriteOpen(s, nullptr, nullptr, 1, 0, 0, nullptr, 0, 0, nullptr), [&](int h) {
                EXPECT_EQ(std::string(AccTbl->wr[h].file), stored);
                EXPECT_EQ(std::string(AccTbl->wr[h].name, 33), text.substr(0, 33));
                write_close(h);
                EXPECT_EQ(Get(name32.c_str(), 1, 0, 0, nullptr, 0), "data");
                EXPECT_EQ(KovDskDel(name32.c_str(), 1, 1, 0, 0, nullptr, 0), 0);
            });
        }),
        Gives("KovDskWriteOpen short tag", [=] {
            return Opened(KovDskWriteOpen("st", s, nullptr, 1, 0, 0, nullptr, 0, 0, nullptr), [&](int h) {
                EXPECT_EQ(std::string(AccTbl->wr[h].file), "t01tn7374nf" + UpperHex(text.substr(0, 16)) + "f.0");
                write_close(h);
            });
        }),
        Gives("KovDskWriteOpen long tag", [=] {
            return Opened(KovDskWriteOpen("lt", nullptr, s, 1, 0, 0, nullptr, 0, 0, nullptr), [&](int h) {
                EXPECT_EQ(std::string(AccTbl->wr[h].file), "t01tn6C74ns" + UpperHex(text.substr(0, 64)) + "s.0");
                write_close(h);
            });
        }),
        Gives("KovDskWriteOpen deadline", [=] {
            std::string digits(text.size(), '2');
            return Opened(KovDskWriteOpen("dl", nullptr, nullptr, 1, 0, 0, nullptr, 0, 0, digits.c_str()),
                          [&](int h) {
                EXPECT_EQ(std::string(AccTbl->wr[h].file), "t01tn646Cn.0");
                write_close(h);
            });
        }),
        Gives("KovDskWriteOpen user, and the pass area's road", [=, this] {
            const std::string dir = "usr/" + UpperHex(user63) + "/0000000000000007";
            Outcome o = Opened(KovDskWriteOpen("pu", nullptr, nullptr, 1, 3, 0, s, 7, 0, nullptr), [&](int h) {
                EXPECT_EQ(std::string(AccTbl->wr[h].dir), dir);
                write_close(h);
            });
            EXPECT_EQ(Get("pu", 1, 3, 0, s, 7), "data");
            EXPECT_EQ(Get("pu", 1, 0, 0, nullptr, 0), "data");  // through the link
            char path[KOVDSK_PATH_MAX];
            EXPECT_EQ(KovDskGetRealFileName("pu", 1, 3, 0, s, 7, path), 0);
            EXPECT_EQ(std::string(path), Path(dir + "/t01tn7075n.0"));
            uint32_t flag = 0;
            alignas(8) char pass[17];
            EXPECT_EQ(KovDskPasCheck("pu", 1, &flag, pass), 0);
            EXPECT_EQ(flag, 1u);
            EXPECT_EQ(KovDskDel("pu", 1, 1, 3, 0, s, 7), 0);
            EXPECT_FALSE(Exists("usr/" + UpperHex(user63)));  // pruned with its last file
            return o;
        }),
        Fails("KovDskReadOpen name", [=] { return Result(KovDskReadOpen(s, 1, 0, 0, nullptr, 0)); }, ENOENT),
        Fails("KovDskReadOpen user", [=] { return Result(KovDskReadOpen("x", 1, 2, 0, s, 0)); }, ENOENT),
        Gives("KovDskDel name, exact", [=] { return Result(KovDskDel(s, 0, 1, 0, 0, nullptr, 0)); }),
        Gives("KovDskDel name, prefix", [=] { return Result(KovDskDel(s, 0, 2, 0, 0, nullptr, 0)); }),
        Fails("KovDskDel user", [=] { return Result(KovDskDel("x", 0, 1, 2, 0, s, 0)); }, ENOENT),
        Gives("KovDskList name", [=] { return list(s, 0, nullptr); }),
        Gives("KovDskList user", [=] { return list("", 2, s); }),
        Gives("KovDskList user, pass area", [=] { return list("", 3, s); }),
        Fails("KovDskPasList user", [=] {
            uint32_t count = 0;
            uint64_t *ids = nullptr;
            Outcome o = Result(KovDskPasList(0, s, &count, &ids));
            free(ids);
            return o;
        }, ENOENT),
        Fails("KovDskPasCheck name", [=] {
            uint32_t flag = 7;
            alignas(8) char pass[17];
            Outcome o = Result(KovDskPasCheck(s, 1, &flag, pass));
            EXPECT_EQ(flag, 0u);
            return o;
        }, EINVAL),
        Fails("KovDskGetRealFileName name", [=] {
            char path[KOVDSK_PATH_MAX];
            return Result(KovDskGetRealFileName(s, 1, 0, 0, nullptr, 0, path));
        }, ENOENT),
        Fails("KovDskGetRealFileName user", [=] {
            char path[KOVDSK_PATH_MAX];
            return Result(KovDskGetRealFileName("x", 1, 3, 0, s, 1, path));
        }, ENOENT),
        Gives("KovDskVup001 user", [=, this] {
            PutFile("general/t04tn6F6C64n.0", "old");
            Outcome o = Result(KovDskVup001(s, 1));
            EXPECT_EQ(Content("usr/" + UpperHex(user63) + "/0000000000000001/t04tn6F6C64n.0"), "old");
            EXPECT_EQ(KovDskDel("old", 4, 1, 3, 0, s, 1), 0);
            return o;
        }),
    };
}

} // namespace

TEST_F(OverLong, TextArgumentsOfPathDirectAndDriveOperations)
{
    for (size_t n : kLengths) {
        const std::string text(n, 'a');
        Run(PathCases(text), " at " + std::to_string(n) + " bytes");
    }
}

TEST_F(OverLong, TextArgumentsOfStoreOperations)
{
    for (size_t n : kLengths) {
        const std::string text(n, 'u');
        Run(StoreCases(text), " at " + std::to_string(n) + " bytes");
    }
    EXPECT_EQ(Entries("usr"), "");  // every user area made went again
}

// The texts with a limit of their own, at it and one byte beyond: the
// relative path that just fits the 4096-byte path behind the root, a
// direct-stream path of 255 bytes, a pattern of 255.
TEST_F(OverLong, TextsAtTheirLimitsAndJustBeyond)
{
    // root + "/" + rel + NUL fills the buffer; components short enough for
    // the system, so that what comes back is the system's own answer.
    size_t fit = KOVDSK_PATH_MAX - 1 - root_.size() - 1;
    std::string rel;
    while (rel.size() + 2 <= fit)
        rel += "d/";
    rel.resize(fit, 'd');
    std::string over = rel + "d";
    const char *r = rel.c_str(), *o = over.c_str();
    std::string p255(255, 'p'), p256(256, 'p');
    auto list = [](const char *pattern, uint32_t mode) {
        KovDskDirRes res = {};
        Outcome out = Result(KovDskDirList("general", pattern, &res, mode));
        free(res.entries);
        return out;
    };
    Run({
        Gives("KovDskFileChk, a path that fits", [=] { return Result(KovDskFileChk(r, 0)); }, 1),
        Fails("KovDskFileSize, a path that fits", [=] { return Result(KovDskFileSize(r)); }, ENOENT),
        Fails("KovDskDirMake, a path that fits", [=] { return Result(KovDskDirMake(r)); }, ENOENT),
        Fails("KovDskFileChk, one byte more", [=] { return Result(KovDskFileChk(o, 0)); }, ENAMETOOLONG),
        Fails("KovDskFileSize, one byte more", [=] { return Result(KovDskFileSize(o)); }, ENAMETOOLONG),
        Fails("KovDskReadOpenDirect, one byte more", [=] { return Result(KovDskReadOpenDirect(o)); }, ENAMETOOLONG),
        Gives("KovDskWriteOpenDirect, 255 bytes", [=] {
            return Opened(KovDskWriteOpenDirect(p255.c_str(), 0), [&](int h) {
                EXPECT_EQ(std::string(AccTbl->wr[h].file), p255);
                EXPECT_EQ(KovDskWriteCloseDirect(h), 0);
            });
        }),
        Fails("KovDskWriteOpenDirect, 256 bytes", [=] { return Result(KovDskWriteOpenDirect(p256.c_str(), 1)); }, EINVAL),
        Gives("KovDskDirList pattern, 255 bytes", [=] { return list(p255.c_str(), 1); }),
        Fails("KovDskDirList pattern, 256 bytes", [=] { return list(p256.c_str(), 2); }, EINVAL),
    });
    EXPECT_EQ(Size(p255), 0);
}

// KovDskInitSet's root creates the table, so it has a test of its own: a
// root that leaves no room for the store's 399-byte tail (over 3696 bytes)
// is refused before anything is made.
namespace {
class OverLongRoot : public Boot {};
} // namespace

TEST_F(OverLongRoot, RootsThatLeaveNoRoomAreRefused)
{
    for (size_t n : {size_t{10000}, size_t{4096}, size_t{4095}, size_t{3697}}) {
        SCOPED_TRACE(std::to_string(n) + " bytes");
        std::string root(n, 'r');
        errno = 0;
        EXPECT_EQ(KovDskInitSet(root.c_str()), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(AccTbl, nullptr);
        EXPECT_EQ(KovDskInit(), -1);  // no segment was made
        EXPECT_EQ(errno, EINIT);
    }
    std::string root = root_ + "/" + std::string(3696 - root_.size() - 1, 'r');
    ASSERT_EQ(KovDskInitSet(root.c_str()), 0);
    EXPECT_EQ(std::string(AccTbl->root), root);
    EXPECT_EQ(SemValue(KovDskTblSem_id), 1);
    EXPECT_EQ(SemValue(KovDskAccSem_id), 1);
    EXPECT_EQ(AccTbl->acc_cnt, 0);
}

// Every handle from -1 to 32, and the ends of int, on every operation that
// takes one: out of range is EINVAL, a free slot ENOENT (ENFILE for the
// reads, as the table of errors says). First with nothing open, then with a
// write and a read stream in slot 0, which go on untouched.
TEST_F(OverLong, EveryHandleFromMinusOneTo32)
{
    char buf[16] = "data";
    struct Op {
        const char *what;
        std::function<int(int)> call;
        int free_err;
    };
    const std::vector<Op> ops = {
        {"KovDskWrite", [&](int h) { return KovDskWrite(h, buf, 4); }, ENOENT},
        {"KovDskWriteClose", [](int h) { return KovDskWriteClose(h); }, ENOENT},
        {"KovDskRead", [&](int h) { return KovDskRead(h, buf, sizeof buf); }, ENFILE},
        {"KovDskReadClose", [](int h) { return KovDskReadClose(h); }, ENOENT},
        {"KovDskWriteDirect", [&](int h) { return KovDskWriteDirect(static_cast<uint32_t>(h), buf, 4); }, ENOENT},
        {"KovDskWriteCloseDirect", [](int h) { return KovDskWriteCloseDirect(static_cast<uint32_t>(h)); }, ENOENT},
        {"KovDskReadDirect", [&](int h) { return KovDskReadDirect(h, buf, sizeof buf); }, ENFILE},
        {"KovDskReadCloseDirect", [](int h) { return KovDskReadCloseDirect(h); }, ENOENT},
    };
    std::vector<int> handles = {INT_MIN, INT_MAX};
    for (int h = -1; h <= KOVDSK_SLOTS; h++)
        handles.push_back(h);
    auto every = [&](int skip) {
        for (const Op &op : ops) {
            for (int h : handles) {
                if (h == skip)
                    continue;
                SCOPED_TRACE(std::string(op.what) + " on handle " + std::to_string(h));
                errno = 0;
                EXPECT_EQ(op.call(h), -1);
                EXPECT_EQ(errno, h < 0 || h >= KOVDSK_SLOTS ? EINVAL : op.free_err);
            }
        }
    };

    const int kNone = -2;  // in no list: every handle is tried
    every(kNone);
    ExpectConsistent();

    Put("r", 1, 0, 0, nullptr, 0, "abc");
    int w = KovDskWriteOpen("w", nullptr, nullptr, 1, 0, 0, nullptr, 0, 0, nullptr);
    int r = KovDskReadOpen("r", 1, 0, 0, nullptr, 0);
    ASSERT_EQ(w, 0);
    ASSERT_EQ(r, 0);
    KovDskAccWrEnt wr = AccTbl->wr[0];
    KovDskAccRdEnt rd = AccTbl->rd[0];
    every(0);
    EXPECT_EQ(memcmp(&wr, &AccTbl->wr[0], sizeof wr), 0);
    EXPECT_EQ(memcmp(&rd, &AccTbl->rd[0], sizeof rd), 0);
    EXPECT_EQ(AccTbl->acc_cnt, 1);  // the read stream's unit
    EXPECT_EQ(KovDskWrite(w, "xyz", 3), 3);
    EXPECT_EQ(KovDskWriteClose(w), 0);
    char got[8];
    EXPECT_EQ(KovDskRead(r, got, sizeof got), 3);
    EXPECT_EQ(KovDskReadClose(r), 0);
    EXPECT_EQ(Get("w", 1, 0, 0, nullptr, 0), "xyz");
    ExpectConsistent();
    every(kNone);  // closed handles are free ones again
    ExpectConsistent();
}

// Selectors, kinds, modes, filters and sorts at their limits and just
// beyond, and the numbers that are not validated at their ends.
TEST_F(OverLong, SelectorsKindsModesFiltersAndSortsAtTheirLimits)
{
    Put("p", 1, 3, 0, "u", 5, "in a pass area");
    auto write = [](unsigned kind, unsigned area, uint64_t id, uint64_t pass, int tmp,
                    const char *dir = nullptr) {
        return Opened(KovDskWriteOpen("k", nullptr, nullptr, kind, area, id, "u", pass, tmp, nullptr),
                      [&](int h) {
            EXPECT_EQ(AccTbl->wr[h].tmp, tmp != 0 ? 1 : 0);
            if (dir != nullptr) {
                EXPECT_STREQ(AccTbl->wr[h].dir, dir);
            }
            EXPECT_EQ(KovDskWriteClose(h), 0);
        });
    };
    auto list = [](uint32_t kind, uint32_t area, uint32_t filter, uint32_t sort) {
        KovDskListRes res = {};
        Outcome o = Result(KovDskList("", kind, area, 0, "u", 5, filter, &res, sort));
        free(res.entries);
        return o;
    };
    // A file in uid/99 that a delete of that mode takes, with the area.
    auto del_mode = [this](int32_t mode) {
        Put("m", 2, 1, 99, nullptr, 0, "x");
        Outcome o = Result(KovDskDel("zz", 2, mode, 1, 99, nullptr, 0));
        EXPECT_FALSE(Exists("uid/0000000000000063"));
        return o;
    };
    auto areas = [](int which, uint32_t mode) {
        uint32_t count = 0;
        uint64_t *ids = nullptr;
        char *users = nullptr;
        Outcome o = which == 0 ? Result(KovDskUidList(mode, &count, &ids))
                    : which == 1 ? Result(KovDskUsrList(mode, &count, &users))
                                 : Result(KovDskPasList(mode, "u", &count, &ids));
        free(ids);
        free(users);
        return o;
    };
    auto format = [this](int32_t size, int32_t count, const std::string &args) {
        Standins();
        Outcome o = Result(KovDskFormat(kNoDevice, size, count));
        EXPECT_EQ(ToolArgs(), "mke2fs\n" + std::string(kNoDevice) + "\n-q\n" + args);
        return o;
    };
    char path[KOVDSK_PATH_MAX];
    std::vector<Case> cases = {
        Gives("KovDskWriteOpen kind 255", [=] { return write(255, 0, 0, 0, 0); }),
        Fails("KovDskWriteOpen kind 256", [=] { return write(256, 0, 0, 0, 0); }, EINVAL),
        Fails("KovDskWriteOpen kind UINT_MAX", [=] { return write(UINT_MAX, 0, 0, 0, 0); }, EINVAL),
        Gives("KovDskWriteOpen area 0", [=] { return write(1, 0, 0, 0, 0, "general"); }),
        Gives("KovDskWriteOpen area 1, id 0", [=] { return write(1, 1, 0, 0, 0, "uid/0000000000000000"); }),
        Gives("KovDskWriteOpen area 1, id UINT64_MAX",
              [=] { return write(1, 1, UINT64_MAX, 0, 0, "uid/FFFFFFFFFFFFFFFF"); }),
        Gives("KovDskWriteOpen area 3, pass UINT64_MAX",
              [=] { return write(1, 3, 0, UINT64_MAX, 0, "usr/75/FFFFFFFFFFFFFFFF"); }),
        Fails("KovDskWriteOpen area 2", [=] { return write(1, 2, 0, 0, 0); }, EINVAL),
        Fails("KovDskWriteOpen area 4", [=] { return write(1, 4, 0, 0, 0); }, EINVAL),
        Fails("KovDskWriteOpen area UINT_MAX", [=] { return write(1, UINT_MAX, 0, 0, 0); }, EINVAL),
        Gives("KovDskWriteOpen tmp INT_MIN", [=] { return write(1, 0, 0, 0, INT_MIN); }),
        Gives("KovDskWriteOpen tmp -1", [=] { return write(1, 0, 0, 0, -1); }),
        Gives("KovDskWriteOpen tmp INT_MAX", [=] { return write(1, 0, 0, 0, INT_MAX); }),
        Fails("KovDskReadOpen kind 256", [] { return Result(KovDskReadOpen("p", 256, 3, 0, "u", 5)); }, EINVAL),
        Fails("KovDskReadOpen kind UINT_MAX",
              [] { return Result(KovDskReadOpen("p", UINT_MAX, 3, 0, "u", 5)); }, EINVAL),
        Fails("KovDskReadOpen area 4", [] { return Result(KovDskReadOpen("p", 1, 4, 0, "u", 5)); }, EINVAL),
        Fails("KovDskReadOpen area UINT_MAX",
              [] { return Result(KovDskReadOpen("p", 1, UINT_MAX, 0, "u", 5)); }, EINVAL),
        Fails("KovDskReadOpen kind 255, area 2", [] { return Result(KovDskReadOpen("p", 255, 2, 0, "u", 0)); }, ENOENT),
        Gives("KovDskReadOpen area 3", [] {
            return Opened(KovDskReadOpen("p", 1, 3, 0, "u", 5), [](int h) { EXPECT_EQ(KovDskReadClose(h), 0); });
        }),
        Gives("KovDskDel kind 255", [] { return Result(KovDskDel("p", 255, 1, 0, 0, nullptr, 0)); }),
        Fails("KovDskDel kind 256", [] { return Result(KovDskDel("p", 256, 1, 0, 0, nullptr, 0)); }, EINVAL),
        Fails("KovDskDel area 4", [] { return Result(KovDskDel("p", 1, 1, 4, 0, nullptr, 0)); }, EINVAL),
        Fails("KovDskDel area UINT_MAX", [] { return Result(KovDskDel("p", 1, 1, UINT_MAX, 0, nullptr, 0)); }, EINVAL),
        Gives("KovDskDel mode INT_MIN: everything", [=] { return del_mode(INT_MIN); }),
        Gives("KovDskDel mode -1: everything", [=] { return del_mode(-1); }),
        Gives("KovDskDel mode 0: everything", [=] { return del_mode(0); }),
        Gives("KovDskDel mode 3: everything", [=] { return del_mode(3); }),
        Gives("KovDskDel mode INT_MAX: everything", [=] { return del_mode(INT_MAX); }),
        Gives("KovDskList kind 255", [=] { return list(255, 3, 0, 0); }),
        Fails("KovDskList kind 256", [=] { return list(256, 3, 0, 0); }, EINVAL),
        Gives("KovDskList area 3", [=] { return list(0, 3, 0, 0); }),
        Fails("KovDskList area 4", [=] { return list(0, 4, 0, 0); }, EINVAL),
        Fails("KovDskList area UINT_MAX", [=] { return list(0, UINT_MAX, 0, 0); }, EINVAL),
        Gives("KovDskList filter 2", [=] { return list(0, 3, 2, 0); }),
        Fails("KovDskList filter 3", [=] { return list(0, 3, 3, 0); }, EINVAL),
        Fails("KovDskList filter UINT_MAX", [=] { return list(0, 3, UINT_MAX, 0); }, EINVAL),
        Gives("KovDskList sort 2", [=] { return list(0, 3, 0, 2); }),
        Fails("KovDskList sort 3", [=] { return list(0, 3, 0, 3); }, EINVAL),
        Fails("KovDskList sort UINT_MAX", [=] { return list(0, 3, 0, UINT_MAX); }, EINVAL),
        Fails("KovDskPasCheck kind 256", [] {
            uint32_t flag;
            alignas(8) char pass[17];
            return Result(KovDskPasCheck("p", 256, &flag, pass));
        }, EINVAL),
        Gives("KovDskPasCheck kind 1", [] {
            uint32_t flag;
            alignas(8) char pass[17];
            return Result(KovDskPasCheck("p", 1, &flag, pass));
        }),
        Fails("KovDskGetRealFileName kind 256",
              [&] { return Result(KovDskGetRealFileName("p", 256, 3, 0, "u", 5, path)); }, ENOENT),
        Fails("KovDskGetRealFileName area 4",
              [&] { return Result(KovDskGetRealFileName("p", 1, 4, 0, "u", 5, path)); }, EINVAL),
        Fails("KovDskGetRealFileName area UINT_MAX",
              [&] { return Result(KovDskGetRealFileName("p", 1, UINT_MAX, 0, "u", 5, path)); }, EINVAL),
        Gives("KovDskFileChk type 1", [] { return Result(KovDskFileChk("general", 1)); }),
        Gives("KovDskFileChk type -1: a directory", [] { return Result(KovDskFileChk("general", -1)); }),
        Gives("KovDskFileChk type INT_MIN: a directory", [] { return Result(KovDskFileChk("general", INT_MIN)); }),
        Fails("KovDskFileChk type 2", [] { return Result(KovDskFileChk("general", 2)); }, EINVAL),
        Fails("KovDskFileChk type INT_MAX", [] { return Result(KovDskFileChk("general", INT_MAX)); }, EINVAL),
        Gives("KovDskWriteOpenDirect mode 1", [] {
            return Opened(KovDskWriteOpenDirect("direct", 1),
                          [](int h) { EXPECT_EQ(KovDskWriteCloseDirect(h), 0); });
        }),
        Fails("KovDskWriteOpenDirect mode 2", [] { return Result(KovDskWriteOpenDirect("direct", 2)); }, EINVAL),
        Fails("KovDskWriteOpenDirect mode UINT_MAX",
              [] { return Result(KovDskWriteOpenDirect("direct", UINT_MAX)); }, EINVAL),
        Gives("KovDskDirList mode 2", [] {
            KovDskDirRes res = {};
            Outcome o = Result(KovDskDirList("", "dir", &res, 2));
            EXPECT_EQ(res.count, 1);
            free(res.entries);
            return o;
        }),
        Fails("KovDskDirList mode 3", [] {
            KovDskDirRes res = {};
            return Result(KovDskDirList("", "", &res, 3));
        }, EINVAL),
        Fails("KovDskDirList mode UINT_MAX", [] {
            KovDskDirRes res = {};
            return Result(KovDskDirList("", "", &res, UINT_MAX));
        }, EINVAL),
        Fails("KovDskSetPasswd which 1", [] { return Result(KovDskSetPasswd(kNoDevice, "pw", 1)); }, ENOENT),
        Fails("KovDskSetPasswd which 2", [] { return Result(KovDskSetPasswd(kNoDevice, "pw", 2)); }, EINVAL),
        Fails("KovDskUnlockPasswd which 255", [] { return Result(KovDskUnlockPasswd(kNoDevice, "pw", 255)); }, EINVAL),
        Fails("KovDskDisablePasswd which 2", [] { return Result(KovDskDisablePasswd(kNoDevice, "pw", 2)); }, EINVAL),
        Fails("KovDskFdisk count 0", [] { return Result(KovDskFdisk(kNoDevice, 0, 1, 1, 1, 1)); }, EINVAL),
        Fails("KovDskFdisk count 5", [] { return Result(KovDskFdisk(kNoDevice, 5, 1, 1, 1, 1)); }, EINVAL),
        Fails("KovDskFdisk count -1", [] { return Result(KovDskFdisk(kNoDevice, -1, 1, 1, 1, 1)); }, EINVAL),
        Fails("KovDskFdisk count INT_MIN", [] { return Result(KovDskFdisk(kNoDevice, INT_MIN, 1, 1, 1, 1)); }, EINVAL),
        Fails("KovDskFdisk count INT_MAX", [] { return Result(KovDskFdisk(kNoDevice, INT_MAX, 1, 1, 1, 1)); }, EINVAL),
        Fails("KovDskFdisk count 4, size 3 zero", [] { return Result(KovDskFdisk(kNoDevice, 4, 1, 1, 0, 1)); }, EINVAL),
        Fails("KovDskFdisk count 4, sizes UINT32_MAX", [] {
            return Result(KovDskFdisk(kNoDevice, 4, UINT32_MAX, UINT32_MAX, UINT32_MAX, UINT32_MAX));
        }, ENOENT),
        Gives("KovDskFormat INT_MAX blocks of INT_MAX",
              [=] { return format(INT_MAX, INT_MAX, "-b 2147483647\n2147483647\n"); }),
        Gives("KovDskFormat INT_MIN blocks of INT_MIN",
              [=] { return format(INT_MIN, INT_MIN, "-b -2147483648\n-2147483648\n"); }),
        Gives("KovDskFormat size without count", [=] { return format(INT_MAX, 0, ""); }),
    };
    for (int which = 0; which < 3; which++)
        for (uint32_t mode : {0u, 1u, 2u, 3u, UINT_MAX})
            cases.push_back(Gives(std::string(which == 0 ? "KovDskUidList" : which == 1 ? "KovDskUsrList" : "KovDskPasList") +
                                      " mode " + std::to_string(mode),
                                  [=] { return areas(which, mode); }));
    for (int32_t mode : {INT_MIN, -1, 1, INT_MAX})
        cases.push_back(Gives("KovDskSelDel mode " + std::to_string(mode), [=] {
            Outcome o = Result(KovDskSelDel(mode));
            EXPECT_EQ(AccTbl->trash_mode, mode);
            EXPECT_EQ(KovDskSelDel(0), 0);
            return o;
        }));
    Run(cases);
    EXPECT_EQ(Get("p", 1, 3, 0, "u", 5), "in a pass area");  // every case left it alone
}
