// SPDX-License-Identifier: Apache-2.0
// Ratio test: blocking constraint, tie-breaks and step kinds on small
// dyadic data, where every ratio is exact.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "qp/factors.h"
#include "test_support.h"

namespace lumbra::qp {
namespace {

using Vec = std::vector<double>;
constexpr double kFar = 1e300;  // an absent bound
constexpr int kAny = -99;       // entering not checked

struct Case {
  const char* what;
  int n, mi;
  Vec p, lower, upper, x, grad, resid, cp;  // empty: absent bounds, zeros, residuals -1
  std::vector<int> ire;
  int kindIn;
  double alphaIn;
  int kind, entering;
  double alpha;  // NaN: not checked
};

TEST(QpStepLength, Cases) {
  const double any = std::nan("");
  const Case cases[] = {
      {"bound ties go to the first variable", 3, 0, {0.5, -0.25, 1.0}, {-kFar, -0.5, -kFar},
       {1.0, kFar, 3.0}, {}, {}, {}, {}, {}, 0, 0.0, 1, 1, 2.0},
      {"first variable's lower against second's upper", 3, 0, {-0.5, 0.25, 0.0},
       {-1.0, -kFar, -kFar}, {kFar, 0.5, kFar}, {}, {}, {}, {}, {}, 0, 0.0, 1, -1, 2.0},
      {"ties with rows go to the later constraint", 2, 3, {0.5, 0.0}, {}, {1.0, kFar}, {}, {},
       {-1.0, -0.5, -3.0}, {0.5, 0.25, 1.0}, {}, 0, 0.0, 1, 2 + 2, 2.0},
      {"an active row is passed over", 2, 3, {0.5, 0.0}, {}, {1.0, kFar}, {}, {},
       {-1.0, -0.5, -3.0}, {0.5, 0.25, 1.0}, {0, 0, 0, 1, 0}, 0, 0.0, 1, 2 + 1, 2.0},
      // x_1 on its bound (ratio 0), x_2 far, x_3 moves below tolerance, x_4 active
      {"skips zero, far, tiny and active", 4, 1, {1.0, 1.0, 1e-12, 1.0}, {},
       {1.0, 1e200, 0.25, 0.125}, {1.0, 0.0, 0.0, 0.0}, {}, {-8.0}, {2.0}, {0, 0, 0, 1, 0}, 0,
       0.0, 1, 5, 4.0},
      {"natural step equal to the block", 1, 0, {0.5}, {}, {0.5}, {}, {}, {}, {}, {}, 1, 1.0, 3,
       1, 1.0},
      {"natural step shorter: full step", 1, 0, {0.5}, {}, {0.5}, {}, {}, {}, {}, {}, 1, 0.5, 2,
       kAny, 0.5},
      {"natural step longer: blocked", 1, 0, {0.5}, {}, {0.5}, {}, {}, {}, {}, {}, 1, 4.0, 1, 1,
       1.0},
      {"negative curvature, nothing blocks", 2, 0, {1.0, -0.5}, {}, {}, {}, {-1.0, 0.0}, {}, {},
       {}, 0, 0.0, -1, kAny, any},
      {"null curvature downhill, nothing blocks", 2, 0, {1.0, -0.5}, {}, {}, {}, {-1.0, 0.0}, {},
       {}, {}, 2, 0.0, -1, kAny, any},
      {"flat, nothing blocks: very long", 2, 0, {1.0, -0.5}, {}, {}, {}, {0.5, 1.0}, {}, {}, {},
       2, 0.0, 11, 0, kOverflow},
      {"(1 + 1) 2^25 = 2^26 is not above the limit", 1, 0, {1.0}, {}, {33554432.0}, {}, {}, {},
       {}, {}, 0, 0.0, 1, kAny, any},
      {"2^27 > 2^26: flagged", 1, 0, {1.0}, {}, {67108864.0}, {}, {}, {}, {}, {}, 2, 0.0, 11, 1,
       67108864.0},
  };
  for (const Case& c : cases) {
    auto orFill = [](const Vec& v, int len, double fill) { return v.empty() ? Vec(len, fill) : v; };
    Vec work = orFill(c.grad, c.n, 0.0), lower = orFill(c.lower, c.n, -kFar),
        upper = orFill(c.upper, c.n, kFar), x = orFill(c.x, c.n, 0.0);
    for (const Vec& part : {orFill(c.resid, c.mi, -1.0), c.p, orFill(c.cp, c.mi, 0.0)})
      work.insert(work.end(), part.begin(), part.end());
    std::vector<int> ire = c.ire.empty() ? std::vector<int>(c.n + c.mi, 0) : c.ire;
    int kind = c.kindIn, entering = kAny;
    double alpha = c.alphaIn;
    qpStepLength(lower.data(), upper.data(), x.data(), alpha, work.data(), ire.data(), entering,
                 3, c.n, c.mi, kind);
    EXPECT_EQ(c.kind, kind) << c.what;
    EXPECT_EQ(c.entering == kAny ? entering : c.entering, entering) << c.what;
    EXPECT_BITEQ(std::isnan(c.alpha) ? alpha : c.alpha, alpha) << c.what;
  }
  // Bound mode 2 (upper bounds only): the upper bound 0.5 blocks p = 0.5 at
  // alpha 1; the lower bound -0.25 of the second, which would block at 0.25,
  // is not looked at.
  const double lower[2] = {-kFar, -0.25}, upper[2] = {0.5, kFar}, x[2] = {0.0, 0.0};
  double work[4] = {0.0, 0.0, 0.5, -1.0};  // gradient, then p
  int ire[2] = {0, 0}, kind = 1, entering = kAny;
  double alpha = 4.0;
  qpStepLength(lower, upper, x, alpha, work, ire, entering, 2, 2, 0, kind);
  EXPECT_EQ(1, kind);
  EXPECT_EQ(1, entering);
  EXPECT_BITEQ(1.0, alpha);
}

}  // namespace
}  // namespace lumbra::qp
