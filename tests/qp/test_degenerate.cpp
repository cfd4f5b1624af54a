// SPDX-License-Identifier: Apache-2.0
// The degenerate problems of the bit-exact corpus, checked by what is true
// of any correct answer, so that the check holds on every BLAS: a solve
// that ends with status 0 gives a point that meets every row and bound,
// and that satisfies the Kuhn-Tucker conditions.  Tolerances:
// the data are dyadic and of order one, so the only errors are roundings
// in the factors, a few units of 1e-16 per operation on n <= 9 variables;
// 1e-10 leaves a wide margin and still catches a wrong active set.  The
// Kuhn-Tucker test fits its own multipliers to the active constraints.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "degenerate_problems.h"
#include "qp/qp.h"
#include "qp/solver.h"

namespace {

using Vec = std::vector<double>;
using lumbra::testing::DegenerateQp;
constexpr double kTol = 1e-10;
// Residual of the multiplier fit: its own convergence, well below this.
constexpr double kKktTol = 1e-8;

struct Solved {
  int status = 0;
  Vec x, mult;
};

Solved solve(const DegenerateQp& p) {
  const int n = p.n, m = p.me + p.mi;
  Vec H = p.H, c = p.c, C = p.C, d = p.d, lo = p.lower, up = p.upper;
  Vec work(static_cast<size_t>(n) * (n + 1) + lumbra::qp::kMainWork(n, p.mi));
  std::vector<int> iwork(3 * n + p.me + 2 * p.mi + 1);
  Solved s;
  s.x.assign(n, 0.0), s.mult.assign(n + m, 0.0);
  lumbra::qp::qpDriver(n, H.data(), c.data(), p.me, p.mi, C.data(), d.data(), lo.data(),
                       up.data(), iwork.data(), work.data(), s.mult.data(), s.x.data(),
                       s.status);
  return s;
}

double row(const DegenerateQp& p, int j, const Vec& x) {
  double r = 0.0;
  for (int i = 0; i < p.n; ++i) r += p.C[i + j * p.n] * x[i];
  return r;
}

// Smallest |g + A lambda|_inf over the active normals A, lambda >= 0 on
// the inequalities and bounds, by cyclic coordinate descent on the least
// squares (each step exact in its coordinate, then projected); on these
// few constraints it converges far below the tolerance.
double kktResidual(const DegenerateQp& p, const Vec& x) {
  const int n = p.n, m = p.me + p.mi;
  std::vector<Vec> normals;
  std::vector<bool> signed_;
  for (int j = 0; j < m; ++j) {
    if (j >= p.me && std::fabs(row(p, j, x) - p.d[j]) > kTol) continue;
    normals.emplace_back(p.C.begin() + j * n, p.C.begin() + (j + 1) * n);
    signed_.push_back(j >= p.me);
  }
  for (int i = 0; i < n; ++i)
    for (int side : {1, -1}) {
      const double limit = side > 0 ? p.upper[i] : p.lower[i];
      if (std::fabs(x[i] - limit) > kTol) continue;
      Vec e(n, 0.0);
      e[i] = side;
      normals.push_back(e);
      signed_.push_back(true);
    }
  Vec r(n);  // g + A lambda
  for (int i = 0; i < n; ++i) {
    r[i] = p.c[i];
    for (int j = 0; j < n; ++j) r[i] += p.H[i + j * n] * x[j];
  }
  Vec lambda(normals.size(), 0.0);
  for (int sweep = 0; sweep < 2000; ++sweep)
    for (size_t q = 0; q < normals.size(); ++q) {
      const Vec& a = normals[q];
      double ar = 0.0, aa = 0.0;
      for (int i = 0; i < n; ++i) ar += a[i] * r[i], aa += a[i] * a[i];
      double next = lambda[q] - ar / aa;
      if (signed_[q]) next = std::max(0.0, next);
      const double step = next - lambda[q];
      lambda[q] = next;
      for (int i = 0; i < n; ++i) r[i] += step * a[i];
    }
  double worst = 0.0;
  for (double v : r) worst = std::max(worst, std::fabs(v));
  return worst;
}

}  // namespace

