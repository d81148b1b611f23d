// The date component's stand-in: real UTC by default, steered by tests
// through the environment, which child processes inherit.
#include "harness/boot.h"

#include <ctime>
#include <kovdate.h>

using namespace kovtest;

namespace {
class Date : public Boot {};
}

TEST_F(Date, DefaultIsTheRealUtcTimeWithNoDifference)
{
    struct tm now = {};
    time_t before = time(nullptr);
    ASSERT_EQ(KovDateGetUtcTime(&now), 0);
    EXPECT_GT(now.tm_year, 2000);  // the full year
    struct tm t = now;
    t.tm_year -= 1900;
    long got = (long)timegm(&t);
    EXPECT_GE(got, (long)before);
    EXPECT_LE(got, (long)time(nullptr));

    time_t v = 1000;
    ASSERT_EQ(KovDateWithDiffer(&v), 0);
    EXPECT_EQ(v, 1000);
}

TEST_F(Date, TestsFixTheTimeSetADifferenceAndMakeCallsFail)
{
    SetNow("2041-07-08 09:10:11");
    SetDiffer(-60);
    int rc = RunChild([] {
        struct tm now = {};
        time_t v = 1000;
        if (KovDateGetUtcTime(&now) != 0 || KovDateWithDiffer(&v) != 0)
            return 1;
        bool ok = now.tm_year == 2041 && now.tm_mon == 6 && now.tm_mday == 8 &&
                  now.tm_hour == 9 && now.tm_min == 10 && now.tm_sec == 11 && v == 940;
        return ok ? 0 : 2;
    });
    EXPECT_EQ(rc, 0);

    struct tm now = {};
    time_t v = 5;
    FailDate("utc");
    EXPECT_NE(KovDateGetUtcTime(&now), 0);
    EXPECT_EQ(KovDateWithDiffer(&v), 0);
    FailDate("differ");
    EXPECT_EQ(KovDateGetUtcTime(&now), 0);
    EXPECT_NE(KovDateWithDiffer(&v), 0);
    FailDate("all");
    EXPECT_NE(KovDateGetUtcTime(&now), 0);
    EXPECT_NE(KovDateWithDiffer(&v), 0);
}
