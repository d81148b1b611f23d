// Format and check through the API: the real mke2fs and e2fsck on an image
// file (and on a loop device where one can be set up), and the stand-in
// tools (tests/doubles/fstool.c) for the argument vectors, exit codes and
// signals. What a format leaves of the table is checked byte by byte.
#include "doubles/interpose.h"
#include "harness/boot.h"
#include "harness/store.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

using namespace kovtest;

namespace {

constexpr char kFormatStart[] = " HDD format start...";
constexpr char kFormatEnd[] = " HDD format terminated.";
constexpr char kCheckStart[] = " HDD data check start...";
constexpr char kCheckEnd[] = " HDD data check terminated.";


// The log lines written since the last Clear, one per line, each flagged
// when it was not at LOG_INFO.
std::string Logged()
{
    std::string all;
    for (int i = 0; i < log::Count(); i++)
        all += std::string(log::Line(i)) + (log::Priority(i) == LOG_INFO ? "" : " (not LOG_INFO)") + "\n";
    return all;
}

// PATH for the length of a scope.
class PathSet {
public:
    explicit PathSet(const std::string &path) : old_(getenv("PATH")) { setenv("PATH", path.c_str(), 1); }
    ~PathSet() { setenv("PATH", old_.c_str(), 1); }
private:
    std::string old_;
};

int activity_in_child;
void SpyWait(const CallInfo &) { activity_in_child = AccTbl->acc_cnt; }

class FormatApi : public Boot {
protected:
    void SetUp() override
    {
        Boot::SetUp();
        Create();
        log::Clear();
        device::Attach(true);
        tool_log_ = Path("tool.log");
    }
    void TearDown() override
    {
        unsetenv("KOVTEST_TOOL_LOG");
        unsetenv("KOVTEST_TOOL_EXIT");
        unsetenv("KOVTEST_TOOL_SIGNAL");
        Boot::TearDown();
    }

