// Every exported operation under systematic fault injection. A
// representative call runs again and again; in run n the nth call it makes
// through the seam fails (FaultAny), until a run passes with nothing failed.
// After each run:
//   - the result is the one the operation documents for a failure of that
//     call: usually -1 with the call's errno, the operation's own errno where
//     it hides the call's (ENFILE, ENOSPC, ENOMEM, EINIT, ENOENT ...), a list
//     cut short and still sorted for a failed realloc, and success where the
//     call's result is not looked at;
//   - both locks are free (the table lock is the caller's only after a 0
//     from KovDskOpenTblCheck);
//   - the activity and operation counters are back where they were, or
//     raised by exactly the stream that stays open;
//   - no slot is used but that stream's;
//   - every file is there, byte for byte, that the failure state keeps.
// A call whose outcome is not listed for an operation fails the test too:
// a new call in the library has to be thought through here.
//
// Each operation, and a second scenario of a few, is a test of its own
// (Faults/FaultLoop.EveryCallFailsInTurn/<operation>); each prints the fault
// points it tried, and a run of them all (scripts/faults) prints the sums
// by operation and the total. KOVTEST_FAULT_TRACE=1 prints every run.
#include "doubles/drive.h"
#include "doubles/interpose.h"
#include "harness/store.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <map>
#include <ostream>
#include <set>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace kovtest;

namespace {

// The date component's time: deadlines before 2603011200 have passed.
constexpr char kNow[] = "2026-03-01 12:00:00";
// errno before each call: no call of the library gives it, so an
// operation that keeps errno shows it.
constexpr int kSentinel = EXDEV;
// A stream's heap block: the one allocation of the opens.
constexpr size_t kRawBuf = 8192;

// ---- The store most operations run on ------------------------------------

struct StdFile {
    const char *name;
    unsigned kind, area;
    uint64_t id;
    const char *user;
    uint64_t pass;
    int tmp;
    const char *deadline;
    size_t size;
    const char *dir;  // the area path
};

const StdFile kStore[] = {
    {"g1", 1, 0, 0, nullptr, 0, 0, nullptr, 5000, "general"},
    {"u1", 2, 1, 7, nullptr, 0, 0, "2612312359", 100, "uid/0000000000000007"},
    {"p1", 3, 3, 0, "abc", 1, 0, nullptr, 9000, "usr/616263/0000000000000001"},
    {"p2", 3, 3, 0, "abc", 1, 0, nullptr, 0, "usr/616263/0000000000000001"},
    {"e1", 4, 0, 0, nullptr, 0, 0, "2602010000", 10, "general"},                // expired
    {"e2", 4, 1, 8, nullptr, 0, 0, "2602010000", 20, "uid/0000000000000008"},   // expired, alone
    {"e3", 4, 3, 0, "xyz", 2, 0, "2601010000", 30, "usr/78797A/0000000000000002"},  // expired
    {"t1", 5, 0, 0, nullptr, 0, 1, nullptr, 40, "general"},                     // temporary
    {"t2", 5, 1, 7, nullptr, 0, 1, nullptr, 50, "uid/0000000000000007"},       // temporary
};

const StdFile &Std(const char *name)
{
    for (const StdFile &f : kStore)
        if (strcmp(f.name, name) == 0)
            return f;
    abort();
}

std::string Bytes(const StdFile &f) { return Pattern(f.size, static_cast<unsigned>(f.name[1] * 31 + f.name[0])); }

// ---- One run --------------------------------------------------------------

struct Outcome {
    int rc = 0;
    int err = 0;
    bool fired = false;
    std::string call;  // the call that failed
    int injected = 0;  // its errno
    std::string path;
    size_t size = 0;
    long counted = 0;  // fault points the call passed

    bool Is(const char *name) const { return fired && call == name; }
    // An lstat of a directory: a look at the way to a walk's directory,
    // which fails the walk as its opendir would.
    bool Way() const
    {
        struct stat st;
        return Is("lstat") && stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    }
    bool FailedAsInjected() const { return rc == -1 && err == injected; }
    bool FailedWith(int e) const { return rc == -1 && err == e; }
};

std::string Describe(const Outcome &r)
{
    std::string s = r.fired ? r.call + " failed (" + strerror(r.injected) + ")" : std::string("nothing failed");
    if (!r.path.empty())
        s += " on " + r.path;
    if (r.fired && r.size != 0)
        s += ", size " + std::to_string(r.size);
    return s + "; result " + std::to_string(r.rc) + ", errno " + strerror(r.err);
}

// "" when the outcome is a documented one: by the failed call's name, the
// calls in `reported` fail the operation with their own errno, those in
// `absorbed` leave the success that `ok` tells. Any other call is one this
// test does not know.
std::string ByCall(const Outcome &r, bool ok, std::initializer_list<const char *> reported,
                   std::initializer_list<const char *> absorbed)
{
    if (!r.fired)
        return ok ? "" : "no success without a fault";
    for (const char *n : reported)
        if (r.call == n)
            return r.FailedAsInjected() ? "" : "not -1 with the errno of " + r.call;
    for (const char *n : absorbed)
        if (r.call == n)
            return ok ? "" : "the result of " + r.call + " is not looked at, yet the call failed";
    return "a fault point this test does not know: " + r.call;
}

std::string Check(bool cond, const std::string &what) { return cond ? "" : what; }

class FaultLoop;

struct Case {
    const char *label;  // test name
    const char *op;     // the operation counted
    // The scenario, made afresh before each run.
    void (*prepare)(FaultLoop &t);
    // The representative call.
    int (*call)(FaultLoop &t);
    // "" when the outcome is the documented one. Sets what the common
    // checks expect (counter and slot movements, a lock left held).
    std::string (*judge)(FaultLoop &t, const Outcome &r);
    // Puts back what the run leaves for the next one (streams, lists, locks).
    void (*settle)(FaultLoop &t, const Outcome &r);
};

// The parameter as test listings show it: the operation counted.
void PrintTo(const Case *c, std::ostream *os) { *os << c->op; }

// Fault points per operation, over all tests this process ran.
std::map<std::string, long> points_by_op;

class FaultTotals : public ::testing::Environment {
public:
    void TearDown() override
    {
        if (points_by_op.empty())
            return;
        long total = 0;
        if (points_by_op.size() > 1)
            printf("fault points by operation:\n");
        for (const auto &p : points_by_op) {
            total += p.second;
            if (points_by_op.size() > 1)
                printf("  %-26s %ld\n", p.first.c_str(), p.second);
        }
        printf("fault points in total: %ld over %zu operations\n", total, points_by_op.size());
    }
};
::testing::Environment *const kTotals = ::testing::AddGlobalTestEnvironment(new FaultTotals);

class FaultLoop : public Store, public ::testing::WithParamInterface<const Case *> {
public:
    using Store::Content;
    using Store::Entries;
    using Store::Exists;
    using Store::LinkText;
    using Store::Path;
    using Store::Put;
    using Store::PutFile;
    using Store::Size;
    const std::string &Root() const { return root_; }

    // What the common checks expect of the run; reset before each.
    int acc_delta = 0;
    int slot_delta = 0;
    int fd_delta = 0;  // descriptors of this process
    bool lock_held = false;
    bool no_table = false;  // the table was not made: nothing to check in it
    std::vector<std::string> keep;  // kStore names that must stay untouched

    // Scenario state the cases share.
    int h = -1;
    int fd = -1;
    char *rawbuf = nullptr;
    std::map<std::string, std::string> stored;  // kStore name -> stored name
    KovDskListRes list = {};
    KovDskDirRes dirs = {};
    uint32_t count = 0;
    void *array = nullptr;
    uint32_t flag = 0;
    alignas(8) unsigned char pass[17] = {};
    char path[KOVDSK_PATH_MAX] = {};
    unsigned char identify[512] = {};
    std::string disk, old_sector, tool_log, old_path;
    std::string data, file, more;  // made before the call: it must not allocate
    int accessed0 = 0;
    std::vector<char> out;

    // Everything under the root but the template, gone.
    void Wipe()
    {
        if (DIR *d = opendir(root_.c_str())) {
            std::vector<std::string> names;
            while (struct dirent *e = readdir(d))
                if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0 &&
                    strcmp(e->d_name, ".tpl") != 0)
                    names.push_back(e->d_name);
            closedir(d);
            for (const std::string &n : names)
                RemoveAll(Path(n));
        }
    }

    // The top directories only.
    void Empty()
    {
        Wipe();
        for (const char *d : {"general", "uid", "usr", ".trash"})
            ASSERT_EQ(mkdir(Path(d).c_str(), 0777), 0);
        SetTable();
    }

    // The nine files of kStore with their links.
    void Full()
    {
        FromTemplate([](FaultLoop &t) {
            for (const StdFile &f : kStore)
                t.stored[f.name] = t.Put(f.name, f.kind, f.area, f.id, f.user, f.pass, Bytes(f), f.tmp,
                                         f.deadline);
        });
    }

    // A store made once through the streams by `make`, kept aside, and
    // copied back before each run: far quicker than making it anew.
    void FromTemplate(void (*make)(FaultLoop &t))
    {
        std::string tpl = Path(".tpl");
        struct stat st;
        if (lstat(tpl.c_str(), &st) != 0) {
            Empty();
            make(*this);
            ASSERT_EQ(mkdir(tpl.c_str(), 0777), 0);
            for (const char *d : {"general", "uid", "usr", ".trash"})
                Copy(Path(d), tpl + "/" + d);
        }
        Wipe();
        for (const char *d : {"general", "uid", "usr", ".trash"})
            Copy(tpl + "/" + d, Path(d));
        SetTable();
    }

    std::string Real(const char *name) const
    {
        const StdFile &f = Std(name);
        return std::string(f.dir) + "/" + stored.at(name);
    }

