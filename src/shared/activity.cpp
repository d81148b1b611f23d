/*
 * activity.cpp - the three counters of the table and the device that hears
 * when the disk goes busy (activity counter at 1) and idle (at 0).
 *
 * The activity counter moves only here, under the access lock; every other
 * part calls KovDskAccUpdate. Where each counter moves is the business of the
 * operations themselves (see the guards in shared.h).
 */
#include "shared/shared.h"

#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr char kDevice[] = "/dev/KovDevDat";
constexpr unsigned long kDevRequest = 16;

// What the device is handed: 20 bytes of no meaning, then the state.
struct KovDskDevRecord {
    char unset[20];
    int32_t state;
};
static_assert(sizeof(KovDskDevRecord) == 24);

// The library relies on nothing that comes back: an absent or unwilling
// device changes nothing.
void KovDskDevTell(int32_t state)
{
    KovDskDevRecord rec;
    memset(&rec, 0, sizeof rec);
    rec.state = state;
    int fd = open(kDevice, O_RDWR);
    if (fd == -1)
        return;
    ioctl(fd, kDevRequest, &rec);
    close(fd);
}

} // namespace

int KovDskAccUpdate(int step)
{
    KovDskErrnoKeeper keep;
    // The step is taken even if the take failed, so that every +1 keeps its
    // -1; but a lock not taken is not released (it would stand at 2).
    bool held = KovDskSemOp(KovDskAccSem_id, -1) == 0;
    int now = AccTbl->acc_cnt += step;
    // On the value, not on a change: 2 -> 1 tells "busy" again, and a step
    // of 0 repeats the state.
    if (now == 1 || now == 0)
        KovDskDevTell(now);
    return held ? KovDskSemOp(KovDskAccSem_id, +1) : -1;
}

int KovDskAccflg(int step)
{
    if (!KovDskAttached())
        return -1;
    return KovDskAccUpdate(step);
}

int KovDskGetAccessedFlg(void)
{
    if (!KovDskAttached())
        return -1;
    return __atomic_load_n(&AccTbl->accessed, __ATOMIC_RELAXED);
}

void KovDskClearAccessedFlg(void)
{
    // Atomic so that a concurrent count from a kind-6 write is never torn.
    if (AccTbl != nullptr)
        __atomic_store_n(&AccTbl->accessed, 0, __ATOMIC_RELAXED);
}

int KovDskGetOperationFlg(void)
{
    if (!KovDskAttached())
        return -1;
    return __atomic_load_n(&AccTbl->op_cnt, __ATOMIC_RELAXED);
}
