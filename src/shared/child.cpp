/*
 * child.cpp - the tools the library runs as child processes (shred,
 * mke2fs, e2fsck): found through PATH, given the caller's standard streams,
 * and waited for. Only their exit code is relied on.
 */
#include "shared/shared.h"

#include <sys/wait.h>
#include <unistd.h>

int KovDskRunTool(const char *const *argv)
{
    int saved = errno;
    pid_t child = fork();
    if (child == -1)
        return -1;
    // The vector lies on the caller's stack, so the child only execs: no
    // allocation after fork in a threaded caller, and _exit, since the
    // caller's exit handlers are not ours.
    if (child == 0)
        _exit(execvp(argv[0], const_cast<char *const *>(argv)));

    // An interrupted wait is issued again, so the child's status is never
    // left unread.
    int status;
    pid_t got;
    do
        got = waitpid(child, &status, 0);
    while (got == -1 && errno == EINTR);
    if (got == -1)
        return -1;
    errno = saved;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