    // A kStore file as it was made: its bytes, and a pass-area file's links.
    std::string Intact(const char *name) const
    {
        const StdFile &f = Std(name);
        std::string real = Real(name);
        if (!Exists(real) || Content(real) != Bytes(f))
            return std::string(name) + " lost or changed";
        if (f.area == 3) {
            std::string user = std::string(f.dir).substr(0, std::string(f.dir).rfind('/'));
            for (const std::string &link : {"general/" + stored.at(name), user + "/" + stored.at(name)})
                if (LinkText(link) != Path(real))
                    return std::string(name) + ": link " + link + " lost";
        }
        return "";
    }

    // Gone with all its entries.
    bool Gone(const char *name) const
    {
        const StdFile &f = Std(name);
        std::string s = stored.at(name);
        if (Exists(Real(name)))
            return false;
        if (f.area == 3) {
            std::string user = std::string(f.dir).substr(0, std::string(f.dir).rfind('/'));
            return !Exists("general/" + s) && !Exists(user + "/" + s);
        }
        return true;
    }

    // The stand-in tools first on PATH, recording their arguments.
    void Standins()
    {
        if (old_path.empty())
            old_path = getenv("PATH");
        setenv("PATH", (std::string(KOVTEST_STANDIN_BIN) + ":" + old_path).c_str(), 1);
        tool_log = Path("tool.log");
        setenv("KOVTEST_TOOL_LOG", tool_log.c_str(), 1);
        setenv("KOVTEST_SHRED_LOG", tool_log.c_str(), 1);
        unsetenv("KOVTEST_TOOL_EXIT");
        unsetenv("KOVTEST_SHRED_EXIT");
        unsetenv("KOVTEST_TOOL_SIGNAL");
        unlink(tool_log.c_str());
    }

    // A child the library forked and, its waitpid failing, never waited for.
    static void ReapChildren()
    {
        int status;
        while (waitpid(-1, &status, 0) > 0) {
        }
    }

    // The table's own state as a fresh boot has it.
    void SetTable()
    {
        AccTbl->trash_mode = 0;
        AccTbl->gbg_flag = 0;
    }

protected:
    void SetUp() override
    {
        Store::SetUp();
        SetNow(kNow);
        device::Attach(true);
    }
    void TearDown() override
    {
        drive::Attach(nullptr);
        if (!old_path.empty())
            setenv("PATH", old_path.c_str(), 1);
        for (const char *v : {"KOVTEST_TOOL_LOG", "KOVTEST_SHRED_LOG"})
            unsetenv(v);
        Store::TearDown();
    }

private:
    static void RemoveAll(const std::string &p)
    {
        struct stat st;
        if (lstat(p.c_str(), &st) != 0)
            return;
        if (S_ISDIR(st.st_mode)) {
            if (DIR *d = opendir(p.c_str())) {
                std::vector<std::string> names;
                while (struct dirent *e = readdir(d))
                    if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
                        names.push_back(e->d_name);
                closedir(d);
                for (const std::string &n : names)
                    RemoveAll(p + "/" + n);
            }
            rmdir(p.c_str());
        } else {
            unlink(p.c_str());
        }
    }

    // Directories, files and links (their texts as they are).
    static void Copy(const std::string &from, const std::string &to)
    {
        struct stat st;
        ASSERT_EQ(lstat(from.c_str(), &st), 0) << from;
        if (S_ISDIR(st.st_mode)) {
            ASSERT_EQ(mkdir(to.c_str(), 0777), 0) << to;
            chmod(to.c_str(), st.st_mode & 07777);
            DIR *d = opendir(from.c_str());
            ASSERT_NE(d, nullptr) << from;
            std::vector<std::string> names;
            while (struct dirent *e = readdir(d))
                if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
                    names.push_back(e->d_name);
            closedir(d);
            for (const std::string &n : names)
                Copy(from + "/" + n, to + "/" + n);
        } else if (S_ISLNK(st.st_mode)) {
            char text[KOVDSK_PATH_MAX] = {};
            ASSERT_GT(readlink(from.c_str(), text, sizeof text - 1), 0);
            ASSERT_EQ(symlink(text, to.c_str()), 0) << to;
        } else {
            int in = open(from.c_str(), O_RDONLY);
            int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
            ASSERT_TRUE(in >= 0 && out >= 0) << from;
            char buf[16384];
            ssize_t n;
            while ((n = read(in, buf, sizeof buf)) > 0)
                ASSERT_EQ(write(out, buf, static_cast<size_t>(n)), n);
            close(in);
            close(out);
        }
    }
};

// Descriptors open in this process: a failure path that forgets a close
// shows here.
int OpenFds()
{
    int n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr)
            n++;
        closedir(d);
    }
    return n;
}

int UsedSlots()
{
    int n = 0;
    for (const KovDskAccWrEnt &w : AccTbl->wr)
        n += w.used != 0;
    for (const KovDskAccRdEnt &r : AccTbl->rd)
        n += r.used != 0;
    return n;
}

// The table's segment and both semaphore sets, gone, as before a boot.
void DropTable()
{
    Detach();
    key_t t = ftok("/var/lock/kovdsk", 'T');
    key_t d = ftok("/var/lock/kovdsk", 'D');
    int shm = shmget(t, 0, 0);
    if (shm != -1)
        shmctl(shm, IPC_RMID, nullptr);
    for (key_t k : {t, d}) {
        int sem = semget(k, 0, 0);
        if (sem != -1)
            semctl(sem, 0, IPC_RMID);
    }
}

void SetSem(int semid, int value)
{
    union {
        int val;
        struct semid_ds *buf;
        unsigned short *array;
    } arg;
    arg.val = value;
    if (SemValue(semid) != value)
        semctl(semid, 0, SETVAL, arg);
}

bool SegmentExists() { return shmget(ftok("/var/lock/kovdsk", 'T'), 0, 0) != -1; }

void Nothing(FaultLoop &, const Outcome &) {}

} // namespace

TEST_P(FaultLoop, EveryCallFailsInTurn)
{
    const Case &c = *GetParam();
    long points = 0;
    for (int n = 1;; n++) {
        acc_delta = 0;
        slot_delta = 0;
        fd_delta = 0;
        lock_held = false;
        no_table = false;
        keep.clear();
        c.prepare(*this);
        ASSERT_FALSE(HasFatalFailure()) << c.label << ": the scenario could not be made";
        int acc0 = AccTbl != nullptr ? AccTbl->acc_cnt : 0;
        int slots0 = AccTbl != nullptr ? UsedSlots() : 0;
        int fds0 = OpenFds();
        device::Clear();

        Outcome r;
        {
            FaultAny fault(n);
            errno = kSentinel;
            r.rc = c.call(*this);
            r.err = errno;
            r.fired = fault.Fired();
            r.counted = fault.Counted();
            FaultHit hit = fault.Hit();
            if (r.fired) {
                r.call = hit.name;
                r.injected = hit.err;
                r.path = hit.path;
                r.size = hit.count;
            }
        }
        std::string where = std::string(c.label) + ", run " + std::to_string(n) + ": " + Describe(r);
        SCOPED_TRACE(where);
        if (getenv("KOVTEST_FAULT_TRACE") != nullptr)
            printf("  %s\n", where.c_str());
        EXPECT_EQ(c.judge(*this, r), "");
        EXPECT_EQ(OpenFds(), fds0 + fd_delta) << "descriptors";
        if (!no_table) {
            EXPECT_EQ(SemValue(KovDskTblSem_id), lock_held ? 0 : 1) << "table lock";
            EXPECT_EQ(SemValue(KovDskAccSem_id), 1) << "access lock";
            EXPECT_EQ(AccTbl->op_cnt, 0) << "operation counter";
            EXPECT_EQ(AccTbl->acc_cnt, acc0 + acc_delta) << "activity counter";
            EXPECT_EQ(UsedSlots(), slots0 + slot_delta) << "slots in use";
        }
        for (const std::string &name : keep)
            EXPECT_EQ(Intact(name.c_str()), "");
        // A lock the run left wrong is put right (the failure is recorded),
        // so that what follows does not wait on it for ever.
        if (!no_table) {
            SetSem(KovDskTblSem_id, lock_held ? 0 : 1);
            SetSem(KovDskAccSem_id, 1);
        }
        if (c.settle != nullptr)
            c.settle(*this, r);
        // One wrong run is enough to see.
        if (HasFailure())
            break;
        // The run with nothing failed passed as many fault points as were
        // tried: the calls are the same from run to run up to the failed one.
        if (!r.fired) {
            EXPECT_EQ(r.counted, points) << c.label << ": the calls differ from run to run";
            break;
        }
        points++;
        ASSERT_LT(n, 20000) << "the loop does not end";
    }
    points_by_op[c.op] += points;
    RecordProperty("fault_points", static_cast<int>(points));
    printf("fault points %-34s %ld\n", c.label, points);
}

