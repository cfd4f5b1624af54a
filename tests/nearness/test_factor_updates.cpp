// SPDX-License-Identifier: Apache-2.0
// The minimiser's factor operations against the matrix they stand for.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <vector>

#include "nearness/minimiser_internal.h"
#include "test_support.h"

namespace {

using lumbra::at;
using lumbra::i64;
using namespace lumbra::nearness;
using Vec = std::vector<double>;

// H in variable order (column-major) from hess with r free positions: L D L'
// on the free block, R coupling it to the held, Q among the held.
Vec rebuild(const Vec& hess, int n, int r, const std::vector<int>& position) {
  Vec H(static_cast<size_t>(n) * n);
  auto L = [&](i64 i, i64 l) { return i == l ? 1.0 : hess[factorAt(i, l, r)]; };
  for (i64 a = 0; a < n; ++a)
    for (i64 b = 0; b < n; ++b) {
      const i64 i = std::max(position[a], position[b]) - 1;
      const i64 j = std::min(position[a], position[b]) - 1;
      double s = 0.0;
      for (i64 l = 0; i < r && l <= j; ++l) s += L(i, l) * hess[factorAt(l, l, r)] * L(j, l);
      if (i >= r) s = j < r ? hess[couplingAt(j, i, r, n)] : hess[activeAt(j, i, n)];
      H[at(a, b, n)] = s;
    }
  return H;
}

// Random updates, downdates keeping H definite (z = H v, sigma = -0.5 / v'z halves the
// curvature along v), removals, insertions from B B' / n + I: position stays a permutation,
// the factor rebuilds the dense H updated by hand to 1e-10 of its top (O(n) roundings, n <= 9).
TEST(FactorUpdates, RandomSequencesMatchTheRecomputedProduct) {
  std::mt19937_64 rng(20240611);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  int emptied = 0;
  for (int n : {1, 2, 3, 5, 9})
    for (int rep = 0; rep < 4; ++rep) {
      Vec B(static_cast<size_t>(n) * n), H(B.size(), 0.0), hess(n * (n + 1) / 2), w(n);
      for (double& e : B) e = u(rng);
      for (i64 i = 0; i < n; ++i)
        for (i64 j = 0; j < n; ++j) {
          H[at(i, j, n)] = i == j ? 1.0 : 0.0;
          for (i64 k = 0; k < n; ++k) H[at(i, j, n)] += B[at(i, k, n)] * B[at(j, k, n)] / n;
          if (i >= j) hess[factorAt(i, j, n)] = H[at(i, j, n)];
        }
      int r = -1;
      factorFromMatrix(hess.data(), n, r);
      ASSERT_EQ(r, n);
      std::vector<int> position(n);
      std::iota(position.begin(), position.end(), 1);
      const std::vector<int> identity = position;
      for (int step = 0; step < 60; ++step) {
        const int op = static_cast<int>(rng() % 4);
        const bool remove = op == 2 && r > 0, insert = op == 3 && r < n;
        if (op < 2) {
          Vec v(n), zVar(n, 0.0), z(n);
          for (double& e : v) e = u(rng);
          double sigma = 0.5 + 0.5 * u(rng);
          for (i64 i = 0; i < n; ++i)
            for (i64 j = 0; j < n; ++j) zVar[i] += H[at(i, j, n)] * v[j];
          if (op == 1) sigma = -0.5 / std::inner_product(v.begin(), v.end(), zVar.begin(), 0.0);
          if (op == 0) zVar = v;
          for (i64 i = 0; i < n; ++i)
            for (i64 j = 0; j < n; ++j) H[at(i, j, n)] += sigma * zVar[i] * zVar[j];
          permuteVector(1, n, zVar.data(), z.data(), position.data());
          int ir = r;
          hessianRankOne(hess.data(), n, r, z.data(), sigma, w.data(), ir, 0, 0.0);
          EXPECT_TRUE(r == 0 || ir == r);
        } else if (remove || insert) {
          int k = 0;
          do k = 1 + static_cast<int>(rng() % n);
          while ((position[k - 1] <= r) != remove);
          int result = 0;
          if (remove) factorRemove(n, k, r, hess.data(), w.data(), position.data());
          if (insert) factorInsert(result, n, k, r, hess.data(), w.data(), position.data(), 0);
          ASSERT_EQ(result, 0);
          EXPECT_EQ(position[k - 1], remove ? r + 1 : r);
        }
        emptied += r == 0;
        ASSERT_TRUE(std::is_permutation(position.begin(), position.end(), identity.begin()));
        const Vec rebuilt = rebuild(hess, n, r, position);
        double scale = 1.0;
        for (double v : H) scale = std::max(scale, std::fabs(v));
        for (size_t e = 0; e < H.size(); ++e)
          ASSERT_NEAR(H[e], rebuilt[e], 1e-10 * scale) << n << ", " << rep << ", " << step;
      }
    }
  EXPECT_GT(emptied, 0);
}

// t(1) / t(0) exactly 4, the switch value, takes the first form: D = (3, 1), L(1,0) = 0.1,
// z = (3, 0.2), sigma = 1: L(1,0) + 0.25 (z(1) - z(0) L(1,0)), not 0.25 L(1,0) + 0.25 z(1).
TEST(FactorUpdates, RecurrenceSwitchIsInclusive) {
  double T[3] = {3.0, 0.1, 1.0}, z[2] = {3.0, 0.2}, w[2];
  int ir = 2;
  factorRankOne(T, 2, z, 1.0, w, ir, 0, 0.0);
  const double z1 = 0.2 - 3.0 * 0.1;
  EXPECT_BITEQ(12.0, T[0]);
  EXPECT_BITEQ(0.1 + 0.25 * z1, T[1]);
  EXPECT_FALSE(0.1 + 0.25 * z1 == 0.25 * 0.1 + 0.25 * 0.2);  // the case tells them apart
  EXPECT_NEAR(1.0 + z1 * z1 / 4.0, T[2], 1e-15);
  EXPECT_EQ(ir, 2);
}

}  // namespace
