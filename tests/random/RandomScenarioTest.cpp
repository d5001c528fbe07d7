// A hundred seeded random conferences, in four groups so that they run side
// by side, two of them with a handful of FileIDs per server; a failing seed
// says how to replay it.
#include "ZV_RandomScenario.h"

#include "QB_TestSupport.h"

#include <gtest/gtest.h>

namespace {

constexpr int kSeedsPerGroup = 25;
constexpr int kSteps = 60;

using RandomConference = ::testing::TestWithParam<int>;

TEST_P(RandomConference, EndsInStepWithEveryFileWhereItBelongs)
{
    for (int i = 0; i < kSeedsPerGroup; ++i)
    {
        QB_TempFolder tmp;
        const uint32_t ulSeed = (uint32_t)(GetParam() * kSeedsPerGroup + i + 1);
        const ZV_RandomReport report =
            ZV_RandomScenario({ulSeed, kSteps, tmp.Path(), false, GetParam() >= 2, {}}).Run();
        EXPECT_TRUE(report.Passed()) << report.Describe();
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomConference, ::testing::Range(0, 4));

} // namespace
