/*
 * vup001.cpp - the version-up that moves old files, stored files of kinds 4
 * and 3 lying as regular files in "general", into one user's pass area and
 * gives them the two links of a pass-area file. Their stored names, and so
 * all they carry, stay as they are.
 *
 * First every old file goes from "general" to lie directly in "usr"; then,
 * once both directories of the pass area are made, from "usr" into it.
 */
#include "shared/shared.h"

#include "store/store.h"

#include <cstdio>
#include <cstring>
#include <syslog.h>
#include <unistd.h>

namespace {

// One move per kind and turn, kind 4 first, until a turn finds nothing.
// A rename that fails leaves its file to be found again: that file is
// passed over from then on, so the loop always ends.
int KovDskMoveOld(const char *from, const char *to_dir, bool link)
{
    char skipped[2][KOVDSK_STORED_MAX] = {};
    int moved = 0;
    bool found = true;
    while (found) {
        found = false;
        for (int k = 0; k < 2; k++) {
            const unsigned kind = k == 0 ? 4 : 3;
            char stored[KOVDSK_STORED_MAX], src[KOVDSK_PATH_MAX], dst[KOVDSK_PATH_MAX];
            if (KovDskNameFind(from, kind, "", stored, KOVDSK_MATCH_PREFIX, KOVDSK_FILES_ONLY) == 0 || strcmp(stored, skipped[k]) == 0)
                continue;
            found = true;
            if (KovDskEntryPath(src, from, stored) == -1 || KovDskEntryPath(dst, to_dir, stored) == -1 ||
                rename(src, dst) == -1) {
                strcpy(skipped[k], stored);
                continue;
            }
            moved++;
            if (link)
                KovDskLinkMake(dst);  // its result is not looked at
        }
    }
    return moved;
}

} // namespace

int KovDskVup001(const char *user, uint64_t pass)
{
    if (!KovDskAttached())
        return -1;
    if (user == nullptr) {
        errno = EINVAL;
        return -1;
    }
    char userdir[KOVDSK_PATH_MAX], passdir[KOVDSK_PATH_MAX];
    KovDskAreaPath(userdir, KOVDSK_AREA_USER, 0, user, 0, KOVDSK_AREAS_ALL);
    KovDskAreaPath(passdir, KOVDSK_AREA_PASS, 0, user, pass, KOVDSK_AREAS_ALL);

    KovDskTableLock lock;
    KovDskActivity busy;
    // Old files move into "usr" before any search of it: through a link
    // there they would leave the root.
    if (KovDskRealDir("usr") == -1)
        return -1;
    if (KovDskMoveOld("general", "usr", false) == 0) {
        syslog(LOG_INFO, " [KovDskVup001] No old files");
        return -1;
    }
    // Both directories must be new: a user who has one takes no part.
    if (KovDskMkDir(userdir) == -1) {
        KovDskErrnoKeeper keep;
        syslog(LOG_INFO, " [KovDskVup001] User directory(%s) make fail.", userdir);
        return -1;
    }
    if (KovDskMkDir(passdir) == -1) {
        KovDskErrnoKeeper keep;
        syslog(LOG_INFO, " [KovDskVup001] Passwd directory(%s) make fail.", passdir);
        return -1;
    }
    sync();
    KovDskMoveOld("usr", passdir, true);
    sync();
    return 0;
}
