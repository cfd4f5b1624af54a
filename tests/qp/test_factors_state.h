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
    for (int j = 0; j < n; ++j)
      for (int l = 0; l < q; ++l) H[at(i, j, n)] += B[at(i, l, n)] * B[at(j, l, n)];
  if (shift != 0.0)
    for (int i = 0; i < n; ++i) H[at(i, i, n)] += shift;
  return H;
}
inline Vec randomSpd(int n, std::mt19937& gen) { return randomLowRank(n, n, gen, 0.5); }

struct FactorState {
  int n;
  Vec Hfull, Q, HR, w, w2;  // Hfull: the symmetric matrix, for the checks
  std::vector<int> ipvt;
  std::vector<Vec> normals;  // active normals in list order
  int k = 0, nz, st = 0, flag = 1;
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
  void accept(const Vec& a, int id) {  // record the normal of constraint id (0: the row a)
    Vec e(n, 0.0);
    if (id != 0) e[std::abs(id) - 1] = id > 0 ? 1.0 : -1.0;
    normals.push_back(id == 0 ? a : e);
    k += 1;
  }

  // ANFM01: add while no T exists.
  bool addFirst(const Vec& a, int id) {
    const int kNew = k + 1, idIn = id;
    ANFM01(Q.data(), n, Rp(), n, a.empty() ? nullptr : a.data(), w.data(), n, kNew, id, kChannel);
    if (id == -1) return false;
    accept(a, idIn);
    nz = n - k;
    return true;
  }

  // ANFM03 afresh over Z, marker removed.
  void factorFresh(int flg) {
    flag = flg;
    st = 0;
    if (nz == 0) return;
    ANFM03(HR.data(), n, HR.data() + at(0, k + 1, n), n, Q.data() + at(0, k, n), n, w.data(),
           ipvt.data(), n, nz, st, flag, kChannel);
    if (st <= -10 * n) st += 10 * n;
  }

  // ANFM04 then ANFM05 or ANFM03, as after a blocking step.
  bool add(const Vec& a, int id) {
    const int nzOld = nz, kNew = k + 1, idIn = id;
    const double t11 = T(0, 0);
    ANFM04(Q.data(), n, Rp(), n, a.empty() ? nullptr : a.data(), w.data(), ipvt.data(), n, kNew,
           id, kChannel);
    if (id == -1) return false;
    accept(a, idIn);
    nz = nzOld - 1;
    if (nzOld < 2) {
      st = 0;
      return true;
    }
    if (st == -1 || st == -nzOld - 1 || st == 2 * nzOld || st == 3 * nzOld) {
      factorFresh(flag);
      return true;
    }
    // r: leading rows of T still valid after the update
    int r = nzOld;
    if (st > 2 * nzOld && st < 3 * nzOld) r = 3 * nzOld - st;
    else if (st > nzOld && st < 2 * nzOld) r = 2 * nzOld - st;
    else if (st >= -nzOld && st < -1) r = -1 - st;
    else if (st < 0) r = -1 - (nzOld + st);
    if (r > 0)
      ANFM05(HR.data(), n, Rp() + at(0, kNew, n), n, Q.data() + at(0, kNew, n), n, w.data(),
             w2.data(), ipvt.data(), t11, nzOld - 1, r, n, st, flag, kChannel);
    if (st <= -10 * n) st += 10 * n;
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

  // Reduced Hessian z_a' H z_b for reduced indices a, b (1-based).
  double reduced(int a, int b) const {
    double s = 0.0;
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) s += Q[at(i, n - a, n)] * Hfull[at(i, j, n)] * Q[at(j, n - b, n)];
    return s;
  }

  // Q'Q = I, A = Q [R; 0], ipvt a permutation and, on the factored rows,
  // T'T = P'Z'HZP (tolerances: products of O(1) orthogonal factors).
  void expectInvariants(const std::string& where) const {
    for (int a = 0; a < n; ++a)
      for (int b = 0; b < n; ++b) {
        double s = 0.0;
        for (int i = 0; i < n; ++i) s += Q[at(i, a, n)] * Q[at(i, b, n)];
        EXPECT_NEAR(a == b ? 1.0 : 0.0, s, 1e-12) << where << " Q'Q " << a << "," << b;
      }
    ASSERT_EQ(static_cast<int>(normals.size()), k) << where;
    for (int j = 0; j < k; ++j)
      for (int i = 0; i < n; ++i) {
        double s = 0.0;
        for (int l = 0; l <= j; ++l) s += Q[at(i, l, n)] * R(l, j);
        EXPECT_NEAR(normals[j][i], s, 1e-12) << where << " A=QR col " << j << " row " << i;
      }
    if (nz == 0) return;
    std::vector<int> seen(nz + 1, 0);
    for (int i = 0; i < nz; ++i) {
      ASSERT_TRUE(ipvt[i] >= 1 && ipvt[i] <= nz) << where << " ipvt " << ipvt[i];
      seen[ipvt[i]] += 1;
    }
    for (int i = 1; i <= nz; ++i) EXPECT_EQ(seen[i], 1) << where << " ipvt";
    // rows: leading positions whose block of T'T is exact; cross: whether
    // their couplings to every later position are exact too.
    int rows = 0;
    const bool cross = st <= nz;
    if (st >= 0 && st <= nz) rows = nz - st;
    else if (st > nz && st <= 2 * nz) rows = 2 * nz - st;
    else if (st > 2 * nz) rows = 3 * nz - st;
    else if (st <= -2 && st >= -nz) rows = -st - 1;
    else if (st < -nz) rows = -(nz + st) - 1;
    for (int a = 0; a < rows; ++a)
      for (int b = a; b < (cross ? nz : rows); ++b) {
        double s = 0.0;
        for (int l = 0; l <= a; ++l) s += T(l, a) * T(l, b);
        EXPECT_NEAR(reduced(ipvt[a], ipvt[b]), s, 1e-11)
            << where << " T'T " << a << "," << b << " st " << st;
      }
  }
};

}  // namespace lumbra::qp::testqp
