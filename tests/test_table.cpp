// The shared table: creation, attachment, the table lock handed to a caller,
// and every failure row of creation and attachment.
#include "doubles/interpose.h"
#include "harness/boot.h"

#include <cstring>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace kovtest;

namespace {
class Table : public Boot {};

std::string RootOf(const KovDskAccTbl *t) { return std::string(t->root, strnlen(t->root, sizeof t->root)); }
} // namespace

TEST_F(Table, InitBeforeAnyTableFailsAndStaysUnattached)
{
    EXPECT_EQ(KovDskInit(), -1);
    EXPECT_EQ(errno, EINIT);
    EXPECT_EQ(AccTbl, nullptr);
}

TEST_F(Table, InitSetCreatesClearedTableFreeLocksAndKeyFile)
{
    device::Attach(true);
    if (isolated_) {  // the key file may be removed only where /var/lock is ours
        ASSERT_TRUE(unlink("/var/lock/kovdsk") == 0 || errno == ENOENT);
    }
    mode_t old = umask(022);
    Create();
    umask(old);

    ASSERT_NE(AccTbl, nullptr);
    EXPECT_EQ(RootOf(AccTbl), root_);
    EXPECT_EQ(AccTbl->acc_cnt, 0);
    EXPECT_EQ(AccTbl->trash_seq, 0);
    for (const KovDskAccWrEnt &w : AccTbl->wr)
        EXPECT_EQ(w.used, 0);
    struct shmid_ds ds;
    ASSERT_EQ(shmctl(KovDskTblShm_id, IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.shm_segsz, sizeof(KovDskAccTbl));
    EXPECT_EQ(SemValue(KovDskTblSem_id), 1);
    EXPECT_EQ(SemValue(KovDskAccSem_id), 1);
    EXPECT_NE(KovDskTblSem_id, KovDskAccSem_id);

    struct stat st;
    ASSERT_EQ(stat("/var/lock/kovdsk", &st), 0);
    if (isolated_) {
        EXPECT_EQ(st.st_mode & 0777, 0666u);
    }

    // The creator tells the device that the disk is idle.
    ASSERT_EQ(device::Told(), 1);
    EXPECT_EQ(device::State(0), 0);

    // A second attachment in the same process changes nothing.
    KovDskAccTbl *before = AccTbl;
    EXPECT_EQ(KovDskInit(), 0);
    EXPECT_EQ(AccTbl, before);
}

TEST_F(Table, SecondInitSetFailsWithEalreadyAndLeavesTheTable)
{
    Create();
    AccTbl->accessed = 7;
    KovDskAccTbl *attached = AccTbl;
    EXPECT_EQ(KovDskInitSet("/elsewhere"), -1);
    EXPECT_EQ(errno, EALREADY);
    EXPECT_EQ(AccTbl, attached);
    EXPECT_EQ(RootOf(AccTbl), root_);

    // The same from a process that is not attached.
    Detach();
    EXPECT_EQ(KovDskInitSet("/elsewhere"), -1);
    EXPECT_EQ(errno, EALREADY);
    ASSERT_EQ(KovDskInit(), 0);
    EXPECT_EQ(RootOf(AccTbl), root_);
    EXPECT_EQ(AccTbl->accessed, 7);
}

TEST_F(Table, RootArgumentIsTestedFirst)
{
    EXPECT_EQ(KovDskInitSet(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    // A root that leaves no room for the store's longest path behind it;
    // one holding ".1", which would make every stored file temporary; one
    // with "/usr/" in it (or ending in "/usr"), where links would be split.
    std::string longroot(3697, 'r');
    for (const char *bad : {longroot.c_str(), "/tmp/x/store-v1.1", "/mnt/a.1b", "/usr/local/store",
                            "/mnt/usr", "rel/usr/x"}) {
        EXPECT_EQ(KovDskInitSet(bad), -1) << bad;
        EXPECT_EQ(errno, EINVAL) << bad;
    }
    // Nothing was created by any of them, not even the key file.
    if (isolated_) {
        EXPECT_NE(access("/var/lock/kovdsk", F_OK), 0);
    }
    EXPECT_EQ(KovDskInit(), -1);
    EXPECT_EQ(errno, EINIT);

    std::string fits(3696, 'r');
    ASSERT_EQ(KovDskInitSet(fits.c_str()), 0);
    EXPECT_EQ(RootOf(AccTbl), fits);
}

TEST_F(Table, EmptyRootIsAccepted)
{
    ASSERT_EQ(KovDskInitSet(""), 0);
    EXPECT_EQ(AccTbl->root[0], '\0');
}

TEST_F(Table, KeyFileThatCanBeNeitherFoundNorCreated)
{
    {
        Fault nostat("stat", ENOENT);
        Fault nocreat("creat", EROFS);
        EXPECT_EQ(KovDskInitSet(root_.c_str()), -1);
        EXPECT_EQ(errno, EROFS);
    }
    {
        Fault noftok("ftok", EACCES);
        EXPECT_EQ(KovDskInitSet(root_.c_str()), -1);
        EXPECT_EQ(errno, EACCES);
    }
    EXPECT_EQ(AccTbl, nullptr);
    Create();
    Detach();
    {
        Fault nostat("stat", ENOENT);
        Fault nocreat("creat", EROFS);
        EXPECT_EQ(KovDskInit(), -1);
        EXPECT_EQ(errno, EROFS);
    }
    EXPECT_EQ(AccTbl, nullptr);
}

TEST_F(Table, SharedMemoryFailures)
{
    {
        Fault f("shmget", ENOSPC);
        EXPECT_EQ(KovDskInitSet(root_.c_str()), -1);
        EXPECT_EQ(errno, ENOMEM);
    }
    {
        Fault f("shmat", EMFILE);
        EXPECT_EQ(KovDskInitSet(root_.c_str()), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(AccTbl, nullptr);
    }
    // The segment made by the failed call stays: a later creation is refused.
    EXPECT_EQ(KovDskInitSet(root_.c_str()), -1);
    EXPECT_EQ(errno, EALREADY);
    {
        Fault f("shmget", EACCES);
        EXPECT_EQ(KovDskInit(), -1);
        EXPECT_EQ(errno, EINIT);
    }
    {
        Fault f("shmat", EMFILE);
        EXPECT_EQ(KovDskInit(), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(AccTbl, nullptr);
    }
}

TEST_F(Table, SemaphoreFailuresOfCreationKeepWhatWasMade)
{
    {
        Fault f("semget", ENOSPC);
        EXPECT_EQ(KovDskInitSet(root_.c_str()), -1);
        EXPECT_EQ(errno, ENOSPC);
    }
    // Attached, with the root in it, and a second creation is refused.
    ASSERT_NE(AccTbl, nullptr);
    EXPECT_EQ(RootOf(AccTbl), root_);
    EXPECT_EQ(KovDskInitSet(root_.c_str()), -1);
    EXPECT_EQ(errno, EALREADY);
}

TEST_F(Table, SemctlFailureOfCreationIsPassedOn)
{
    Fault f("semctl", EPERM, 2);  // the access lock's SETVAL
    EXPECT_EQ(KovDskInitSet(root_.c_str()), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(SemValue(KovDskTblSem_id), 1);
}

TEST_F(Table, AttachmentThatCannotFindTheLocksCanBeTriedAgain)
{
    Create();
    Detach();
    {
        Fault f("semget", EIDRM, 2);  // the access lock
        EXPECT_EQ(KovDskInit(), -1);
        EXPECT_EQ(errno, EIDRM);
    }
    EXPECT_EQ(AccTbl, nullptr);
    ASSERT_EQ(KovDskInit(), 0);
    EXPECT_EQ(RootOf(AccTbl), root_);
    EXPECT_EQ(SemValue(KovDskAccSem_id), 1);
}

TEST_F(Table, OtherProcessesShareTheTable)
{
    Create();
    AccTbl->trash_mode = 3;
    int rc = RunChild([&] {
        Detach();
        if (KovDskInit() != 0 || RootOf(AccTbl) != root_ || AccTbl->trash_mode != 3)
            return 1;
        AccTbl->rd[5].used = 1;  // as a read stream of that process would
        return 0;
    });
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(KovDskOpenTblCheck(), 1);
    EXPECT_EQ(SemValue(KovDskTblSem_id), 1);
}

TEST_F(Table, OpenTblCheckCountsEveryStreamButKindSix)
{
    Create();
    AccTbl->wr[0].used = 1;
    AccTbl->wr[0].kind = 6;
    AccTbl->wr[31].used = 1;
    AccTbl->wr[31].kind = 6;
    ASSERT_EQ(KovDskOpenTblCheck(), 0);
    EXPECT_EQ(SemValue(KovDskTblSem_id), 0);  // held for the caller
    ASSERT_EQ(KovDskTblSemFree(), 0);
    EXPECT_EQ(SemValue(KovDskTblSem_id), 1);

    AccTbl->wr[17].used = 1;  // a direct write stream: kind 0
    EXPECT_EQ(KovDskOpenTblCheck(), 1);
    EXPECT_EQ(SemValue(KovDskTblSem_id), 1);
    AccTbl->wr[17].used = 0;

    AccTbl->rd[31].used = 1;
    EXPECT_EQ(KovDskOpenTblCheck(), 1);
    EXPECT_EQ(SemValue(KovDskTblSem_id), 1);
}

TEST_F(Table, HeldTableLockBlocksAnotherProcessUntilFreed)
{
    Create();
    ASSERT_EQ(KovDskOpenTblCheck(), 0);
    pid_t child = StartChild([] {
        Detach();
        if (KovDskInit() != 0)
            return 1;
        return KovDskDirMake("late") == 0 ? 0 : 2;
    });
    ASSERT_GT(child, 0);
    // Wait until the child is queued on the lock, then make sure it stays.
    for (int i = 0; i < 500 && SemWaiting(KovDskTblSem_id) == 0; i++)
        usleep(10000);
    ASSERT_EQ(SemWaiting(KovDskTblSem_id), 1);
    usleep(100000);
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0);
    EXPECT_EQ(access(Path("late").c_str(), F_OK), -1);

    ASSERT_EQ(KovDskTblSemFree(), 0);
    EXPECT_EQ(WaitChild(child), 0);
    EXPECT_EQ(access(Path("late").c_str(), F_OK), 0);
    EXPECT_EQ(SemValue(KovDskTblSem_id), 1);
}

TEST_F(Table, LockOperationsFailCleanly)
{
    // Unattached: answered, never a semop on some other set.
    EXPECT_EQ(KovDskOpenTblCheck(), -1);
    EXPECT_EQ(errno, EINIT);
    EXPECT_EQ(KovDskTblSemFree(), -1);
    EXPECT_EQ(errno, EINIT);

    Create();
    ASSERT_EQ(KovDskOpenTblCheck(), 0);
    {
        Fault f("semop", EINTR);
        EXPECT_EQ(KovDskTblSemFree(), -1);
        EXPECT_EQ(errno, EINTR);
    }
    EXPECT_EQ(SemValue(KovDskTblSem_id), 0);
    EXPECT_EQ(KovDskTblSemFree(), 0);
    EXPECT_EQ(SemValue(KovDskTblSem_id), 1);
}

TEST_F(Table, LockOfAProcessThatDiedStaysTaken)
{
    // No SEM_UNDO: the system does not give back a dead process's lock.
    Create();
    ASSERT_EQ(RunChild([] { return KovDskOpenTblCheck(); }), 0);
    EXPECT_EQ(SemValue(KovDskTblSem_id), 0);
    EXPECT_EQ(KovDskTblSemFree(), 0);
}
