/*
 * expiry.cpp - the current-time text and the expiry test, written once for
 * the sweeps and the listings.
 */
#include "sweep/sweep.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <kovdate.h>

int KovDskNowText(char *now)
{
    struct tm t;
    memset(&t, 0, sizeof t);
    if (KovDateGetUtcTime(&t) != 0) {
        errno = ETIME;
        return -1;
    }
    // Twelve digits, the century dropped: YYMMDDHHMM. The second plays no part.
    char full[64];
    snprintf(full, sizeof full, "%04d%02d%02d%02d%02d", t.tm_year, t.tm_mon + 1, t.tm_mday,
             t.tm_hour, t.tm_min);
    memcpy(now, full + 2, KOVDSK_NOW_BUF - 1);
    now[KOVDSK_NOW_BUF - 1] = '\0';
    return 0;
}

bool KovDskExpired(const char *now, const char *deadline)
{
    return deadline[0] != '\0' && strcmp(now, deadline) >= 0;
}
