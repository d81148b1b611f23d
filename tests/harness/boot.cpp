/*
 * boot.cpp - the fresh boot of every test; see boot.h.
 */
#include "harness/boot.h"

#include "doubles/interpose.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace kovtest {
namespace {

// A private IPC namespace, and a private tmpfs at /var/lock so that the key
// file of one test is not another's and nothing is left there afterwards.
bool Isolate()
{
    if (unshare(CLONE_NEWIPC | CLONE_NEWNS) != 0)
        return false;
    if (mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0)  // valgrind wants texts
        return false;
    char lockdir[PATH_MAX];
    if (realpath("/var/lock", lockdir) == nullptr)
        return false;
    return mount("kovtest", lockdir, "tmpfs", 0, "mode=1777") == 0;
}

// Without namespaces: remove what a table of an earlier test left.
void RemoveTable()
{
    key_t t = ftok("/var/lock/kovdsk", 'T');
    key_t d = ftok("/var/lock/kovdsk", 'D');
    if (t != -1) {
        int shm = shmget(t, 0, 0);
        if (shm != -1)
            shmctl(shm, IPC_RMID, nullptr);
        int sem = semget(t, 0, 0);
        if (sem != -1)
            semctl(sem, 0, IPC_RMID);
    }
    if (d != -1) {
        int sem = semget(d, 0, 0);
        if (sem != -1)
            semctl(sem, 0, IPC_RMID);
    }
}

bool TakesODirect(const std::string &dir)
{
    std::string probe = dir + "/.odirect";
    int fd = open(probe.c_str(), O_CREAT | O_WRONLY | O_DIRECT, 0600);
    if (fd == -1)
        return false;
    close(fd);
    unlink(probe.c_str());
    return true;
}

std::string MakeRoot()
{
    const char *tmp = getenv("TMPDIR");
    std::vector<std::string> bases = {tmp && *tmp ? tmp : "/tmp", KOVTEST_SCRATCH};
    // Under user-mode emulation a 32-bit program cannot read directories
    // whose offsets need 64 bits (ext4's hashed directories give EOVERFLOW),
    // so the roots go on tmpfs there (KOVTEST_SHM: a directory of a run's own
    // on it).
    const char *shm = getenv("KOVTEST_SHM");
    if (getenv("KOVTEST_EMULATED") != nullptr)
        bases = {shm && *shm ? shm : "/dev/shm"};
    for (const std::string &base : bases) {
        mkdir(base.c_str(), 0700);
        std::string templ = base + "/kovdsk-test-XXXXXX";
        if (mkdtemp(templ.data()) == nullptr)
            continue;
        if (TakesODirect(templ))
            return templ;
        rmdir(templ.c_str());
    }
    return "";
}

// The store's directories have mode 0666, which only root may enter: open
// each up before walking it.
void RemoveTree(const std::string &path)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return;
    if (S_ISDIR(st.st_mode)) {
        chmod(path.c_str(), 0700);
        if (DIR *d = opendir(path.c_str())) {
            while (struct dirent *e = readdir(d)) {
                if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
                    RemoveTree(path + "/" + e->d_name);
            }
            closedir(d);
        }
        rmdir(path.c_str());
    } else {
        unlink(path.c_str());
    }
}

} // namespace

void Boot::SetUp()
{
    setenv("TZ", "UTC", 1);
    tzset();
    SetNow(nullptr);
    FailDate(nullptr);
    unsetenv("KOVDATE_DIFFER");
    device::Attach(false);
    device::Clear();
    Detach();

    isolated_ = Isolate();
    if (!isolated_)
        RemoveTable();
    root_ = MakeRoot();
    ASSERT_FALSE(root_.empty()) << "no directory that takes O_DIRECT";
}

void Boot::TearDown()
{
    Detach();
    if (!isolated_)
        RemoveTable();
    RemoveTree(root_);
}

void Boot::Create()
{
    ASSERT_EQ(KovDskInitSet(root_.c_str()), 0) << strerror(errno);
}

std::string Boot::Path(const std::string &rel) const { return root_ + "/" + rel; }

void Boot::PutFile(const std::string &rel, const std::string &content) const
{
    int fd = open(Path(rel).c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0666);
    ASSERT_NE(fd, -1) << rel << ": " << strerror(errno);
    ASSERT_EQ(write(fd, content.data(), content.size()), (ssize_t)content.size());
    close(fd);
}

void Detach()
{
    if (AccTbl != nullptr)
        shmdt(AccTbl);
    AccTbl = nullptr;
    KovDskTblShm_id = -1;
    KovDskTblSem_id = 0;
    KovDskAccSem_id = 0;
}

int SemValue(int semid) { return semctl(semid, 0, GETVAL); }
int SemWaiting(int semid) { return semctl(semid, 0, GETNCNT); }

void SetNow(const char *when)
{
    if (when)
        setenv("KOVDATE_NOW", when, 1);
    else
        unsetenv("KOVDATE_NOW");
}

void FailDate(const char *which)
{
    if (which)
        setenv("KOVDATE_FAIL", which, 1);
    else
        unsetenv("KOVDATE_FAIL");
}

void SetDiffer(long seconds) { setenv("KOVDATE_DIFFER", std::to_string(seconds).c_str(), 1); }

long Utc(int year, int mon, int day, int hour, int min, int sec)
{
    struct tm t = {};
    t.tm_year = year - 1900;
    t.tm_mon = mon - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = min;
    t.tm_sec = sec;
    return static_cast<long>(timegm(&t));
}

std::string Output(const std::string &cmd)
{
    std::string out;
    if (FILE *p = popen(cmd.c_str(), "r")) {
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, p)) > 0)
            out.append(buf, n);
        pclose(p);
    }
    return out;
}

bool Have(const char *tool)
{
    return system((std::string("command -v ") + tool + " >/dev/null 2>&1").c_str()) == 0;
}

std::string Hex(const char *spaced)
{
    std::string out;
    std::istringstream in(spaced);
    unsigned v;
    while (in >> std::hex >> v)
        out += static_cast<char>(v);
    return out;
}

std::string Zeros(size_t n) { return std::string(n, '\0'); }

pid_t StartChild(const std::function<int()> &fn)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0)
        _exit(fn());
    return pid;
}

int WaitChild(pid_t pid)
{
    int status = 0;
    if (pid <= 0 || waitpid(pid, &status, 0) != pid)
        return -2;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int RunChild(const std::function<int()> &fn) { return WaitChild(StartChild(fn)); }

} // namespace kovtest
