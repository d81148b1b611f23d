/*
 * dir_list.cpp - KovDskDirList: a plain directory under the root, names as
 * they lie on the disk, filtered by a pattern, sorted by alphasort, each
 * entry a 272-byte record. An entry whose stat fails keeps its place in
 * the array as an all-zero record.
 */
#include "shared/shared.h"

#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <kovdate.h>
#include <sys/stat.h>

// scandir hands its selectors no argument of ours: the pattern of the scan
// under way lies here. The table lock keeps two scans of one process apart.
char filecmp_buf[256];

namespace {

int KovDskDirSelExact(const struct dirent *entry)
{
    return strcmp(entry->d_name, filecmp_buf) == 0;
}

int KovDskDirSelPrefix(const struct dirent *entry)
{
    return strncmp(entry->d_name, filecmp_buf, strlen(filecmp_buf)) == 0;
}

int KovDskDirScan(const char *dir, const char *pattern, struct dirent ***list, uint32_t mode)
{
    strcpy(filecmp_buf, pattern);  // its length was tested on the way in
    int (*select)(const struct dirent *) =
        mode == KOVDSK_DIRLIST_EXACT    ? KovDskDirSelExact
        : mode == KOVDSK_DIRLIST_PREFIX ? KovDskDirSelPrefix
                                        : nullptr;
    return scandir(dir, list, select, alphasort);
}

// The record of one entry; it stays zero if stat fails.
void KovDskDirRecord(const char *dirpath, const struct dirent *entry, KovDskDirEnt *e,
                     uint64_t *total)
{
    char path[KOVDSK_PATH_MAX];
    struct stat st;
    if (!KovDskJoin(path, dirpath, entry->d_name) || stat(path, &st) != 0)
        return;
    memcpy(e->name, entry->d_name, strnlen(entry->d_name, sizeof e->name - 1));
    e->mode = static_cast<uint32_t>(st.st_mode);
    time_t t = st.st_atime;
    e->time = static_cast<int32_t>(KovDateWithDiffer(&t) == 0 ? t : st.st_mtime);
    e->size = static_cast<int64_t>(st.st_size);
    *total += static_cast<uint64_t>(e->size);
}

} // namespace

int KovDskDirList(const char *dir, const char *pattern, KovDskDirRes *result, uint32_t mode)
{
    if (!KovDskAttached())
        return -1;
    if (dir == nullptr || KovDskClimbs(dir) || pattern == nullptr || result == nullptr || mode > KOVDSK_DIRLIST_PREFIX ||
        strlen(pattern) >= sizeof filecmp_buf) {
        errno = EINVAL;
        return -1;
    }
    // The root itself for an empty dir, else root + "/" + dir.
    char dirpath[KOVDSK_PATH_MAX];
    if (dir[0] == '\0') {
        strcpy(dirpath, AccTbl->root);
    } else if (KovDskFullPath(dirpath, dir) == -1) {
        return -1;
    }

    KovDskPathOp op;
    KovDskActivity busy;
    struct dirent **list = nullptr;
    int n = KovDskDirScan(dirpath, pattern, &list, mode);
    if (n < 0)
        return -1;  // result untouched
    if (n == 0) {
        free(list);
        result->count = 0;
        result->total = 0;
        result->entries = nullptr;
        return 0;
    }
    // Zeroed, so that an entry whose stat fails leaves an all-zero record.
    auto entries = static_cast<KovDskDirEnt *>(calloc(static_cast<size_t>(n), sizeof(KovDskDirEnt)));
    result->entries = entries;
    if (entries != nullptr) {
        result->count = n;
        result->total = 0;
    }
    for (int i = 0; i < n; i++) {
        if (entries != nullptr)
            KovDskDirRecord(dirpath, list[i], &entries[i], &result->total);
        free(list[i]);
    }
    free(list);
    if (entries == nullptr) {
        errno = ENOSPC;
        return -1;
    }
    return 0;
}
