/*
 * shred.c - stand-in for the tool shred, put first on PATH by tests that
 * check the argument vector. It writes its whole argv, argv[0] included,
 * one per line, to $KOVTEST_SHRED_LOG and exits with $KOVTEST_SHRED_EXIT.
 */
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv)
{
    const char *log = getenv("KOVTEST_SHRED_LOG");
    const char *code = getenv("KOVTEST_SHRED_EXIT");
    FILE *f = log ? fopen(log, "w") : NULL;
    for (int i = 0; f && i < argc; i++)
        fprintf(f, "%s\n", argv[i]);
    if (f)
        fclose(f);
    return code ? atoi(code) : 0;
}
