// SPDX-License-Identifier: Apache-2.0
// Dense kernels at their edges: the bounds of the small kernels, and the
// spectral routines' guards, threshold and certificate.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "kernels/kernels.h"
#include "test_support.h"

using namespace lumbra;
using namespace lumbra::kernels;

namespace {
constexpr double kSentinel = -777.0;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();
}  // namespace

TEST(MatrixKernels, BoundsOfTheSmallKernels) {
  // The minimum sees every element, the second included.
  const double x[3] = {4.0, -2.5, 7.0};
  double r = 0.0;
  vecMin(3, x, r);
  EXPECT_BITEQ(-2.5, r);
  // Rows 1..ld are set (1-based), rows 0 and ld + 1 refused with nothing written.
  std::vector<double> A(6, kSentinel);
  const double row[3] = {1.0, 2.0, 3.0};
  int status = 99;
  for (int i : {0, 3}) {
    matSetRow(2, 3, A.data(), row, i, status);
    EXPECT_EQ(-2, status) << i;
  }
  for (double v : A) EXPECT_BITEQ(kSentinel, v);
  matSetRow(2, 3, A.data(), row, 2, status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(3.0, A[at(1, 2, 2)]);
  // Scatter of a 2 by 2 block to positions (3,1) of a 3 by 3 matrix, the last
  // position included; a position past m stops the copy where it meets it.
  const double X[4] = {1.0, 2.0, 3.0, 4.0};
  std::vector<double> Y(9, kSentinel), Z(9, kSentinel);
  const int good[2] = {3, 1}, bad[2] = {1, 4};
  matScatter(2, X, 3, good, Y.data(), status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(1.0, Y[at(2, 2, 3)]);
  EXPECT_BITEQ(2.0, Y[at(0, 2, 3)]);
  EXPECT_BITEQ(4.0, Y[at(0, 0, 3)]);
  EXPECT_BITEQ(kSentinel, Y[at(1, 1, 3)]);
  matScatter(2, X, 3, bad, Z.data(), status);
  EXPECT_EQ(-2, status);
  EXPECT_BITEQ(1.0, Z[at(0, 0, 3)]);
}

TEST(SpectralKernels, PositiveDefinitenessThresholdOnRealSchurParts) {
  // The threshold is single-precision 1e-12 widened, 9.99999996e-13: the
  // threshold itself passes (the comparison is strict), and so does an
  // eigenvalue between it and the double 1e-12; 1e-13 fails.  An
  // asymmetric matrix passes on the real parts: [1 -4; 4 1] has 1 +- 4i;
  // +inf on the diagonal has no real eigenvalue to compare and fails.
  const struct {
    double A[4];
    int flag;
  } cases[] = {{{1.0, 0.0, 0.0, 1.0}, 0},        {{1e-13, 0.0, 0.0, 1.0}, 1},
               {{double(1e-12f), 0.0, 0.0, 1.0}, 0}, {{9.99999998e-13, 0.0, 0.0, 1.0}, 0},
               {{1.0, 4.0, -4.0, 1.0}, 0},        {{kInf, 0.0, 0.0, 1.0}, kInfoNotFiniteEigen}};
  std::vector<int> iwork(2);
  std::vector<double> work(2 * 4 + 7 * 2);
  for (const auto& c : cases) {
    int flag = -1;
    matPositiveDefiniteCheck(2, c.A, iwork.data(), work.data(), flag);
    EXPECT_EQ(c.flag, flag) << lumbra::testing::hex(c.A[0]);
  }
}

TEST(SpectralKernels, NonFiniteMatricesNeverReachLapack) {
  // Reference DSYEVR loops for ever on a NaN (n >= 3): each spectral kernel
  // reports such a matrix without calling LAPACK and writes none of its
  // outputs.  A NaN or an infinity of either sign, on and off the diagonal.
  const int n = 3;
  for (double v : {kNaN, kInf, -kInf})
    for (int pos : {0, 1, 8}) {
      SCOPED_TRACE(::testing::Message() << v << " at " << pos);
      std::vector<double> A = {0.04, 0.01, 0.01, 0.01, 0.09, 0.0, 0.01, 0.0, 0.04};
      A[pos] = v;
      std::vector<int> iwork(12 * n);
      std::vector<double> work(4 * n * n + 27 * n), w(n, kSentinel), Z(9, kSentinel), out(9, kSentinel);
      int info = 0;
      matEigenSym(n, A.data(), iwork.data(), work.data(), w.data(), Z.data(), info);
      EXPECT_EQ(kInfoNotFiniteEigen, info);
      info = 0;
      matEigenClip(n, A.data(), kEigenFloor, iwork.data(), work.data(), out.data(), info);
      EXPECT_EQ(kInfoNotFiniteEigen, info);
      info = 0;
      matCholeskyLower(n, A.data(), work.data(), out.data(), info);
      EXPECT_EQ(kInfoNotFiniteCholesky, info);
      info = 0;
      matSchurEigen(n, A.data(), iwork.data(), work.data(), w.data(), Z.data(), info);
      EXPECT_EQ(kInfoNotFiniteEigen, info);
      for (const std::vector<double>* written : {&w, &Z, &out})
        for (double x : *written) EXPECT_BITEQ(kSentinel, x);
    }
}

TEST(SpectralKernels, NegligibleElementsAreFlushedSoExtremeRangesReturn) {
  // DSYEVR never returned on these finite matrices (upper triangles spanning
  // nearly the whole exponent range).  Elements below 2^-106 times the
  // largest are set to zero first, which leaves diagonal matrices with
  // exact eigenvalues.
  const int n = 3;
  const double hung[2][9] = {
      {2.0522682444161237e-289, 0, 0, -1.2164802009519749e-140, -1999999993657846.8, 0, -1e-300,
       -8.1677956349632598e-143, 3.4756577170056423e-144},
      {1.8389694997774519, 0, 0, 1.4625784394476086e+150, -1.7116482693438852e+307, 0,
       1.5844920790377577e-100, -1.6424352416829928e+100, 1.2426646183032549e-17}};
  std::vector<int> iwork(12 * n);
  std::vector<double> work(n * n + 26 * n), w(n), Z(n * n);
  int info = -9;
  matEigenSym(n, hung[0], iwork.data(), work.data(), w.data(), Z.data(), info);
  EXPECT_EQ(0, info);
  EXPECT_BITEQ(-1999999993657846.8, w[0]);
  EXPECT_BITEQ(0.0, w[1]);
  EXPECT_BITEQ(0.0, w[2]);
  matEigenSym(n, hung[1], iwork.data(), work.data(), w.data(), Z.data(), info);
  EXPECT_EQ(0, info);
  EXPECT_BITEQ(-1.7116482693438852e+307, w[0]);
  // The edge on diagonal matrices: 2^-106 times the largest stays, half of it goes.
  for (const double small : {-0x1p-106, -0x1p-107}) {
    const double D[4] = {-1.0, 0.0, 0.0, small};
    matEigenSym(2, D, iwork.data(), work.data(), w.data(), Z.data(), info);
    EXPECT_EQ(0, info);
    EXPECT_BITEQ(-1.0, w[0]);
    EXPECT_BITEQ(small == -0x1p-106 ? small : 0.0, small == -0x1p-106 ? w[1] : std::fabs(w[1]));
  }
}

namespace {

// H diag(lambda) H with H = I - 2 v v' / v'v, made exactly symmetric: a
// symmetric matrix whose eigenvalues are lambda to within about 1e-16.
std::vector<double> withEigenvalues(const std::vector<double>& lambda) {
  const int n = static_cast<int>(lambda.size());
  std::vector<double> v(n), A(static_cast<size_t>(n) * n, 0.0);
  double vv = 0.0;
  for (int i = 0; i < n; ++i) vv += (v[i] = 1.0 + (i * 7 % 5)) * v[i];
  auto H = [&](int i, int j) { return (i == j ? 1.0 : 0.0) - 2.0 * v[i] * v[j] / vv; };
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < n; ++i)
      for (int k = 0; k < n; ++k) A[at(i, j, n)] += H(i, k) * lambda[k] * H(k, j);
  matSymmetrise(n, A.data(), A.data());
  return A;
}

}  // namespace

TEST(SpectralKernels, DefiniteCertificateOnlyWhereTheSchurTestMustPass) {
  // Smallest eigenvalue far above, at and below the threshold, and
  // asymmetric matrices: the certificate may only say yes where the
  // Schur-form test gives flag 0, must say yes far above the threshold, and
  // no at or below it (its margin is positive) and for any asymmetry.
  const double t = kDefiniteThreshold;
  const struct {
    double smallest;
    bool asymmetric, certified;
  } cases[] = {{0.5, false, true},  {t, false, false},  {0.95 * t, false, false},
               {0.0, false, false}, {-0.5, false, false}, {0.5, true, false}};
  for (const int n : {2, 6, 40})
    for (const auto& c : cases) {
      SCOPED_TRACE(::testing::Message() << "n " << n << ", smallest " << c.smallest << (c.asymmetric ? ", asymmetric" : ""));
      std::vector<double> lambda(n);
      for (int i = 0; i < n; ++i) lambda[i] = i == n / 2 ? c.smallest : 1.0 + 0.25 * i;
      std::vector<double> A = withEigenvalues(lambda);
      if (c.asymmetric) A[at(0, 1, n)] = std::nextafter(A[at(0, 1, n)], 2.0);
      std::vector<int> iwork(n);
      std::vector<double> work(2 * static_cast<size_t>(n) * n + 7 * n, kSentinel);
      int flag = -1;
      matPositiveDefiniteCheck(n, A.data(), iwork.data(), work.data(), flag);
      bool certified = !c.certified;
      matDefiniteCertificate(n, A.data(), work.data(), certified);
      EXPECT_EQ(c.certified, certified);
      if (c.smallest != t) {  // at t the flag is within rounding either way
        EXPECT_EQ(c.smallest < t ? 1 : 0, flag);
      }
    }
  const double withNaN[4] = {1.0, kNaN, kNaN, 1.0};
  std::vector<double> work(4);
  bool certified = true;
  matDefiniteCertificate(2, withNaN, work.data(), certified);
  EXPECT_FALSE(certified);
}
