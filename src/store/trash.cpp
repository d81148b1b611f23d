/*
 * trash.cpp - how a stored file leaves the store. With trash mode off it is
 * removed at once; with it on it moves to ".trash" under a number, and
 * KovDskFleSrd later overwrites what lies there, one file per call, with
 * shred (shred.cpp).
 *
 * KovDskDiscard and KovDskLinkedDel run under their callers' table lock,
 * which is all that guards trash_seq. There is no rollback: a step that
 * fails ends the work and what was done stays done.
 */
#include "store/store.h"

#include "shared/dir.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Counts the entries of a directory other than "." and "..", and removes it
// when there are none. -1 if it cannot be opened or removed.
int KovDskPruneDir(const char *rel)
{
    char path[KOVDSK_PATH_MAX];
    bool empty;
    {
        KovDskDir dir(rel, path);
        if (!dir.ok())
            return -1;
        empty = dir.next() == nullptr;
    }
    return empty ? remove(path) : 0;
}

// rel built from a format into a full path and removed.
int KovDskRemoveRel(const char *rel)
{
    char path[KOVDSK_PATH_MAX];
    if (KovDskFullPath(path, rel) == -1)
        return -1;
    return remove(path);
}

// The first regular file in ".trash" into path; false if there is none.
bool KovDskFirstGarbage(KovDskDir &trash, const char *trashdir, char *path)
{
    while (const char *entry = trash.next()) {
        struct stat st;
        if (!KovDskJoin(path, trashdir, entry))
            continue;
        if (lstat(path, &st) == 0 && S_ISREG(st.st_mode))
            return true;
    }
    return false;
}

} // namespace

int KovDskDiscard(const char *fullpath)
{
    if (AccTbl->trash_mode == KOVDSK_TRASH_OFF) {
        int rc = remove(fullpath);
        KovDskErrnoKeeper keep;
        sync();
        return rc;
    }
    char rel[32], target[KOVDSK_PATH_MAX];
    snprintf(rel, sizeof rel, ".trash/%016X", static_cast<unsigned>(AccTbl->trash_seq));
    AccTbl->trash_seq++;  // moves on whatever happens next; wraps at 65535
    // ".trash" as a link would take the file out of the root.
    if (KovDskRealDir(".trash") == -1 || KovDskFullPath(target, rel) == -1 ||
        rename(fullpath, target) == -1)
        return -1;
    AccTbl->gbg_flag = 1;
    return 0;  // the callers sync when their work is done
}

int KovDskLinkedDel(const char *path)
{
    char real[KOVDSK_PATH_MAX];
    struct stat st;
    bool link = lstat(path, &st) == 0 && S_ISLNK(st.st_mode);
    if (link) {
        if (KovDskLinkResolve(path, real) == -1)
            return -1;
    } else {
        strncpy(real, path, sizeof real - 1);
        real[sizeof real - 1] = '\0';
    }

    char user[KOVDSK_USER_HEX_BUF], pass[KOVDSK_PASS_HEX_BUF], file[KOVDSK_STORED_MAX];
    if (KovDskPathSplit(real, user, pass, file) == -1)
        return -1;
    char rel[KOVDSK_PATH_MAX];
    // Nothing is taken through a linked directory (a link's own resolution
    // has made sure of that already).
    snprintf(rel, sizeof rel, "usr/%s/%s", user, pass);
    if (!link && KovDskRealDir(rel) == -1)
        return -1;

    // "general" as a link would have the removal of the link happen elsewhere.
    snprintf(rel, sizeof rel, "general/%s", file);
    if (KovDskRealDir("general") == -1 || KovDskRemoveRel(rel) == -1)
        return -1;
    if (KovDskDiscard(real) == -1)
        return -1;
    snprintf(rel, sizeof rel, "usr/%s/%s", user, pass);
    if (KovDskPruneDir(rel) == -1)
        return -1;
    snprintf(rel, sizeof rel, "usr/%s/%s", user, file);
    if (KovDskRemoveRel(rel) == -1)
        return -1;
    snprintf(rel, sizeof rel, "usr/%s", user);
    if (KovDskPruneDir(rel) == -1)
        return -1;
    sync();
    return 0;
}

int KovDskSelDel(int mode)
{
    if (!KovDskAttached())
        return -1;
    KovDskTableLock lock;
    AccTbl->trash_mode = mode;
    return 0;
}

int KovDskGbgChk(void)
{
    if (!KovDskAttached())
        return -1;
    KovDskTableLock lock;
    return AccTbl->trash_mode != KOVDSK_TRASH_OFF ? AccTbl->gbg_flag : 0;
}

int KovDskGbgIni(void)
{
    if (!KovDskAttached())
        return -1;
    KovDskTableLock lock;
    if (AccTbl->trash_mode == KOVDSK_TRASH_OFF)
        return 0;
    KovDskActivity busy;
    char trashdir[KOVDSK_PATH_MAX], path[KOVDSK_PATH_MAX];
    KovDskDir trash(".trash", trashdir);
    if (!trash.ok())
        return -1;
    AccTbl->gbg_flag = KovDskFirstGarbage(trash, trashdir, path) ? 1 : 0;
    return AccTbl->gbg_flag;
}

int KovDskFleSrd(void)
{
    if (!KovDskAttached())
        return -1;
    KovDskTableLock lock;
    if (AccTbl->trash_mode == KOVDSK_TRASH_OFF || AccTbl->gbg_flag == 0)
        return 0;
    KovDskActivity busy;
    char trashdir[KOVDSK_PATH_MAX], path[KOVDSK_PATH_MAX];
    int result;
    {
        KovDskDir trash(".trash", trashdir);
        if (!trash.ok())
            return -1;
        int before = errno;  // 0 and 1 leave errno as it was before the walk
        if (KovDskFirstGarbage(trash, trashdir, path)) {
            // shred's own exit code does not count: a file it left is met
            // again by the next call.
            result = KovDskShredRun(path, 1, 1, 0, 1) == -1 ? -1 : 1;
        } else {
            AccTbl->gbg_flag = 0;
            result = 0;
        }
        if (result != -1)
            errno = before;
    }
    KovDskErrnoKeeper keep;
    sync();
    return result;
}
