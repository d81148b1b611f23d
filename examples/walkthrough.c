/*
 * walkthrough.c - a short tour of libKovDsk on a temporary root.
 *
 * It plays one whole boot of the appliance: the first process creates the
 * table and names the root, makes the store's top directories and shows what
 * the counters say. A real appliance never removes the table; this program
 * does at its end, as a restart would, so it can run again.
 *
 * Usage: kovdsk-walk [ROOT]   (default: a new directory under $TMPDIR)
 */
#define _POSIX_C_SOURCE 200809L
#include <kovdsk.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

static const char *const top_dirs[] = { "general", "uid", "usr", ".trash" };
#define TOP_DIRS (sizeof top_dirs / sizeof top_dirs[0])

static void counters(const char *when)
{
    printf("  %-28s activity %d, accessed %d, operations %d\n", when,
           AccTbl->acc_cnt, KovDskGetAccessedFlg(), KovDskGetOperationFlg());
}

static int fail(const char *what)
{
    int e = errno;
    fprintf(stderr, "%s failed: %s (errno %d)\n", what, strerror(e), e);
    return 1;
}

/* What a restart does to the table: it is gone. */
static void reboot(void)
{
    shmdt(AccTbl);
    shmctl(KovDskTblShm_id, IPC_RMID, NULL);
    semctl(KovDskTblSem_id, 0, IPC_RMID);
    semctl(KovDskAccSem_id, 0, IPC_RMID);
}

int main(int argc, char **argv)
{
    char tmp[] = "/tmp/kovdsk-walk-XXXXXX";
    const char *tmpdir = getenv("TMPDIR");
    char root[512];
    int made_root = argc < 2;

    if (argc >= 2) {
        snprintf(root, sizeof root, "%s", argv[1]);
    } else if (tmpdir && *tmpdir) {
        snprintf(root, sizeof root, "%s/kovdsk-walk-XXXXXX", tmpdir);
        if (mkdtemp(root) == NULL)
            return fail("mkdtemp");
    } else {
        if (mkdtemp(tmp) == NULL)
            return fail("mkdtemp");
        snprintf(root, sizeof root, "%s", tmp);
    }

    printf("1. The first process of the boot creates the table.\n");
    if (KovDskInitSet(root) != 0) {
        if (errno == EALREADY)
            fprintf(stderr, "a table of an earlier run is still there "
                            "(ipcs -m; ipcrm removes it)\n");
        return fail("KovDskInitSet");
    }
    printf("  root %s, table of %zu bytes, %d write and %d read slots\n",
           AccTbl->root, KOVDSK_TBL_SIZE, KOVDSK_SLOTS, KOVDSK_SLOTS);
    counters("after KovDskInitSet:");

    printf("2. Another process attaches: KovDskInit returns %d.\n", KovDskInit());

    printf("3. The store's top directories are made.\n");
    for (size_t i = 0; i < TOP_DIRS; i++) {
        if (KovDskDirMake(top_dirs[i]) != 0)
            return fail("KovDskDirMake");
        printf("  %-8s is a directory: %s, size %d\n", top_dirs[i],
               KovDskFileChk(top_dirs[i], 1) == 0 ? "yes" : "no",
               KovDskFileSize(top_dirs[i]));
    }
    counters("after making them:");

    printf("4. The disk to itself: KovDskOpenTblCheck returns %d", KovDskOpenTblCheck());
    printf(" (no stream open), KovDskTblSemFree returns %d.\n", KovDskTblSemFree());
    counters("at the end:");

    reboot();
    if (made_root) {
        for (size_t i = 0; i < TOP_DIRS; i++) {
            char path[600];
            snprintf(path, sizeof path, "%s/%s", root, top_dirs[i]);
            rmdir(path);
        }
        rmdir(root);
    }
    printf("Done.\n");
    return 0;
}
