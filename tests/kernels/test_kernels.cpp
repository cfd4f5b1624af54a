// SPDX-License-Identifier: Apache-2.0
// Dense kernels at their edges: the documented oddities of the small
// kernels, bounds statuses, and the spectral routines.
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

}  // namespace

TEST(VectorKernels, MinAndMeanAtTheirEdges) {
  // vecMean of nothing is 0/0.
  const double x[3] = {4.0, -2.5, 7.0};
  double r = 0.0;
  vecMin(3, x, r);
  EXPECT_BITEQ(-2.5, r);
  vecMean(0, x, r);
  EXPECT_TRUE(std::isnan(r));
  vecMean(3, x, r);
  EXPECT_BITEQ(8.5 / 3.0, r);
}

TEST(MatrixKernels, BoundsStatusesWriteNothingOrKeepWhatWasWritten) {
  std::vector<double> A(6, kSentinel);
  const double row[3] = {1.0, 2.0, 3.0};
  int status = 99;
  matSetRow(2, 3, A.data(), row, 0, status);
  EXPECT_EQ(-2, status);
  matSetRow(2, 3, A.data(), row, 3, status);
  EXPECT_EQ(-2, status);
  for (double v : A) EXPECT_BITEQ(kSentinel, v);
  matSetRow(2, 3, A.data(), row, 2, status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(3.0, A[at(1, 2, 2)]);

  // Scatter of a 2 by 2 block into a 3 by 3 matrix; an index past m stops
  // the copy where it meets it, and what was written stays.
  const double X[4] = {1.0, 2.0, 3.0, 4.0};
  std::vector<double> Y(9, kSentinel);
  const int good[2] = {3, 1};
  matScatter(2, X, 3, good, Y.data(), status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(1.0, Y[at(2, 2, 3)]);
  EXPECT_BITEQ(2.0, Y[at(0, 2, 3)]);
  EXPECT_BITEQ(4.0, Y[at(0, 0, 3)]);
  EXPECT_BITEQ(kSentinel, Y[at(1, 1, 3)]);
  std::vector<double> Z(9, kSentinel);
  const int bad[2] = {1, 4};
  matScatter(2, X, 3, bad, Z.data(), status);
  EXPECT_EQ(-2, status);
  EXPECT_BITEQ(1.0, Z[at(0, 0, 3)]);
  matScatter(3, X, 2, good, Z.data(), status);
  EXPECT_EQ(-2, status);

  std::vector<double> B(4, kSentinel);
  matCopyBlock(2, 2, 3, 3, Y.data(), 2, 2, 2, 2, B.data(), 1, 1, status);
  EXPECT_EQ(0, status);
  EXPECT_BITEQ(Y[at(2, 2, 3)], B[at(1, 1, 2)]);
  std::vector<double> untouched(4, kSentinel);
  matCopyBlock(2, 2, 3, 3, Y.data(), 3, 1, 2, 2, untouched.data(), 1, 1, status);
  EXPECT_EQ(-2, status);
  for (double v : untouched) EXPECT_BITEQ(kSentinel, v);
}

TEST(SpectralKernels, OneByOne) {
  const int n = 1;
  std::vector<int> iwork(12);
  std::vector<double> work(3 * n * n + 27 * n);
  const double a = -3.5;
  double w = 0.0, z = 0.0;
  int info = -9;
  matEigenSym(n, &a, iwork.data(), work.data(), &w, &z, info);
  EXPECT_EQ(0, info);
  EXPECT_BITEQ(-3.5, w);
  EXPECT_BITEQ(1.0, std::fabs(z));
  // A negative 1 by 1 matrix is clipped to the floor exactly.
  double q = 0.0;
  packEigenClip(n, &a, iwork.data(), work.data(), &q, info);
  EXPECT_EQ(0, info);
  EXPECT_BITEQ(kEigenFloor, q);
  EXPECT_BITEQ(1.0000000031710769e-30, kEigenFloor);
}

TEST(SpectralKernels, EigenClipRaisesOnlyTheSmallEigenvalues) {
  // A = [2 1; 1 2] - 2.5 I has eigenvalues -1.5 and 0.5.  Clipping at 0
  // removes the negative part: B = 0.5 v v' with v = (1,1)/sqrt(2).
  const int n = 2;
  const double A[4] = {-0.5, 1.0, 1.0, -0.5};
  std::vector<int> iwork(12 * n);
  std::vector<double> work(3 * n * n + 27 * n), B(4);
  int info = -9;
  matEigenClip(n, A, 0.0, iwork.data(), work.data(), B.data(), info);
  EXPECT_EQ(0, info);
  for (double v : B) EXPECT_NEAR(0.25, v, 1e-15);  // one rounding of LAPACK's order
  EXPECT_BITEQ(B[at(0, 1, 2)], B[at(1, 0, 2)]);    // symmetric by construction
}

TEST(SpectralKernels, CholeskyLeavesTheFactorAloneWhenItFails) {
  const int n = 2;
  const double indefinite[4] = {1.0, 2.0, 2.0, 1.0};
  std::vector<double> tmp(4), L(4, kSentinel);
  int info = 0;
  matCholeskyLower(n, indefinite, tmp.data(), L.data(), info);
  EXPECT_GT(info, 0);
  for (double v : L) EXPECT_BITEQ(kSentinel, v);
  const double spd[4] = {4.0, 2.0, 2.0, 5.0};
  matCholeskyLower(n, spd, tmp.data(), L.data(), info);
  EXPECT_EQ(0, info);
  EXPECT_BITEQ(2.0, L[at(0, 0, 2)]);
  EXPECT_BITEQ(1.0, L[at(1, 0, 2)]);
  EXPECT_BITEQ(2.0, L[at(1, 1, 2)]);
  EXPECT_BITEQ(0.0, L[at(0, 1, 2)]);
}

TEST(SpectralKernels, ClippedCholeskyOfARankDeficientMatrix) {
  // All-ones 3 by 3: rank one.  After the floor the matrix is numerically
  // still singular; DPOTRF either factors it or reports a positive INFO,
  // and then L stays unwritten.  Never a negative status.
  const int n = 3;
  const std::vector<double> A(9, 1.0);
  std::vector<int> iwork(12 * n);
  std::vector<double> work(4 * n * n + 27 * n), L(9, kSentinel);
  int info = -9;
  matClippedCholesky(n, A.data(), iwork.data(), work.data(), L.data(), info);
  ASSERT_GE(info, 0);
  if (info > 0) {
    for (double v : L) EXPECT_BITEQ(kSentinel, v);
  } else {
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) {
        double s = 0.0;
        for (int k = 0; k < n; ++k) s += L[at(i, k, n)] * L[at(j, k, n)];
        EXPECT_NEAR(1.0, s, 1e-12);
      }
  }
}

TEST(SpectralKernels, PositiveDefinitenessThresholdOnRealSchurParts) {
  const int n = 2;
  std::vector<int> iwork(n);
  std::vector<double> work(2 * n * n + 7 * n);
  int flag = -1;
  const double identity[4] = {1.0, 0.0, 0.0, 1.0};
  matPositiveDefiniteCheck(n, identity, iwork.data(), work.data(), flag);
  EXPECT_EQ(0, flag);
  const double tiny[4] = {1e-13, 0.0, 0.0, 1.0};
  matPositiveDefiniteCheck(n, tiny, iwork.data(), work.data(), flag);
  EXPECT_EQ(1, flag);
  // An asymmetric matrix passes on the real parts of its eigenvalues:
  // [1 -4; 4 1] has eigenvalues 1 +- 4i.
  const double rotation[4] = {1.0, 4.0, -4.0, 1.0};
  matPositiveDefiniteCheck(n, rotation, iwork.data(), work.data(), flag);
  EXPECT_EQ(0, flag);
  // The threshold is single-precision 1e-12 widened, 9.99999996e-13: the
  // threshold itself passes (the comparison is strict), and so does an
  // eigenvalue between it and the double 1e-12.
  for (const double smallest : {double(1e-12f), 9.99999998e-13}) {
    const double nearThreshold[4] = {smallest, 0.0, 0.0, 1.0};
    matPositiveDefiniteCheck(n, nearThreshold, iwork.data(), work.data(), flag);
    EXPECT_EQ(0, flag) << lumbra::testing::hex(smallest);
  }
}

TEST(SpectralKernels, SchurRealPartsWithoutVectorsAreTheSame) {
  // The definiteness test skips the Schur vectors; the eigenvalues must be
  // those of the full decomposition to the last bit, for symmetric and
  // general matrices, with and without complex pairs.
  for (const int n : {1, 2, 7, 40, 120}) {
    std::vector<double> A(static_cast<size_t>(n) * n);
    unsigned state = 12345u + static_cast<unsigned>(n);
    for (double& v : A) {
      state = state * 1103515245u + 12345u;
      v = static_cast<double>((state >> 8) % 2001u) / 1000.0 - 1.0;
    }
    for (const bool symmetric : {false, true}) {
      if (symmetric) matSymmetrise(n, A.data(), A.data());
      std::vector<int> iwork(n);
      std::vector<double> work(static_cast<size_t>(n) * n + 6 * n), vs(static_cast<size_t>(n) * n);
      std::vector<double> withVectors(n), alone(n);
      int info1 = -9, info2 = -9;
      matSchurEigen(n, A.data(), iwork.data(), work.data(), withVectors.data(), vs.data(), info1);
      matSchurRealParts(n, A.data(), iwork.data(), work.data(), alone.data(), info2);
      ASSERT_EQ(0, info1);
      ASSERT_EQ(0, info2);
      for (int i = 0; i < n; ++i) EXPECT_BITEQ(withVectors[i], alone[i]) << "n " << n << " i " << i;
    }
  }
}

TEST(SpectralKernels, NonFiniteMatricesNeverReachLapack) {
  // Reference DSYEVR loops for ever on a NaN (n >= 3); no spectral kernel
  // may hand such a matrix on.  Each reports the position of the matrix in
  // its LAPACK call, negated, and writes none of its outputs.  A NaN, an
  // infinity of either sign, on and off the diagonal.
  const int n = 3;
  const double bad[] = {std::numeric_limits<double>::quiet_NaN(),
                        std::numeric_limits<double>::infinity(),
                        -std::numeric_limits<double>::infinity()};
  for (double v : bad)
    for (int pos : {0, 1, 8}) {
      std::vector<double> A = {0.04, 0.01, 0.01, 0.01, 0.09, 0.0, 0.01, 0.0, 0.04};
      A[pos] = v;
      std::vector<double> P(6);
      packFromFull(n, A.data(), P.data());
      std::vector<int> iwork(12 * n);
      std::vector<double> work(4 * n * n + 27 * n, kSentinel);
      std::vector<double> w(n, kSentinel), Z(9, kSentinel), out(9, kSentinel);
      int info = 0;
      matEigenSym(n, A.data(), iwork.data(), work.data(), w.data(), Z.data(), info);
      EXPECT_EQ(kInfoNotFiniteEigen, info) << v << " at " << pos;
      for (double x : w) EXPECT_BITEQ(kSentinel, x);
      for (double x : Z) EXPECT_BITEQ(kSentinel, x);
      if (pos != 1) {  // the packed form holds the upper triangle only
        info = 0;
        packEigenClip(n, P.data(), iwork.data(), work.data(), out.data(), info);
        EXPECT_EQ(kInfoNotFiniteEigen, info);
      }
      info = 0;
      matEigenClip(n, A.data(), kEigenFloor, iwork.data(), work.data(), out.data(), info);
      EXPECT_EQ(kInfoNotFiniteEigen, info);
      info = 0;
      matClippedCholesky(n, A.data(), iwork.data(), work.data(), out.data(), info);
      EXPECT_EQ(kInfoNotFiniteEigen, info);
      info = 0;
      matCholeskyLower(n, A.data(), work.data(), out.data(), info);
      EXPECT_EQ(kInfoNotFiniteCholesky, info);
      for (double x : out) EXPECT_BITEQ(kSentinel, x);
      info = 0;
      matSchurEigen(n, A.data(), iwork.data(), work.data(), w.data(), Z.data(), info);
      EXPECT_EQ(kInfoNotFiniteEigen, info);
      info = 0;
      matSchurRealParts(n, A.data(), iwork.data(), work.data(), w.data(), info);
      EXPECT_EQ(kInfoNotFiniteEigen, info);
      // The definiteness test fails such a matrix: +inf on the diagonal
      // has no real eigenvalue to compare, and must not pass.
      int flag = 0;
      matPositiveDefiniteCheck(n, A.data(), iwork.data(), work.data(), flag);
      EXPECT_NE(0, flag) << v << " at " << pos;
    }
  std::vector<double> finite = {1.0, -2.5, 1e300};
  EXPECT_TRUE(allFinite(3, finite.data()));
  EXPECT_TRUE(allFinite(0, nullptr));
  finite[2] = std::numeric_limits<double>::infinity();
  EXPECT_FALSE(allFinite(3, finite.data()));
}

namespace {

// A := H diag(lambda) H with H = I - 2 v v' / v'v, made exactly symmetric:
// a symmetric matrix whose eigenvalues are lambda to within about 1e-16.
std::vector<double> withEigenvalues(const std::vector<double>& lambda) {
  const int n = static_cast<int>(lambda.size());
  std::vector<double> v(n), H(static_cast<size_t>(n) * n), A(H.size(), 0.0);
  double vv = 0.0;
  for (int i = 0; i < n; ++i) {
    v[i] = 1.0 + (i * 7 % 5);
    vv += v[i] * v[i];
  }
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < n; ++i) H[at(i, j, n)] = (i == j ? 1.0 : 0.0) - 2.0 * v[i] * v[j] / vv;
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < n; ++i)
      for (int k = 0; k < n; ++k) A[at(i, j, n)] += H[at(i, k, n)] * lambda[k] * H[at(k, j, n)];
  matSymmetrise(n, A.data(), A.data());
  return A;
}

}  // namespace