    // The stand-ins first on PATH, exiting with `code`.
    std::string Standins(int code = 0)
    {
        setenv("KOVTEST_TOOL_LOG", tool_log_.c_str(), 1);
        setenv("KOVTEST_TOOL_EXIT", std::to_string(code).c_str(), 1);
        unsetenv("KOVTEST_TOOL_SIGNAL");
        unlink(tool_log_.c_str());
        return std::string(KOVTEST_STANDIN_BIN) + ":" + getenv("PATH");
    }
    // The argument vector the stand-in was given, one per line.
    std::string ToolArgs() const
    {
        std::ifstream in(tool_log_);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    // Every slot busy with odd bytes, and the fields a format keeps set.
    void Scribble()
    {
        memset(AccTbl->wr, 0x5A, sizeof AccTbl->wr);
        memset(AccTbl->rd, 0xA5, sizeof AccTbl->rd);
        AccTbl->gbg_flag = 1;
        AccTbl->trash_mode = 1;
        AccTbl->trash_seq = 4711;
        AccTbl->accessed = 3;
    }
    std::string Table() const { return std::string(reinterpret_cast<char *>(AccTbl), sizeof *AccTbl); }
    bool SlotsClear() const
    {
        std::string wr(reinterpret_cast<char *>(AccTbl->wr), sizeof AccTbl->wr);
        std::string rd(reinterpret_cast<char *>(AccTbl->rd), sizeof AccTbl->rd);
        return wr == std::string(wr.size(), '\0') && rd == std::string(rd.size(), '\0');
    }
    void ExpectIdle()
    {
        EXPECT_EQ(AccTbl->acc_cnt, 0);
        EXPECT_EQ(device::Told(), 2);
        EXPECT_EQ(device::State(0), 1);
        EXPECT_EQ(device::State(1), 0);
        device::Clear();
    }

    std::string tool_log_;
};

} // namespace

TEST_F(FormatApi, ArgumentVectorsAreFixed)
{
    const char *dev = "/dev/kovtest-none";
    PathSet path(Standins());
    struct {
        int size, count;
        const char *args;
    } cases[] = {
        {0, 0, "mke2fs\n/dev/kovtest-none\n-q\n"},
        {4096, 0, "mke2fs\n/dev/kovtest-none\n-q\n"},
        {0, 5000, "mke2fs\n/dev/kovtest-none\n-q\n"},
        {1024, 5000, "mke2fs\n/dev/kovtest-none\n-q\n-b 1024\n5000\n"},
        {-1, -7, "mke2fs\n/dev/kovtest-none\n-q\n-b -1\n-7\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args);
        unlink(tool_log_.c_str());
        EXPECT_EQ(KovDskFormat(dev, c.size, c.count), 0);
        EXPECT_EQ(ToolArgs(), c.args);
    }
    unlink(tool_log_.c_str());
    EXPECT_EQ(KovDskChk(dev), 0);
    EXPECT_EQ(ToolArgs(), "e2fsck\n-f\n-F\n-y\n/dev/kovtest-none\n");
}

TEST_F(FormatApi, ExitCodesArePassedOnUninterpreted)
{
    for (int code : {1, 4, 8, 200}) {
        SCOPED_TRACE(code);
        PathSet path(Standins(code));
        log::Clear();
        Scribble();
        EXPECT_EQ(KovDskChk("/dev/kovtest-none"), code);
        EXPECT_EQ(Logged(), std::string(kCheckStart) + "\n" + kCheckEnd + "\n");
        EXPECT_FALSE(SlotsClear());
        ExpectIdle();

        log::Clear();
        EXPECT_EQ(KovDskFormat("/dev/kovtest-none", 0, 0), code);
        EXPECT_EQ(Logged(), std::string(kFormatStart) + "\n" + kFormatEnd + "\n");
        EXPECT_TRUE(SlotsClear());  // whatever the code said
        ExpectIdle();
    }
}

TEST_F(FormatApi, FormatClearsEverySlotAndTheGarbageFlag)
{
    PathSet path(Standins());
    OnCall spy("waitpid", SpyWait);

    // A check leaves the table alone.
    Scribble();
    std::string before = Table();
    activity_in_child = -1;
    long syncs = Calls("sync");
    EXPECT_EQ(KovDskChk("/dev/kovtest-none"), 0);
    EXPECT_EQ(Table(), before);
    EXPECT_EQ(activity_in_child, 1);
    EXPECT_EQ(Calls("sync"), syncs + 2);
    ExpectIdle();

    log::Clear();
    Scribble();
    activity_in_child = -1;
    syncs = Calls("sync");
    EXPECT_EQ(KovDskFormat("/dev/kovtest-none", 1024, 5000), 0);
    EXPECT_TRUE(SlotsClear());
    EXPECT_EQ(AccTbl->gbg_flag, 0);
    // What a format keeps.
    EXPECT_EQ(std::string(AccTbl->root), root_);
    EXPECT_EQ(AccTbl->trash_mode, 1);
    EXPECT_EQ(AccTbl->trash_seq, 4711);
    EXPECT_EQ(AccTbl->accessed, 3);
    EXPECT_EQ(AccTbl->op_cnt, 0);
    EXPECT_EQ(activity_in_child, 1);  // raised for the whole run of the child
    EXPECT_EQ(Calls("sync"), syncs + 2);
    EXPECT_EQ(Logged(), std::string(kFormatStart) + "\n" + kFormatEnd + "\n");
    ExpectIdle();
}

TEST_F(FormatApi, ChildEndedBySignalChangesNothing)
{
    PathSet path(Standins());
    for (int sig : {SIGTERM, SIGKILL}) {
        SCOPED_TRACE(sig);
        setenv("KOVTEST_TOOL_SIGNAL", std::to_string(sig).c_str(), 1);
        Scribble();
        std::string before = Table();

        log::Clear();
        long syncs = Calls("sync");
        errno = EXDEV;
        {
            Fault interrupted("waitpid", EINTR);  // leaves no EINTR behind either
            EXPECT_EQ(KovDskFormat("/dev/kovtest-none", 0, 0), -1);
        }
        EXPECT_EQ(errno, EXDEV);  // a signal sets no errno
        EXPECT_EQ(Table(), before);
        EXPECT_EQ(Calls("sync"), syncs + 1);  // the one before the child only
        EXPECT_EQ(Logged(), std::string(kFormatStart) + "\n");
        ExpectIdle();

        log::Clear();
        syncs = Calls("sync");
        errno = EXDEV;
        EXPECT_EQ(KovDskChk("/dev/kovtest-none"), -1);
        EXPECT_EQ(errno, EXDEV);
        EXPECT_EQ(Calls("sync"), syncs + 1);
        EXPECT_EQ(Logged(), std::string(kCheckStart) + "\n");
        ExpectIdle();
    }
}

TEST_F(FormatApi, ForkAndWaitFailures)
{
    PathSet path(Standins());
    Scribble();
    std::string before = Table();

    // No child: the system's errno, nothing cleared, no end line.
    {
        Fault f("fork", EAGAIN);
        log::Clear();
        EXPECT_EQ(KovDskFormat("/dev/kovtest-none", 0, 0), -1);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_EQ(Table(), before);
        EXPECT_EQ(Logged(), std::string(kFormatStart) + "\n");
        ExpectIdle();
    }
    {
        Fault f("fork", ENOMEM);
        log::Clear();
        EXPECT_EQ(KovDskChk("/dev/kovtest-none"), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(Logged(), std::string(kCheckStart) + "\n");
        ExpectIdle();
    }

    // An interrupted wait is issued again: the child's code comes through.
    {
        Fault f("waitpid", EINTR);
        long waits = Calls("waitpid");
        EXPECT_EQ(KovDskFormat("/dev/kovtest-none", 0, 0), 0);
        EXPECT_EQ(Calls("waitpid"), waits + 2);
        EXPECT_TRUE(SlotsClear());
        ExpectIdle();
    }

    // A wait that fails otherwise leaves the status unread: like no child.
    Scribble();
    before = Table();
    {
        Fault f("waitpid", ECHILD);
        log::Clear();
        EXPECT_EQ(KovDskFormat("/dev/kovtest-none", 0, 0), -1);
        EXPECT_EQ(errno, ECHILD);
        EXPECT_EQ(Table(), before);
        EXPECT_EQ(Logged(), std::string(kFormatStart) + "\n");
        ExpectIdle();
    }
    int status;
    EXPECT_GT(waitpid(-1, &status, 0), 0);  // the child the fault left behind

    // Arguments: the start line, then EINVAL; no child, no counter.
    long forks = Calls("fork");
    log::Clear();
    EXPECT_EQ(KovDskFormat(nullptr, 1024, 5000), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(KovDskChk(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(Logged(), std::string(kFormatStart) + "\n" + kCheckStart + "\n");
    EXPECT_EQ(Calls("fork"), forks);
    EXPECT_EQ(device::Told(), 0);

    // The slots and the counter lie in the table.
    Detach();
    EXPECT_EQ(KovDskFormat("/dev/kovtest-none", 0, 0), -1);
    EXPECT_EQ(errno, EINIT);
    EXPECT_EQ(KovDskChk("/dev/kovtest-none"), -1);
    EXPECT_EQ(errno, EINIT);
    EXPECT_EQ(Calls("fork"), forks);
}

TEST_F(FormatApi, MissingToolGives255AndStillClears)
{
    ASSERT_EQ(mkdir(Path("empty").c_str(), 0700), 0);
    PathSet path(Path("empty"));
    Scribble();
    EXPECT_EQ(KovDskFormat(Path("disk").c_str(), 1024, 5000), 255);
    EXPECT_TRUE(SlotsClear());
    EXPECT_EQ(AccTbl->gbg_flag, 0);
    EXPECT_EQ(Logged(), std::string(kFormatStart) + "\n" + kFormatEnd + "\n");
    ExpectIdle();

    Scribble();
    log::Clear();
    EXPECT_EQ(KovDskChk(Path("disk").c_str()), 255);
    EXPECT_FALSE(SlotsClear());
    EXPECT_EQ(Logged(), std::string(kCheckStart) + "\n" + kCheckEnd + "\n");
    ExpectIdle();
}

TEST_F(FormatApi, RealToolsOnAnImageFile)
{
    if (!Have("mke2fs") || !Have("e2fsck") || !Have("dumpe2fs"))
        GTEST_SKIP() << "e2fsprogs is not installed";
    std::string img = Path("fs.img");
    PutFile("fs.img", "");
    ASSERT_EQ(truncate(img.c_str(), 16 << 20), 0);

    Scribble();
    ASSERT_EQ(KovDskFormat(img.c_str(), 1024, 5000), 0);
    EXPECT_TRUE(SlotsClear());
    std::string header = Output("dumpe2fs -h '" + img + "' 2>/dev/null");
    EXPECT_NE(header.find("Block size:               1024\n"), std::string::npos) << header;
    EXPECT_NE(header.find("Block count:              5000\n"), std::string::npos) << header;
    ExpectIdle();

    // The code e2fsck gives by hand, passed on as it is. On an image file
    // it is 8: the kernel refuses the flush request on a plain file.
    int by_hand = system(("e2fsck -f -F -y '" + img + "' >/dev/null 2>&1").c_str());
    ASSERT_TRUE(WIFEXITED(by_hand));
    int chk = KovDskChk(img.c_str());
    EXPECT_EQ(chk, WEXITSTATUS(by_hand));
    std::cout << "e2fsck on an image file: by hand " << WEXITSTATUS(by_hand)
              << ", KovDskChk " << chk << "\n";
    ExpectIdle();
}

TEST_F(FormatApi, RealToolsOnALoopDevice)
{
    if (getenv("KOVTEST_EMULATED") != nullptr)
        GTEST_SKIP() << "loop devices are not set up under user-mode emulation";
    if (geteuid() != 0 || !Have("losetup") || !Have("mke2fs") || !Have("e2fsck"))
        GTEST_SKIP() << "needs root, losetup and e2fsprogs";
    std::string img = Path("fs.img");
    PutFile("fs.img", "");
    ASSERT_EQ(truncate(img.c_str(), 16 << 20), 0);
    std::string loop = Output("losetup -f --show '" + img + "' 2>/dev/null");
    if (!loop.empty() && loop.back() == '\n')
        loop.pop_back();
    if (loop.rfind("/dev/loop", 0) != 0)
        GTEST_SKIP() << "no loop device could be set up";
    struct Detacher {
        std::string dev;
        ~Detacher()
        {
            if (system(("losetup -d " + dev).c_str()) != 0)
                ADD_FAILURE() << "losetup -d " << dev;
        }
    } detach{loop};

    EXPECT_EQ(KovDskFormat(loop.c_str(), 1024, 5000), 0);
    ExpectIdle();
    EXPECT_EQ(KovDskChk(loop.c_str()), 0);  // a block device takes the flush
    ExpectIdle();
}

// Streams open across a format or a check.
class FormatStreams : public Store {};

TEST_F(FormatStreams, OpenStreamsLoseTheirSlotsToAFormat)
{
    int a = KovDskWriteOpen("a", nullptr, nullptr, 1, 0, 0, nullptr, 0, 0, nullptr);
    int b = KovDskWriteOpen("b", nullptr, nullptr, 1, 0, 0, nullptr, 0, 0, nullptr);
    ASSERT_EQ(a, 0);
    ASSERT_EQ(b, 1);
    ASSERT_EQ(KovDskWrite(b, "data", 4), 4);

    std::string old = getenv("PATH");
    setenv("PATH", (std::string(KOVTEST_STANDIN_BIN) + ":" + old).c_str(), 1);
    std::string slots(reinterpret_cast<char *>(AccTbl->wr), sizeof AccTbl->wr);
    EXPECT_EQ(KovDskChk("/dev/kovtest-none"), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(AccTbl->wr), sizeof AccTbl->wr), slots);
    EXPECT_EQ(KovDskWrite(b, "more", 4), 4);

    // The format forgets the streams without freeing their blocks: this
    // process, which owns them, gives them back itself.
    char *blocks[] = {AccTbl->wr[a].rawbuf, AccTbl->wr[b].rawbuf};
    EXPECT_EQ(KovDskFormat("/dev/kovtest-none", 0, 0), 0);
    setenv("PATH", old.c_str(), 1);
    for (char *block : blocks)
        free(block);
    errno = 0;
    EXPECT_EQ(KovDskWrite(b, "lost", 4), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(KovDskWriteClose(a), -1);
    EXPECT_EQ(errno, ENOENT);
    int c = KovDskWriteOpen("c", nullptr, nullptr, 1, 0, 0, nullptr, 0, 0, nullptr);
    EXPECT_EQ(c, 0);
    EXPECT_EQ(KovDskWriteClose(c), 0);
    ExpectAllFree();
}