namespace {

// ---- Attachment and table lock ---------------------------------------------

const Case kInitSet = {
    "KovDskInitSet", "KovDskInitSet",
    [](FaultLoop &) { DropTable(); },
    [](FaultLoop &t) { return KovDskInitSet(t.Root().c_str()); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        if (r.rc == 0)
            return Check(AccTbl != nullptr && t.Root() == AccTbl->root, "not attached with the root") +
                   ByCall(r, true, {}, {"stat", "semop"});  // the key file is made anew
        t.no_table = true;  // what a failed creation leaves is stuck for this boot
        std::string bad;
        if (r.Is("shmget") || r.Is("shmat"))
            bad += Check(r.FailedWith(ENOMEM), "not ENOMEM");
        else
            bad += ByCall(r, false, {"ftok", "semget", "semctl"}, {});
        // What it made stays, attached once shmat is past: a second
        // creation answers EALREADY.
        bool made = SegmentExists();
        bad += Check((AccTbl != nullptr) == (made && !r.Is("shmat")), "attachment");
        if (AccTbl != nullptr)
            bad += Check(t.Root() == AccTbl->root, "no root in the table");
        Detach();
        int again = KovDskInitSet(t.Root().c_str());
        bad += Check(made ? again == -1 && errno == EALREADY : again == 0, "a second creation");
        return bad;
    },
    Nothing,
};

const Case kInit = {
    "KovDskInit", "KovDskInit",
    [](FaultLoop &) { Detach(); },
    [](FaultLoop &) { return KovDskInit(); },
    [](FaultLoop &, const Outcome &r) -> std::string {
        std::string bad;
        if (r.rc == 0)
            bad = Check(AccTbl != nullptr, "not attached") + ByCall(r, true, {}, {"stat"});
        else if (r.Is("shmget"))
            bad = Check(r.FailedWith(EINIT), "not EINIT");
        else if (r.Is("shmat"))
            bad = Check(r.FailedWith(ENOMEM), "not ENOMEM");
        else
            bad = ByCall(r, false, {"ftok", "semget"}, {});
        if (r.rc != 0) {
            // Not attached, and a second try simply works.
            bad += Check(AccTbl == nullptr, "attached after a failure");
            bad += Check(KovDskInit() == 0 && AccTbl != nullptr, "a second attachment");
        }
        return bad;
    },
    Nothing,
};

void PlainFile(FaultLoop &t) { t.Empty(); t.PutFile("file", std::string(1234, 'f')); }

int OpenOne(FaultLoop &t)
{
    int h = KovDskReadOpenDirect("file");
    EXPECT_GE(h, 0);
    t.h = h;
    return h;
}

const Case kOpenTblCheck = {
    "KovDskOpenTblCheck", "KovDskOpenTblCheck",
    [](FaultLoop &t) { t.Empty(); },
    [](FaultLoop &) { return KovDskOpenTblCheck(); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        t.lock_held = r.rc == 0;
        // A lock that was not taken is not the caller's.
        return r.fired ? Check(r.Is("semop") && r.FailedAsInjected(), "not -1 with semop's errno")
                       : Check(r.rc == 0, "not 0");
    },
    [](FaultLoop &, const Outcome &r) {
        if (r.rc == 0) {
            EXPECT_EQ(KovDskTblSemFree(), 0);
        }
    },
};

const Case kOpenTblCheckBusy = {
    "KovDskOpenTblCheck_StreamOpen", "KovDskOpenTblCheck",
    [](FaultLoop &t) { PlainFile(t); OpenOne(t); },
    [](FaultLoop &) { return KovDskOpenTblCheck(); },
    [](FaultLoop &, const Outcome &r) -> std::string {
        return r.fired ? Check(r.Is("semop") && r.FailedAsInjected(), "not -1 with semop's errno")
                       : Check(r.rc == 1, "not 1");
    },
    [](FaultLoop &t, const Outcome &) { EXPECT_EQ(KovDskReadCloseDirect(t.h), 0); },
};

const Case kTblSemFree = {
    "KovDskTblSemFree", "KovDskTblSemFree",
    [](FaultLoop &) { ASSERT_EQ(KovDskOpenTblCheck(), 0); },
    [](FaultLoop &) { return KovDskTblSemFree(); },
    [](FaultLoop &, const Outcome &r) { return ByCall(r, r.rc == 0, {}, {}); },
    Nothing,
};

// ---- Counters ---------------------------------------------------------------

const Case kAccflg = {
    "KovDskAccflg", "KovDskAccflg",
    [](FaultLoop &) {},
    [](FaultLoop &) { return KovDskAccflg(+1); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        t.acc_delta = 1;  // the step is taken even when the lock is not
        if (r.Is("semop"))
            return Check(r.rc == -1 && r.err == kSentinel, "not -1 with errno kept");
        return ByCall(r, r.rc == 0, {}, {});
    },
    [](FaultLoop &, const Outcome &) { EXPECT_EQ(KovDskAccflg(-1), 0); },
};

const Case kGetAccessedFlg = {
    "KovDskGetAccessedFlg", "KovDskGetAccessedFlg",
    [](FaultLoop &) { AccTbl->accessed = 5; },
    [](FaultLoop &) { return KovDskGetAccessedFlg(); },
    [](FaultLoop &, const Outcome &r) { return ByCall(r, r.rc == 5, {}, {}); },
    Nothing,
};

const Case kClearAccessedFlg = {
    "KovDskClearAccessedFlg", "KovDskClearAccessedFlg",
    [](FaultLoop &) { AccTbl->accessed = 5; },
    [](FaultLoop &) { KovDskClearAccessedFlg(); return 0; },
    [](FaultLoop &, const Outcome &r) { return ByCall(r, AccTbl->accessed == 0, {}, {}); },
    Nothing,
};

const Case kGetOperationFlg = {
    "KovDskGetOperationFlg", "KovDskGetOperationFlg",
    [](FaultLoop &) {},
    [](FaultLoop &) { return KovDskGetOperationFlg(); },
    [](FaultLoop &, const Outcome &r) { return ByCall(r, r.rc == 0, {}, {}); },
    Nothing,
};

// ---- Path operations ----------------------------------------------------------

const Case kDirMake = {
    "KovDskDirMake", "KovDskDirMake",
    [](FaultLoop &t) { t.Empty(); },
    [](FaultLoop &) { return KovDskDirMake("made"); },
    [](FaultLoop &t, const Outcome &r) {
        struct stat st;
        bool made = stat(t.Path("made").c_str(), &st) == 0 && S_ISDIR(st.st_mode);
        if (r.rc == -1)
            return Check(!made, "a directory made by a failed call") + ByCall(r, false, {"mkdir"}, {});
        // chmod and the stamp are not looked at
        return Check(!r.fired || (st.st_mode & 0777) == 0666 || r.Is("chmod"), "mode not 0666") +
               ByCall(r, made && r.rc == 0, {"mkdir"}, {"semop", "chmod", "utime"});
    },
    Nothing,
};

const Case kFileChk = {
    "KovDskFileChk", "KovDskFileChk",
    PlainFile,
    [](FaultLoop &) { return KovDskFileChk("file", 0); },
    [](FaultLoop &, const Outcome &r) { return ByCall(r, r.rc == 0, {"stat"}, {"semop"}); },
    Nothing,
};

const Case kFileRemove = {
    "KovDskFileRemove", "KovDskFileRemove",
    PlainFile,
    [](FaultLoop &) { return KovDskFileRemove("file"); },
    [](FaultLoop &t, const Outcome &r) {
        // A failed remove keeps the file.
        return Check(t.Exists("file") == (r.rc == -1), "file there or gone against the result") +
               ByCall(r, r.rc == 0, {"remove"}, {"semop"});
    },
    Nothing,
};

const Case kFileRename = {
    "KovDskFileRename", "KovDskFileRename",
    PlainFile,
    [](FaultLoop &) { return KovDskFileRename("file", "moved"); },
    [](FaultLoop &t, const Outcome &r) {
        std::string where = r.rc == 0 ? "moved" : "file";
        return Check(t.Content(where) == std::string(1234, 'f') &&
                         !t.Exists(r.rc == 0 ? "file" : "moved"),
                     "the file is not where the result says") +
               ByCall(r, r.rc == 0, {"rename"}, {"semop"});
    },
    Nothing,
};

const Case kChgTimeStamp = {
    "KovDskChgTimeStamp", "KovDskChgTimeStamp",
    PlainFile,
    [](FaultLoop &) { return KovDskChgTimeStamp("file"); },
    [](FaultLoop &t, const Outcome &r) {
        struct stat st;
        bool stamped = stat(t.Path("file").c_str(), &st) == 0 &&
                       st.st_mtime == Utc(2026, 3, 1, 12, 0, 0);
        return Check(stamped || r.Is("utime"), "not stamped") +
               ByCall(r, r.rc == 0, {}, {"semop", "utime"});
    },
    Nothing,
};

const Case kFileSize = {
    "KovDskFileSize", "KovDskFileSize",
    PlainFile,
    [](FaultLoop &) { return KovDskFileSize("file"); },
    [](FaultLoop &, const Outcome &r) { return ByCall(r, r.rc == 1234, {"stat"}, {"semop"}); },
    Nothing,
};

// ---- Trash -------------------------------------------------------------------

const Case kSelDel = {
    "KovDskSelDel", "KovDskSelDel",
    [](FaultLoop &t) { t.SetTable(); },
    [](FaultLoop &) { return KovDskSelDel(1); },
    [](FaultLoop &, const Outcome &r) {
        return ByCall(r, r.rc == 0 && AccTbl->trash_mode == 1, {}, {"semop"});
    },
    Nothing,
};

const Case kGbgChk = {
    "KovDskGbgChk", "KovDskGbgChk",
    [](FaultLoop &) { AccTbl->trash_mode = 1; AccTbl->gbg_flag = 1; },
    [](FaultLoop &) { return KovDskGbgChk(); },
    [](FaultLoop &, const Outcome &r) { return ByCall(r, r.rc == 1, {}, {"semop"}); },
    Nothing,
};

void Garbage(FaultLoop &t)
{
    t.Empty();
    AccTbl->trash_mode = 1;
    t.PutFile(".trash/000000000000002A", "old bytes");
    ASSERT_EQ(mkdir(t.Path(".trash/subdir").c_str(), 0777), 0);
}

const Case kGbgIni = {
    "KovDskGbgIni", "KovDskGbgIni",
    Garbage,
    [](FaultLoop &) { return KovDskGbgIni(); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        // A failed lstat does not show the regular file: nothing found.
        if (r.Is("lstat") && r.path == t.Path(".trash/000000000000002A"))
            return Check(r.rc == 0 && AccTbl->gbg_flag == 0, "not 0 for a file not seen");
        if (r.rc == -1)
            return Check(AccTbl->gbg_flag == 0, "the flag moved") +
                   (r.Way() ? Check(r.FailedAsInjected(), "not -1 with lstat's errno")
                            : ByCall(r, false, {"opendir", "malloc"}, {}));
        return ByCall(r, r.rc == 1 && AccTbl->gbg_flag == 1, {"opendir", "malloc"}, {"semop", "lstat"});
    },
    Nothing,
};

const Case kFleSrd = {
    "KovDskFleSrd", "KovDskFleSrd",
    [](FaultLoop &t) {
        Garbage(t);
        AccTbl->gbg_flag = 1;
        t.Standins();
    },
    [](FaultLoop &) { return KovDskFleSrd(); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        bool shredded = t.Content("tool.log").find(t.Path(".trash/000000000000002A")) != std::string::npos;
        if (r.Is("lstat") && r.path == t.Path(".trash/000000000000002A"))  // not seen: the flag goes
            return Check(r.rc == 0 && AccTbl->gbg_flag == 0 && !shredded, "not 0 for a file not seen");
        if (r.Is("waitpid"))  // the child ran, but its status is not to be had
            return Check(r.FailedAsInjected(), "not -1 with waitpid's errno");
        if (r.rc == -1)
            return Check(!shredded, "shred ran for a failed call") +
                   (r.Way() ? Check(r.FailedAsInjected(), "not -1 with lstat's errno")
                            : ByCall(r, false, {"opendir", "malloc", "fork"}, {}));
        return Check(shredded, "shred did not run") +
               ByCall(r, r.rc == 1, {"opendir", "malloc", "fork"}, {"semop", "lstat"});
    },
    [](FaultLoop &, const Outcome &) { FaultLoop::ReapChildren(); },
};

// ---- Stored-file streams ---------------------------------------------------------

// Every file but these stays as it was.
void KeepAllBut(FaultLoop &t, std::initializer_list<const char *> gone)
{
    for (const StdFile &f : kStore)
        if (std::find_if(gone.begin(), gone.end(), [&](const char *g) { return strcmp(g, f.name) == 0; }) ==
            gone.end())
            t.keep.push_back(f.name);
}

// A new "p1" of kind 3 for the user's pass 2, while p1 of pass 1 lives and
// has its links: the namesake goes through its link in "general".
const Case kWriteOpen = {
    "KovDskWriteOpen", "KovDskWriteOpen",
    [](FaultLoop &t) { t.Full(); KeepAllBut(t, {"p1"}); },
    [](FaultLoop &t) {
        t.h = KovDskWriteOpen("p1", nullptr, nullptr, 3, 3, 0, "abc", 2, 0, nullptr);
        return t.h;
    },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        const std::string s = t.stored.at("p1");
        const std::string dir = "usr/616263/0000000000000002";
        bool made = t.Exists(dir + "/" + s) && t.Size(dir + "/" + s) == 0;
        static const std::set<std::string> absorbed = {
            "semop", "stat", "chmod", "utime", "close", "lstat", "readlink", "remove", "opendir"};
        if (r.rc >= 0) {
            t.slot_delta = 1;
            return Check(!r.fired || absorbed.count(r.call) != 0 || (r.Is("malloc") && r.size != kRawBuf),
                         "a fault point this test does not know: " + r.call) +
                   Check(made && t.LinkText("general/" + s) == t.Path(dir + "/" + s) &&
                             t.LinkText("usr/616263/" + s) == t.Path(dir + "/" + s),
                         "the new file or its links are missing") +
                   Check(!t.Exists(t.Real("p1")), "the namesake stays") +
                   Check(AccTbl->wr[r.rc].used == 1 && AccTbl->wr[r.rc].buf != nullptr, "no stream");
        }
        if (!r.fired)
            return "no success without a fault";
        // The namesake's removal is not looked at. If it stopped before its
        // link in "general" went, that link takes the new file's place and
        // the link's symlink fails: the new file stays, empty.
        // A look at a directory on the way fails the directories' making
        // (nothing made) or the links' (the file made), as well.
        if (r.Is("lstat") && r.FailedAsInjected())
            return "";
        if (r.Is("lstat") || r.Is("readlink") || r.Is("remove") || r.Is("opendir") ||
            (r.Is("malloc") && r.size != kRawBuf))
            return Check(r.FailedWith(EEXIST) && made && t.Exists("general/" + s), "not EEXIST for the old link");
        if (r.Is("mkdir") || r.Is("open"))
            return Check(r.FailedAsInjected(), "not -1 with the errno") + Check(!made, "a new file");
        if (r.Is("fstat"))  // the new file is made, and nothing more
            return Check(r.FailedAsInjected() && made && !t.Exists("general/" + s), "not -1 with the bare file");
        if (r.Is("symlink"))  // the new file stays, empty, with what links it has
            return Check(r.FailedAsInjected() && made, "not -1 with the file kept");
        if (r.Is("malloc"))  // no buffer: the new file goes, its links stay
            return Check(r.FailedAsInjected() && !t.Exists(dir + "/" + s), "not -1 with the file removed");
        return "a fault point this test does not know: " + r.call;
    },
    [](FaultLoop &t, const Outcome &r) {
        if (r.rc >= 0) {
            EXPECT_EQ(KovDskWriteClose(r.rc), 0);
        }
        (void)t;
    },
};


