/*
 * pending.cpp - operations whose subsystem has not been built yet.
 *
 * Each one is exported already, so that callers link against the whole API
 * from the start, and answers -1 with ENOSYS until its subsystem replaces it.
 * Remove an entry here when its real body lands in src/<subsystem>/.
 */
#include "shared/shared.h"

char filecmp_buf[256];

namespace {
int KovDskNotYet()
{
    errno = ENOSYS;
    return -1;
}
} // namespace

int KovDskWriteOpenDirect(const char *, uint32_t) { return KovDskNotYet(); }
int KovDskWriteDirect(uint32_t, const void *, uint32_t) { return KovDskNotYet(); }
int KovDskWriteCloseDirect(uint32_t) { return KovDskNotYet(); }
int KovDskReadOpenDirect(const char *) { return KovDskNotYet(); }
int KovDskReadDirect(int, void *, unsigned int) { return KovDskNotYet(); }
int KovDskReadCloseDirect(int) { return KovDskNotYet(); }
int KovDskDirList(const char *, const char *, KovDskDirRes *, uint32_t) { return KovDskNotYet(); }
int KovDskSetPasswd(const char *, const char *, unsigned char) { return KovDskNotYet(); }
int KovDskUnlockPasswd(const char *, const char *, unsigned char) { return KovDskNotYet(); }
int KovDskDisablePasswd(const char *, const char *, unsigned char) { return KovDskNotYet(); }
int KovDskReset(const char *) { return KovDskNotYet(); }
int KovDskGetIdentify(const char *, void *) { return KovDskNotYet(); }
int KovDskFdisk(const char *, int32_t, uint32_t, uint32_t, uint32_t, uint32_t) { return KovDskNotYet(); }
int KovDskFormat(const char *, int32_t, int32_t) { return KovDskNotYet(); }
int KovDskChk(const char *) { return KovDskNotYet(); }
int KovDskVup001(const char *, uint64_t) { return KovDskNotYet(); }
