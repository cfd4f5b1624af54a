// SPDX-License-Identifier: Apache-2.0
// The solver's products must form the plain sequential sums (s = 0.0,
// s = s + a(i) x(i) in ascending i; products column after column from 0).
// References are those loops written out.  On the reference BLAS, which
// forms its sums in that order, every comparison is exact; an optimised
// BLAS orders (and may fuse) its operations as it likes, so there each sum
// is held to the rounding bound of any order, 2 m u sum |a(i) x(i)| over its
// m terms.  Sizes cross the block widths and their remainders; data span
// many magnitudes so that any change of summation order shows in the last
// bits.
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

double sequentialDot(i64 m, const double* a, const double* x) {
  double s = 0.0;
  for (i64 i = 0; i < m; ++i) s = s + a[i] * x[i];
  return s;
}

// Sum of |a(i) x(i)| over m terms (the scale of the rounding of a dot).
double absDot(i64 m, const double* a, const double* x) {
  double s = 0.0;
  for (i64 i = 0; i < m; ++i) s += std::fabs(a[i] * x[i]);
  return s;
}

// A sum of m terms of absolute sum `mass` that the BLAS formed: bit for bit
// the sequential one on the reference library, else within 2 m u mass.
void expectSum(double ref, double got, i64 m, double mass, bool exact) {
  if (exact) {
    EXPECT_BITEQ(ref, got);
  } else {
    EXPECT_NEAR(ref, got, 2.0 * static_cast<double>(m + 1) * 0x1p-53 * mass);
  }
}

TEST(QpProducts, MatchSequentialSums) {
  std::mt19937_64 rng(11);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  auto wide = [&](i64 count) {
    Vec v(std::max<i64>(count, 1));
    for (double& e : v) e = u(rng) * std::exp2(std::floor(40.0 * u(rng)));
    return v;
  };
  const bool exact = lumbra::testing::referenceBlas();
  for (i64 n : {1, 2, 3, 7, 8, 9, 12, 17, 25, 33, 64, 70}) {
    const i64 ld = n + 3;
    const Vec A = wide(ld * n), x = wide(n);
    // column dots, forwards and (direction -1) backwards, nothing past the end
    Vec out(n + 1, 99.0), back(n, 99.0);
    lumbra::qp::qpColumnDots(A.data(), ld, n, n, x.data(), out.data(), 1);
    lumbra::qp::qpColumnDots(A.data(), ld, n, n, x.data(), back.data() + n - 1, -1);
    for (i64 j = 0; j < n; ++j) {
      const double ref = sequentialDot(n, &A[at(0, j, ld)], x.data());
      const double mass = absDot(n, &A[at(0, j, ld)], x.data());
      SCOPED_TRACE(::testing::Message() << "dots n " << n << " j " << j);
      expectSum(ref, out[j], n, mass, exact);
      expectSum(ref, back[n - 1 - j], n, mass, exact);
    }
    EXPECT_BITEQ(99.0, out[n]);
    // u(i) = H(i,0:i) x(0:i) in row order, then + H(i+1:n-1,i)' x(i+1:n-1)
    Vec full(n);
    lumbra::qp::qpLowerSymProduct(A.data(), ld, n, x.data(), full.data());
    for (i64 i = 0; i < n; ++i) {
      double s = 0.0, mass = 0.0;
      for (i64 j = 0; j <= i; ++j) {
        s = s + A[at(i, j, ld)] * x[j];
        mass += std::fabs(A[at(i, j, ld)] * x[j]);
      }
      const double ref = s + sequentialDot(n - i - 1, &A[at(i + 1, i, ld)], &x[i + 1]);
      mass += absDot(n - i - 1, &A[at(i + 1, i, ld)], &x[i + 1]);
      SCOPED_TRACE(::testing::Message() << "symmetric product n " << n << " i " << i);
      expectSum(ref, full[i], n, mass, exact);
    }
    // y = A x column by column from +0.0
    Vec y(n, 7.0);
    lumbra::qp::qpColumnCombination(A.data(), ld, n, n, x.data(), y.data());
    for (i64 i = 0; i < n; ++i) {
      double s = 0.0, mass = 0.0;
      for (i64 j = 0; j < n; ++j) {
        s = s + x[j] * A[at(i, j, ld)];
        mass += std::fabs(x[j] * A[at(i, j, ld)]);
      }
      SCOPED_TRACE(::testing::Message() << "combination n " << n << " i " << i);
      expectSum(s, y[i], n, mass, exact);
    }
    // forward solve x(j) = (b(j) - R(0:j-1,j)' x(0:j-1)) / R(j,j), also in place
    Vec R = A;
    for (i64 j = 0; j < n; ++j) R[at(j, j, ld)] = 0.5 + std::fabs(u(rng));
    Vec ref(n), sol(n), inPlace = x;
    for (i64 j = 0; j < n; ++j)
      ref[j] = (x[j] - sequentialDot(j, &R[at(0, j, ld)], ref.data())) / R[at(j, j, ld)];
    lumbra::qp::qpTriSolve(R.data(), ld, n, x.data(), sol.data(), 1);
    lumbra::qp::qpTriSolve(R.data(), ld, n, inPlace.data(), inPlace.data(), 1);
    for (i64 j = 0; j < n; ++j) {
      EXPECT_BITEQ(ref[j], sol[j]) << "solve n " << n << " j " << j;
      EXPECT_BITEQ(ref[j], inPlace[j]);
    }
  }
}

}  // namespace
