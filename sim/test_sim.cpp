// The choice on the named networks and on random ones.
#include <gtest/gtest.h>

#include "judge.h"

using namespace sim;

namespace {

class Named : public testing::TestWithParam<int> {};

TEST_P(Named, Goals) {
  for (const scenario &one : named_scenarios(GetParam() * 1024)) {
    const verdict v = judge_named(one, 1);
    EXPECT_TRUE(v.broken.empty() && v.behind.empty()) << summary(one, v);
  }
}

INSTANTIATE_TEST_SUITE_P(Packs, Named, testing::Values(16, 32));

// Alone with a trace: sim one SEED.
TEST(Random, HoldAndKeepUpWithTheFluid) {
  constexpr int count = 120, most_behind = 11;
  constexpr double most_stalled = 40;  // seconds beyond the fluid, of all plays together
  int behind = 0;
  double stalled = 0;
  std::string which;
  for (uint64_t seed = 1; seed <= count; ++seed) {
    const scenario one = random_scenario(seed);
    const verdict v = judge(one, seed);
    EXPECT_EQ(v.broken, "") << summary(one, v);
    stalled += v.stalled;
    if (v.behind.empty()) continue;
    ++behind;
    which += summary(one, v) + "\n";
    for (const link_terms &link : one.net.links) which += "  " + link.text() + "\n";
  }
  EXPECT_LE(behind, most_behind) << which;
  EXPECT_LE(stalled, most_stalled) << which;
}

}  // namespace
