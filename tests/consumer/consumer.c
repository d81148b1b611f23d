/*
 * consumer.c - an outside program built against an installed libKovDsk:
 * it compiles with the installed header, links the installed library, and
 * finds no table in a fresh IPC namespace or machine.
 */
#include <kovdsk.h>

#include <stdio.h>

int main(void)
{
    if (sizeof(KovDskListEnt) != 152 || sizeof(KovDskDirEnt) != 272) {
        fprintf(stderr, "record sizes differ from the header's\n");
        return 1;
    }
    if (KovDskInit() == 0 || errno != EINIT) {
        fprintf(stderr, "expected EINIT without a table\n");
        return 1;
    }
    printf("consumer: linked, and no table as expected\n");
    return 0;
}
