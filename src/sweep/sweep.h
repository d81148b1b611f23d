/*
 * sweep.h - the two rules of time that deletions and listings share: the
 * current-time text and the expiry test (expiry.cpp). The deletions
 * themselves are in del.cpp (by name and kind) and time_del.cpp (expired
 * and temporary files).
 */
#ifndef KOVDSK_SWEEP_H
#define KOVDSK_SWEEP_H

#include "shared/shared.h"

constexpr int KOVDSK_NOW_BUF = 11;

// The date component's present time as YYMMDDHHMM, the form of a deadline,
// into 11 bytes. -1 with ETIME if the component fails.
int KovDskNowText(char *now);

// A deadline has passed when it is not empty and the current-time text is
// not below it. The comparison is of the characters: a deadline equal to
// the current minute has passed, and there is no century.
bool KovDskExpired(const char *now, const char *deadline);

#endif // KOVDSK_SWEEP_H