// ---- Block writer ------------------------------------------------------------

// A stream of kind 1 in "general" with 100 bytes waiting in its block.
void Writing(FaultLoop &t, unsigned kind)
{
    t.Empty();
    t.h = KovDskWriteOpen("w1", nullptr, nullptr, kind, 0, 0, nullptr, 0, 0, nullptr);
    ASSERT_GE(t.h, 0);
    t.file = std::string("general/") + AccTbl->wr[t.h].file;
    t.data = Pattern(100, 1);
    if (kind != 6) {
        ASSERT_EQ(KovDskWrite(t.h, t.data.data(), 100), 100);
    }
    t.accessed0 = AccTbl->accessed;
}

const Case kWrite = {
    "KovDskWrite", "KovDskWrite",
    [](FaultLoop &t) {
        Writing(t, 1);
        t.more = Pattern(10000, 2);
        t.data += t.more;
    },
    [](FaultLoop &t) { return KovDskWrite(t.h, t.more.data(), 10000); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        long size = t.Size(t.file);
        uint32_t fill = AccTbl->wr[t.h].fill;
        if (r.rc == -1 && r.Is("write"))  // blocks before the failing one stay
            return Check(r.FailedAsInjected(), "not -1 with write's errno") +
                   Check((size == 0 && fill == 100) || (size == 4096 && fill == 0),
                         "fill is not that from before the failing block");
        if (r.rc == -1)
            return Check(size == 0 && fill == 100, "the stream moved") +
                   (r.Way() ? Check(r.FailedAsInjected(), "not lstat's errno")
                            : ByCall(r, false, {"open", "fstat"}, {}));
        return Check(size == 8192 && fill == 1908 && t.Content(t.file) == t.data.substr(0, 8192),
                     "not two blocks and 1908 waiting") +
               ByCall(r, r.rc == 10000, {"open", "write"}, {"semop", "close", "utime", "lstat"});
    },
    [](FaultLoop &t, const Outcome &r) {
        EXPECT_EQ(KovDskWriteClose(t.h), 0);
        if (r.rc == 10000) {
            EXPECT_EQ(t.Content(t.file), t.data);
        }
    },
};

const Case kWriteKind6 = {
    "KovDskWrite_Kind6", "KovDskWrite",
    [](FaultLoop &t) {
        Writing(t, 6);
        t.data = Pattern(500, 3);
    },
    [](FaultLoop &t) { return KovDskWrite(t.h, t.data.data(), 500); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        bool wrote = t.Content(t.file) == t.data && AccTbl->accessed == t.accessed0 + 1;
        bool untouched = t.Size(t.file) == 0 && AccTbl->accessed == t.accessed0;
        if (r.rc == -1)
            return Check(untouched, "the failed write moved something") +
                   (r.Way() ? Check(r.FailedAsInjected(), "not lstat's errno")
                            : ByCall(r, false, {"open", "fstat", "write"}, {}));
        return Check(wrote, "the bytes or the count are missing") +
               ByCall(r, r.rc == 500, {"open", "write"}, {"semop", "close", "utime", "lstat"});
    },
    [](FaultLoop &t, const Outcome &) { EXPECT_EQ(KovDskWriteClose(t.h), 0); },
};

const Case kWriteClose = {
    "KovDskWriteClose", "KovDskWriteClose",
    [](FaultLoop &t) {
        Writing(t, 1);
        std::string more = Pattern(10000, 2);
        ASSERT_EQ(KovDskWrite(t.h, more.data(), 10000), 10000);
        t.data += more;
    },
    [](FaultLoop &t) { return KovDskWriteClose(t.h); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        t.slot_delta = -1;  // the stream is over either way
        if (r.rc == -1)  // the tail is lost, the accessed flag stays
            return Check(t.Content(t.file) == t.data.substr(0, 8192) && AccTbl->accessed == t.accessed0,
                         "not the blocks alone") +
                   (r.Way() ? Check(r.FailedAsInjected(), "not lstat's errno")
                            : ByCall(r, false, {"open", "fstat", "write"}, {}));
        return Check(t.Content(t.file) == t.data && AccTbl->accessed == t.accessed0 + 1,
                     "the tail or the count is missing") +
               ByCall(r, r.rc == 0, {"open", "write"}, {"semop", "close", "utime", "lstat"});
    },
    Nothing,
};

// ---- Read stream ------------------------------------------------------------------