TEST(SpectralKernels, NegligibleElementsAreFlushedSoExtremeRangesReturn) {
  // DSYEVR never returned on these finite matrices (upper triangles spanning
  // nearly the whole exponent range: the first came from the dual of a
  // nearness problem, the second from random exponents).  Elements below
  // 2^-106 times the largest are set to zero first.
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
  // What is left is diag(0, -1999999993657846.8, 0): exact eigenvalues.
  EXPECT_BITEQ(-1999999993657846.8, w[0]);
  EXPECT_BITEQ(0.0, w[1]);
  EXPECT_BITEQ(0.0, w[2]);
  info = -9;
  matEigenSym(n, hung[1], iwork.data(), work.data(), w.data(), Z.data(), info);
  EXPECT_EQ(0, info);
  EXPECT_BITEQ(-1.7116482693438852e+307, w[0]);

  // The edge of the flush on diagonal matrices, whose eigenvalues DSYEVR
  // returns exactly: 2^-106 times the largest stays, half of it goes.
  const double keep[4] = {-1.0, 0.0, 0.0, -0x1p-106}, drop[4] = {-1.0, 0.0, 0.0, -0x1p-107};
  info = -9;
  matEigenSym(2, keep, iwork.data(), work.data(), w.data(), Z.data(), info);
  EXPECT_EQ(0, info);
  EXPECT_BITEQ(-1.0, w[0]);
  EXPECT_BITEQ(-0x1p-106, w[1]);
  matEigenSym(2, drop, iwork.data(), work.data(), w.data(), Z.data(), info);
  EXPECT_EQ(0, info);
  EXPECT_BITEQ(0.0, std::fabs(w[1]));
}

