/*
 * table.cpp - the shared table: its creation by the first process of a boot,
 * attachment by every other process, the semaphore wrapper, and the check
 * that hands the table lock to a caller who needs the disk to himself.
 *
 * The table lasts until the system restarts: nothing here detaches, removes
 * the segment or removes a semaphore. A slot is free when its used field is
 * 0; opens and closes of the stream parts set and clear it under the lock.
 */
#include "shared/shared.h"

#include <cstring>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

KovDskAccTbl *AccTbl = nullptr;
int KovDskTblShm_id = -1;
int KovDskTblSem_id = 0;
int KovDskAccSem_id = 0;

namespace {

// Only its inode matters: ftok needs a file every process can find.
constexpr char kKeyFile[] = "/var/lock/kovdsk";

// The longest tail the store puts behind the root:
// "/usr/" + 126 hex characters of a user + "/" + 16 of a pass + "/" + 250.
constexpr size_t kStoreTail = 5 + 126 + 1 + 16 + 1 + 250;
constexpr size_t kRootMax = KOVDSK_PATH_MAX - 1 - kStoreTail;

union KovDskSemun {
    int val;
    struct semid_ds *buf;
    unsigned short *array;
};

// semget on the key of id, then the lock's value set to free when asked.
int KovDskSemAttach(char id, int flags, bool set_free, int *semid)
{
    int key = KovDskKeyGet(id);
    if (key == -1)
        return -1;
    int sem = semget(key, 1, flags);
    if (sem == -1)
        return -1;
    *semid = sem;
    if (set_free) {
        KovDskSemun arg;
        arg.val = 1;
        if (semctl(sem, 0, SETVAL, arg) == -1)
            return -1;
    }
    return 0;
}

// The table's segment, made (create) or found by its key, and attached.
// nullptr with errno: the key file's; for a make EALREADY (made already
// this boot) or ENOMEM; for a find EINIT (none made yet); ENOMEM when it
// cannot be attached.
void *KovDskSegment(bool create)
{
    int key = KovDskKeyGet('T');
    if (key == -1)
        return nullptr;
    int shmid = shmget(key, sizeof(KovDskAccTbl), create ? IPC_CREAT | IPC_EXCL | 0666 : 0666);
    if (shmid == -1) {
        errno = !create ? EINIT : errno == EEXIST ? EALREADY : ENOMEM;
        return nullptr;
    }
    KovDskTblShm_id = shmid;
    void *at = shmat(shmid, nullptr, 0);
    if (at == reinterpret_cast<void *>(-1)) {
        errno = ENOMEM;
        return nullptr;
    }
    return at;
}

// Any read stream, or any write stream but one of kind 6.
bool KovDskAnyStreamOpen()
{
    for (const KovDskAccRdEnt &rd : AccTbl->rd)
        if (rd.used != 0)
            return true;
    for (const KovDskAccWrEnt &wr : AccTbl->wr)
        if (wr.used != 0 && wr.kind != static_cast<int>(KOVDSK_KIND_UNBUFFERED))
            return true;
    return false;
}

// Roots the store cannot work under. The temporary sweep looks for ".1"
// in an entry's whole path, root included, so such a root would make every
// file temporary; and a link's text is split at its first "/usr/", so one
// in the root (with the "/" that follows it) would send every pass area's
// link elsewhere.
bool KovDskRootBreaksStore(const char *root)
{
    size_t len = strlen(root);
    return strstr(root, ".1") != nullptr || strstr(root, "/usr/") != nullptr ||
           (len >= 4 && strcmp(root + len - 4, "/usr") == 0);
}

} // namespace

bool KovDskSlotNameIs(const char *field, const char *name)
{
    size_t n = strnlen(field, KOVDSK_NAME_FIELD);
    return strlen(name) == n && memcmp(field, name, n) == 0;
}

int KovDskSemOp(int semid, int step)
{
    struct sembuf op;
    op.sem_num = 0;
    op.sem_op = static_cast<short>(step);
    op.sem_flg = 0;
    return semop(semid, &op, 1) == -1 ? -1 : 0;
}

int KovDskKeyGet(char id)
{
    struct stat st;
    if (stat(kKeyFile, &st) != 0) {
        int fd = creat(kKeyFile, 0666);
        if (fd == -1)
            return -1;
        fchmod(fd, 0666);  // readable to every process, whatever the umask
        close(fd);
    }
    return ftok(kKeyFile, id);
}

int KovDskInitSet(const char *root)
{
    if (root == nullptr || strlen(root) > kRootMax || KovDskRootBreaksStore(root)) {
        errno = EINVAL;
        return -1;
    }
    void *at = KovDskSegment(true);
    if (at == nullptr)
        return -1;
    AccTbl = static_cast<KovDskAccTbl *>(at);
    memset(AccTbl, 0, sizeof *AccTbl);
    memcpy(AccTbl->root, root, strlen(root));  // the length was checked above

    // No IPC_EXCL: a set left from before is taken over and made free.
    if (KovDskSemAttach('T', IPC_CREAT | 0666, true, &KovDskTblSem_id) == -1)
        return -1;
    if (KovDskSemAttach('D', IPC_CREAT | 0666, true, &KovDskAccSem_id) == -1)
        return -1;

    KovDskAccUpdate(0);  // tells the device that the disk is idle
    return 0;
}

int KovDskInit(void)
{
    if (AccTbl != nullptr)
        return 0;
    void *at = KovDskSegment(false);
    if (at == nullptr)
        return -1;
    // The process counts as attached only once it knows both locks, so a
    // failed attachment can simply be tried again.
    if (KovDskSemAttach('T', 0666, false, &KovDskTblSem_id) == -1 ||
        KovDskSemAttach('D', 0666, false, &KovDskAccSem_id) == -1) {
        KovDskErrnoKeeper keep;
        shmdt(at);
        return -1;
    }
    AccTbl = static_cast<KovDskAccTbl *>(at);
    return 0;
}

int KovDskOpenTblCheck(void)
{
    if (!KovDskAttached())
        return -1;
    // A lock this call did not get cannot be handed to the caller: a 0
    // would have him release it, raising it to 2.
    if (KovDskSemOp(KovDskTblSem_id, -1) == -1)
        return -1;
    if (KovDskAnyStreamOpen()) {
        KovDskErrnoKeeper keep;
        KovDskSemOp(KovDskTblSem_id, +1);
        return 1;
    }
    return 0;  // the table lock stays with the caller
}

int KovDskTblSemFree(void)
{
    if (!KovDskAttached())
        return -1;
    return KovDskSemOp(KovDskTblSem_id, +1);
}