const Case kReadOpen = {
    "KovDskReadOpen", "KovDskReadOpen",
    [](FaultLoop &t) { t.Full(); KeepAllBut(t, {}); },
    [](FaultLoop &) { return KovDskReadOpen("p1", 3, 0, 0, nullptr, 0); },  // through the link
    [](FaultLoop &t, const Outcome &r) -> std::string {
        if (r.rc >= 0) {
            t.slot_delta = t.acc_delta = t.fd_delta = 1;
            const KovDskAccRdEnt &e = AccTbl->rd[r.rc];
            // The look at the file before its open is not needed.
            return Check(e.used == 1 && e.remain == 9000 && strcmp(e.dir, "general") == 0, "not the stream") +
                   ByCall(r, true, {}, {"semop", "lstat"});
        }
        // A search that cannot read "general" or tell the link for the
        // library's own finds nothing; a link that cannot be resolved is
        // never followed.
        if (r.Is("opendir") || r.Is("lstat") || r.Is("readlink") || (r.Is("malloc") && r.size != kRawBuf))
            return Check(r.FailedWith(ENOENT), "not ENOENT");
        return ByCall(r, false, {"open", "malloc", "fstat"}, {});
    },
    [](FaultLoop &, const Outcome &r) {
        if (r.rc >= 0) {
            EXPECT_EQ(KovDskReadClose(r.rc), 0);
        }
    },
};

// 100 bytes of p1 (9000) read already: 3996 wait in the block.
void Reading(FaultLoop &t, bool direct)
{
    if (direct) {
        t.Empty();
        t.data = Pattern(9000, 7);
        t.PutFile("direct.bin", t.data);
        t.h = KovDskReadOpenDirect("direct.bin");
    } else {
        t.Full();
        KeepAllBut(t, {});
        t.data = Bytes(Std("p1"));
        t.h = KovDskReadOpen("p1", 3, 3, 0, "abc", 1);
    }
    ASSERT_GE(t.h, 0);
    t.out.assign(9000, '\0');
    ASSERT_EQ(KovDskRead(t.h, t.out.data(), 100), 100);
    t.accessed0 = AccTbl->accessed;
}

// The rest in one call: 3996 from the block, a block with O_DIRECT, the
// tail without it, and the read that finds the end.
std::string JudgeRead(FaultLoop &t, const Outcome &r)
{
    const KovDskAccRdEnt &e = AccTbl->rd[t.h];
    if (r.rc == -1)  // fill and pos as before the call
        return Check(e.fill == 3996 && e.pos == 100, "the block moved") + ByCall(r, false, {"read"}, {});
    // A failed fcntl keeps O_DIRECT for the tail, which a read at the end
    // of the file takes all the same.
    return Check(std::string(t.out.data(), 8900) == t.data.substr(100), "wrong bytes") +
           ByCall(r, r.rc == 8900, {"read"}, {"fcntl"});
}

const Case kRead = {
    "KovDskRead", "KovDskRead",
    [](FaultLoop &t) { Reading(t, false); },
    [](FaultLoop &t) { return KovDskRead(t.h, t.out.data(), 9000); },
    JudgeRead,
    [](FaultLoop &t, const Outcome &) { EXPECT_EQ(KovDskReadClose(t.h), 0); },
};

const Case kReadDirect = {
    "KovDskReadDirect", "KovDskReadDirect",
    [](FaultLoop &t) { Reading(t, true); },
    [](FaultLoop &t) { return KovDskReadDirect(t.h, t.out.data(), 9000); },
    JudgeRead,
    [](FaultLoop &t, const Outcome &) { EXPECT_EQ(KovDskReadCloseDirect(t.h), 0); },
};

// The stream ends whatever happens; the result is that of close.
std::string JudgeReadClose(FaultLoop &t, const Outcome &r)
{
    t.slot_delta = t.acc_delta = t.fd_delta = -1;
    return Check(AccTbl->accessed == t.accessed0 + 1 && AccTbl->rd[t.h].rawbuf == nullptr, "slot not cleared") +
           ByCall(r, r.rc == 0, {"close"}, {"semop"});
}

const Case kReadClose = {
    "KovDskReadClose", "KovDskReadClose",
    [](FaultLoop &t) { Reading(t, false); },
    [](FaultLoop &t) { return KovDskReadClose(t.h); },
    JudgeReadClose,
    Nothing,
};

const Case kReadCloseDirect = {
    "KovDskReadCloseDirect", "KovDskReadCloseDirect",
    [](FaultLoop &t) { Reading(t, true); },
    [](FaultLoop &t) { return KovDskReadCloseDirect(t.h); },
    JudgeReadClose,
    Nothing,
};

// ---- Deletion rules -------------------------------------------------------------

const Case kDel = {
    "KovDskDel", "KovDskDel",
    [](FaultLoop &t) { t.Full(); KeepAllBut(t, {"p1"}); },
    [](FaultLoop &) { return KovDskDel("p1", 3, 1, 3, 0, "abc", 1); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        // An entry that cannot be looked at is left behind.
        if (r.Way())  // the area's walk, or the taking of p1 from it
            return Check(r.FailedAsInjected(), "not -1 with lstat's errno");
        if (r.Is("lstat"))  // p1 not seen as a link: it is the file itself
            return Check(r.rc == 0 && t.Gone("p1"), "p1 not gone");
        return Check(r.rc == -1 || t.Gone("p1"), "p1 not gone") +
               ByCall(r, r.rc == 0, {"opendir", "malloc", "remove"}, {"semop"});
    },
    Nothing,
};

const Case kDelIdArea = {
    "KovDskDel_IdArea", "KovDskDel",
    [](FaultLoop &t) { t.Full(); KeepAllBut(t, {"e2"}); },
    [](FaultLoop &) { return KovDskDel("e2", 4, 1, 1, 8, nullptr, 0); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        bool dir = t.Exists("uid/0000000000000008");
        if (r.Way())
            return Check(r.FailedAsInjected() && dir && t.Intact("e2").empty(), "not -1 with e2 left");
        if (r.rc == 0)
            return Check(!dir && t.Gone("e2"), "e2 or its directory stays") + ByCall(r, true, {}, {"semop"});
        return Check(dir, "the directory went in a failed call") +
               ByCall(r, false, {"opendir", "malloc", "remove"}, {});
    },
    Nothing,
};

// What a sweep may leave of the files it was to take, by the failed call:
// an entry it could not look at stays whole.
std::string JudgeSweep(FaultLoop &t, const Outcome &r, std::initializer_list<const char *> targets,
                       std::initializer_list<const char *> dirs_gone)
{
    std::string bad;
    bool skipped = r.Is("lstat") || r.Is("stat") || r.Is("readlink");
    for (const char *name : targets) {
        if (t.Gone(name))
            continue;
        if (r.rc == 0 && !skipped)
            bad += std::string(name) + " stays; ";
        else if (r.rc == 0 && !t.Intact(name).empty())
            bad += std::string(name) + " half gone; ";
    }
    if (r.rc == 0 && !skipped)
        for (const char *dir : dirs_gone)
            if (t.Exists(dir))
                bad += std::string(dir) + " stays; ";
    if (skipped)  // or, the walk's own directory not to be had: its errno
        return bad + Check(r.rc == 0 || r.FailedAsInjected() || r.FailedWith(EINVAL), "not 0 or the errno");
    return bad + ByCall(r, r.rc == 0, {"opendir", "malloc", "remove", "readlink"}, {"semop"});
}

const Case kTimeDel = {
    "KovDskTimeDel", "KovDskTimeDel",
    [](FaultLoop &t) {
        t.Full();
        t.PutFile(".trash/junk", "j");
        KeepAllBut(t, {"e1", "e2", "e3"});
    },
    [](FaultLoop &) { return KovDskTimeDel(); },
    [](FaultLoop &t, const Outcome &r) {
        return JudgeSweep(t, r, {"e1", "e2", "e3"}, {"uid/0000000000000008", "usr/78797A", ".trash/junk"});
    },
    Nothing,
};

const Case kTmpDel = {
    "KovDskTmpDel", "KovDskTmpDel",
    [](FaultLoop &t) { t.Full(); KeepAllBut(t, {"t1", "t2"}); },
    [](FaultLoop &) { return KovDskTmpDel(); },
    [](FaultLoop &t, const Outcome &r) { return JudgeSweep(t, r, {"t1", "t2"}, {}); },
    Nothing,
};

// ---- Listings --------------------------------------------------------------------

// A list as the caller finds it: sorted by kind and name, every record one
// of `expected` with its size, total their sum, at least `least` of them.
// With a failed lstat a link's record may carry the link's own size.
std::string JudgeList(FaultLoop &t, const Outcome &r, std::initializer_list<const char *> expected)
{
    const KovDskListRes &l = t.list;
    std::string bad;
    uint64_t sum = 0;
    for (uint32_t i = 0; i < l.count; i++) {
        const KovDskListEnt &e = l.entries[i];
        bool known = false;
        for (const char *n : expected)
            known |= strcmp(n, e.name) == 0 && (static_cast<size_t>(e.size) == Std(n).size || r.Is("lstat"));
        if (!known)
            bad += std::string("record ") + e.name + " unknown or of a wrong size; ";
        if (i > 0 && (l.entries[i - 1].kind > e.kind ||
                      (l.entries[i - 1].kind == e.kind && strcmp(l.entries[i - 1].name, e.name) >= 0)))
            bad += "not sorted; ";
        sum += static_cast<uint64_t>(e.size);
    }
    if (sum != l.total)
        bad += "total is not the sum; ";
    return bad;
}

const Case kList = {
    "KovDskList", "KovDskList",
    [](FaultLoop &t) {
        t.Full();
        KeepAllBut(t, {});
        t.list = KovDskListRes{77, 0, 77, nullptr};
    },
    [](FaultLoop &t) { return KovDskList(nullptr, 0, 0, 0, nullptr, 0, 0, &t.list, 0); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        std::string bad = JudgeList(t, r, {"g1", "e1", "t1", "p1", "p2", "e3"});
        if (r.Is("realloc"))  // cut short, complete in itself
            return bad + Check(r.rc == 1 && t.list.count < 6, "not 1 with a partial list");
        if (r.rc == -1)
            return bad + Check(t.list.count == 0 && t.list.total == 0, "count and total not 0") +
                   (r.Way() ? Check(r.FailedAsInjected(), "not -1 with lstat's errno")
                            : ByCall(r, false, {"opendir", "malloc"}, {}));
        // A link whose target cannot be looked at is passed over.
        if (r.Is("lstat") || r.Is("readlink"))
            return bad + Check(r.rc == 0 && t.list.count >= 5, "more than the one entry missing");
        return bad + ByCall(r, r.rc == 0 && t.list.count == 6, {"opendir", "malloc"}, {"semop"});
    },
    [](FaultLoop &t, const Outcome &) {
        if (t.list.count != 0)
            free(t.list.entries);
    },
};