TEST(SpectralKernels, DefiniteCertificateOnlyWhereTheSchurTestMustPass) {
  // Smallest eigenvalue far above, just above, at and below the threshold,
  // asymmetric matrices and a NaN: the certificate may only say yes where
  // the Schur-form test gives flag 0, must say yes where the smallest
  // eigenvalue clears the threshold by far more than any rounding, and
  // must say no at or below the threshold (the margin is positive) and for
  // any asymmetric matrix.  Just above the threshold either answer is
  // right: it depends on the margin, which grows with n and the norm.
  const double t = kDefiniteThreshold;
  enum class Expect { Yes, No, Either };
  struct Case {
    const char* name;
    double smallest;
    bool asymmetric;
    Expect certified;
  };
  const Case cases[] = {{"far above", 0.5, false, Expect::Yes},
                        {"ten times the threshold", 10.0 * t, false, Expect::Either},
                        {"just above", 1.05 * t, false, Expect::Either},
                        {"at", t, false, Expect::No},
                        {"just below", 0.95 * t, false, Expect::No},
                        {"zero", 0.0, false, Expect::No},
                        {"negative", -0.5, false, Expect::No},
                        {"far above, asymmetric by one ulp", 0.5, true, Expect::No},
                        {"negative, asymmetric", -0.5, true, Expect::No}};
  for (const int n : {1, 2, 6, 40}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(::testing::Message() << "n " << n << ", " << c.name);
      if (c.asymmetric && n == 1) continue;
      std::vector<double> lambda(n);
      for (int i = 0; i < n; ++i) lambda[i] = i == n / 2 ? c.smallest : 1.0 + 0.25 * i;
      std::vector<double> A = withEigenvalues(lambda);
      if (c.asymmetric) A[at(0, 1, n)] = std::nextafter(A[at(0, 1, n)], 2.0);
      std::vector<int> iwork(n);
      std::vector<double> work(2 * static_cast<size_t>(n) * n + 7 * n, kSentinel);
      int flag = -1;
      matPositiveDefiniteCheck(n, A.data(), iwork.data(), work.data(), flag);
      bool certified = c.certified != Expect::Yes;
      matDefiniteCertificate(n, A.data(), work.data(), certified);
      if (c.certified != Expect::Either) {
        EXPECT_EQ(c.certified == Expect::Yes, certified);
      }
      if (certified) {
        EXPECT_EQ(0, flag);
      }
      if (c.smallest < t) {
        EXPECT_EQ(1, flag);
      }
    }
  }
  const double withNaN[4] = {1.0, std::nan(""), std::nan(""), 1.0};
  std::vector<double> work(4);
  bool certified = true;
  matDefiniteCertificate(2, withNaN, work.data(), certified);
  EXPECT_FALSE(certified);
}

