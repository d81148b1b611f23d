/*
 * walkthrough.c - a short tour of libKovDsk on a temporary root.
 *
 * It plays one whole boot of the appliance: the first process creates the
 * table and names the root, makes the store's top directories and shows what
 * the counters say; then one stored file goes into a pass area in pieces and
 * comes back out through its link in "general", with the slots shown at
 * each step. A real appliance never removes the table; this program
 * does at its end, as a restart would, so it can run again.
 *
 * Usage: walkthrough [ROOT]   (default: a new directory under $TMPDIR)
 */
#define _POSIX_C_SOURCE 200809L
#include <kovdsk.h>

#include <dirent.h>
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

static int fail(const char *what);

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

static void write_slot(int h)
{
    const KovDskAccWrEnt *w = &AccTbl->wr[h];
    printf("  write slot %d: used %d, kind %d, name \"%s\", dir %s\n"
           "    file %s, %u bytes waiting in the block\n",
           h, w->used, w->kind, w->name, w->dir, w->file, w->fill);
}

static void read_slot(int h)
{
    const KovDskAccRdEnt *r = &AccTbl->rd[h];
    printf("  read slot %d: used %d, dir %s, %u bytes in the block at %u, "
           "%llu not yet fetched\n",
           h, r->used, r->dir, r->fill, r->pos, (unsigned long long)r->remain);
}

/* One stored file's road: into a pass area in pieces, back out through its
 * link in "general". */
static int road_of_one_file(const char *root)
{
    static char text[10000];
    for (size_t i = 0; i < sizeof text; i++)
        text[i] = (char)('a' + i % 26);

    printf("5. A file \"report\" of kind 42 goes into the pass area of user "
           "\"abc\", pass 1.\n");
    int h = KovDskWriteOpen("report", "q3", "quarterly figures", 42, 3, 0, "abc", 1, 0,
                            "2612312359");
    if (h < 0)
        return fail("KovDskWriteOpen");
    write_slot(h);
    counters("after the open:");
    size_t pieces[] = { 3000, 5000, 2000 };
    size_t done = 0;
    for (size_t i = 0; i < 3; i++) {
        if (KovDskWrite(h, text + done, (unsigned)pieces[i]) < 0)
            return fail("KovDskWrite");
        done += pieces[i];
        char path[2 * KOVDSK_PATH_MAX];
        snprintf(path, sizeof path, "%s/%s", AccTbl->wr[h].dir, AccTbl->wr[h].file);
        printf("  wrote %zu bytes: %d on disk, %u waiting\n", pieces[i],
               KovDskFileSize(path), AccTbl->wr[h].fill);
    }
    char stored[256];
    snprintf(stored, sizeof stored, "%s", AccTbl->wr[h].file);
    if (KovDskWriteClose(h) != 0)
        return fail("KovDskWriteClose");
    counters("after the close:");
    printf("  its three entries:\n");
    const char *entries[] = { "usr/616263/0000000000000001", "general", "usr/616263" };
    for (size_t i = 0; i < 3; i++) {
        char path[900], link[900];
        snprintf(path, sizeof path, "%s/%s/%s", root, entries[i], stored);
        ssize_t n = readlink(path, link, sizeof link - 1);
        link[n < 0 ? 0 : n] = '\0';
        printf("    %s/%s%s%s\n", entries[i], stored, n < 0 ? "" : " -> ", link);
    }

    printf("6. It is read back through \"general\".\n");
    h = KovDskReadOpen("report", 42, 0, 0, NULL, 0);
    if (h < 0)
        return fail("KovDskReadOpen");
    read_slot(h);
    counters("while it is open:");
    static char back[10000];
    int got = 0, n;
    unsigned asks[] = { 100, 6000, 8000, 10 };
    for (size_t i = 0; i < 4; i++) {
        n = KovDskRead(h, back + got, asks[i]);
        if (n < 0)
            return fail("KovDskRead");
        printf("  asked for %u, got %d\n", asks[i], n);
        read_slot(h);
        got += n;
    }
    if (KovDskReadClose(h) != 0)
        return fail("KovDskReadClose");
    printf("  %d bytes, %s what was written\n", got,
           got == (int)sizeof text && memcmp(back, text, sizeof text) == 0 ? "the same as" : "NOT");
    counters("after the close:");
    return 0;
}

static int list_area(const char *title, unsigned area)
{
    KovDskListRes res;
    if (KovDskList(NULL, 0, area, 0, "abc", 1, 0, &res, 0) < 0)
        return fail("KovDskList");
    printf("  %s: %u file(s), %llu bytes\n", title, res.count, (unsigned long long)res.total);
    for (unsigned i = 0; i < res.count; i++) {
        const KovDskListEnt *e = &res.entries[i];
        printf("    \"%s\" kind %u, tags \"%s\" / \"%s\", deadline %s, %lld bytes\n",
               e->name, e->kind, e->short_tag, e->long_tag, e->deadline, (long long)e->size);
    }
    if (res.count)
        free(res.entries);
    return 0;
}

static void show_tree(const char *root)
{
    const char *dirs[] = { "general", "usr", "usr/616263", "usr/616263/0000000000000001" };
    for (size_t i = 0; i < 4; i++) {
        char path[700];
        snprintf(path, sizeof path, "%s/%s", root, dirs[i]);
        DIR *d = opendir(path);
        if (d == NULL) {
            printf("    %-28s gone\n", dirs[i]);
            continue;
        }
        int n = 0;
        struct dirent *e;
        while ((e = readdir(d)) != NULL)
            n += strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0;
        closedir(d);
        printf("    %-28s %d entr%s\n", dirs[i], n, n == 1 ? "y" : "ies");
    }
}

/* The listings see the file from its pass area and through "general"; a
 * delete by rule takes it with both links and the emptied directories. */
static int list_and_delete(const char *root)
{
    printf("7. The pass area and \"general\" are listed.\n");
    if (list_area("usr/616263/0000000000000001", 3) || list_area("general", 0))
        return 1;
    printf("8. The file is deleted by rule: name \"report\", kind 42, in \"general\".\n");
    printf("  before:\n");
    show_tree(root);
    if (KovDskDel("report", 42, 1, 0, 0, NULL, 0) != 0)
        return fail("KovDskDel");
    printf("  after:\n");
    show_tree(root);
    counters("at the end:");
    return 0;
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
    char tmp[] = "/tmp/kovdsk-walkthrough-XXXXXX";
    const char *tmpdir = getenv("TMPDIR");
    char root[512];
    int made_root = argc < 2;

    if (argc >= 2) {
        snprintf(root, sizeof root, "%s", argv[1]);
    } else if (tmpdir && *tmpdir) {
        snprintf(root, sizeof root, "%s/kovdsk-walkthrough-XXXXXX", tmpdir);
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

    int rc = road_of_one_file(root);
    if (rc == 0)
        rc = list_and_delete(root);
    reboot();
    if (made_root) {
        char cmd[600];
        snprintf(cmd, sizeof cmd, "rm -rf '%s'", root);
        if (system(cmd) != 0)
            fprintf(stderr, "could not remove %s\n", root);
    }
    if (rc == 0)
        printf("Done.\n");
    return rc;
}