void AreaListing(FaultLoop &t)
{
    t.Full();
    KeepAllBut(t, {});
    t.count = 77;
    t.array = &t;  // a value no call writes
}

// Records of an area listing: the values, sorted; `cut` for a list that
// a failed realloc cut short.
std::string JudgeAreas(FaultLoop &t, const Outcome &r, size_t record, std::vector<std::string> full,
                       size_t least)
{
    if (r.rc == -1) {
        if (r.Is("malloc") && r.size == record)  // the first record
            return Check(r.FailedAsInjected() && t.array == nullptr && t.count == 77, "not -1 with the list NULL");
        return Check(t.count == 77 && t.array == &t, "count or list written") +
               Check(r.FailedAsInjected() && (r.Is("opendir") || r.Is("malloc") || r.Way()),
                     "not -1 with the errno");
    }
    std::vector<std::string> got;
    for (uint32_t i = 0; i < t.count; i++) {
        const char *rec = static_cast<const char *>(t.array) + i * record;
        if (record == 8) {
            uint64_t v;
            memcpy(&v, rec, 8);
            got.push_back(std::to_string(v));
        } else {
            got.push_back(rec);
        }
    }
    std::string bad = Check(std::is_sorted(got.begin(), got.end()), "not sorted");
    for (const std::string &g : got)
        bad += Check(std::find(full.begin(), full.end(), g) != full.end(), "unknown record " + g);
    if (r.Is("realloc"))
        return bad + Check(r.rc == 1 && got.size() < full.size(), "not 1 with a partial list");
    if (r.fired && r.call != "semop")  // an entry not seen, or hidden
        return bad + Check(r.rc == 0 && got.size() >= least, "more than one area missing");
    return bad + Check(r.rc == 0 && got == full, "not the whole list");
}

void FreeArray(FaultLoop &t, const Outcome &)
{
    if (t.count != 77 && t.count != 0)
        free(t.array);
}

const Case kUidList = {
    "KovDskUidList", "KovDskUidList",
    AreaListing,
    [](FaultLoop &t) { return KovDskUidList(0, &t.count, reinterpret_cast<uint64_t **>(&t.array)); },
    [](FaultLoop &t, const Outcome &r) {
        return JudgeAreas(t, r, 8, {"7", "8"}, 1) + Check(!r.fired || r.rc == -1 || r.Is("semop") ||
                                                              r.Is("lstat") || r.Is("realloc"),
                                                          "a fault point this test does not know: " + r.call);
    },
    FreeArray,
};

// Mode 1: "xyz" holds only an expired file and is hidden.
const Case kUsrList = {
    "KovDskUsrList", "KovDskUsrList",
    AreaListing,
    [](FaultLoop &t) { return KovDskUsrList(1, &t.count, reinterpret_cast<char **>(&t.array)); },
    [](FaultLoop &t, const Outcome &r) {
        // The count of live files comes from calls whose failure hides the
        // area: its directory, an entry, a link.
        return JudgeAreas(t, r, KOVDSK_USR_REC, {"abc"}, 0) +
               Check(!r.fired || r.rc == -1 || r.Is("semop") || r.Is("stat") || r.Is("lstat") ||
                         r.Is("readlink") || r.Is("opendir") || r.Is("malloc") || r.Is("realloc"),
                     "a fault point this test does not know: " + r.call);
    },
    FreeArray,
};

const Case kPasList = {
    "KovDskPasList", "KovDskPasList",
    AreaListing,
    [](FaultLoop &t) { return KovDskPasList(0, "abc", &t.count, reinterpret_cast<uint64_t **>(&t.array)); },
    [](FaultLoop &t, const Outcome &r) {
        return JudgeAreas(t, r, 8, {"1"}, 0) + Check(!r.fired || r.rc == -1 || r.Is("semop") ||
                                                         r.Is("lstat") || r.Is("realloc"),
                                                     "a fault point this test does not know: " + r.call);
    },
    FreeArray,
};

const Case kRmnFle = {
    "KovDskRmnFle", "KovDskRmnFle",
    [](FaultLoop &t) {
        t.Full();
        KeepAllBut(t, {});
        t.file = t.Path("general");
    },
    [](FaultLoop &t) { return KovDskRmnFle(t.file.c_str()); },
    [](FaultLoop &, const Outcome &r) -> std::string {
        // g1, t1 and the links of p1 and p2 live; e1 and e3 have expired.
        if (r.Is("lstat") || r.Is("readlink"))  // that entry not counted
            return Check(r.rc == 3 || r.rc == 4, "not 3 or 4");
        return ByCall(r, r.rc == 4, {"opendir", "malloc"}, {});
    },
    Nothing,
};

// ---- Lookups ---------------------------------------------------------------------

const Case kPasCheck = {
    "KovDskPasCheck", "KovDskPasCheck",
    [](FaultLoop &t) {
        t.Full();
        KeepAllBut(t, {});
        t.flag = 9;
        memset(t.pass, 0xFF, sizeof t.pass);
    },
    [](FaultLoop &t) { return KovDskPasCheck("p1", 3, &t.flag, t.pass); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        uint64_t value;
        memcpy(&value, t.pass, 8);
        bool tail_zero = std::all_of(t.pass + 8, t.pass + 17, [](unsigned char b) { return b == 0; });
        if (r.rc == 0)
            return Check(t.flag == 1 && value == 1 && tail_zero, "not flag 1 and pass 1") +
                   ByCall(r, true, {}, {"semop", "lstat"});
        std::string bad = Check(t.flag == 0 && value == 0 && tail_zero, "flag or pass not 0");
        // No link seen in "general": EINVAL.
        // (A look on the way of the link's own resolution: its errno.)
        if (r.Is("opendir") || r.Is("lstat") || r.Is("malloc"))
            return bad + Check(r.FailedWith(EINVAL) || (r.Way() && r.FailedAsInjected()), "not EINVAL");
        // The search reads the link to know it for the library's own, and
        // then the lookup reads it again.
        if (r.Is("readlink"))
            return bad + Check(r.FailedWith(EINVAL) || r.FailedAsInjected(), "not EINVAL or readlink's errno");
        return bad + ByCall(r, false, {}, {});
    },
    Nothing,
};

const Case kGetRealFileName = {
    "KovDskGetRealFileName", "KovDskGetRealFileName",
    [](FaultLoop &t) {
        t.Full();
        KeepAllBut(t, {});
        memset(t.path, 'x', sizeof t.path);
    },
    [](FaultLoop &t) { return KovDskGetRealFileName("p1", 3, 0, 0, nullptr, 0, t.path); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        if (r.rc == -1)
            return Check(r.FailedWith(ENOENT) &&
                             (r.Is("opendir") || r.Is("lstat") || r.Is("readlink") || r.Is("malloc")),
                         "not ENOENT for a search that saw nothing");
        // A link that cannot be resolved leaves its own path.
        std::string got = t.path;
        if (got == t.Path("general/" + t.stored.at("p1")))
            return Check(r.Is("lstat") || r.Is("readlink"), "the link's path");
        return Check(got == t.Path(t.Real("p1")), "not the real path") +
               ByCall(r, true, {}, {"semop", "lstat"});
    },
    Nothing,
};

// ---- Direct streams -----------------------------------------------------------------

const std::string kOld = Pattern(5000, 5);

void DirectFile(FaultLoop &t)
{
    t.Empty();
    t.PutFile("direct.bin", kOld);
}

std::string JudgeWriteOpenDirect(FaultLoop &t, const Outcome &r, uint32_t mode)
{
    if (r.rc >= 0) {
        t.slot_delta = t.acc_delta = t.fd_delta = 1;
        const KovDskAccWrEnt &w = AccTbl->wr[r.rc];
        uint32_t head = mode == 0 ? 0 : 3192;
        return Check(w.used == 1 && w.head == head && w.fill == 0 && strcmp(w.file, "direct.bin") == 0,
                     "not the stream") +
               Check(t.Content("direct.bin") == (mode == 0 ? "" : kOld), "the file changed") +
               ByCall(r, true, {}, {"semop", "chmod", "stat", "utime"});
    }
    if (r.Is("open"))  // whatever the reason
        return Check(r.FailedWith(ENFILE) && t.Content("direct.bin") == kOld,
                     "not ENFILE with the file as it was");
    if (r.Is("fstat"))  // opened, and truncated in mode 0: refused as an open
        return Check(r.FailedWith(ENFILE) && t.Content("direct.bin") == (mode == 0 ? "" : kOld),
                     "not ENFILE");
    if (r.Is("malloc"))  // a truncated file goes, an appended one keeps its bytes
        return Check(r.FailedWith(ENOSPC), "not ENOSPC") +
               Check(mode == 0 ? !t.Exists("direct.bin") : t.Content("direct.bin") == kOld, "the file");
    return "a fault point this test does not know: " + r.call;
}

void CloseDirectStream(FaultLoop &, const Outcome &r)
{
    if (r.rc >= 0) {
        EXPECT_EQ(KovDskWriteCloseDirect(r.rc), 0);
    }
}

const Case kWriteOpenDirect = {
    "KovDskWriteOpenDirect", "KovDskWriteOpenDirect",
    DirectFile,
    [](FaultLoop &) { return KovDskWriteOpenDirect("direct.bin", 1); },
    [](FaultLoop &t, const Outcome &r) { return JudgeWriteOpenDirect(t, r, 1); },
    CloseDirectStream,
};

