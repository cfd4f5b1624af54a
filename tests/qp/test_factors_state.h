// SPDX-License-Identifier: Apache-2.0
// Test helper: the solver's factor storage (Q, HR with R and T, ipvt, st)
// driven through additions and deletions as the main loop drives it, and a
// direct check of its invariants.
#pragma once
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "kernels/index.h"
#include "qp/factors.h"

namespace lumbra::qp::testqp {

using Vec = std::vector<double>;

inline Vec randomVector(int n, std::mt19937& gen) {
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  Vec v(n);
  for (double& x : v) x = u(gen);
  return v;
}

// B B' + shift I with B n by q (rank q when shift = 0), full storage.
inline Vec randomLowRank(int n, int q, std::mt19937& gen, double shift = 0.0) {
  const Vec B = randomVector(n * q, gen);
  Vec H(static_cast<std::size_t>(n) * n, 0.0);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      for (int l = 0; l < q; ++l) H[at(i, j, n)] += B[at(i, l, n)] * B[at(j, l, n)];
      if (i == j) H[at(i, i, n)] += shift;
    }
  return H;
}

struct FactorState {
  int n;
  Vec Hfull, Q, HR, w, w2;  // Hfull: the symmetric matrix, for the checks
  std::vector<int> ipvt;
  std::vector<Vec> normals;  // active normals in list order
  int k = 0, nz, st = 0;
  static constexpr int kChannel = 6;

  FactorState(int n_, const Vec& H)
      : n(n_), Hfull(H), Q(static_cast<std::size_t>(n_) * n_, 0.0),
        HR(static_cast<std::size_t>(n_) * (n_ + 1), 0.0), w(3 * n_ + 3), w2(3 * n_ + 3),
        ipvt(n_ + 1, 0), nz(n_) {
    for (int i = 0; i < n; ++i) {
      Q[at(i, i, n)] = 1.0;
      for (int j = 0; j <= i; ++j) HR[at(i, j, n)] = H[at(i, j, n)];
    }
  }
  double* Rp() { return HR.data() + n; }
  double R(int i, int j) const { return HR[at(i, j + 1, n)]; }
  double T(int i, int j) const { return HR[at(i, k + j + 1, n)]; }
  // Records the normal of constraint id (0: the row a, else a signed unit vector).
  void accept(const Vec& a, int id) {
    Vec e(n, 0.0);
    if (id != 0) e[std::abs(id) - 1] = id > 0 ? 1.0 : -1.0;
    normals.push_back(id == 0 ? a : e);
    k += 1;
  }

  // ANFM01: add while no T exists.
  void addFirst(const Vec& a, int id) {
    int io = id;
    ANFM01(Q.data(), n, Rp(), n, a.empty() ? nullptr : a.data(), w.data(), n, k + 1, io, kChannel);
    ASSERT_NE(io, -1);
    accept(a, id);
    nz = n - k;
  }

  // ANFM03 afresh over Z (growth marker removed).
  void factorFresh() {
    st = 0;
    if (nz == 0) return;
    ANFM03(HR.data(), n, HR.data() + at(0, k + 1, n), n, Q.data() + at(0, k, n), n, w.data(),
           ipvt.data(), n, nz, st, 1, kChannel);
    if (st <= -10 * n) st += 10 * n;
  }

  // ANFM04, then ANFM05 over the rows of T that stay valid, or ANFM03 when
  // none does, as the main loop does after a blocking step.
  bool add(const Vec& a, int id) {
    const int nzOld = nz, kNew = k + 1;
    const double t11 = T(0, 0);
    int io = id;
    ANFM04(Q.data(), n, Rp(), n, a.empty() ? nullptr : a.data(), w.data(), ipvt.data(), n, kNew,
           io, kChannel);
    if (io == -1) return false;
    accept(a, id);
    nz = nzOld - 1;
    if (nzOld < 2) {
      st = 0;
    } else if (st == -1 || st == -nzOld - 1 || st == 2 * nzOld || st == 3 * nzOld) {
      factorFresh();
    } else {
      const int r = st >= 0 && st <= nzOld ? nzOld : validRows(st, nzOld);
      if (r > 0)
        ANFM05(HR.data(), n, Rp() + at(0, kNew, n), n, Q.data() + at(0, kNew, n), n, w.data(),
               w2.data(), ipvt.data(), t11, nzOld - 1, r, n, st, 1, kChannel);
      if (st <= -10 * n) st += 10 * n;
    }
    return true;
  }

  // ANFM02 then ANFM06, dropping list position p (1-based).
  void remove(int p) {
    if (k > 1) ANFM02(Q.data(), n, Rp(), n, n, k, p, kChannel);
    normals.erase(normals.begin() + (p - 1));
    if (nz == 0) st = 0;
    ANFM06(Q.data() + at(0, k - 1, n), n, HR.data(), n, w.data(), ipvt.data(), n, nz, st,
           kChannel);
    k -= 1;
  }

  // Leading positions of T whose block of T'T is exact under status s.
  static int validRows(int s, int m) {
    if (s >= 0 && s <= m) return m - s;
    if (s > m && s <= 2 * m) return 2 * m - s;
    if (s > 2 * m) return 3 * m - s;
    if (s < -m) return -(m + s) - 1;
    return -s - 1;
  }

  // Q'Q = I, A = Q [R; 0] and, on the factored rows, T'T = P'Z'HZP
  // (tolerances: products of O(1) orthogonal factors).
  void expectInvariants(const std::string& where) const {
    auto col = [this](int c, int i) { return Q[at(i, c, n)]; };
    for (int a = 0; a < n; ++a)
      for (int b = 0; b < n; ++b) {
        double s = 0.0;
        for (int i = 0; i < n; ++i) s += col(a, i) * col(b, i);
        EXPECT_NEAR(a == b ? 1.0 : 0.0, s, 1e-12) << where << " Q'Q " << a << "," << b;
      }
    for (int j = 0; j < k; ++j)
      for (int i = 0; i < n; ++i) {
        double s = 0.0;
        for (int l = 0; l <= j; ++l) s += col(l, i) * R(l, j);
        EXPECT_NEAR(normals[j][i], s, 1e-12) << where << " A=QR col " << j << " row " << i;
      }
    // z_a' H z_b for reduced positions a, b (1-based, from the end of Q)
    auto reduced = [&](int a, int b) {
      double s = 0.0;
      for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) s += col(n - a, i) * Hfull[at(i, j, n)] * col(n - b, j);
      return s;
    };
    const int rows = nz == 0 ? 0 : validRows(st, nz);
    for (int a = 0; a < rows; ++a)
      for (int b = a; b < (st <= nz ? nz : rows); ++b) {
        double s = 0.0;
        for (int l = 0; l <= a; ++l) s += T(l, a) * T(l, b);
        EXPECT_NEAR(reduced(ipvt[a], ipvt[b]), s, 1e-11)
            << where << " T'T " << a << "," << b << " st " << st;
      }
  }
};

}  // namespace lumbra::qp::testqp
