// SPDX-License-Identifier: Apache-2.0
// Dense kernels at their edges: bounds, definiteness threshold and certificate, the flush.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "kernels/kernels.h"
#include "test_support.h"

using namespace lumbra;
using namespace lumbra::kernels;

TEST(MatrixKernels, BoundsOfTheSmallKernels) {
  const double x[4] = {4.0, -2.5, 7.0, 1.0}, s = -777.0;  // s: not written
  double r = 0.0;
  vecMin(3, x, r);  // the second element is compared too
  EXPECT_BITEQ(-2.5, r);
  std::vector<double> A(6, s), Y(9, s);  // rows 1..ld (1-based): ld + 1 refused, nothing written
  int status = 99;
  matSetRow(2, 3, A.data(), x, 3, status);
  EXPECT_EQ(-2, status);
  matSetRow(2, 3, A.data(), x, 2, status);
  EXPECT_EQ((std::vector<double>{s, 4.0, s, -2.5, s, 7.0}), A);
  const int good[2] = {3, 1}, bad[2] = {1, 4};  // the last position of 3 taken, 4 refused
  matScatter(2, x, 3, good, Y.data(), status);
  EXPECT_EQ(0, status);
  EXPECT_EQ((std::vector<double>{1.0, s, 7.0, s, s, s, -2.5, s, 4.0}), Y);
  matScatter(2, x, 3, bad, Y.data(), status);
  EXPECT_EQ(-2, status);
}

TEST(SpectralKernels, PositiveDefinitenessThresholdOnRealSchurParts) {
  // 1e-12f widened (9.99999996e-13) passes, so does 1e-12 - 2e-21; [1 -4; 4 1] on the real parts.
  const struct { double a, b; int flag; } cases[] = {{1.0, 0.0, 0}, {1e-13, 0.0, 1}, {double(1e-12f), 0.0, 0},
      {9.99999998e-13, 0.0, 0}, {1.0, 4.0, 0}, {HUGE_VAL, 0.0, kInfoNotFiniteEigen}};
  int iwork[2], flag = -1;
  double work[2 * 4 + 7 * 2];
  for (const auto& c : cases) {
    const double A[4] = {c.a, c.b, -c.b, 1.0};
    matPositiveDefiniteCheck(2, A, iwork, work, flag);
    EXPECT_EQ(c.flag, flag) << lumbra::testing::hex(c.a);
  }
}

TEST(SpectralKernels, NegligibleElementsAreFlushedSoExtremeRangesReturn) {
  // DSYEVR never returned on the first two (exponents across the range); elements below
  // 2^-106 times the largest are flushed first: 2^-106 stays, half of it goes.
  const double hung[2][9] = {
      {2.0522682444161237e-289, 0, 0, -1.2164802009519749e-140, -1999999993657846.8, 0, -1e-300,
       -8.1677956349632598e-143, 3.4756577170056423e-144},
      {1.8389694997774519, 0, 0, 1.4625784394476086e+150, -1.7116482693438852e+307, 0,
       1.5844920790377577e-100, -1.6424352416829928e+100, 1.2426646183032549e-17}};
  const double edge[2][4] = {{-1.0, 0.0, 0.0, -0x1p-106}, {-1.0, 0.0, 0.0, -0x1p-107}};
  const struct { int n; const double* A; double w0, w1; } cases[] = {
      {3, hung[0], -1999999993657846.8, 0.0}, {3, hung[1], -1.7116482693438852e+307, 0.0},
      {2, edge[0], -1.0, -0x1p-106}, {2, edge[1], -1.0, 0.0}};
  int iwork[36], info = -9;
  double work[9 + 26 * 3], w[3], Z[9];  // the eigen workspace: n n + 26 n
  for (const auto& c : cases) {
    matEigenSym(c.n, c.A, iwork, work, w, Z, info);
    EXPECT_EQ(0, info);
    EXPECT_BITEQ(c.w0, w[0]);
    EXPECT_BITEQ(c.w1, w[1] == 0.0 ? 0.0 : w[1]);  // -0 or +0 alike
  }
}

TEST(SpectralKernels, DefiniteCertificateOnlyWhereTheSchurTestMustPass) {
  // A = H diag(lambda) H (H = I - 2 v v' / v'v) has eigenvalues lambda to about 1e-16: yes far
  // above the threshold (as the Schur test), no at or below it, for 1 ulp of asymmetry, for NaN.
  const double t = kDefiniteThreshold;
  const struct { double smallest; bool asymmetric, certified; } cases[] = {
      {0.5, false, true},   {t, false, false},  {0.95 * t, false, false},
      {-0.5, false, false}, {0.5, true, false}, {std::nan(""), false, false}};
  for (const int n : {2, 6, 40})
    for (const auto& c : cases) {
      SCOPED_TRACE(::testing::Message() << "n " << n << ", " << c.smallest << " " << c.asymmetric);
      std::vector<double> v(n), A(static_cast<size_t>(n) * n, 0.0), work(2 * A.size() + 7 * n);
      double vv = 0.0;
      for (int i = 0; i < n; ++i) vv += (v[i] = 1.0 + (i * 7 % 5)) * v[i];
      auto H = [&](int i, int j) { return (i == j ? 1.0 : 0.0) - 2.0 * v[i] * v[j] / vv; };
      for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i)
          for (int k = 0; k < n; ++k)
            A[at(i, j, n)] += H(i, k) * (k == n / 2 ? c.smallest : 1.0 + 0.25 * k) * H(k, j);
      matSymmetrise(n, A.data(), A.data());
      if (c.asymmetric) A[at(0, 1, n)] = std::nextafter(A[at(0, 1, n)], 2.0);
      std::vector<int> iwork(n);
      int flag = -1;
      bool certified = !c.certified;
      matDefiniteCertificate(n, A.data(), work.data(), certified);
      EXPECT_EQ(c.certified, certified);
      matPositiveDefiniteCheck(n, A.data(), iwork.data(), work.data(), flag);
      EXPECT_TRUE(c.smallest == t || std::isnan(c.smallest) || flag == (c.smallest < t ? 1 : 0));
    }
}