const Case kWriteOpenDirectTruncate = {
    "KovDskWriteOpenDirect_Truncate", "KovDskWriteOpenDirect",
    DirectFile,
    [](FaultLoop &) { return KovDskWriteOpenDirect("direct.bin", 0); },
    [](FaultLoop &t, const Outcome &r) { return JudgeWriteOpenDirect(t, r, 0); },
    CloseDirectStream,
};

// An append of 3000 bytes waiting, 192 short of the boundary.
void WritingDirect(FaultLoop &t)
{
    DirectFile(t);
    t.h = KovDskWriteOpenDirect("direct.bin", 1);
    ASSERT_GE(t.h, 0);
    t.data = kOld + Pattern(3000, 6);
    ASSERT_EQ(KovDskWriteDirect(t.h, t.data.data() + 5000, 3000), 3000);
    t.accessed0 = AccTbl->accessed;
}

// The head (3192 bytes without O_DIRECT), two blocks, 1616 left waiting.
const Case kWriteDirect = {
    "KovDskWriteDirect", "KovDskWriteDirect",
    [](FaultLoop &t) {
        WritingDirect(t);
        t.more = Pattern(10000, 8);
        t.data += t.more;
    },
    [](FaultLoop &t) { return KovDskWriteDirect(t.h, t.more.data(), 10000); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        const KovDskAccWrEnt &w = AccTbl->wr[t.h];
        long size = t.Size("direct.bin");
        std::string on_disk = t.Content("direct.bin");
        bool head_failed = size == 5000 && w.fill == 3000 && w.head == 3192;
        if (r.rc == -1) {
            // A failed fcntl leaves O_DIRECT on for the head, which the
            // kernel then refuses: the head's failure all the same.
            if (r.Is("fcntl"))
                return Check(r.FailedWith(EINVAL) && head_failed, "not the head's failure");
            bool blocks_kept = (size == 8192 || size == 12288) && w.fill == 0 && w.head == 0 &&
                               on_disk == t.data.substr(0, static_cast<size_t>(size));
            return Check(head_failed || blocks_kept, "fill or head not as documented") +
                   ByCall(r, false, {"write"}, {});
        }
        return Check(size == 16384 && w.fill == 1616 && w.head == 0 && on_disk == t.data.substr(0, 16384),
                     "not head, two blocks and 1616 waiting") +
               ByCall(r, r.rc == 10000, {"write"}, {"semop", "fcntl", "utime"});
    },
    [](FaultLoop &t, const Outcome &r) {
        EXPECT_EQ(KovDskWriteCloseDirect(t.h), 0);
        if (r.rc == 10000) {
            EXPECT_EQ(t.Content("direct.bin"), t.data);
        }
    },
};

const Case kWriteCloseDirect = {
    "KovDskWriteCloseDirect", "KovDskWriteCloseDirect",
    [](FaultLoop &t) {
        WritingDirect(t);
        std::string more = Pattern(10000, 8);
        ASSERT_EQ(KovDskWriteDirect(t.h, more.data(), 10000), 10000);
        t.data += more;
    },
    [](FaultLoop &t) { return KovDskWriteCloseDirect(t.h); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        t.slot_delta = t.acc_delta = t.fd_delta = -1;  // over either way
        bool whole = t.Content("direct.bin") == t.data && AccTbl->accessed == t.accessed0 + 1;
        bool tail_lost = t.Content("direct.bin") == t.data.substr(0, 16384) && AccTbl->accessed == t.accessed0;
        // A failed fcntl leaves O_DIRECT on for the tail: refused where the
        // file system keeps to the grid (tmpfs does not).
        if (r.Is("fcntl"))
            return Check((r.rc == 0 && whole) || (r.FailedWith(EINVAL) && tail_lost), "not the tail's outcome");
        if (r.rc == -1)
            return Check(tail_lost, "not the blocks alone") + ByCall(r, false, {"write"}, {});
        return Check(whole, "the tail or the count is missing") +
               ByCall(r, r.rc == 0, {"write"}, {"semop", "utime", "close"});
    },
    Nothing,
};

const Case kReadOpenDirect = {
    "KovDskReadOpenDirect", "KovDskReadOpenDirect",
    DirectFile,
    [](FaultLoop &) { return KovDskReadOpenDirect("direct.bin"); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        if (r.rc >= 0) {
            t.slot_delta = t.acc_delta = t.fd_delta = 1;
            return Check(AccTbl->rd[r.rc].remain == 5000, "not the stream") +
                   ByCall(r, true, {}, {"semop", "stat"});
        }
        if (r.Is("open"))
            return Check(r.FailedWith(ENFILE), "not ENFILE");
        if (r.Is("malloc"))
            return Check(r.FailedWith(ENOSPC), "not ENOSPC");
        if (r.Is("stat"))  // the look before the open: the open tells
            return Check(r.rc >= 0, "not opened");
        return ByCall(r, false, {"fstat"}, {});
    },
    [](FaultLoop &, const Outcome &r) {
        if (r.rc >= 0) {
            EXPECT_EQ(KovDskReadCloseDirect(r.rc), 0);
        }
    },
};

// ---- Directory listing ----------------------------------------------------------------

const Case kDirList = {
    "KovDskDirList", "KovDskDirList",
    [](FaultLoop &t) {
        t.Full();
        KeepAllBut(t, {});
        t.dirs = KovDskDirRes{-5, 0, 77, reinterpret_cast<KovDskDirEnt *>(&t)};
    },
    [](FaultLoop &t) { return KovDskDirList("general", "", &t.dirs, 0); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        const KovDskDirRes &d = t.dirs;
        if (r.Is("calloc"))  // no array: entries NULL, count and total untouched
            return Check(r.FailedWith(ENOSPC) && d.entries == nullptr && d.count == -5 && d.total == 77,
                         "not ENOSPC with no array");
        if (r.rc == -1)  // the scan failed: the result untouched
            return Check(d.count == -5 && d.total == 77, "result touched") +
                   ByCall(r, false, {"malloc", "realloc"}, {});
        // ".", ".." and the six entries of "general", by alphasort; an
        // entry whose stat fails is a zero record in its place.
        std::string bad;
        uint64_t sum = 0;
        int zero = 0;
        std::string last;
        for (int i = 0; i < d.count; i++) {
            const KovDskDirEnt &e = d.entries[i];
            sum += static_cast<uint64_t>(e.size);
            if (e.name[0] == '\0') {
                zero++;
                continue;
            }
            if (!last.empty() && strcoll(last.c_str(), e.name) >= 0)
                bad += "not sorted; ";
            last = e.name;
        }
        bad += Check(d.count == 8 && sum == d.total, "not eight records with their total");
        bad += Check(zero == (r.Is("stat") ? 1 : 0), "zero records");
        return bad + ByCall(r, true, {}, {"semop", "stat"});
    },
    [](FaultLoop &t, const Outcome &r) {
        if (r.rc == 0 && t.dirs.count > 0)
            free(t.dirs.entries);
    },
};

// ---- Drive ------------------------------------------------------------------------------

// The drive double on an image file, answering `request` (and the identify
// with its data).
void Drive(FaultLoop &t, unsigned long request)
{
    if (t.disk.empty()) {
        t.disk = t.Path("disk");
        t.PutFile("disk", std::string(4096, '\0'));
    }
    drive::Attach(t.disk.c_str());
    if (request == HDIO_DRIVE_CMD) {
        unsigned char data[512];
        for (int i = 0; i < 512; i++)
            data[i] = static_cast<unsigned char>(i * 7 + 1);
        drive::Answer(request, data, sizeof data, 4);
        memset(t.identify, 0xA5, sizeof t.identify);
    } else {
        drive::Answer(request);
    }
}

// The request's result, or -1 with the errno of open or ioctl; never a
// descriptor left open.
std::string JudgeAta(FaultLoop &, const Outcome &r)
{
    return Check(drive::Open() == 0, "device left open") + ByCall(r, r.rc == 0, {"open", "ioctl"}, {"close"});
}

#define KOVTEST_ATA_CASE(var, fn, request)                                              \
    const Case var = {                                                                  \
        #fn, #fn,                                                                       \
        [](FaultLoop &t) { Drive(t, request); },                                        \
        [](FaultLoop &t) { return fn(t.disk.c_str(), "pw-secret", 1); },               \
        JudgeAta,                                                                       \
        Nothing,                                                                        \
    }
KOVTEST_ATA_CASE(kSetPasswd, KovDskSetPasswd, 0x350);
KOVTEST_ATA_CASE(kUnlockPasswd, KovDskUnlockPasswd, 0x351);
KOVTEST_ATA_CASE(kDisablePasswd, KovDskDisablePasswd, 0x352);
#undef KOVTEST_ATA_CASE

const Case kReset = {
    "KovDskReset", "KovDskReset",
    [](FaultLoop &t) { Drive(t, HDIO_DRIVE_RESET); },
    [](FaultLoop &t) { return KovDskReset(t.disk.c_str()); },
    JudgeAta,
    Nothing,
};

const Case kGetIdentify = {
    "KovDskGetIdentify", "KovDskGetIdentify",
    [](FaultLoop &t) { Drive(t, HDIO_DRIVE_CMD); },
    [](FaultLoop &t) { return KovDskGetIdentify(t.disk.c_str(), t.identify); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        bool data = true, zero = true;
        for (int i = 0; i < 512; i++) {
            data &= t.identify[i] == static_cast<unsigned char>(i * 7 + 1);
            zero &= t.identify[i] == 0;
        }
        // A failed request is tried again, after a pause.
        return Check(drive::Open() == 0, "device left open") + Check(r.rc == 0 ? data : zero, "the buffer") +
               ByCall(r, r.rc == 0, {"open"}, {"ioctl", "close"});
    },
    Nothing,
};

