/*
 * bench.cpp - libKovDsk side by side with the reference tools, in one run,
 * on one file system: streams against dd with O_DIRECT, the file listing
 * against ls -l, the write open against the size of its area, and the wait
 * of a second process for the table lock. Every figure is the median of
 * several runs.
 *
 * Usage: kovdsk-bench [--only streams|list|open|lock] [DIR]
 *   DIR: where to work, default $TMPDIR or /tmp. The lock measurement needs
 *   the listing's largest area, so "lock" fills it too.
 * The table lives in an IPC namespace of its own where that is allowed.
 */
#include <kovdsk.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sched.h>
#include <string>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kRuns = 3;
constexpr size_t kMiB = 1 << 20;
constexpr size_t kBig = 256 * kMiB;
std::string root;

double Now()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// Median wall time of fn over kRuns runs; prepare runs untimed before each.
double Median(const std::function<void()> &fn, const std::function<void()> &prepare = {})
{
    std::vector<double> t;
    for (int i = 0; i < kRuns; i++) {
        if (prepare)
            prepare();
        double start = Now();
        fn();
        t.push_back(Now() - start);
    }
    std::sort(t.begin(), t.end());
    return t[t.size() / 2];
}

void Shell(const std::string &cmd)
{
    if (system(cmd.c_str()) != 0) {
        fprintf(stderr, "bench: failed: %s\n", cmd.c_str());
        exit(1);
    }
}

void Check(bool ok, const char *what)
{
    if (!ok) {
        fprintf(stderr, "bench: %s failed: %s\n", what, strerror(errno));
        exit(1);
    }
}

void Row(const char *what, double lib, double ref, const char *unit, const char *goal)
{
    printf("%-44s %10.3f %10.3f %s  ratio %5.2f  (goal %s)\n", what, lib, ref, unit, ref / lib, goal);
    fflush(stdout);
}

std::vector<char> block(kMiB, 'k');

void StoredWrite()
{
    int h = KovDskWriteOpen("big", nullptr, nullptr, 1, 0, 0, nullptr, 0, 0, nullptr);
    Check(h >= 0, "KovDskWriteOpen");
    for (size_t done = 0; done < kBig; done += kMiB)
        Check(KovDskWrite(h, block.data(), kMiB) == static_cast<int>(kMiB), "KovDskWrite");
    Check(KovDskWriteClose(h) == 0, "KovDskWriteClose");
}

void StoredRead()
{
    int h = KovDskReadOpen("big", 1, 0, 0, nullptr, 0);
    Check(h >= 0, "KovDskReadOpen");
    while (KovDskRead(h, block.data(), kMiB) > 0) {
    }
    Check(KovDskReadClose(h) == 0, "KovDskReadClose");
}

void DirectWrite()
{
    int h = KovDskWriteOpenDirect("direct.bin", 0);
    Check(h >= 0, "KovDskWriteOpenDirect");
    for (size_t done = 0; done < kBig; done += kMiB)
        Check(KovDskWriteDirect(h, block.data(), kMiB) == static_cast<int>(kMiB), "KovDskWriteDirect");
    Check(KovDskWriteCloseDirect(h) == 0, "KovDskWriteCloseDirect");
}

void DirectRead()
{
    int h = KovDskReadOpenDirect("direct.bin");
    Check(h >= 0, "KovDskReadOpenDirect");
    while (KovDskReadDirect(h, block.data(), kMiB) > 0) {
    }
    Check(KovDskReadCloseDirect(h) == 0, "KovDskReadCloseDirect");
}

void Streams()
{
    std::string dd = root + "/dd.bin";
    std::string ddw = "dd if=/dev/zero of=" + dd + " bs=4096 count=65536 oflag=direct conv=fsync 2>/dev/null";
    double lib = Median(StoredWrite), ref = Median([&] { Shell(ddw); });
    Row("stored-file write, 256 MiB in 1 MiB calls", lib, ref, "s", ">= 0.95");
    std::string ddr = "dd if=" + dd + " of=/dev/null bs=4096 iflag=direct 2>/dev/null";
    lib = Median(StoredRead);
    ref = Median([&] { Shell(ddr); });
    Row("stored-file read, 256 MiB in 1 MiB requests", lib, ref, "s", ">= 0.95");
    lib = Median(DirectWrite);
    ref = Median([&] { Shell(ddw); });
    Row("direct write, 256 MiB in 1 MiB calls", lib, ref, "s", ">= 0.95");
    lib = Median(DirectRead);
    ref = Median([&] { Shell(ddr); });
    Row("direct read, 256 MiB in 1 MiB requests", lib, ref, "s", ">= 0.95");
    unlink(dd.c_str());
    KovDskFileRemove("direct.bin");
    KovDskDel("big", 1, 1, 0, 0, nullptr, 0);
}

// The stored name of file "f<i>", kind 1, with a deadline.
std::string Stored(int i)
{
    char fname[16], hex[3];
    snprintf(fname, sizeof fname, "f%07d", i);
    std::string s = "t01tn";
    for (const char *c = fname; *c; c++) {
        snprintf(hex, sizeof hex, "%02X", static_cast<unsigned char>(*c));
        s += hex;
    }
    return s + "nd26123123dm59m.0";
}

