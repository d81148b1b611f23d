// The activity counter and its device, the accessed flag and the operation
// counter.
#include "doubles/interpose.h"
#include "harness/boot.h"

#include <unistd.h>

using namespace kovtest;

namespace {
class Activity : public Boot {};

std::vector<int> Told()
{
    std::vector<int> states;
    for (int i = 0; i < device::Told(); i++)
        states.push_back(device::State(i));
    return states;
}

// Seen from inside a call: counters and lock values at that moment.
struct Seen {
    int op = -1, acc = -1, tbl = -1, calls = 0;
} seen;
void Look(const CallInfo &)
{
    seen.op = KovDskGetOperationFlg();
    seen.acc = AccTbl->acc_cnt;
    seen.tbl = SemValue(KovDskTblSem_id);
    seen.calls++;
}
} // namespace

TEST_F(Activity, DeviceHearsTheValueNotTheChange)
{
    device::Attach(true);
    Create();
    device::Clear();

    // +1, +1, -1, -1 from 0: state 1, nothing, state 1, state 0.
    for (int step : {+1, +1, -1, -1})
        ASSERT_EQ(KovDskAccflg(step), 0);
    EXPECT_EQ(Told(), (std::vector<int>{1, 1, 0}));
    for (int i = 0; i < device::Told(); i++)
        EXPECT_EQ(device::Request(i), 16u);

    // A step of 0 repeats the state at 0 and 1, and says nothing at 2.
    device::Clear();
    ASSERT_EQ(KovDskAccflg(0), 0);
    ASSERT_EQ(KovDskAccflg(2), 0);
    ASSERT_EQ(KovDskAccflg(0), 0);
    ASSERT_EQ(KovDskAccflg(-1), 0);
    ASSERT_EQ(KovDskAccflg(0), 0);
    EXPECT_EQ(Told(), (std::vector<int>{0, 1, 1}));
    EXPECT_EQ(AccTbl->acc_cnt, 1);
    EXPECT_EQ(SemValue(KovDskAccSem_id), 1);
}

TEST_F(Activity, WithoutTheDeviceEverythingWorksAndErrnoIsKept)
{
    Create();
    errno = EXDEV;
    ASSERT_EQ(KovDskAccflg(+1), 0);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(AccTbl->acc_cnt, 1);
    ASSERT_EQ(KovDskAccflg(-1), 0);
    EXPECT_EQ(AccTbl->acc_cnt, 0);
    EXPECT_EQ(device::Told(), 0);

    // An operation's own errno passes the counter's update unchanged.
    EXPECT_EQ(KovDskFileRemove("absent"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(AccTbl->acc_cnt, 0);
}

TEST_F(Activity, FailedReleaseOfTheAccessLockIsReportedWithErrnoKept)
{
    Create();
    errno = EXDEV;
    {
        Fault f("semop", EIDRM, 2);  // take, then the release fails
        EXPECT_EQ(KovDskAccflg(+1), -1);
    }
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(AccTbl->acc_cnt, 1);
}

TEST_F(Activity, CountersAnswerAnUnattachedProcess)
{
    EXPECT_EQ(KovDskAccflg(1), -1);
    EXPECT_EQ(errno, EINIT);
    EXPECT_EQ(KovDskGetAccessedFlg(), -1);
    EXPECT_EQ(errno, EINIT);
    EXPECT_EQ(KovDskGetOperationFlg(), -1);
    EXPECT_EQ(errno, EINIT);
    KovDskClearAccessedFlg();  // nothing to clear, and no crash
}

TEST_F(Activity, AccessedFlagIsReadAndClearedAcrossProcesses)
{
    Create();
    AccTbl->accessed = 2;
    EXPECT_EQ(RunChild([] {
        Detach();
        if (KovDskInit() != 0 || KovDskGetAccessedFlg() != 2)
            return 1;
        KovDskClearAccessedFlg();
        return 0;
    }), 0);
    EXPECT_EQ(KovDskGetAccessedFlg(), 0);
}

TEST_F(Activity, OperationCounterIsUpOnlyInsideTheTableLock)
{
    Create();
    PutFile("f");
    OnCall spy("stat", Look);
    seen = Seen();
    ASSERT_EQ(KovDskFileChk("f", 0), 0);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.op, 1);
    EXPECT_EQ(seen.tbl, 0);
    EXPECT_EQ(seen.acc, 0);  // a check does not count as activity
    EXPECT_EQ(KovDskGetOperationFlg(), 0);
    EXPECT_EQ(SemValue(KovDskTblSem_id), 1);

    // A failed check leaves it at 0 too.
    {
        Fault f("stat", EIO);
        EXPECT_EQ(KovDskFileChk("f", 0), -1);
        EXPECT_EQ(errno, EIO);
    }
    EXPECT_EQ(KovDskGetOperationFlg(), 0);
}

TEST_F(Activity, RemovalCountsActivityAroundTheLock)
{
    device::Attach(true);
    Create();
    PutFile("f");
    device::Clear();
    OnCall spy("remove", Look);
    seen = Seen();
    ASSERT_EQ(KovDskFileRemove("f"), 0);
    EXPECT_EQ(seen.acc, 1);
    EXPECT_EQ(seen.op, 1);
    EXPECT_EQ(seen.tbl, 0);
    EXPECT_EQ(AccTbl->acc_cnt, 0);
    EXPECT_EQ(Told(), (std::vector<int>{1, 0}));
}
