/*
 * shred.cpp - runs the tool shred on one file, found through PATH, and
 * waits for it. The argument vector is fixed by the callers' flags:
 *
 *   shred [-u] "-n <passes>" [-z] ["-s <size>"] <path>
 */
#include "store/store.h"

#include <cstdio>
#include <unistd.h>

int KovDskShredRun(const char *path, int passes, int zero, long long size, int unlink)
{
    if (path == nullptr || passes < 1 || passes > 9 || (zero != 0 && zero != 1) ||
        (unlink != 0 && unlink != 1)) {
        errno = EINVAL;
        return -1;
    }
    // Only the stack here: the tool's child must not allocate.
    char npasses[8], nsize[32];
    const char *argv[7];
    int argc = 0;
    argv[argc++] = "shred";
    if (unlink)
        argv[argc++] = "-u";
    snprintf(npasses, sizeof npasses, "-n %d", passes);
    argv[argc++] = npasses;
    if (zero)
        argv[argc++] = "-z";
    if (size != 0) {
        snprintf(nsize, sizeof nsize, "-s %lld", size);
        argv[argc++] = nsize;
    }
    argv[argc++] = path;
    argv[argc] = nullptr;
    int result = KovDskRunTool(argv);
    KovDskErrnoKeeper keep;
    sync();
    return result;
}
