// The several-at-a-time products must give the bits of the plain sequential
// sums they replace (s = 0.0, s = s + a(i) x(i) in ascending i; products
// column after column from 0).  References are those loops written out, so
// every comparison is exact (no BLAS).  Sizes cross the block widths (1, 4,
// 8) and their remainders; data span many magnitudes so that any change of
// summation order shows in the last bits.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "qp/factors.h"
#include "qp/products.h"
#include "test_support.h"

namespace {

using lumbra::at;
using lumbra::i64;
using Vec = std::vector<double>;

Vec wideData(std::mt19937_64& rng, i64 count) {
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  Vec v(count);
  for (double& e : v) e = u(rng) * std::exp2(std::floor(40.0 * u(rng)));
  return v;
}

double sequentialDot(i64 m, const double* a, const double* x) {
  double s = 0.0;
  for (i64 i = 0; i < m; ++i) s = s + a[i] * x[i];
  return s;
}

// Column dots, written forwards and (direction -1) backwards, nothing past the end.
TEST(QpProducts, ColumnDotsMatchSequentialSumsForwardAndReversed) {
  std::mt19937_64 rng(11);
  for (i64 m : {1, 2, 7, 33})
    for (i64 cols : {0, 1, 3, 4, 5, 8, 9, 12, 17, 25}) {
      const i64 lda = m + 3;
      const Vec A = wideData(rng, lda * std::max<i64>(cols, 1)), x = wideData(rng, m);
      Vec out(cols + 2, 99.0), back(cols + 2, 99.0);
      lumbra::qp::qpColumnDots(A.data(), lda, m, cols, x.data(), out.data(), 1);
      if (cols > 0)
        lumbra::qp::qpColumnDots(A.data(), lda, m, cols, x.data(), back.data() + cols - 1, -1);
      for (i64 j = 0; j < cols; ++j) {
        const double ref = sequentialDot(m, &A[at(0, j, lda)], x.data());
        EXPECT_BITEQ(ref, out[j]) << "m " << m << " cols " << cols << " j " << j;
        EXPECT_BITEQ(ref, back[cols - 1 - j]);
      }
      EXPECT_BITEQ(99.0, out[cols]);
    }
}

// u(i) = H(i,0:i) z(0:i) in row order, then + H(i+1:n-1,i)' z(i+1:n-1).
TEST(QpProducts, LowerTriangleProductMatchesRowAndColumnSums) {
  std::mt19937_64 rng(12);
  for (i64 n : {1, 2, 3, 8, 9, 10, 16, 17, 30}) {
    const i64 ldh = n + 2;
    const Vec H = wideData(rng, ldh * n), z = wideData(rng, n);
    Vec u(n, -5.0);
    lumbra::qp::qpLowerRowProducts(H.data(), ldh, n, z.data(), u.data());
    for (i64 i = 0; i < n; ++i) {
      double s = 0.0;
      for (i64 j = 0; j <= i; ++j) s = s + H[at(i, j, ldh)] * z[j];
      EXPECT_BITEQ(s, u[i]) << "row part, n " << n << " i " << i;
    }
    Vec full = u;
    lumbra::qp::qpLowerColumnDotsAdd(H.data(), ldh, n, z.data(), full.data());
    for (i64 i = 0; i + 1 < n; ++i) {
      const double s = sequentialDot(n - i - 1, &H[at(i + 1, i, ldh)], &z[i + 1]);
      EXPECT_BITEQ(u[i] + s, full[i]) << "column part, n " << n << " i " << i;
    }
    EXPECT_BITEQ(u[n - 1], full[n - 1]);  // the last row has no column part
  }
}

// y = A x column by column from +0.0 (a column of -0 gives +0); no column
// leaves y as it was, as the BLAS product does.
TEST(QpProducts, ColumnCombinationSweepsColumnsInOrderFromZero) {
  std::mt19937_64 rng(13);
  for (i64 cols : {0, 1, 3, 4, 5, 11}) {
    const i64 m = 13, lda = 15;
    const Vec A = wideData(rng, lda * std::max<i64>(cols, 1));
    const Vec x = wideData(rng, std::max<i64>(cols, 1));
    Vec y(m, 7.0);
    lumbra::qp::qpColumnCombination(A.data(), lda, m, cols, x.data(), y.data());
    for (i64 i = 0; i < m; ++i) {
      double s = 0.0;
      for (i64 j = 0; j < cols; ++j) s = s + x[j] * A[at(i, j, lda)];
      EXPECT_BITEQ(cols == 0 ? 7.0 : s, y[i]) << "cols " << cols << " i " << i;
    }
  }
  const double A[2] = {-0.0, -0.0}, x[1] = {1.0};
  double y[2] = {3.0, 3.0};
  lumbra::qp::qpColumnCombination(A, 2, 2, 1, x, y);
  EXPECT_FALSE(std::signbit(y[0]) || std::signbit(y[1]));
}

// Forward solve (job 1) x(j) = (b(j) - R(0:j-1,j)' x(0:j-1)) / R(j,j), also
// in place, bit for bit; the backward solve (job 2) on dyadic data, where
// every order of operations is exact.
TEST(QpProducts, TriangularSolves) {
  std::mt19937_64 rng(14);
  std::uniform_real_distribution<double> u(0.5, 2.0);
  for (int m : {1, 7, 8, 9, 16, 21}) {
    const int ldr = m + 1;
    Vec R = wideData(rng, i64{ldr} * m);
    for (i64 j = 0; j < m; ++j) R[at(j, j, ldr)] = u(rng);
    const Vec b = wideData(rng, m);
    Vec ref(m), x(m), inPlace = b;
    for (i64 j = 0; j < m; ++j)
      ref[j] = (b[j] - sequentialDot(j, &R[at(0, j, ldr)], ref.data())) / R[at(j, j, ldr)];
    lumbra::qp::qpTriSolve(R.data(), ldr, m, b.data(), x.data(), 1);
    lumbra::qp::qpTriSolve(R.data(), ldr, m, inPlace.data(), inPlace.data(), 1);
    for (i64 j = 0; j < m; ++j) {
      EXPECT_BITEQ(ref[j], x[j]) << "m " << m << " j " << j;
      EXPECT_BITEQ(ref[j], inPlace[j]);
    }
  }
  // R = [2 1 -1; 0 4 2; 0 0 0.5], b = R (1.5, -0.25, 2)
  const Vec R = {2, 0, 0, 1, 4, 0, -1, 2, 0.5}, b = {0.75, 3.0, 1.0};
  Vec x(3);
  lumbra::qp::qpTriSolve(R.data(), 3, 3, b.data(), x.data(), 2);
  EXPECT_BITEQ(1.5, x[0]);
  EXPECT_BITEQ(-0.25, x[1]);
  EXPECT_BITEQ(2.0, x[2]);
}

}  // namespace