// n stored files in uid/<id>, made directly: the listing reads names only.
std::string FillArea(uint64_t id, int n)
{
    char rel[64];
    snprintf(rel, sizeof rel, "uid/%016llX", static_cast<unsigned long long>(id));
    KovDskDirMake(rel);
    std::string dir = root + "/" + rel;
    for (int i = 0; i < n; i++) {
        int fd = open((dir + "/" + Stored(i)).c_str(), O_CREAT | O_WRONLY, 0666);
        Check(fd >= 0, "create");
        close(fd);
    }
    sync();
    return dir;
}

void Listing()
{
    double prev = 0;
    for (int n : {1000, 10000, 100000}) {
        std::string dir = FillArea(static_cast<uint64_t>(n), n);
        KovDskListRes res;
        double lib = Median([&] {
            Check(KovDskList(nullptr, 0, 1, static_cast<uint64_t>(n), nullptr, 0, 0, &res, 0) == 0, "KovDskList");
            Check(res.count == static_cast<uint32_t>(n), "KovDskList count");
            free(res.entries);
        });
        double ref = Median([&] { Shell("ls -l --sort=none " + dir + " >/dev/null"); });
        char what[64];
        snprintf(what, sizeof what, "KovDskList of %d files vs ls -l", n);
        Row(what, lib, ref, "s", ">= 1.0");
        if (prev > 0)
            printf("%-44s growth per tenfold: %.1fx (n log n: ~11x, n^2: 100x)\n", "", lib / prev);
        prev = lib;
    }
}

void OpenCost()
{
    double prev = 0;
    for (int n : {100, 1000, 10000}) {
        uint64_t id = 1000000 + static_cast<uint64_t>(n);
        FillArea(id, n);
        int k = 0;
        double t = Median([&] {
            char name[32];
            snprintf(name, sizeof name, "new%d", k++);
            int h = KovDskWriteOpen(name, nullptr, nullptr, 1, 1, id, nullptr, 0, 0, nullptr);
            Check(h >= 0, "KovDskWriteOpen");
            KovDskWriteClose(h);
        });
        printf("%-44s %10.3f ms per call", ("KovDskWriteOpen into an area of " + std::to_string(n)).c_str(),
               t * 1000);
        if (prev > 0)
            printf(", growth per tenfold %.1fx", t / prev);
        printf("\n");
        prev = t;
    }
}

void LockWait()
{
    // A child lists the largest area; this process asks for the lock as
    // soon as the child holds it, and measures how long it waits.
    fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        KovDskListRes res;
        double start = Now();
        KovDskList(nullptr, 0, 1, 100000, nullptr, 0, 0, &res, 0);
        if (res.count)
            free(res.entries);
        printf("%-44s %10.3f s\n", "a listing of 100000 holds the table lock", Now() - start);
        fflush(stdout);
        _exit(0);
    }
    while (semctl(KovDskTblSem_id, 0, GETVAL) != 0) {
    }
    double start = Now();
    KovDskFileChk("general", 1);
    double waited = Now() - start;
    waitpid(child, nullptr, 0);
    printf("%-44s %10.3f s\n", "a second process waits for the lock", waited);
}

bool Isolate()
{
    if (unshare(CLONE_NEWIPC | CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    char lockdir[4096];
    return realpath("/var/lock", lockdir) != nullptr &&
           mount("kovdsk-bench", lockdir, "tmpfs", 0, "mode=1777") == 0;
}

} // namespace

int main(int argc, char **argv)
{
    std::string only;
    if (argc > 2 && strcmp(argv[1], "--only") == 0) {
        only = argv[2];
        argc -= 2;
        argv += 2;
    }
    auto want = [&](const char *part) { return only.empty() || only == part; };
    const char *tmp = getenv("TMPDIR");
    std::string base = argc > 1 ? argv[1] : tmp && *tmp ? tmp : "/tmp";
    root = base + "/kovdsk-bench-XXXXXX";
    Check(mkdtemp(root.data()) != nullptr, "mkdtemp");
    bool isolated = Isolate();
    Check(KovDskInitSet(root.c_str()) == 0, "KovDskInitSet");
    for (const char *d : {"general", "uid", "usr", ".trash"})
        KovDskDirMake(d);

    printf("%-44s %10s %10s\n", "", "library", "reference");
    if (want("streams"))
        Streams();
    if (want("list"))
        Listing();
    else if (want("lock"))
        FillArea(100000, 100000);
    if (want("open"))
        OpenCost();
    if (want("lock"))
        LockWait();

    if (!isolated) {
        shmctl(KovDskTblShm_id, IPC_RMID, nullptr);
        semctl(KovDskTblSem_id, 0, IPC_RMID);
        semctl(KovDskAccSem_id, 0, IPC_RMID);
    }
    Shell("rm -rf '" + root + "'");
    return 0;
}
