// SPDX-License-Identifier: Apache-2.0
// The factor operations of the minimiser against the matrix they stand for:
// after every operation H is rebuilt from T, R, Q and position and compared
// with a plain dense matrix updated by hand.  The rebuilt matrix passes
// through O(n) rounded operations per update, so the comparison is to
// 1e-10 relative to the largest element (sizes up to 9, matrices
// conditioned below about 1e3).  Exact cases use small dyadic data.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "kernels/index.h"
#include "nearness/minimiser_internal.h"
#include "test_support.h"

namespace {

using lumbra::at;
using lumbra::i64;
using namespace lumbra::nearness;
using Vec = std::vector<double>;
using IVec = std::vector<int>;

// H in working order (column-major n by n) from hess with r free positions.
Vec rebuildWorking(const Vec& hess, int n, int r) {
  Vec H(static_cast<size_t>(n) * n, 0.0);
  auto L = [&](i64 i, i64 l) { return i == l ? 1.0 : hess[factorAt(i, l, r)]; };
  for (i64 i = 0; i < r; ++i)
    for (i64 j = 0; j <= i; ++j) {
      double s = 0.0;
      for (i64 l = 0; l <= j; ++l) s += L(i, l) * hess[factorAt(l, l, r)] * L(j, l);
      H[at(i, j, n)] = H[at(j, i, n)] = s;
    }
  for (i64 i = 0; i < r; ++i)
    for (i64 k = r; k < n; ++k) H[at(i, k, n)] = H[at(k, i, n)] = hess[couplingAt(i, k, r, n)];
  for (i64 k = r; k < n; ++k)
    for (i64 l = k; l < n; ++l) H[at(k, l, n)] = H[at(l, k, n)] = hess[activeAt(k, l, n)];
  return H;
}

// The same in variable order, through position.
Vec rebuild(const Vec& hess, int n, int r, const IVec& position) {
  const Vec W = rebuildWorking(hess, n, r);
  Vec H(W.size());
  for (i64 a = 0; a < n; ++a)
    for (i64 b = 0; b < n; ++b) H[at(a, b, n)] = W[at(position[a] - 1, position[b] - 1, n)];
  return H;
}

double maxAbs(const Vec& v) {
  double m = 0.0;
  for (double e : v) m = std::max(m, std::fabs(e));
  return m;
}

::testing::AssertionResult near(const Vec& expected, const Vec& actual, double rel) {
  const double tol = rel * std::max(1.0, maxAbs(expected));
  for (size_t i = 0; i < expected.size(); ++i)
    if (!(std::fabs(expected[i] - actual[i]) <= tol))
      return ::testing::AssertionFailure()
             << "element " << i << ": expected " << expected[i] << ", got " << actual[i];
  return ::testing::AssertionSuccess();
}

// x' A^-1 x by a dense Cholesky factor of the SPD matrix A (order m).
double inverseForm(Vec A, i64 m, Vec x) {
  for (i64 j = 0; j < m; ++j) {
    for (i64 k = 0; k < j; ++k) A[at(j, j, m)] -= A[at(j, k, m)] * A[at(j, k, m)];
    A[at(j, j, m)] = std::sqrt(A[at(j, j, m)]);
    for (i64 i = j + 1; i < m; ++i) {
      for (i64 k = 0; k < j; ++k) A[at(i, j, m)] -= A[at(i, k, m)] * A[at(j, k, m)];
      A[at(i, j, m)] /= A[at(j, j, m)];
    }
  }
  double s = 0.0;
  for (i64 i = 0; i < m; ++i) {
    for (i64 k = 0; k < i; ++k) x[i] -= A[at(i, k, m)] * x[k];
    x[i] /= A[at(i, i, m)];
    s += x[i] * x[i];
  }
  return s;
}

// A random SPD matrix B B' / n + I, and hess holding its LDL' factor with
// every variable free and position the identity.
struct Factored {
  int n;
  Vec H, hess;
  IVec position;
  int r;
};

Factored randomFactored(int n, std::mt19937_64& rng) {
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  Vec B(static_cast<size_t>(n) * n);
  for (double& e : B) e = u(rng);
  Factored s{n, Vec(static_cast<size_t>(n) * n), Vec(static_cast<size_t>(n) * (n + 1) / 2),
          IVec(n), n};
  for (i64 i = 0; i < n; ++i)
    for (i64 j = 0; j < n; ++j) {
      double v = i == j ? 1.0 : 0.0;
      for (i64 k = 0; k < n; ++k) v += B[at(i, k, n)] * B[at(j, k, n)] / n;
      s.H[at(i, j, n)] = v;
    }
  for (i64 j = 0; j < n; ++j)
    for (i64 i = j; i < n; ++i) s.hess[factorAt(i, j, n)] = s.H[at(i, j, n)];
  int rank = -1;
  factorFromMatrix(s.hess.data(), n, rank);
  EXPECT_EQ(rank, n);
  for (int i = 0; i < n; ++i) s.position[i] = i + 1;
  return s;
}

// H += sigma z z' with z given in variable order.
void referenceRankOne(Factored& s, double sigma, const Vec& zVar) {
  for (i64 a = 0; a < s.n; ++a)
    for (i64 b = 0; b < s.n; ++b) s.H[at(a, b, s.n)] += sigma * zVar[a] * zVar[b];
}

TEST(FactorUpdates, RandomSequencesMatchDirectRecomputation) {
  std::mt19937_64 rng(20240611);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int n : {1, 2, 3, 5, 9}) {
    for (int rep = 0; rep < 4; ++rep) {
      Factored s = randomFactored(n, rng);
      Vec w(n);
      int zeroFree = 0, fullFree = 0;
      for (int step = 0; step < 60; ++step) {
        const int op = static_cast<int>(rng() % 4);
        if (op == 0 || op == 1) {
          // Update, or a downdate that keeps H positive definite:
          // sigma = -0.5 / (z' H^-1 z).
          Vec zVar(n);
          for (double& e : zVar) e = u(rng);
          const double sigma = op == 0 ? 0.5 + 0.5 * u(rng) : -0.5 / inverseForm(s.H, n, zVar);
          Vec z(n);
          permuteVector(1, n, zVar.data(), z.data(), s.position.data());
          int ir = s.r;
          hessianRankOne(s.hess.data(), n, s.r, z.data(), sigma, w.data(), ir, 0, 0.0);
          if (s.r > 0) {
            EXPECT_EQ(ir, s.r);
          }
          referenceRankOne(s, sigma, zVar);
        } else if (op == 2 && s.r > 0) {
          int k = 0;
          do {
            k = 1 + static_cast<int>(rng() % n);
          } while (s.position[k - 1] > s.r);
          factorRemove(n, k, s.r, s.hess.data(), w.data(), s.position.data());
          EXPECT_EQ(s.position[k - 1], s.r + 1);
        } else if (op == 3 && s.r < n) {
          int k = 0;
          do {
            k = 1 + static_cast<int>(rng() % n);
          } while (s.position[k - 1] <= s.r);
          int result = 99;
          factorInsert(result, n, k, s.r, s.hess.data(), w.data(), s.position.data(), 0);
          ASSERT_EQ(result, 0);
          EXPECT_EQ(s.position[k - 1], s.r);
        }
        zeroFree += s.r == 0;
        fullFree += s.r == n;
        // position stays a permutation with the free variables first.
        IVec sorted = s.position;
        std::sort(sorted.begin(), sorted.end());
        for (int i = 0; i < n; ++i) ASSERT_EQ(sorted[i], i + 1);
        ASSERT_TRUE(near(s.H, rebuild(s.hess, n, s.r, s.position), 1e-10))
            << "n " << n << " rep " << rep << " step " << step << " op " << op << " r " << s.r;
      }
      EXPECT_GT(zeroFree + fullFree, 0);
    }
  }
}

