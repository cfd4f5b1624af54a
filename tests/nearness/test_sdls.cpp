// SPDX-License-Identifier: Apache-2.0
// The nearness engines below the exports: the dual functions against finite
// differences, the path without multipliers against the projection kernel,
// the two shift thresholds, and the carving of the work arrays at exactly
// the sizes the exports allocate.
#include <cmath>
#include <random>
#include <vector>

#include "kernels/kernels.h"
#include "nearness/nearness.h"
#include "nearness/sdls.h"
#include "test_support.h"

namespace lumbra::nearness {
namespace {

using namespace lumbra::kernels;

i64 packed(i64 n) { return n * (n + 1) / 2; }

// Column-major n by n matrix with entries uniform in [-1, 1].
std::vector<double> randomMatrix(int n, std::mt19937_64& gen) {
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> a(i64{n} * n);
  for (double& v : a) v = u(gen);
  return a;
}

// Central differences of a simulator at z, compared with its gradient.  The
// dual is continuously differentiable and piecewise smooth; with h = 1e-6
// the truncation error is O(h^2) times the curvature (about 1) and the
// rounding error about 1e-16 |f| / h, so 1e-6 holds with room.
void expectGradientMatches(Simulator simul, int nv, std::vector<double> z, int* izs,
                           double* dzs) {
  std::vector<double> g(nv), gPlus(nv), gMinus(nv);
  double f = 0.0, fPlus = 0.0, fMinus = 0.0;
  int indic = 4;
  simul(indic, nv, z.data(), f, g.data(), izs, dzs);
  const double h = 1e-6;
  for (int k = 0; k < nv; ++k) {
    const double keep = z[k];
    z[k] = keep + h;
    simul(indic, nv, z.data(), fPlus, gPlus.data(), izs, dzs);
    z[k] = keep - h;
    simul(indic, nv, z.data(), fMinus, gMinus.data(), izs, dzs);
    z[k] = keep;
    EXPECT_NEAR(g[k], (fPlus - fMinus) / (2 * h), 1e-6) << "component " << k;
  }
  EXPECT_EQ(indic, 4);
}

TEST(SdlsDual, EqualityGradientIsTheResidualOfTheProjection) {
  std::mt19937_64 gen(1);
  const int n = 6, m = 3;
  const i64 nn = packed(n);
  std::vector<int> izs(2 + 12 * n);
  izs[0] = n;
  std::vector<double> dzs(m + nn + m * nn + nn + m + nn + sdlsProjectionWork(n));
  double* bhat = dzs.data();
  double* chat = bhat + m;
  double* A = chat + nn;
  for (int i = 0; i < m; ++i) bhat[i] = 0.3 * i - 0.2;
  packSymmetriseFromFull(n, randomMatrix(n, gen).data(), chat);
  for (int i = 0; i < m; ++i) packSymmetriseFromFull(n, randomMatrix(n, gen).data(), A + i * nn);
  expectGradientMatches(sdlsSimulEqualities, m, {0.4, -0.7, 1.1}, izs.data(), dzs.data());
  EXPECT_EQ(izs[1], 0);
}

TEST(SdlsDual, InequalityGradientHasOneBlockPerBound) {
  std::mt19937_64 gen(2);
  const int n = 5, m = 1, p = 2, nv = m + 2 * p;
  const i64 nn = packed(n);
  std::vector<int> izs(4 + 12 * n);
  izs[0] = n;
  izs[1] = m;
  izs[2] = p;
  std::vector<double> dzs(nn + m * nn + m + p * nn + 2 * p + nn + m + 2 * p + nn +
                          sdlsProjectionWork(n));
  double* chat = dzs.data();
  double* A = chat + nn;
  double* bhat = A + m * nn;
  double* B = bhat + m;
  double* lhat = B + p * nn;
  double* uhat = lhat + p;
  packSymmetriseFromFull(n, randomMatrix(n, gen).data(), chat);
  packSymmetriseFromFull(n, randomMatrix(n, gen).data(), A);
  for (int j = 0; j < p; ++j) packSymmetriseFromFull(n, randomMatrix(n, gen).data(), B + j * nn);
  bhat[0] = 0.5;
  lhat[0] = -0.4;
  lhat[1] = 0.1;
  uhat[0] = 0.3;
  uhat[1] = 0.9;
  expectGradientMatches(sdlsSimulInequalities, nv, {0.2, 0.5, 0.1, 0.3, 0.8}, izs.data(),
                        dzs.data());
}

TEST(SdlsDual, CorrelationGradientIsTheDiagonalLessOne) {
  std::mt19937_64 gen(3);
  const int n = 7;
  const i64 nn = packed(n);
  std::vector<int> izs(1 + 12 * n);
  std::vector<double> dzs(3 * nn + n + sdlsProjectionWork(n));
  packSymmetriseFromFull(n, randomMatrix(n, gen).data(), dzs.data());
  expectGradientMatches(sdlsSimulCorr, n, {0.1, -0.2, 0.3, 0.0, 0.5, -0.6, 0.05}, izs.data(),
                        dzs.data());
}

// Work sizes of the exports, the same closed formulas.
i64 sdlsIntegers(i64 n, i64 m, i64 p) { return 12 * n + 2 * m + 4 * p + 5; }
i64 sdlsDoubles(i64 n, i64 m, i64 p) {
  const i64 t = m + 2 * p;
  return n * (4 * n + 27) + t * (t + 25) / 2 + packed(n) * (2 * (m + p) + 5);
}

// Runs sdlsSolve with work arrays of exactly the exports' sizes followed by
// guard words, and checks that nothing past the end was written.
int solveGuarded(int n, const std::vector<double>& C, int m, const std::vector<double>& A,
                 const std::vector<double>& b, int p, const std::vector<double>& B,
                 const std::vector<double>& l, const std::vector<double>& u, double s,
                 std::vector<double>& X) {
  const int guard = 64;
  const double mark = -123.25;
  std::vector<int> iz(sdlsIntegers(n, m, p) + guard, -77);
  std::vector<double> work(sdlsDoubles(n, m, p) + guard, mark);
  X.assign(i64{n} * n, 0.0);
  int status = 0;
  sdlsSolve(n, C.data(), m, A.data(), b.data(), p, B.data(), l.data(), u.data(), 1e-9, s,
            iz.data(), work.data(), X.data(), status);
  for (int k = 0; k < guard; ++k) {
    EXPECT_EQ(iz[sdlsIntegers(n, m, p) + k], -77);
    EXPECT_BITEQ(mark, work[sdlsDoubles(n, m, p) + k]);
  }
  return status;
}

TEST(SdlsSolve, StaysInsideTheExportsWorkSizes) {
  std::mt19937_64 gen(4);
  const int n = 5;
  std::vector<double> C = randomMatrix(n, gen), X;
  std::vector<double> I(i64{n} * n, 0.0);
  for (int i = 0; i < n; ++i) I[at(i, i, n)] = 1.0;
  const std::vector<double> none;
  // trace X = 3; 0 <= X(0,0) + ... within wide bounds
  EXPECT_EQ(solveGuarded(n, C, 0, none, none, 0, none, none, none, 0.0, X), 0);
  EXPECT_EQ(solveGuarded(n, C, 1, I, {3.0}, 0, none, none, none, 0.1, X), 0);
  std::vector<double> two = I;
  two.insert(two.end(), I.begin(), I.end());
  EXPECT_EQ(solveGuarded(n, C, 1, I, {3.0}, 2, two, {2.0, 0.0}, {4.0, 5.0}, 0.1, X), 0);
}

TEST(SdlsCorrelation, StaysInsideTheExportsWorkSizes) {
  std::mt19937_64 gen(5);
  for (int n : {1, 2, 9}) {
    std::vector<double> C = randomMatrix(n, gen);
    const i64 ni = 14 * i64{n} + 3, nd = i64{n} * (7 * n + 40);
    std::vector<int> iz(ni + 16, -77);
    std::vector<double> work(nd + 16, -123.25), X(i64{n} * n);
    int status = 99;
    sdlsCorrelation(n, C.data(), 1e-9, 0.25, iz.data(), work.data(), X.data(), status);
    EXPECT_EQ(status, 0);
    for (int k = 0; k < 16; ++k) {
      EXPECT_EQ(iz[ni + k], -77);
      EXPECT_BITEQ(-123.25, work[nd + k]);
    }
  }
}

// Without constraints there is nothing to minimise: X is the projection of
// the target's upper triangle, shifted by s, through the very same kernels.
TEST(SdlsSolve, WithoutConstraintsIsOneProjection) {
  std::mt19937_64 gen(6);
  const int n = 6;
  const double s = 0.2;
  std::vector<double> C = randomMatrix(n, gen), X;
  const std::vector<double> none;
  ASSERT_EQ(solveGuarded(n, C, 0, none, none, 0, none, none, none, s, X), 0);

  std::vector<double> F(i64{n} * n), P(packed(n)), Q(packed(n)), work(sdlsProjectionWork(n));
  std::vector<int> iwork(12 * n);
  int info = 0;
  matAddDiag(n, C.data(), 0.0 - s, F.data());
  packFromFull(n, F.data(), P.data());
  packEigenClip(n, P.data(), iwork.data(), work.data(), Q.data(), info);
  packToFull(n, Q.data(), F.data());
  std::vector<double> expected(i64{n} * n);
  matAddDiag(n, F.data(), s, expected.data());
  for (i64 k = 0; k < i64{n} * n; ++k) EXPECT_BITEQ(expected[k], X[k]);
}

// The floor counts above single-precision 1e-15 with equalities alone and
// above single-precision 1e-30 once inequalities are present.  The target
// diag(0, 1) already meets the constraints (zero gradient, no step), its
// eigen-decomposition is exact, and the zero eigenvalue comes back as
// 1e-30 raised, or as s + 1e-30 when s counts.
TEST(SdlsSolve, ShiftThresholdsDifferBetweenThePaths) {
  const int n = 2;
  const double s = 1e-20;
  const std::vector<double> C = {0.0, 0.0, 0.0, 1.0};
  const std::vector<double> pick11 = {0.0, 0.0, 0.0, 1.0};
  std::vector<double> X;
  const std::vector<double> none;
  ASSERT_EQ(solveGuarded(n, C, 1, pick11, {1.0}, 0, none, none, none, s, X), 0);
  EXPECT_BITEQ(kEigenFloor, X[0]);
  ASSERT_EQ(solveGuarded(n, C, 0, none, none, 1, pick11, {0.5}, {2.0}, s, X), 0);
  EXPECT_BITEQ(kEigenFloor + s, X[0]);
  EXPECT_BITEQ(1.0, X[3]);
}

// One variable, one equality: X = 3 exactly as far as the dual gets it.
TEST(SdlsSolve, OneByOneWithOneEquality) {
  std::vector<double> X;
  const std::vector<double> none;
  EXPECT_EQ(solveGuarded(1, {-5.0}, 1, {1.0}, {3.0}, 0, none, none, none, 0.0, X), 0);
  EXPECT_NEAR(X[0], 3.0, 1e-8);
}

// Data that is not finite is refused before any eigen-decomposition.
TEST(SdlsSolve, NonFiniteDataFailsWithAClearedResult) {
  const int n = 3;
  std::vector<double> C(9, 0.5), X;
  const std::vector<double> I = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  const std::vector<double> none;
  C[at(0, 2, n)] = NAN;
  EXPECT_EQ(solveGuarded(n, C, 1, I, {3.0}, 0, none, none, none, 0.0, X), kSdlsBadCall);
  for (double v : X) EXPECT_BITEQ(0.0, v);
  C[at(0, 2, n)] = 0.5;
  EXPECT_EQ(solveGuarded(n, C, 0, none, none, 1, I, {1.0}, {INFINITY}, 0.0, X), kSdlsBadCall);
  EXPECT_EQ(solveGuarded(n, C, 1, I, {3.0}, 0, none, none, none, INFINITY, X), kSdlsBadCall);
}

}  // namespace
}  // namespace lumbra::nearness
