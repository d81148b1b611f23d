/*
 * lookup.cpp - two questions about one stored file named by file name and
 * kind (kind 0 is kind 0 here, not every kind): which pass area it belongs
 * to, and the path of the regular file behind it.
 */
#include "list/list.h"

#include "store/store.h"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

int KovDskPasCheck(const char *name, uint32_t kind, uint32_t *flag, void *pass)
{
    if (flag != nullptr)
        *flag = 0;
    if (!KovDskAttached())
        return -1;
    if (name == nullptr || kind > KOVDSK_KIND_MAX || pass == nullptr || flag == nullptr) {
        errno = EINVAL;
        return -1;
    }
    memset(pass, 0, KOVDSK_PASS_BUF);

    KovDskTableLock lock;
    KovDskActivity busy;
    // A file of "general" itself is no pass area's: only a link answers.
    char found[KOVDSK_STORED_MAX], path[KOVDSK_PATH_MAX], real[KOVDSK_PATH_MAX];
    struct stat st;
    if (KovDskNameFind("general", kind, name, found, KOVDSK_MATCH_EXACT, KOVDSK_LINKS_TOO) == 0 ||
        KovDskEntryPath(path, "general", found) == -1 || lstat(path, &st) != 0 ||
        !S_ISLNK(st.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    char user[KOVDSK_USER_HEX_BUF], passtext[KOVDSK_PASS_HEX_BUF], file[KOVDSK_STORED_MAX];
    if (KovDskLinkResolve(path, real) == -1 || KovDskPathSplit(real, user, passtext, file) == -1)
        return -1;
    uint64_t value = strtoull(passtext, nullptr, 16);
    memcpy(pass, &value, sizeof value);
    *flag = 1;
    return 0;
}

int KovDskGetRealFileName(const char *name, uint32_t kind, uint32_t area, uint64_t id,
                          const char *user, uint64_t pass, char *path)
{
    char areapath[KOVDSK_PATH_MAX];
    if (KovDskAreaArg(name == nullptr || path == nullptr, area, id, user, pass, KOVDSK_AREAS_ALL,
                      areapath) == -1)
        return -1;

    // No table lock: only the activity brackets the search, so the answer
    // may be out of date the moment it is given.
    KovDskActivity busy;
    char found[KOVDSK_STORED_MAX];
    if (KovDskNameFind(areapath, kind, name, found, KOVDSK_MATCH_EXACT, KOVDSK_LINKS_TOO) == 0) {
        errno = ENOENT;
        return -1;
    }
    if (KovDskEntryPath(path, areapath, found) == -1)
        return -1;
    KovDskResolveInPlace(path);
    return 0;
}
