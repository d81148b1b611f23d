/*
 * recover.cpp - the way out when a process died holding a lock or a slot,
 * and what status shows of it.
 *
 * The library keeps no owner in a slot and uses no SEM_UNDO, so only what
 * the system tells of the table can be judged: shm_nattch, the processes
 * attached, and a lock's value with the last process that operated on it.
 * A slot's stream lives in its owner's process, which stays attached until
 * it ends; so when kovdsk is the only process attached, every used slot is
 * orphaned for certain. Otherwise only the operator can say so (--yes). A
 * lock is taken by its last operator; when that process no longer exists
 * the lock is never given back.
 *
 * Freeing a slot gives back what its stream held of the activity counter:
 * one unit for an open read stream or direct stream, none for a store
 * write stream, which is counted only inside each call.
 */
#include "cli.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <time.h>

namespace kovcli {
namespace {

constexpr int kLockWaitSeconds = 10;

bool Alive(int pid) { return kill(pid, 0) == 0 || errno == EPERM; }

std::string Command(int pid)
{
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name.empty() ? "" : " (" + Escape(name) + ")";
}

template <typename Slot>
std::string FilePath(const Slot &slot)
{
    std::string path = Field(AccTbl->root, sizeof AccTbl->root) + "/";
    if (slot.dir[0] != '\0')
        path += Field(slot.dir, sizeof slot.dir) + "/";
    return path + Field(slot.file, sizeof slot.file);
}

template <typename Slot>
bool Gone(const Slot &slot)
{
    struct stat st;
    return slot.file[0] != '\0' && stat(FilePath(slot).c_str(), &st) != 0 && errno == ENOENT;
}

// The table lock, waited for a bounded time: the recovery must not hang
// where the others do.
void TakeTableLock()
{
    struct sembuf take = {0, -1, 0};
    struct timespec limit = {kLockWaitSeconds, 0};
    if (semtimedop(KovDskTblSem_id, &take, 1, &limit) == 0)
        return;
    if (errno == EAGAIN)
        Refuse("the table lock stayed taken for " + std::to_string(kLockWaitSeconds) + " s (pid " +
               std::to_string(semctl(KovDskTblSem_id, 0, GETPID)) + "); try again");
    Fail("semtimedop (table lock)", errno);
}

void GiveTableLock()
{
    struct sembuf give = {0, 1, 0};
    if (semop(KovDskTblSem_id, &give, 1) != 0)
        Fail("semop (table lock)", errno);
}

void RecoverLock(const std::string &which)
{
    Attach(false);
    int semid = which == "table" ? KovDskTblSem_id : KovDskAccSem_id;
    nlohmann::json lock = LockState(which.c_str(), semid);
    int pid = lock["last_pid"].get<int>();
    if (lock["free"].get<bool>()) {
        Out() << "the " << which << " lock is free\n";
        return;
    }
    if (!lock["stale"].get<bool>())
        Refuse("the " + which + " lock is held by pid " + std::to_string(pid) + Command(pid) +
               ", which is alive: it is not released while its holder lives");
    // Given back only while it is still taken and by the same process, in
    // one step: a lock released meanwhile is not raised to 2.
    struct sembuf release[2] = {{0, 0, IPC_NOWAIT}, {0, 1, IPC_NOWAIT}};
    if (semctl(semid, 0, GETPID) != pid || semop(semid, release, 2) != 0)
        Refuse("the " + which + " lock changed meanwhile; look again with kovdsk status");
    Out() << "released the " << which << " lock left taken by pid " << pid << "\n";
}

struct SlotArgs {
    std::string sort;
    int handle = 0;
    bool yes = false;
};

void RecoverSlot(const SlotArgs &a)
{
    Attach(false);
    bool write = a.sort == "write";
    std::string label = a.sort + " slot " + std::to_string(a.handle);
    if (LockState("table", KovDskTblSem_id)["stale"].get<bool>())
        Refuse(label + ": the table lock is left taken; release it first with: kovdsk recover lock table");
    std::string orphan = OrphanReason(Attached());
    if (orphan.empty() && !a.yes)
        Refuse(label + ": kovdsk cannot tell whether a living process owns this stream (" +
               std::to_string(Attached() - 1) +
               " other processes are attached); if you know it is orphaned, free it with --yes");

    TakeTableLock();
    KovDskAccWrEnt &w = AccTbl->wr[a.handle];
    KovDskAccRdEnt &r = AccTbl->rd[a.handle];
    if (!(write ? w.used : r.used)) {
        GiveTableLock();
        Out() << label << " is free\n";
        return;
    }
    // Read streams and direct streams hold a unit of the activity counter
    // from open to close; a store write stream (it has an area) does not.
    bool counted = !write || w.dir[0] == '\0';
    std::string what = write ? (w.dir[0] ? "\"" + Escape(Field(w.name, sizeof w.name)) + "\" in " +
                                               Escape(Field(w.dir, sizeof w.dir))
                                         : "direct " + Escape(Field(w.file, sizeof w.file)))
                             : (r.dir[0] ? "\"" + Escape(Field(r.name, sizeof r.name)) + "\" in " +
                                               Escape(Field(r.dir, sizeof r.dir))
                                         : "direct");
    std::string partial = write && w.dir[0] ? Escape(FilePath(w)) : "";
    if (write)
        memset(&w, 0, sizeof w);
    else
        memset(&r, 0, sizeof r);
    GiveTableLock();
    if (counted && AccTbl->acc_cnt > 0)
        KovDskAccflg(-1);
    Out() << "freed " << label << " (" << what << ")"
          << (counted ? "; its unit of the activity counter is given back" : "") << "\n";
    if (!partial.empty())
        Out() << "the stored file " << partial << " is left as it is: it may be incomplete\n";
}

void RecoverTable()
{
    Attach(false);
    std::vector<std::string> holds;
    int others = Attached() - 1;
    if (others > 0)
        holds.push_back(std::to_string(others) + " other process" + (others > 1 ? "es are" : " is") +
                        " attached");
    int open = 0;
    for (int i = 0; i < KOVDSK_SLOTS; i++)
        open += (AccTbl->wr[i].used != 0) + (AccTbl->rd[i].used != 0);
    if (open > 0)
        holds.push_back(std::to_string(open) + " slot(s) in use (kovdsk recover slot frees orphans)");
    for (auto [which, semid] : {std::pair{"table", KovDskTblSem_id}, {"access", KovDskAccSem_id}})
        if (!LockState(which, semid)["free"].get<bool>())
            holds.push_back(std::string("the ") + which + " lock is taken");
    if (!holds.empty()) {
        std::string why;
        for (const std::string &h : holds)
            why += (why.empty() ? "" : "; ") + h;
        Refuse("the table is not removed: " + why);
    }
    std::string root = Escape(Field(AccTbl->root, sizeof AccTbl->root));
    // The segment first: from then on no process can attach.
    if (shmctl(KovDskTblShm_id, IPC_RMID, nullptr) != 0)
        Fail("shmctl IPC_RMID", errno);
    if (semctl(KovDskTblSem_id, 0, IPC_RMID) != 0)
        Fail("semctl IPC_RMID (table lock)", errno);
    if (semctl(KovDskAccSem_id, 0, IPC_RMID) != 0)
        Fail("semctl IPC_RMID (access lock)", errno);
    Out() << "removed the table of this boot (root " << root << "); create it anew with: kovdsk init ROOT\n";
}

} // namespace

int Attached()
{
    struct shmid_ds ds;
    if (shmctl(KovDskTblShm_id, IPC_STAT, &ds) != 0)
        return -1;
    return static_cast<int>(ds.shm_nattch);
}

nlohmann::json LockState(const char *which, int semid)
{
    int value = semctl(semid, 0, GETVAL);
    int waiting = semctl(semid, 0, GETNCNT);
    int pid = semctl(semid, 0, GETPID);
    return {{"lock", which}, {"value", value}, {"free", value == 1}, {"waiting", waiting},
            {"last_pid", pid}, {"stale", value == 0 && pid > 0 && !Alive(pid)}};
}

std::string OrphanReason(int attached)
{
    return attached == 1 ? "kovdsk is the only process attached to the table" : "";
}

bool FileGone(const KovDskAccWrEnt &slot) { return Gone(slot); }
bool FileGone(const KovDskAccRdEnt &slot) { return Gone(slot); }

void AddRecoverCommands(CLI::App &app)
{
    auto *rec = app.add_subcommand("recover", "release a lock or free a slot left by a process "
                                              "that is gone; remove the table");
    rec->require_subcommand(1);

    static std::string which;
    auto *lock = rec->add_subcommand("lock", "release a lock whose holder no longer exists");
    lock->add_option("which", which, "table or access")
        ->required()
        ->check(CLI::IsMember({"table", "access"}));
    lock->callback([] { RecoverLock(which); });

    static SlotArgs slot;
    auto *s = rec->add_subcommand("slot", "free the slot of a stream whose process is gone");
    s->add_option("sort", slot.sort, "read or write")->required()->check(CLI::IsMember({"read", "write"}));
    s->add_option("handle", slot.handle, "the slot, 0 to 31")
        ->required()
        ->check(CLI::Range(0, KOVDSK_SLOTS - 1));
    s->add_flag("-y,--yes", slot.yes, "the operator declares the stream orphaned");
    s->callback([] { RecoverSlot(slot); });

    rec->add_subcommand("table", "remove the table of this boot when nothing holds it")
        ->callback(RecoverTable);
}

} // namespace kovcli