const Case kFdisk = {
    "KovDskFdisk", "KovDskFdisk",
    [](FaultLoop &t) {
        if (t.disk.empty()) {
            t.disk = t.Path("disk.img");
            for (int i = 0; i < 512; i++)
                t.old_sector += static_cast<char>(i * 13 + 5);
            t.PutFile("disk.img", t.old_sector);
            ASSERT_EQ(truncate(t.disk.c_str(), 100800L * 512), 0);
        }
        int fd = open(t.disk.c_str(), O_WRONLY);
        ASSERT_EQ(pwrite(fd, t.old_sector.data(), 512, 0), 512);
        close(fd);
        // 16 heads, 63 sectors, 100 cylinders, as the target's kernel tells.
        struct {
            unsigned char heads, sectors;
            unsigned int cylinders;
            unsigned long start;
        } geo = {16, 63, 100, 0};
        int sector = 512;
        unsigned long size = 100800;
        drive::Attach(t.disk.c_str());
        drive::Answer(BLKSSZGET, &sector, sizeof sector);
        drive::Answer(BLKGETSIZE, &size, sizeof size);
        drive::Answer(0x330, &geo, sizeof geo);
        drive::Answer(BLKRRPART);
    },
    [](FaultLoop &t) { return KovDskFdisk(t.disk.c_str(), 2, 50000, 0, 0, 0); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        std::string s(512, '\0');
        int fd = open(t.disk.c_str(), O_RDONLY);
        bool read_back = pread(fd, s.data(), 512, 0) == 512;
        close(fd);
        if (!read_back)
            return "sector 0 unreadable";
        const std::string &old = t.old_sector;
        bool primed = s.substr(0, 8) == std::string(8, '\0') && s.substr(8, 438) == old.substr(8, 438);
        bool table = s.substr(510) == "\x55\xAA" && s.substr(446, 64) != old.substr(446, 64);
        std::string bad = Check(drive::Open() == 0, "device left open");
        if (r.rc == 0)
            return bad + Check(primed && table, "no new table") + ByCall(r, true, {}, {"semop", "close"});
        // Nothing touched before the priming write; after it, bytes 0 to 7
        // are zero and the old table stays until the table is written.
        if (r.Is("open") || (r.Is("write") && r.size == 8))
            return bad + Check(s == old, "the sector changed") + Check(r.FailedAsInjected(), "not -1 with errno");
        bool after_table = r.Is("ioctl") && drive::Count() == 3;  // BLKRRPART
        return bad + Check(primed && (after_table ? table : s.substr(446) == old.substr(446)), "the sector") +
               ByCall(r, false, {"write", "ioctl", "lseek"}, {});
    },
    Nothing,
};

// A read stream open across the run of the tool.
void Tool(FaultLoop &t)
{
    PlainFile(t);
    OpenOne(t);
    t.fd = AccTbl->rd[t.h].fd;
    t.rawbuf = AccTbl->rd[t.h].rawbuf;
    AccTbl->gbg_flag = 1;
    t.Standins();
    t.file = t.Path("part");
    log::Clear();
}

// The stream the tool ran across: its slot, cleared by a format; the
// descriptor and buffer stay this process's.
void SettleTool(FaultLoop &t, const Outcome &)
{
    FaultLoop::ReapChildren();
    if (AccTbl->rd[t.h].used == 1) {
        EXPECT_EQ(KovDskReadCloseDirect(t.h), 0);
    } else {
        close(t.fd);
        free(t.rawbuf);
        EXPECT_EQ(KovDskAccflg(-1), 0);
    }
}

std::string Logged()
{
    std::string all;
    for (int i = 0; i < log::Count(); i++)
        all += std::string(log::Line(i)) + "\n";
    return all;
}

const Case kFormat = {
    "KovDskFormat", "KovDskFormat",
    Tool,
    [](FaultLoop &t) { return KovDskFormat(t.file.c_str(), 0, 0); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        // A child that was never waited for clears nothing: no end line.
        if (r.rc == -1)
            return Check(AccTbl->rd[t.h].used == 1 && AccTbl->gbg_flag == 1, "cleared") +
                   Check(Logged() == " HDD format start...\n", "the log") +
                   ByCall(r, false, {"fork", "waitpid"}, {});
        t.slot_delta = -1;
        return Check(AccTbl->rd[t.h].used == 0 && AccTbl->gbg_flag == 0, "not cleared") +
               Check(Logged() == " HDD format start...\n HDD format terminated.\n", "the log") +
               ByCall(r, r.rc == 0, {"fork", "waitpid"}, {"semop"});
    },
    SettleTool,
};

const Case kChk = {
    "KovDskChk", "KovDskChk",
    Tool,
    [](FaultLoop &t) { return KovDskChk(t.file.c_str()); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        std::string end = r.rc == 0 ? " HDD data check terminated.\n" : "";
        return Check(AccTbl->rd[t.h].used == 1, "the stream's slot changed") +
               Check(Logged() == " HDD data check start...\n" + end, "the log") +
               ByCall(r, r.rc == 0, {"fork", "waitpid"}, {"semop"});
    },
    SettleTool,
};

// ---- Version-up ------------------------------------------------------------------------

const char *const kOldFiles[] = {"o1", "o2", "o3"};

const Case kVup001 = {
    "KovDskVup001", "KovDskVup001",
    [](FaultLoop &t) {
        t.FromTemplate([](FaultLoop &t) {
            t.stored["o1"] = t.Put("o1", 4, 0, 0, nullptr, 0, Pattern(10, 1));
            t.stored["o2"] = t.Put("o2", 4, 0, 0, nullptr, 0, Pattern(20, 2));
            t.stored["o3"] = t.Put("o3", 3, 0, 0, nullptr, 0, Pattern(30, 3));
            t.stored["g1"] = t.Put("g1", 1, 0, 0, nullptr, 0, Pattern(40, 4));
            t.stored["p9"] = t.Put("p9", 3, 3, 0, "abc", 1, Pattern(50, 5));
        });
        log::Clear();
    },
    [](FaultLoop &) { return KovDskVup001("vup", 5); },
    [](FaultLoop &t, const Outcome &r) -> std::string {
        const std::string pass = "usr/767570/0000000000000005/";
        std::string bad;
        int moved = 0;
        // Each old file lies whole in exactly one place, with both links
        // once in the pass area (unless a symlink failed).
        for (int i = 0; i < 3; i++) {
            const std::string s = t.stored.at(kOldFiles[i]);
            int places = 0;
            for (const std::string &dir : {std::string("general/"), std::string("usr/"), pass}) {
                struct stat st;
                if (lstat(t.Path(dir + s).c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
                    places++;
                    bad += Check(t.Content(dir + s) == Pattern(10 * (i + 1), i + 1), s + " changed");
                    if (dir == pass) {
                        moved++;
                        bool linked = t.LinkText("general/" + s) == t.Path(pass + s) &&
                                      t.LinkText("usr/767570/" + s) == t.Path(pass + s);
                        bad += Check(linked || r.Is("symlink") || r.Way(), s + " without its links");
                    }
                }
            }
            bad += Check(places == 1, s + " not in exactly one place");
        }
        bad += Check(t.Content("general/" + t.stored.at("g1")) == Pattern(40, 4), "g1 moved");
        bad += Check(t.Content("usr/616263/0000000000000001/" + t.stored.at("p9")) == Pattern(50, 5), "p9 moved");
        if (r.Way() && moved == 0 && Logged().empty())  // "usr" not to be looked at: nothing moves
            return bad + Check(r.FailedAsInjected(), "not -1 with lstat's errno");
        if (r.rc == -1) {  // the directories: the files stay in "usr"
            std::string line = Logged();
            return bad + Check(moved == 0, "files in the pass area") +
                   Check(line.find(" [KovDskVup001] User directory(usr/767570) make fail.") == 0 ||
                             line.find(" [KovDskVup001] Passwd directory(" + pass.substr(0, pass.size() - 1) +
                                       ") make fail.") == 0,
                         "no message") +
                   ByCall(r, false, {"mkdir"}, {});
        }
        // A move that fails leaves its file where it was. The search keeps
        // reporting that file for its kind, so the others of that kind stay
        // with it; those of the other kind go on. A search that fails may
        // end a phase early. The links are not looked at.
        if (r.Is("rename")) {
            bool kind4 = r.path.find("/t04t") != std::string::npos;
            for (const char *o : kOldFiles) {
                bool other_kind = (strcmp(o, "o3") == 0) == kind4;
                if (other_kind)
                    bad += Check(t.Exists(pass + t.stored.at(o)), std::string(o) + " of the other kind not moved");
            }
        }
        bool all = moved == 3;
        return bad + ByCall(r, r.rc == 0 && (all || r.Is("opendir") || r.Is("malloc") || r.Is("lstat") ||
                                             r.Is("rename")),
                            {"mkdir"},
                            {"semop", "opendir", "malloc", "lstat", "rename", "chmod", "utime", "symlink"});
    },
    Nothing,
};

const Case *const kCases[] = {
    &kInitSet, &kInit, &kOpenTblCheck, &kOpenTblCheckBusy, &kTblSemFree,
    &kAccflg, &kGetAccessedFlg, &kClearAccessedFlg, &kGetOperationFlg,
    &kDirMake, &kFileChk, &kFileRemove, &kFileRename, &kChgTimeStamp, &kFileSize,
    &kSelDel, &kGbgIni, &kGbgChk, &kFleSrd,
    &kWriteOpen, &kWrite, &kWriteKind6, &kWriteClose, &kReadOpen, &kRead, &kReadClose,
    &kDel, &kDelIdArea, &kTimeDel, &kTmpDel,
    &kList, &kUidList, &kUsrList, &kPasList, &kRmnFle, &kPasCheck, &kGetRealFileName,
    &kWriteOpenDirect, &kWriteOpenDirectTruncate, &kWriteDirect, &kWriteCloseDirect,
    &kReadOpenDirect, &kReadDirect, &kReadCloseDirect, &kDirList,
    &kSetPasswd, &kUnlockPasswd, &kDisablePasswd, &kReset, &kGetIdentify,
    &kFdisk, &kFormat, &kChk, &kVup001,
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Faults, FaultLoop, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<const Case *> &info) {
                             return std::string(info.param->label);
                         });
