/*
 * kovdate.c - stand-in for the appliance's date component.
 *
 * By default it tells the real UTC time and applies no difference. Tests, or
 * an operator who asks for it, steer it through the environment, which every
 * child process inherits, also across exec:
 *
 *   KOVDATE_NOW="YYYY-MM-DD HH:MM:SS"  a fixed UTC time (any year, also past
 *                                      2038 where time_t has 32 bits)
 *   KOVDATE_DIFFER=N                   seconds added by KovDateWithDiffer
 *   KOVDATE_FAIL=utc|differ|all        make that call answer failure (-1)
 *
 * The variables are read at every call, so a change takes effect at once.
 */
#include "kovdate.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int fails(const char *which)
{
    const char *v = getenv("KOVDATE_FAIL");
    return v && (strcmp(v, which) == 0 || strcmp(v, "all") == 0);
}

int KovDateGetUtcTime(struct tm *now)
{
    if (now == NULL || fails("utc"))
        return -1;

    const char *fixed = getenv("KOVDATE_NOW");
    if (fixed && *fixed) {
        int y, mo, d, h, mi, s;
        char end;
        if (sscanf(fixed, "%d-%d-%d %d:%d:%d%c", &y, &mo, &d, &h, &mi, &s, &end) != 6)
            return -1;
        memset(now, 0, sizeof *now);
        now->tm_sec = s;
        now->tm_min = mi;
        now->tm_hour = h;
        now->tm_mday = d;
        now->tm_mon = mo - 1;
        now->tm_year = y;
        return 0;
    }

    time_t t = time(NULL);
    if (gmtime_r(&t, now) == NULL)
        return -1;
    now->tm_year += 1900;
    return 0;
}

int KovDateWithDiffer(time_t *value)
{
    if (value == NULL || fails("differ"))
        return -1;
    const char *differ = getenv("KOVDATE_DIFFER");
    if (differ && *differ)
        *value += (time_t)strtol(differ, NULL, 10);
    return 0;
}