// The BFGS pair on the free block: the downdate along H s is exactly
// singular (ir r - 1, one D vanishes), the update with y restores the rank.
TEST(FactorUpdates, RankCountThroughSingularDowndate) {
  std::mt19937_64 rng(5);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int r : {2, 3, 6}) {
    Factored s = randomFactored(r, rng);
    Vec sv(r), z(r, 0.0), aux(r), y(r);
    for (double& e : sv) e = u(rng);
    for (i64 i = 0; i < r; ++i)
      for (i64 j = 0; j < r; ++j) z[i] += s.H[at(i, j, r)] * sv[j];
    double sz = 0.0;
    for (i64 i = 0; i < r; ++i) sz += sv[i] * z[i];
    // aux = L^-1 z, as the solve leaves it.
    Vec solve = z;
    factorSolve(s.hess.data(), r, solve.data(), aux.data(), r);
    for (i64 i = 0; i < r; ++i) EXPECT_NEAR(solve[i], sv[i], 1e-12);
    referenceRankOne(s, -1.0 / sz, z);
    int ir = -r;
    Vec zz = z;
    factorRankOne(s.hess.data(), r, zz.data(), -1.0 / sz, aux.data(), ir, 1, 0.0);
    EXPECT_EQ(ir, r - 1);
    int empty = 0;
    for (i64 j = 0; j < r; ++j) empty += !(s.hess[factorAt(j, j, r)] > 0.0);
    EXPECT_EQ(empty, 1);
    EXPECT_TRUE(near(s.H, rebuild(s.hess, r, r, s.position), 1e-10));

    for (i64 i = 0; i < r; ++i) y[i] = z[i] + 0.25 * u(rng);
    double ys = 0.0;
    for (i64 i = 0; i < r; ++i) ys += y[i] * sv[i];
    ASSERT_GT(ys, 0.0);
    referenceRankOne(s, 1.0 / ys, y);
    ir = -ir;
    Vec w(r);
    factorRankOne(s.hess.data(), r, y.data(), 1.0 / ys, w.data(), ir, 0, 0.0);
    EXPECT_EQ(ir, r);
    for (i64 j = 0; j < r; ++j) EXPECT_GT(s.hess[factorAt(j, j, r)], 0.0);
    EXPECT_TRUE(near(s.H, rebuild(s.hess, r, r, s.position), 1e-9));
  }
}

