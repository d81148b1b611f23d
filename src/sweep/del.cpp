/*
 * del.cpp - deleting the stored files of one area by file name and kind.
 * The same rule is first held against every open slot of that area: if one
 * is busy, the whole call is refused before anything is deleted.
 */
#include "sweep/sweep.h"

#include "shared/dir.h"
#include "store/store.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The match rule, for stored files and slots alike: mode 1 exact, mode 2
// prefix with kind 0 for every kind, any other mode everything.
bool KovDskDelMatches(int mode, const char *name, unsigned kind, const char *got_name,
                      unsigned got_kind)
{
    if (mode == 1)
        return strcmp(got_name, name) == 0 && got_kind == kind;
    if (mode == 2)
        return strncmp(got_name, name, strlen(name)) == 0 && (kind == 0 || got_kind == kind);
    return true;
}

// A slot opened under this very area path on which the rule matches.
// In modes other than 1 and 2 no slot is ever busy.
template <typename Slot>
bool KovDskSlotBusy(const Slot &s, const char *areapath, int mode, const char *name, unsigned kind)
{
    if (s.used != 1 || strcmp(s.dir, areapath) != 0 || (mode != 1 && mode != 2))
        return false;
    char slot_name[KOVDSK_NAME_FIELD + 1] = {};
    memcpy(slot_name, s.name, KOVDSK_NAME_FIELD);
    return KovDskDelMatches(mode, name, kind, slot_name, static_cast<unsigned>(s.kind));
}

bool KovDskAreaBusy(const char *areapath, int mode, const char *name, unsigned kind)
{
    for (const KovDskAccWrEnt &w : AccTbl->wr)
        if (KovDskSlotBusy(w, areapath, mode, name, kind))
            return true;
    for (const KovDskAccRdEnt &r : AccTbl->rd)
        if (KovDskSlotBusy(r, areapath, mode, name, kind))
            return true;
    return false;
}

// The walk of the area: every match goes; *left counts what stays.
int KovDskDelWalk(const char *dirpath, unsigned area, int mode, const char *name, unsigned kind,
                  int *left)
{
    KovDskDir dir(dirpath);
    if (!dir.ok())
        return -1;
    while (const char *entry = dir.next()) {
        char path[KOVDSK_PATH_MAX];
        struct stat st;
        int got_kind;
        char got_name[KOVDSK_FNAME_BUF];
        if (!KovDskJoin(path, dirpath, entry) ||
            lstat(path, &st) != 0 || !(S_ISREG(st.st_mode) || S_ISLNK(st.st_mode)) ||
            KovDskNameParse(entry, &got_kind, got_name, nullptr, nullptr, nullptr, nullptr) != 0 ||
            !KovDskDelMatches(mode, name, kind, got_name, static_cast<unsigned>(got_kind))) {
            ++*left;
            continue;
        }
        bool linked = area >= 2 || S_ISLNK(st.st_mode);
        if ((linked ? KovDskLinkedDel(path) : KovDskDiscard(path)) != 0)
            return -1;  // what went so far stays gone
    }
    return 0;
}

} // namespace

int KovDskDel(const char *name, uint32_t kind, int32_t mode, uint32_t area, uint64_t id,
              const char *user, uint64_t pass)
{
    if (!KovDskAttached())
        return -1;
    if (name == nullptr || kind >= 256) {
        errno = EINVAL;
        return -1;
    }
    char areapath[KOVDSK_PATH_MAX], dirpath[KOVDSK_PATH_MAX];
    if (KovDskAreaPath(areapath, area, id, user, pass, KOVDSK_AREAS_ALL) == -1 ||
        KovDskFullPath(dirpath, areapath) == -1)
        return -1;

    KovDskTableLock lock;
    if (KovDskAreaBusy(areapath, mode, name, kind)) {
        errno = EAGAIN;
        return -1;
    }
    KovDskActivity busy;
    int left = 0;
    if (KovDskDelWalk(dirpath, area, mode, name, kind, &left) == -1)
        return -1;
    // An id area with nothing left goes too; "general" always stays, and
    // the user tree prunes itself as its files go.
    if (area == 1 && left == 0 && remove(dirpath) == -1)
        return -1;
    sync();
    return 0;
}