TEST(QpDegenerate, SolvedPointsAreFeasibleAndMeetTheKuhnTuckerConditions) {
  int solved = 0;
  for (int k = 0; k < lumbra::testing::kDegenerateCount; ++k) {
    const DegenerateQp p = lumbra::testing::degenerateProblem(k);
    const Solved s = solve(p);
    // Infeasible members of the family end with "no feasible point".
    if (s.status != 0) {
      EXPECT_EQ(1001, s.status) << k;
      continue;
    }
    ++solved;
    const int n = p.n, me = p.me, m = p.me + p.mi;
    for (int i = 0; i < n; ++i) {
      EXPECT_GE(s.x[i], p.lower[i] - kTol) << k << " x" << i;
      EXPECT_LE(s.x[i], p.upper[i] + kTol) << k << " x" << i;
    }
    for (int j = 0; j < m; ++j) {
      const double e = row(p, j, s.x) - p.d[j];
      if (j < me) {
        EXPECT_NEAR(0.0, e, kTol) << k << " row " << j;
      } else {
        EXPECT_LE(e, kTol) << k << " row " << j;
      }
    }
    // Stationarity: g = H x + c must be minus a combination of the normals
    // of the constraints active at x, with non-negative weights on the
    // inequalities and bounds (the solver's own multipliers are not read:
    // they are left as they stood when the stop test last formed them).
    EXPECT_LE(kktResidual(p, s.x), kKktTol) << k;
  }
  EXPECT_GE(solved, 40);
}

TEST(QpDegenerate, LinearProblemsFitTheirSmallerWork) {
  // The feasibility start's linear problems (H = 0, objective the last
  // variable, bounded below by -1; rows in the other variables; wide
  // bounds, so that the start vertex is full and refined) and the zero
  // Hessian members of the degenerate family, on a work array of exactly
  // n (n + 1) + kLinearWork(n, mi) doubles followed by a guard band (left
  // out under AddressSanitizer, which then catches any overrun itself).
#if defined(__SANITIZE_ADDRESS__)
  const long guard = 0;
#else
  const long guard = 32;
#endif
  const double mark = -0x1.5555p+77;
  std::vector<DegenerateQp> problems;
  for (int k = 0; k < lumbra::testing::kDegenerateCount; ++k)
    if ((k / 6) % 4 == 1) problems.push_back(lumbra::testing::degenerateProblem(k));
  unsigned long long seed = 99;
  auto next = [&seed]() {
    seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<double>(seed >> 11) * 0x1.0p-53;
  };
  for (int N = 3; N <= 12; ++N)
    for (int me = 0; me <= 2 && me < N - 1; ++me)
      for (int mi = 1; mi <= 3; ++mi) {
        DegenerateQp p;
        p.n = N, p.me = me, p.mi = mi;
        p.H.assign(N * N, 0.0);
        p.c.assign(N, 0.0);
        p.c[N - 1] = 1.0;
        p.lower.assign(N, -1e5), p.upper.assign(N, 1e5);
        p.lower[N - 1] = -1.0, p.upper[N - 1] = 999999986991104.0;
        p.C.assign(N * (me + mi), 0.0), p.d.assign(me + mi, 0.0);
        for (int j = 0; j < me + mi; ++j) {
          for (int i = 0; i + 1 < N; ++i) p.C[i + j * N] = j == 0 ? 1.0 : next() - 0.3;
          p.d[j] = j == 0 ? 1.0 : 0.2 + next();
        }
        problems.push_back(p);
      }
  for (const DegenerateQp& p : problems) {
    const int n = p.n, m = p.me + p.mi;
    const long size = static_cast<long>(n) * (n + 1) + lumbra::qp::kLinearWork(n, p.mi);
    Vec H = p.H, c = p.c, C = p.C, d = p.d, lo = p.lower, up = p.upper;
    Vec work(size + guard, mark), x(n, 0.0), mult(n + m, 0.0);
    std::vector<int> iwork(3 * n + p.me + 2 * p.mi + 1);
    int status = 0;
    lumbra::qp::qpDriver(n, H.data(), c.data(), p.me, p.mi, C.data(), d.data(), lo.data(),
                         up.data(), iwork.data(), work.data(), mult.data(), x.data(), status);
    for (long k = size; k < size + guard; ++k)
      EXPECT_TRUE(work[k] == mark) << "n " << n << " mi " << p.mi << ": overrun at " << k;
  }
}
