/*
 * uid_usr_pas.cpp - the areas themselves: the ids under "uid", the users under
 * "usr", the passes of one user, each a sorted array of fixed records. Mode
 * 1 hides an area with no live stored file (KovDskRmnFle), mode 2 sweeps
 * expired files first. Unlike the file listing these remove nothing and do
 * not sync.
 */
#include "list/list.h"

#include "shared/dir.h"
#include "store/store.h"
#include "sweep/sweep.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace {

enum class KovDskAreaKind { Ids, Users, Passes };

// One record from a directory's name: the number it names in hex, or the
// user it encodes. false for a user name that decodes to more than the
// record holds, which no area of this library bears.
bool KovDskRecordOf(KovDskAreaKind what, const char *entry, char *record)
{
    if (what != KovDskAreaKind::Users) {
        uint64_t value = strtoull(entry, nullptr, 16);
        memcpy(record, &value, sizeof value);
        return true;
    }
    if (strlen(entry) > 2 * (KOVDSK_USR_REC - 1))
        return false;
    char user[KOVDSK_USR_REC];
    memset(user, 0, sizeof user);
    KovDskHexDec(entry, user);
    memcpy(record, user, KOVDSK_USR_REC);
    return true;
}

// The scan of one directory below the root into *list, under the table lock.
int KovDskAreaScan(KovDskAreaKind what, uint32_t mode, const char *rel, uint32_t *count,
                   char **list)
{
    const size_t size = what == KovDskAreaKind::Users ? KOVDSK_USR_REC : sizeof(uint64_t);
    char dirpath[KOVDSK_PATH_MAX];
    KovDskDir dir(rel, dirpath);
    if (!dir.ok())
        return -1;
    char *records = static_cast<char *>(malloc(size));
    *list = records;
    if (records == nullptr)
        return -1;

    uint32_t n = 0;
    int result = 0;
    while (const char *entry = dir.next()) {
        char path[KOVDSK_PATH_MAX];
        struct stat st;
        if (!KovDskJoin(path, dirpath, entry))
            continue;
        // A link to a directory is a user, never an id or a pass.
        int rc = what == KovDskAreaKind::Users ? stat(path, &st) : lstat(path, &st);
        if (rc != 0 || !S_ISDIR(st.st_mode) || (mode == KOVDSK_LIST_LIVE && KovDskRmnFle(path) <= 0))
            continue;
        char *grown = static_cast<char *>(realloc(records, (n + 1) * size));
        if (grown == nullptr) {
            result = 1;  // what was gathered stays valid
            break;
        }
        records = grown;
        if (KovDskRecordOf(what, entry, records + n * size))
            n++;
    }
    if (n == 0) {
        free(records);
        records = nullptr;
    } else {
        qsort(records, n, size, what == KovDskAreaKind::Users ? KovDskUsrCmp : KovDskIdCmp);
    }
    *list = records;
    *count = n;
    return result;
}

int KovDskAreaList(KovDskAreaKind what, uint32_t mode, const char *user, uint32_t *count,
                   char **list)
{
    if (mode == KOVDSK_LIST_SWEEP && KovDskTimeDel() != 0)
        return -1;
    if (!KovDskAttached())
        return -1;
    if (count == nullptr || list == nullptr || (what == KovDskAreaKind::Passes && user == nullptr)) {
        errno = EINVAL;
        return -1;
    }
    char rel[KOVDSK_PATH_MAX];
    if (what == KovDskAreaKind::Passes)
        KovDskUserPath(rel, user, KOVDSK_USR_REC);  // the first 64 bytes count here
    else
        strcpy(rel, what == KovDskAreaKind::Ids ? "uid" : "usr");

    KovDskTableLock lock;
    KovDskActivity busy;
    return KovDskAreaScan(what, mode, rel, count, list);
}

} // namespace

int KovDskIdCmp(const void *a, const void *b)
{
    uint64_t x, y;
    memcpy(&x, a, sizeof x);
    memcpy(&y, b, sizeof y);
    return x < y ? -1 : x > y;
}

int KovDskUsrCmp(const void *a, const void *b)
{
    return strcmp(static_cast<const char *>(a), static_cast<const char *>(b));
}

int KovDskUidList(uint32_t mode, uint32_t *count, uint64_t **list)
{
    return KovDskAreaList(KovDskAreaKind::Ids, mode, nullptr, count, reinterpret_cast<char **>(list));
}

int KovDskUsrList(uint32_t mode, uint32_t *count, char **list)
{
    return KovDskAreaList(KovDskAreaKind::Users, mode, nullptr, count, list);
}

int KovDskPasList(uint32_t mode, const char *user, uint32_t *count, uint64_t **list)
{
    return KovDskAreaList(KovDskAreaKind::Passes, mode, user, count, reinterpret_cast<char **>(list));
}

int KovDskRmnFle(const char *dirpath)
{
    if (!KovDskAttached())
        return -1;
    if (dirpath == nullptr) {
        errno = EINVAL;
        return -1;
    }
    char now[KOVDSK_NOW_BUF];
    if (KovDskNowText(now) == -1)
        return -1;
    KovDskDir dir(dirpath);
    if (!dir.ok())
        return -1;
    int live = 0;
    while (const char *entry = dir.next()) {
        char path[KOVDSK_PATH_MAX], real[KOVDSK_PATH_MAX];
        char deadline[KOVDSK_DEADLINE_BUF];
        struct stat st;
        if (!KovDskJoin(path, dirpath, entry) ||
            lstat(path, &st) != 0)
            continue;
        if (!S_ISREG(st.st_mode) && !(S_ISLNK(st.st_mode) && KovDskLinkResolve(path, real) == 0))
            continue;
        if (KovDskNameParse(entry, nullptr, nullptr, nullptr, nullptr, deadline, nullptr) == 0 &&
            !KovDskExpired(now, deadline))
            live++;
    }
    return live;
}
