// Paths of the allocator engines that the exports cannot reach or do not
// show: the one-asset problem, which skips the feasibility start and keeps
// the scalar solver's status, and what a failed feasibility start leaves in
// the weights.  Work arrays have the exact sizes of the export formulas, so
// the sanitizer build also checks the carving.
#include <gtest/gtest.h>

#include <vector>

#include "alloc/alloc.h"
#include "alloc/alloc_internal.h"
#include "test_support.h"

using namespace lumbra;
using namespace lumbra::alloc;

namespace {

using Vec = std::vector<double>;
constexpr double kSentinel = -7.0;

std::vector<int> mvIntWork(int n, int nEq, int nIneq) {
  return std::vector<int>(3 * n + nEq + 2 * nIneq + 6);
}
Vec mvRealWork(int n, int nEq, int nIneq) {
  return Vec(2 * n + 4 * nEq + 2 * n * (n + nEq + nIneq + 9) + 6 * nIneq + 15);
}
Vec itRealWork(int n, int nEq, int nIneq) {
  return Vec(n * (2 * (n + nEq + nIneq) + 18) + 4 * nEq + 6 * nIneq + 15);
}

}  // namespace

TEST(AllocPaths, OneAssetGoesStraightToTheScalarSolver) {
  // One asset, 0 <= w <= 1, no caller constraints: the return row
  // -mu w <= -target alone fixes the lower end of the interval at
  // target / mu, a dyadic 0.5 here, and the unconstrained minimum 0 lies
  // below it.
  const int n = 1, nEq = 0, nIneq = 0;
  double cov[1] = {0.25};
  const double mu[1] = {0.125}, lower[1] = {0.0}, upper[1] = {1.0};
  const double cons[1] = {0.0}, rhs[1] = {0.0};
  std::vector<int> iwork = mvIntWork(n, nEq, nIneq);
  Vec work = mvRealWork(n, nEq, nIneq);
  double w[1] = {kSentinel};
  int status = 99;
  allocMV(n, cov, mu, nEq, nIneq, cons, rhs, lower, upper, 0.0625, iwork.data(), work.data(),
          w, status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(0.5, w[0]);

  // A target of 0.25 needs w = 2, beyond the upper bound.  With a single
  // variable there is no feasibility start to turn this into -100: the
  // scalar solver's empty interval (-9) comes back as it stands, and the
  // weight is left as it was.
  w[0] = kSentinel;
  allocMV(n, cov, mu, nEq, nIneq, cons, rhs, lower, upper, 0.25, iwork.data(), work.data(), w,
          status);
  EXPECT_EQ(-9, status);
  EXPECT_BITEQ(kSentinel, w[0]);

  // The tracking allocator ends on the same negative status before its
  // verification, which would have said -100.
  const double q[1] = {0.0};
  Vec itWork = itRealWork(n, nEq, nIneq);
  allocIT(n, cov, mu, q, 0.125, nEq, nIneq, cons, rhs, lower, upper, 0.125, iwork.data(),
          itWork.data(), w, status);
  EXPECT_EQ(-9, status);
  EXPECT_BITEQ(kSentinel, w[0]);

  // Reachable: c = -q puts the minimum at q / cov = 0.5, inside the interval
  // from the return limit 0.03125 / 0.125 = 0.25 up to 1; the verification
  // passes and the status is 0.
  const double q2[1] = {0.125};
  allocIT(n, cov, mu, q2, 0.0, nEq, nIneq, cons, rhs, lower, upper, 0.03125, iwork.data(),
          itWork.data(), w, status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(0.5, w[0]);
}

TEST(AllocPaths, FailedFeasibilityStartLeavesItsPointInTheWeights) {
  // Fully invested, long only, and a target above the best asset's return:
  // no portfolio exists.  The auxiliary problem's solver still leaves a
  // point, and the allocator hands that point back with -100 instead of
  // clearing it.
  const int n = 3, nEq = 1, nIneq = 0;
  double cov[9] = {0.0625, 0.0, 0.0, 0.0, 0.03125, 0.0, 0.0, 0.0, 0.015625};
  const double mu[3] = {0.0625, 0.125, 0.25};
  const double cons[3] = {1.0, 1.0, 1.0}, rhs[1] = {1.0};
  const double lower[3] = {0.0, 0.0, 0.0}, upper[3] = {1.0, 1.0, 1.0};
  const double target = 0.5;
  std::vector<int> iwork = mvIntWork(n, nEq, nIneq);
  Vec work = mvRealWork(n, nEq, nIneq);
  double w[3] = {kSentinel, kSentinel, kSentinel};
  int status = 99;
  allocMV(n, cov, mu, nEq, nIneq, cons, rhs, lower, upper, target, iwork.data(), work.data(),
          w, status);
  ASSERT_EQ(-100, status);

  // The same start run on its own, on the problem as the allocator builds
  // it: its status is the solver's (not 0), its point is the first n
  // entries of the auxiliary solution at the start of its work, and that
  // point is what the allocator returned, to the bit.
  const int m = nEq + nIneq;
  Vec C(n * (m + 1)), d(m + 1), c(n);
  int me = 0, mi = 0;
  allocMVBuildProblem(n, mu, target, nEq, nIneq, cons, rhs, me, mi, C.data(), d.data(),
                      c.data());
  std::vector<int> iwork2 = mvIntWork(n, nEq, nIneq);
  Vec scratch = mvRealWork(n, nEq, nIneq);
  double x[3] = {kSentinel, kSentinel, kSentinel};
  int startStatus = 0;
  feasibleStart(n, lower, upper, me, mi, C.data(), d.data(), iwork2.data(), scratch.data(), x,
                startStatus);
  EXPECT_NE(0, startStatus);
  for (int i = 0; i < n; ++i) {
    EXPECT_BITEQ(scratch[i], x[i]) << "i " << i;
    EXPECT_BITEQ(x[i], w[i]) << "i " << i;
  }
}
