/*
 * kovdate.h - the appliance's date component, as libKovDsk calls it.
 *
 * The appliance ships its own libKovDate.so.1; this header and kovdate.c are
 * a stand-in with the same two calls, so the library can be built and tested
 * here. Neither call takes a lock or needs any set-up.
 */
#ifndef KOVDATE_H
#define KOVDATE_H

#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Fills the first six words of a struct tm-shaped record with the present
 * UTC time: second, minute, hour, day (from 1), month (from 0) and the full
 * year. 0 on success; any other value means the record was not filled. */
int KovDateGetUtcTime(struct tm *now);

/* Moves one time value by the appliance's time difference, in place.
 * 0 on success; any other value means the value was not changed. */
int KovDateWithDiffer(time_t *value);

#ifdef __cplusplus
}
#endif

#endif /* KOVDATE_H */
