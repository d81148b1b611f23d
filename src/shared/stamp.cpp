/*
 * stamp.cpp - a file's time from the date component, never from the system
 * clock. Every file or directory that the library makes or writes gets its
 * access and modification time here.
 *
 * Stamping never fails on the file's account: a date component that fails,
 * a time that mktime cannot make, or a utime that is refused all leave the
 * file as it was, return 0 and keep errno.
 */
#include "shared/shared.h"

#include <cstring>
#include <ctime>
#include <kovdate.h>
#include <utime.h>

namespace {

// The record as the date component fills it: six words, full year.
// Years from 2038 on are clamped to 2038-01-01 00:00:00, whatever the date,
// so a 32-bit time_t never overflows.
bool KovDskStampTime(time_t *out)
{
    struct tm now;
    memset(&now, 0, sizeof now);
    if (KovDateGetUtcTime(&now) != 0)
        return false;

    struct tm t;
    memset(&t, 0, sizeof t);
    if (now.tm_year >= 2038) {
        t.tm_year = 2038;
        t.tm_mday = 1;
    } else {
        t.tm_sec = now.tm_sec;
        t.tm_min = now.tm_min;
        t.tm_hour = now.tm_hour;
        t.tm_mday = now.tm_mday;
        t.tm_mon = now.tm_mon;
        t.tm_year = now.tm_year;
    }
    t.tm_year -= 1900;
    t.tm_isdst = 0;  // the appliance's time is UTC: never shift for summer time
    *out = mktime(&t);
    return *out != static_cast<time_t>(-1);
}

// A file below <root>/drivers/<dir>/ also stamps the directory that holds
// it, so a driver package's directory tells when its content last changed.
// Files directly in <root>/drivers stamp nothing more.
void KovDskStampDriversDir(const char *fullpath, const struct utimbuf *times)
{
    size_t rootlen = strlen(AccTbl->root);
    if (strncmp(fullpath, AccTbl->root, rootlen) != 0 || fullpath[rootlen] != '/')
        return;
    const char *rel = fullpath + rootlen + 1;
    if (strncmp(rel, "drivers/", 8) != 0)
        return;

    char dir[KOVDSK_PATH_MAX];
    strncpy(dir, rel, sizeof dir - 1);
    dir[sizeof dir - 1] = '\0';
    *strrchr(dir, '/') = '\0';  // rel holds a "/", so the copy does too
    const char *last = strrchr(dir, '/');
    if (last == nullptr || strcmp(last + 1, "drivers") == 0)
        return;

    char full[KOVDSK_PATH_MAX];
    if (KovDskFullPath(full, dir) == 0)
        utime(full, times);
}

} // namespace

int KovDskStamp(const char *fullpath)
{
    if (!KovDskAttached())
        return -1;
    if (KovDskNoText(fullpath)) {
        errno = EINVAL;
        return -1;
    }
    KovDskErrnoKeeper keep;
    struct utimbuf times;
    if (!KovDskStampTime(&times.modtime))
        return 0;
    times.actime = times.modtime;
    utime(fullpath, &times);
    KovDskStampDriversDir(fullpath, &times);
    return 0;
}
