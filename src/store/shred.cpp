/*
 * shred.cpp - runs the tool shred on one file, found through PATH, and
 * waits for it. The argument vector is fixed by the callers' flags:
 *
 *   shred [-u] "-n <passes>" [-z] ["-s <size>"] <path>
 */
#include "store/store.h"

#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

int KovDskShredRun(const char *path, int passes, int zero, long long size, int unlink)
{
    if (path == nullptr || passes < 1 || passes > 9 || (zero != 0 && zero != 1) ||
        (unlink != 0 && unlink != 1)) {
        errno = EINVAL;
        return -1;
    }
    pid_t child = fork();
    if (child == -1)
        return -1;
    if (child == 0) {
        // Only the stack here: the child of a threaded caller must not
        // allocate. _exit, not exit: the caller's exit handlers are not ours.
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
        _exit(execvp("shred", const_cast<char *const *>(argv)));  // 255 if it returns
    }

    int status;
    if (KovDskWaitChild(child, &status) == -1)
        return -1;
    int result = WIFSIGNALED(status) ? -1 : WEXITSTATUS(status);
    KovDskErrnoKeeper keep;
    sync();
    return result;
}
