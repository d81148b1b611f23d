/*
 * pending.cpp - operations whose subsystem has not been built yet.
 *
 * Each one is exported already, so that callers link against the whole API
 * from the start, and answers -1 with ENOSYS until its subsystem replaces it.
 * Remove an entry here when its real body lands in src/<subsystem>/.
 */
#include "shared/shared.h"

namespace {
int KovDskNotYet()
{
    errno = ENOSYS;
    return -1;
}
} // namespace

int KovDskSetPasswd(const char *, const char *, unsigned char) { return KovDskNotYet(); }
int KovDskUnlockPasswd(const char *, const char *, unsigned char) { return KovDskNotYet(); }
int KovDskDisablePasswd(const char *, const char *, unsigned char) { return KovDskNotYet(); }
int KovDskReset(const char *) { return KovDskNotYet(); }
int KovDskGetIdentify(const char *, void *) { return KovDskNotYet(); }
int KovDskFdisk(const char *, int32_t, uint32_t, uint32_t, uint32_t, uint32_t) { return KovDskNotYet(); }
int KovDskFormat(const char *, int32_t, int32_t) { return KovDskNotYet(); }
int KovDskChk(const char *) { return KovDskNotYet(); }
