// Ratio test: blocking constraint, tie-breaks and step kinds on small
// dyadic data, where every ratio is exact.
#include <gtest/gtest.h>

#include <vector>

#include "qp/factors.h"
#include "test_support.h"

namespace lumbra::qp {
namespace {

struct Ratio {
  int n, mi;
  std::vector<double> lower, upper, x, grad, resid, p, cp;
  std::vector<int> ire;

  int kind = 0, entering = -99;
  double alpha = 0.0;

  Ratio(int n_, int mi_)
      : n(n_), mi(mi_), lower(n_, -1e300), upper(n_, 1e300), x(n_, 0.0), grad(n_, 0.0),
        resid(mi_, -1.0), p(n_, 0.0), cp(mi_, 0.0), ire(n_ + mi_, 0) {}

  void run(int kindIn, double alphaIn = 0.0) {
    std::vector<double> work;
    work.insert(work.end(), grad.begin(), grad.end());
    work.insert(work.end(), resid.begin(), resid.end());
    work.insert(work.end(), p.begin(), p.end());
    work.insert(work.end(), cp.begin(), cp.end());
    kind = kindIn;
    alpha = alphaIn;
    entering = -99;
    const int ibnd = 3;
    qpStepLength(lower.data(), upper.data(), x.data(), alpha, work.data(), ire.data(), entering,
                 ibnd, n, mi, kind);
  }
};

TEST(QpStepLength, TiesBetweenBoundsGoToFirstVariable) {
  Ratio r(3, 0);
  r.p = {0.5, -0.25, 1.0};
  r.upper = {1.0, 1e300, 3.0};   // x_1 upper at ratio 2
  r.lower = {-1e300, -0.5, -1e300};  // x_2 lower at ratio 2
  r.run(0);
  EXPECT_EQ(r.kind, 1);
  EXPECT_EQ(r.entering, 1);
  EXPECT_BITEQ(2.0, r.alpha);
  // the lower bound of the first variable against the upper of the second
  r.p = {-0.5, 0.25, 0.0};
  r.upper = {1e300, 0.5, 1e300};
  r.lower = {-1.0, -1e300, -1e300};
  r.run(0);
  EXPECT_EQ(r.entering, -1);
  EXPECT_BITEQ(2.0, r.alpha);
}

TEST(QpStepLength, TiesWithRowsGoToLaterConstraint) {
  Ratio r(2, 3);
  r.p = {0.5, 0.0};
  r.upper = {1.0, 1e300};  // bound ratio 2
  r.resid = {-1.0, -0.5, -3.0};
  r.cp = {0.5, 0.25, 1.0};  // row ratios 2, 2, 3
  r.run(0);
  EXPECT_EQ(r.entering, 2 + 2);  // the second row, after the bound and the first row
  EXPECT_BITEQ(2.0, r.alpha);
  r.ire[2 + 1] = 1;  // the second row is active: the first row now
  r.run(0);
  EXPECT_EQ(r.entering, 2 + 1);
}

TEST(QpStepLength, SkipsZeroRatiosInactiveFarAndTinyMoves) {
  Ratio r(4, 1);
  r.x = {1.0, 0.0, 0.0, 0.0};
  r.upper = {1.0, 1e200, 0.25, 0.125};  // x_1 on its bound: ratio 0
  r.p = {1.0, 1.0, 1e-12, 1.0};          // x_3 moves less than the tolerance
  r.ire[3] = 1;                          // x_4 is in the working set
  r.resid = {-8.0};
  r.cp = {2.0};  // row ratio 4
  r.run(0);
  EXPECT_EQ(r.kind, 1);
  EXPECT_EQ(r.entering, 5);
  EXPECT_BITEQ(4.0, r.alpha);
}

TEST(QpStepLength, PositiveCurvatureKinds) {
  Ratio r(1, 0);
  r.p = {0.5};
  r.upper = {0.5};  // blocking ratio exactly 1
  r.run(1, 1.0);
  EXPECT_EQ(r.kind, 3);
  EXPECT_EQ(r.entering, 1);
  EXPECT_BITEQ(1.0, r.alpha);
  r.run(1, 0.5);  // natural step shorter: full step
  EXPECT_EQ(r.kind, 2);
  EXPECT_BITEQ(0.5, r.alpha);
  r.run(1, 4.0);  // natural step longer: blocked
  EXPECT_EQ(r.kind, 1);
  EXPECT_EQ(r.entering, 1);
  EXPECT_BITEQ(1.0, r.alpha);
}

TEST(QpStepLength, NothingBlocks) {
  Ratio r(2, 0);
  r.p = {1.0, -0.5};
  r.grad = {-1.0, 0.0};
  r.run(0);  // negative curvature: unbounded
  EXPECT_EQ(r.kind, -1);
  r.run(2);  // null curvature going down: unbounded
  EXPECT_EQ(r.kind, -1);
  r.grad = {0.5, 1.0};  // p'g = 0: flat, no constraint to add, very long
  r.run(2);
  EXPECT_EQ(r.kind, 11);
  EXPECT_EQ(r.entering, 0);
  EXPECT_BITEQ(kOverflow, r.alpha);
}

TEST(QpStepLength, VeryLongStepIsFlagged) {
  Ratio r(1, 0);
  r.p = {1.0};
  r.upper = {33554432.0};  // (1 + 1) * 2^25 = 2^26: not above the limit
  r.run(0);
  EXPECT_EQ(r.kind, 1);
  r.upper = {67108864.0};  // 2 * 2^26 > 2^26
  r.run(2);
  EXPECT_EQ(r.kind, 11);
  EXPECT_EQ(r.entering, 1);
  EXPECT_BITEQ(67108864.0, r.alpha);
}

}  // namespace
}  // namespace lumbra::qp
