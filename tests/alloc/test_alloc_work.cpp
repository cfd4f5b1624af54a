// The allocators within the work arrays the export frame gives them, at
// shapes where a careless layout would spill from one sub-array into the
// next: many (redundant) equalities for the Sharpe-ratio allocator, whose
// first stage must fit beside the second stage's arrays.
#include <gtest/gtest.h>

#include <vector>

#include "lumbra.h"
#include "test_support.h"

namespace {

// Sharpe-ratio weights of a three-asset long-only problem with the budget
// row repeated nEq times among the caller's equalities.
std::vector<double> sharpeWithRepeatedBudget(int nEq, int& code, int& status) {
  int n = 3, nIneq = 0;
  std::vector<double> cov = {0.04, 0.006, 0.002, 0.006, 0.09, 0.009, 0.002, 0.009, 0.0225};
  std::vector<double> mu = {0.06, 0.10, 0.05};
  // Row-major n by nEq: every column is the budget.
  std::vector<double> cons(static_cast<size_t>(n) * nEq, 1.0);
  std::vector<double> rhs(nEq, 1.0);
  std::vector<double> lower(n, 0.0), upper(n, 1.0), weights(n, -1.0);
  double riskFree = 0.01;
  code = ORXallocSharpeRatio(&n, cov.data(), mu.data(), &nEq, &nIneq, cons.data(), rhs.data(),
                             lower.data(), upper.data(), &riskFree, weights.data(), &status);
  return weights;
}

}  // namespace

TEST(AllocatorWork, RedundantEqualitiesDoNotDisturbTheSharpeStages) {
  int code = -1, status = -1;
  const std::vector<double> one = sharpeWithRepeatedBudget(1, code, status);
  ASSERT_EQ(0, code) << status;
  double sum = 0.0;
  for (double w : one) sum += w;
  EXPECT_NEAR(1.0, sum, 1e-12);
  // Far more equality columns than assets: stage 1 sees them, stage 2 skips
  // them, so the weights are those of the single budget row, bit for bit.
  for (const int nEq : {7, 12, 40}) {
    const std::vector<double> many = sharpeWithRepeatedBudget(nEq, code, status);
    ASSERT_EQ(0, code) << "nEq " << nEq << " status " << status;
    for (size_t i = 0; i < one.size(); ++i) EXPECT_BITEQ(one[i], many[i]);
  }
}