TEST(SpectralKernels, DefiniteCertificateOnSampleCovariances) {
  // Sample covariances of 3n pseudo-random observations: well inside the
  // definite cone, certified, and the Schur test agrees; the same matrix
  // with its smallest direction removed (rank n - 1) is refused by both.
  for (const int n : {3, 30, 120}) {
    const int T = 3 * n;
    std::vector<double> X(static_cast<size_t>(T) * n);
    unsigned state = 4242u + static_cast<unsigned>(n);
    for (double& v : X) {
      state = state * 1103515245u + 12345u;
      v = static_cast<double>((state >> 8) % 20001u) / 1e6 - 0.01;
    }
    for (const bool deficient : {false, true}) {
      if (deficient)  // last asset := first asset: a zero eigenvalue
        for (int i = 0; i < T; ++i) X[at(i, n - 1, T)] = X[at(i, 0, T)];
      std::vector<double> cov(static_cast<size_t>(n) * n);
      for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
          double sum = 0.0;
          for (int k = 0; k < T; ++k) sum += X[at(k, i, T)] * X[at(k, j, T)];
          cov[at(i, j, n)] = sum / T;
        }
      std::vector<int> iwork(n);
      std::vector<double> work(2 * static_cast<size_t>(n) * n + 7 * n);
      int flag = -1;
      bool certified = deficient;
      matPositiveDefiniteCheck(n, cov.data(), iwork.data(), work.data(), flag);
      matDefiniteCertificate(n, cov.data(), work.data(), certified);
      EXPECT_EQ(!deficient, certified) << "n " << n;
      EXPECT_EQ(deficient ? 1 : 0, flag) << "n " << n;
    }
  }
}
