/*
 * time_del.cpp - the two sweeps by rule: KovDskTimeDel takes every stored
 * file whose deadline has passed, KovDskTmpDel every temporary file. Each
 * refuses as a whole if a file it would take is open, then walks "general"
 * and every uid/<id> directory; KovDskTimeDel also empties ".trash" while
 * trash mode is off.
 *
 * Neither walks the usr tree: a pass area's file is met through its link in
 * "general", and KovDskLinkedDel takes it with both links and the emptied
 * directories.
 */
#include "sweep/sweep.h"

#include "shared/dir.h"
#include "store/store.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

enum class KovDskRule { Expired, Temporary };

// Whether an entry falls under the rule. Expiry is judged by the parsed
// name; the temporary mark (".1", the only "." a stored name has) is looked
// for in the whole path, unparsed.
bool KovDskTakes(KovDskRule rule, const char *now, const char *entry, const char *path)
{
    if (rule == KovDskRule::Temporary)
        return strstr(path, ".1") != nullptr;
    char deadline[KOVDSK_DEADLINE_BUF];
    return KovDskNameParse(entry, nullptr, nullptr, nullptr, nullptr, deadline, nullptr) == 0 &&
           KovDskExpired(now, deadline);
}

// "general": regular files are discarded, links taken with their file.
int KovDskSweepGeneral(KovDskRule rule, const char *now)
{
    char dirpath[KOVDSK_PATH_MAX];
    KovDskDir dir("general", dirpath);
    if (!dir.ok())
        return -1;
    while (const char *entry = dir.next()) {
        char path[KOVDSK_PATH_MAX];
        struct stat st;
        if (!KovDskJoin(path, dirpath, entry) || !KovDskTakes(rule, now, entry, path) ||
            lstat(path, &st) != 0)
            continue;
        int rc = 0;
        if (S_ISREG(st.st_mode))
            rc = KovDskDiscard(path);
        else if (S_ISLNK(st.st_mode))
            rc = KovDskLinkedDel(path);
        if (rc != 0)
            return -1;
    }
    return 0;
}

// One uid/<id> directory: its regular files under the rule go, and the
// directory goes too when nothing is left in it.
int KovDskSweepIdArea(KovDskRule rule, const char *now, const char *dirpath)
{
    int left = 0;
    {
        KovDskDir dir(dirpath);
        if (!dir.ok())
            return -1;
        while (const char *entry = dir.next()) {
            char path[KOVDSK_PATH_MAX];
            struct stat st;
            if (!KovDskJoin(path, dirpath, entry) || !KovDskTakes(rule, now, entry, path) ||
                stat(path, &st) != 0 || !S_ISREG(st.st_mode)) {
                left++;
                continue;
            }
            if (KovDskDiscard(path) != 0)
                return -1;
        }
    }
    return left == 0 ? remove(dirpath) : 0;
}

// "uid": every directory in it; nothing lying there directly is touched.
int KovDskSweepIds(KovDskRule rule, const char *now)
{
    char dirpath[KOVDSK_PATH_MAX];
    KovDskDir dir("uid", dirpath);
    if (!dir.ok())
        return -1;
    while (const char *entry = dir.next()) {
        char path[KOVDSK_PATH_MAX];
        struct stat st;
        if (!KovDskJoin(path, dirpath, entry) || stat(path, &st) != 0 || !S_ISDIR(st.st_mode))
            continue;
        if (KovDskSweepIdArea(rule, now, path) != 0)
            return -1;
    }
    return 0;
}

// ".trash" emptied by plain removal, not shredding; the garbage flag stays.
int KovDskSweepTrash()
{
    char dirpath[KOVDSK_PATH_MAX];
    KovDskDir dir(".trash", dirpath);
    if (!dir.ok())
        return -1;
    while (const char *entry = dir.next()) {
        char path[KOVDSK_PATH_MAX];
        struct stat st;
        if (KovDskJoin(path, dirpath, entry) && stat(path, &st) == 0 && S_ISREG(st.st_mode) &&
            remove(path) != 0)
            return -1;
    }
    return 0;
}

// An open stream on a file the sweep would take.
bool KovDskSweepBusy(KovDskRule rule, const char *now)
{
    for (const KovDskAccWrEnt &w : AccTbl->wr) {
        if (w.used != 1)
            continue;
        if (rule == KovDskRule::Temporary ? w.tmp == 1 : w.kind != 0 && KovDskTakes(rule, now, w.file, w.file))
            return true;
    }
    for (const KovDskAccRdEnt &r : AccTbl->rd) {
        if (r.used != 1)
            continue;
        if (rule == KovDskRule::Temporary ? strstr(r.file, ".1") != nullptr
                                          : r.kind != 0 && KovDskTakes(rule, now, r.file, r.file))
            return true;
    }
    return false;
}

// The sweep as a whole. On success the table lock goes before the sync and
// the activity counter comes down last; on failure the counter comes down
// first, inside the lock, and there is no sync.
int KovDskSweep(KovDskRule rule, const char *now)
{
    {
        KovDskTableLock lock;
        if (KovDskSweepBusy(rule, now)) {
            errno = EAGAIN;
            return -1;
        }
        KovDskAccUpdate(+1);
        bool ok = KovDskSweepGeneral(rule, now) == 0 && KovDskSweepIds(rule, now) == 0 &&
                  (rule != KovDskRule::Expired || AccTbl->trash_mode != 0 || KovDskSweepTrash() == 0);
        if (!ok) {
            KovDskAccUpdate(-1);
            return -1;
        }
    }
    sync();
    KovDskAccUpdate(-1);
    return 0;
}

} // namespace

int KovDskTimeDel(void)
{
    if (!KovDskAttached())
        return -1;
    char now[KOVDSK_NOW_BUF];
    if (KovDskNowText(now) == -1)
        return -1;
    return KovDskSweep(KovDskRule::Expired, now);
}

int KovDskTmpDel(void)
{
    if (!KovDskAttached())
        return -1;
    return KovDskSweep(KovDskRule::Temporary, "");
}
