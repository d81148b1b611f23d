/*
 * format.cpp - an ext2 file system made by mke2fs, and one checked and
 * repaired by e2fsck. Both tools are the platform's, found through PATH;
 * they inherit the caller's standard streams, and all that is relied on is
 * their exit code, passed on without interpretation.
 *
 *   mke2fs <path> -q ["-b <block_size>" <block_count>]
 *   e2fsck -f -F -y <path>
 *
 * A format takes the data from under every open stream, so on every normal
 * exit of mke2fs (failure codes and a failed execvp included) all slots and
 * the garbage flag are cleared, without the table lock: the caller keeps
 * streams and formats apart. A child ended by a signal changes nothing.
 */
#include "drive/drive.h"

#include <cstdio>
#include <cstring>
#include <syslog.h>

int KovDskFormat(const char *path, int32_t block_size, int32_t block_count)
{
    syslog(LOG_INFO, " HDD format start...");
    if (!KovDskAttached())  // the slots and the activity counter lie in the table
        return -1;
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    // The pair counts only as a whole; "-b" and its number are one argument.
    char size_arg[16], count_arg[16];
    const char *argv[6] = {"mke2fs", path, "-q", nullptr, nullptr, nullptr};
    if (block_size != 0 && block_count != 0) {
        snprintf(size_arg, sizeof size_arg, "-b %d", block_size);
        snprintf(count_arg, sizeof count_arg, "%d", block_count);
        argv[3] = size_arg;
        argv[4] = count_arg;
    }

    int code;
    {
        KovDskActivity busy;  // for the whole run of the child
        sync();
        code = KovDskRunTool(argv);
        if (code < 0)
            return -1;  // no child status: nothing cleared, no end line
        memset(AccTbl->wr, 0, sizeof AccTbl->wr);
        memset(AccTbl->rd, 0, sizeof AccTbl->rd);
        AccTbl->gbg_flag = 0;
        sync();
    }
    syslog(LOG_INFO, " HDD format terminated.");
    return code;
}

int KovDskChk(const char *path)
{
    syslog(LOG_INFO, " HDD data check start...");
    if (!KovDskAttached())
        return -1;
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const char *argv[6] = {"e2fsck", "-f", "-F", "-y", path, nullptr};

    int code;
    {
        KovDskActivity busy;
        sync();
        code = KovDskRunTool(argv);
        if (code < 0)
            return -1;
        sync();
    }
    syslog(LOG_INFO, " HDD data check terminated.");
    return code;
}
