/*
 * list.cpp - KovDskList: what one area holds. The directory is read once,
 * every stored name decoded into a 152-byte record, filtered by kind, name
 * prefix and deadline, and the array sorted three ways. Links count as the
 * files they point to, with the real file's size and time.
 *
 * Beyond reading: filter 2 sweeps expired files first, and an area other
 * than "general" in which nothing at all was seen is removed.
 */
#include "list/list.h"

#include "shared/dir.h"
#include "store/store.h"
#include "sweep/sweep.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The sort keys of a list record, and the three orders made of them.
enum class KovDskKey { Kind, Name, Tag, Time };
using KovDskOrder = KovDskKey[4];
constexpr KovDskOrder kOrders[3] = {
    {KovDskKey::Kind, KovDskKey::Name, KovDskKey::Tag, KovDskKey::Tag},
    {KovDskKey::Kind, KovDskKey::Tag, KovDskKey::Name, KovDskKey::Name},
    {KovDskKey::Time, KovDskKey::Kind, KovDskKey::Name, KovDskKey::Tag},
};

int KovDskCmpKey(KovDskKey key, const KovDskListEnt *a, const KovDskListEnt *b)
{
    switch (key) {
    case KovDskKey::Kind:
        return a->kind < b->kind ? -1 : a->kind > b->kind;
    case KovDskKey::Name:
        return strcmp(a->name, b->name);
    case KovDskKey::Tag:
        return strcmp(a->short_tag, b->short_tag);
    case KovDskKey::Time:
        return a->time < b->time ? -1 : a->time > b->time;
    }
    return 0;
}

// qsort hands a comparator no argument of ours: one comparator per order.
template <int Sort>
int KovDskCmp(const void *pa, const void *pb)
{
    auto a = static_cast<const KovDskListEnt *>(pa), b = static_cast<const KovDskListEnt *>(pb);
    for (KovDskKey key : kOrders[Sort])
        if (int c = KovDskCmpKey(key, a, b))
            return c;
    return 0;
}

int (*const kSorts[3])(const void *, const void *) = {KovDskCmp<0>, KovDskCmp<1>, KovDskCmp<2>};

struct KovDskScan {
    const char *name;
    unsigned kind, filter;
    const char *now;
    uint32_t seen, listed;
    bool partial;
};

// One directory entry: its record appended to *entries when it passes.
void KovDskListEntry(KovDskScan &scan, const char *dirpath, const char *entry,
                     KovDskListRes *result)
{
    char path[KOVDSK_PATH_MAX];
    struct stat st;
    if (!KovDskJoin(path, dirpath, entry) ||
        lstat(path, &st) != 0)
        return;
    if (S_ISLNK(st.st_mode)) {
        char real[KOVDSK_PATH_MAX];
        if (KovDskLinkResolve(path, real) != 0)
            return;  // not even seen
        lstat(real, &st);  // a vanished target leaves the link's own data
    } else if (!S_ISREG(st.st_mode)) {
        scan.seen++;
        return;
    }

    // Zeroed, so that the record holds nothing behind each text's end.
    int kind = 0, tmp = 0;
    char fname[KOVDSK_FNAME_BUF] = {}, stag[KOVDSK_STAG_BUF] = {}, ltag[KOVDSK_LTAG_BUF] = {};
    char deadline[KOVDSK_DEADLINE_BUF] = {};
    int parsed = KovDskNameParse(entry, &kind, fname, stag, ltag, deadline, &tmp);
    scan.seen++;
    if (parsed != 0 || (scan.filter == KOVDSK_FILTER_LIVE && KovDskExpired(scan.now, deadline)) ||
        (scan.kind != 0 && static_cast<unsigned>(kind) != scan.kind) ||
        (!KovDskNoText(scan.name) && strncmp(fname, scan.name, strlen(scan.name)) != 0))
        return;

    void *grown = realloc(result->entries, (scan.listed + 1) * sizeof(KovDskListEnt));
    if (grown == nullptr) {
        scan.partial = true;
        return;
    }
    result->entries = static_cast<KovDskListEnt *>(grown);
    KovDskListEnt &e = result->entries[scan.listed++];
    memset(&e, 0, sizeof e);
    memcpy(e.short_tag, stag, sizeof e.short_tag);
    memcpy(e.long_tag, ltag, sizeof e.long_tag);
    memcpy(e.name, fname, sizeof e.name);
    e.kind = static_cast<uint32_t>(kind);
    e.tmp = static_cast<uint32_t>(tmp);
    memcpy(e.deadline, deadline, sizeof e.deadline);
    e.time = static_cast<int32_t>(st.st_atime);
    e.size = static_cast<int64_t>(st.st_size);
    result->total += static_cast<uint64_t>(e.size);
}

// The scan under the table lock, with the activity counted.
int KovDskListLocked(KovDskScan &scan, unsigned area, const char *areapath,
                     KovDskListRes *result)
{
    char dirpath[KOVDSK_PATH_MAX];
    KovDskDir dir(areapath, dirpath);
    if (!dir.ok())  // an absent id or user area is an empty one
        return area != KOVDSK_AREA_GENERAL && errno == ENOENT ? 0 : -1;

    result->entries = static_cast<KovDskListEnt *>(malloc(sizeof(KovDskListEnt)));
    if (result->entries == nullptr)
        return -1;
    while (!scan.partial) {
        const char *entry = dir.next();
        if (entry == nullptr)
            break;
        KovDskListEntry(scan, dirpath, entry, result);
    }
    return 0;
}

} // namespace

int KovDskList(const char *name, uint32_t kind, uint32_t area, uint64_t id, const char *user,
               uint64_t pass, uint32_t filter, KovDskListRes *result, uint32_t sort)
{
    if (filter == KOVDSK_FILTER_SWEEP && KovDskTimeDel() != 0)
        return -1;  // the header is not touched
    if (result == nullptr) {
        errno = EINVAL;
        return -1;
    }
    result->count = 0;
    result->total = 0;
    if (!KovDskAttached())
        return -1;
    if (kind > KOVDSK_KIND_MAX || filter > KOVDSK_FILTER_SWEEP || sort > KOVDSK_SORT_TIME) {
        errno = EINVAL;
        return -1;
    }
    char areapath[KOVDSK_PATH_MAX], now[KOVDSK_NOW_BUF];
    if (KovDskAreaPath(areapath, area, id, user, pass, KOVDSK_AREAS_ALL) == -1 ||
        KovDskNowText(now) == -1)
        return -1;

    KovDskTableLock lock;
    KovDskActivity busy;
    KovDskScan scan = {name, kind, filter, now, 0, 0, false};
    result->entries = nullptr;
    if (KovDskListLocked(scan, area, areapath, result) == -1) {
        result->total = 0;
        return -1;
    }
    if (scan.listed != 0) {
        result->count = scan.listed;
        qsort(result->entries, scan.listed, sizeof(KovDskListEnt), kSorts[sort]);
    } else {
        free(result->entries);
        result->entries = nullptr;
        result->total = 0;
        char dirpath[KOVDSK_PATH_MAX];
        // Nothing at all in it: an area other than "general" goes.
        if (scan.seen == 0 && area != KOVDSK_AREA_GENERAL && KovDskFullPath(dirpath, areapath) == 0) {
            KovDskErrnoKeeper keep;
            remove(dirpath);
        }
    }
    sync();
    return scan.partial ? 1 : 0;
}