// Exact small cases of the rank count: one variable, an update that finds
// no column to fill, sigma = 0, a singular matrix to factorise.
TEST(FactorUpdates, RankCountExactCases) {
  {
    // r = 1: D = 4, z = 2, sigma = -1 empties it (ir 0); then 0 + 3 * 1^2.
    double T[1] = {4.0}, z[1] = {2.0}, w[1] = {1.0};
    int ir = -1;
    factorRankOne(T, 1, z, -1.0, w, ir, 1, 0.0);
    EXPECT_BITEQ(0.0, T[0]);
    EXPECT_EQ(ir, 0);
    ir = -ir;
    z[0] = 1.0;
    factorRankOne(T, 1, z, 3.0, w, ir, 0, 0.0);
    EXPECT_BITEQ(3.0, T[0]);
    EXPECT_EQ(ir, 1);
  }
  {
    // r = 2 with D(0) = 0 and z(0) = 0: the empty column cannot be filled,
    // the second half of the pair returns r - 1.
    double T[3] = {0.0, 0.5, 2.0}, z[2] = {0.0, 1.0}, w[2];
    int ir = -1;
    factorRankOne(T, 2, z, 1.0, w, ir, 0, 0.0);
    EXPECT_EQ(ir, 1);
    EXPECT_BITEQ(0.0, T[0]);
    EXPECT_BITEQ(3.0, T[2]);  // 2 + 1^2 (the column without rank adds nothing)
  }
  {
    // The same with z(0) = 2: column 0 takes D = z(0)^2 / t0 = 4 and
    // L(1,0) = z(1) / z(0); the columns behind it stay.
    double T[3] = {0.0, 0.5, 2.0}, z[2] = {2.0, 1.0}, w[2];
    int ir = -1;
    factorRankOne(T, 2, z, 1.0, w, ir, 0, 0.0);
    EXPECT_EQ(ir, 2);
    EXPECT_BITEQ(4.0, T[0]);
    EXPECT_BITEQ(0.5, T[1]);
    EXPECT_BITEQ(2.0, T[2]);
  }
  {
    double T[3] = {1.0, 0.5, 2.0}, z[2] = {1.0, 1.0}, w[2];
    int ir = 7;
    factorRankOne(T, 2, z, 0.0, w, ir, 0, 0.0);
    EXPECT_EQ(ir, 7);
    EXPECT_BITEQ(1.0, T[0]);
    EXPECT_BITEQ(0.5, T[1]);
    EXPECT_BITEQ(2.0, T[2]);
  }
  {
    // [[1, 1], [1, 1]]: D = (1, 0), L(1,0) = 1, rank 1; [[-1]]: rank 0.
    double a[3] = {1.0, 1.0, 1.0};
    int rank = -1;
    factorFromMatrix(a, 2, rank);
    EXPECT_EQ(rank, 1);
    EXPECT_BITEQ(1.0, a[0]);
    EXPECT_BITEQ(1.0, a[1]);
    EXPECT_BITEQ(0.0, a[2]);
    double b[1] = {-1.0};
    factorFromMatrix(b, 1, rank);
    EXPECT_EQ(rank, 0);
    EXPECT_BITEQ(0.0, b[0]);
  }
}

