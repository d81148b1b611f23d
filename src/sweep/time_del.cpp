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

#include <cstdio>
#include <unistd.h>

namespace {

// "uid": every id area in it, a directory and no link to one; nothing
// lying there directly is touched. An id area with nothing left goes too,
// an empty one among them.
int KovDskSweepIds(const KovDskRule &rule)
{
    char dirpath[KOVDSK_PATH_MAX];
    KovDskDir dir("uid", dirpath);
    if (!dir.ok())
        return -1;
    while (const char *entry = dir.next()) {
        char rel[KOVDSK_PATH_MAX], path[KOVDSK_PATH_MAX];
        if (dir.type() != DT_DIR || snprintf(rel, sizeof rel, "uid/%s", entry) >= KOVDSK_PATH_MAX)
            continue;
        int left = 0;
        if (KovDskTake(rel, KovDskWalk{rule, KovDskWalk::Discard, false}, &left) != 0)
            return -1;
        if (left == 0 && (KovDskFullPath(path, rel) == -1 || remove(path) != 0))
            return -1;
    }
    return 0;
}

// An open stream on a file the sweep would take. Direct streams and stored
// files of kind 0 are passed over by the expiry test; the temporary test
// asks a write slot for its flag and a read slot for its stored name.
bool KovDskSweepBusy(const KovDskRule &rule)
{
    bool temporary = rule.what == KovDskRule::Temporary;
    for (const KovDskAccWrEnt &w : AccTbl->wr) {
        if (w.used == 1 && (temporary ? w.tmp == 1 : w.kind != 0 && KovDskRuleTakes(rule, w.file, w.file)))
            return true;
    }
    for (const KovDskAccRdEnt &r : AccTbl->rd) {
        if (r.used == 1 && (temporary || r.kind != 0) && KovDskRuleTakes(rule, r.file, r.file))
            return true;
    }
    return false;
}

// The sweep as a whole: "general", the id areas, and for the expiry sweep
// with trash mode off ".trash". On success the table lock goes before the
// sync and the activity counter comes down last; on failure the counter
// comes down first, inside the lock, and there is no sync.
int KovDskSweep(const KovDskRule &rule)
{
    {
        KovDskTableLock lock;
        if (KovDskSweepBusy(rule)) {
            errno = EAGAIN;
            return -1;
        }
        KovDskAccUpdate(+1);
        int left = 0;
        bool ok = KovDskTake("general", KovDskWalk{rule, KovDskWalk::Discard, true}, &left) == 0 &&
                  KovDskSweepIds(rule) == 0 &&
                  (rule.what != KovDskRule::Expired || AccTbl->trash_mode != KOVDSK_TRASH_OFF ||
                   KovDskTake(".trash", KovDskWalk{{KovDskRule::Everything, 0, nullptr, 0, nullptr},
                                                   KovDskWalk::Remove, false},
                              &left) == 0);
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
    return KovDskSweep(KovDskRule{KovDskRule::Expired, 0, nullptr, 0, now});
}

int KovDskTmpDel(void)
{
    if (!KovDskAttached())
        return -1;
    return KovDskSweep(KovDskRule{KovDskRule::Temporary, 0, nullptr, 0, nullptr});
}
