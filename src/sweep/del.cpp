/*
 * del.cpp - deleting the stored files of one area by file name and kind.
 * The same rule is first held against every open slot of that area: if one
 * is busy, the whole call is refused before anything is deleted.
 */
#include "sweep/sweep.h"

#include "store/store.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

// A slot opened under this very area path on which the rule matches. In
// modes other than 1 and 2 no slot is ever busy.
template <typename Slot>
bool KovDskSlotBusy(const Slot &s, const char *areapath, const KovDskRule &rule)
{
    if (s.used != 1 || strcmp(s.dir, areapath) != 0 || (rule.mode != KOVDSK_MATCH_EXACT && rule.mode != KOVDSK_MATCH_PREFIX))
        return false;
    char slot_name[KOVDSK_NAME_FIELD + 1] = {};
    memcpy(slot_name, s.name, KOVDSK_NAME_FIELD);
    return KovDskNameMatches(rule.mode, rule.name, rule.kind, slot_name,
                             static_cast<unsigned>(s.kind));
}

bool KovDskAreaBusy(const char *areapath, const KovDskRule &rule)
{
    for (const KovDskAccWrEnt &w : AccTbl->wr)
        if (KovDskSlotBusy(w, areapath, rule))
            return true;
    for (const KovDskAccRdEnt &r : AccTbl->rd)
        if (KovDskSlotBusy(r, areapath, rule))
            return true;
    return false;
}

} // namespace

int KovDskDel(const char *name, uint32_t kind, int32_t mode, uint32_t area, uint64_t id,
              const char *user, uint64_t pass)
{
    char areapath[KOVDSK_PATH_MAX], dirpath[KOVDSK_PATH_MAX];
    if (KovDskAreaArg(name == nullptr || kind > KOVDSK_KIND_MAX, area, id, user, pass,
                      KOVDSK_AREAS_ALL, areapath) == -1 ||
        KovDskFullPath(dirpath, areapath) == -1)
        return -1;
    const KovDskRule rule{KovDskRule::ByName, mode, name, kind, nullptr};

    KovDskTableLock lock;
    if (KovDskAreaBusy(areapath, rule)) {
        errno = EAGAIN;
        return -1;
    }
    KovDskActivity busy;
    // In user and pass areas every file goes with its links.
    int left = 0;
    KovDskWalk walk{rule, area >= KOVDSK_AREA_USER ? KovDskWalk::Linked : KovDskWalk::Discard, true};
    if (KovDskTake(areapath, walk, &left) == -1)
        return -1;
    // An id area with nothing left goes too; "general" always stays, and
    // the user tree prunes itself as its files go.
    if (area == KOVDSK_AREA_ID && left == 0 && remove(dirpath) == -1)
        return -1;
    sync();
    return 0;
}