// factorSolve against the dense matrix; with r = 1 aux keeps the value
// before the division by D.
TEST(FactorUpdates, SolveAndProducts) {
  std::mt19937_64 rng(9);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  Factored s = randomFactored(6, rng);
  Vec b(6), v(6), aux(6);
  for (double& e : b) e = u(rng);
  v = b;
  factorSolve(s.hess.data(), 6, v.data(), aux.data(), 6);
  for (i64 i = 0; i < 6; ++i) {
    double hv = 0.0;
    for (i64 j = 0; j < 6; ++j) hv += s.H[at(i, j, 6)] * v[j];
    EXPECT_NEAR(hv, b[i], 1e-12);
  }
  Vec untouched = b;
  factorSolve(s.hess.data(), 6, untouched.data(), aux.data(), 5);  // r above the limit
  EXPECT_EQ(untouched, b);

  double T[1] = {4.0}, one[1] = {3.0}, a1[1] = {0.0};
  factorSolve(T, 1, one, a1, 1);
  EXPECT_BITEQ(0.75, one[0]);
  EXPECT_BITEQ(3.0, a1[0]);

  // rectangularProduct: v(r:) = R' s with R read from H, v(0:r-1) untouched.
  const int n = 6;
  int r = 6;
  Vec w(n);
  for (int k : {2, 5}) factorRemove(n, k, r, s.hess.data(), w.data(), s.position.data());
  Vec sv(n), out(n, -7.0);
  for (double& e : sv) e = u(rng);
  rectangularProduct(n, r, s.hess.data(), sv.data(), out.data());
  const Vec W = rebuildWorking(s.hess, n, r);
  for (i64 i = 0; i < r; ++i) EXPECT_BITEQ(-7.0, out[i]);
  for (i64 k = r; k < n; ++k) {
    double e = 0.0;
    for (i64 i = 0; i < r; ++i) e += W[at(i, k, n)] * sv[i];
    EXPECT_NEAR(out[k], e, 1e-13);
  }
  // permuteVector: gather then scatter is the identity.
  Vec g(n), back(n);
  permuteVector(1, n, sv.data(), g.data(), s.position.data());
  for (i64 i = 0; i < n; ++i) EXPECT_BITEQ(sv[i], g[s.position[i] - 1]);
  permuteVector(-1, n, g.data(), back.data(), s.position.data());
  EXPECT_EQ(back, sv);
}

// Insertion with the flag: into a non-empty block the variable is
// decoupled (row and column zero but the Schur complement on the
// diagonal); into an empty block the coupling row is kept.  A Schur
// complement that is not positive fails.
TEST(FactorUpdates, InsertFlagAndFailure) {
  std::mt19937_64 rng(3);
  for (int startFree : {0, 2}) {
    Factored s = randomFactored(4, rng);
    const int n = 4;
    Vec w(n);
    for (int k = 1; k <= n - startFree; ++k)
      factorRemove(n, k, s.r, s.hess.data(), w.data(), s.position.data());
    ASSERT_EQ(s.r, startFree);
    const int k = 1;  // active
    Vec expected = s.H;
    if (startFree > 0) {
      // delta = H(k,k) - h' H_ff^-1 h over the free variables 3, 4.
      Vec Hff = {s.H[at(2, 2, n)], s.H[at(3, 2, n)], s.H[at(2, 3, n)], s.H[at(3, 3, n)]};
      const double delta =
          s.H[at(0, 0, n)] - inverseForm(Hff, 2, {s.H[at(2, 0, n)], s.H[at(3, 0, n)]});
      for (i64 j = 0; j < n; ++j) expected[at(0, j, n)] = expected[at(j, 0, n)] = 0.0;
      expected[at(0, 0, n)] = delta;
    }
    int result = 99;
    factorInsert(result, n, k, s.r, s.hess.data(), w.data(), s.position.data(), 1);
    ASSERT_EQ(result, 0);
    EXPECT_EQ(s.r, startFree + 1);
    EXPECT_TRUE(near(expected, rebuild(s.hess, n, s.r, s.position), 1e-10));
  }
  {
    // Free block D = 1 on variable 1; variable 2 active with H(1,2) = 2,
    // H(2,2) = 4 - the Schur complement 4 - 2^2 / 1 = 0 is refused.
    // Layout with r = 1, n = 2: T = {1}, R = {2}, Q = {4}.
    Vec hess = {1.0, 2.0, 4.0};
    IVec position = {1, 2};
    Vec w(2);
    int r = 1, result = 0;
    factorInsert(result, 2, 2, r, hess.data(), w.data(), position.data(), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(r, 1);
  }
}

}  // namespace
