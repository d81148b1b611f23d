/*
 * fstool.c - stand-in for mke2fs and e2fsck (built under both names), put
 * first on PATH by tests that check the argument vector or the handling of
 * an exit code. It writes its whole argv, argv[0] included, one per line,
 * to $KOVTEST_TOOL_LOG, then ends by the signal $KOVTEST_TOOL_SIGNAL if
 * that is set, and otherwise exits with $KOVTEST_TOOL_EXIT.
 */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv)
{
    const char *log = getenv("KOVTEST_TOOL_LOG");
    const char *sig = getenv("KOVTEST_TOOL_SIGNAL");
    const char *code = getenv("KOVTEST_TOOL_EXIT");
    FILE *f = log ? fopen(log, "w") : NULL;
    for (int i = 0; f && i < argc; i++)
        fprintf(f, "%s\n", argv[i]);
    if (f)
        fclose(f);
    if (sig) {
        signal(atoi(sig), SIG_DFL);
        raise(atoi(sig));
    }
    return code ? atoi(code) : 0;
}
