// Test helper: the solver's factor storage (Q, HR with R and T, ipvt, st)
// driven through additions and deletions the way the main loop drives it,
// and a direct check of the invariants.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "kernels/index.h"
#include "qp/factors.h"

namespace lumbra::qp::testqp {

inline std::vector<double> randomVector(int n, std::mt19937& gen) {
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> v(n);
  for (double& x : v) x = u(gen);
  return v;
}

// B B' with B n by q (rank q), full storage.
inline std::vector<double> randomLowRank(int n, int q, std::mt19937& gen) {
  std::vector<double> B = randomVector(n * q, gen), H(static_cast<std::size_t>(n) * n, 0.0);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      for (int l = 0; l < q; ++l) H[at(i, j, n)] += B[at(i, l, n)] * B[at(j, l, n)];
  return H;
}

inline std::vector<double> randomSpd(int n, std::mt19937& gen) {
  std::vector<double> H = randomLowRank(n, n, gen);
  for (int i = 0; i < n; ++i) H[at(i, i, n)] += 0.5;
  return H;
}

struct FactorState {
  int n;
  std::vector<double> Hfull;  // the symmetric matrix, for the checks
  std::vector<double> Q, HR, w, w2;
  std::vector<int> ipvt;
  std::vector<std::vector<double>> normals;  // active normals in list order
  int k = 0, nz, st = 0, flag = 1;
  const int channel = 6;

  FactorState(int n_, const std::vector<double>& H)
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

  static std::vector<double> normalOf(int n, const std::vector<double>& a, int id) {
    if (id == 0) return a;
    std::vector<double> e(n, 0.0);
    e[std::abs(id) - 1] = id > 0 ? 1.0 : -1.0;
    return e;
  }

  // ANFM01: add while no T exists.
  bool addFirst(const std::vector<double>& a, int id) {
    const int kNew = k + 1;
    const int idIn = id;
    ANFM01(Q.data(), n, Rp(), n, a.empty() ? nullptr : a.data(), w.data(), n, kNew, id, channel);
    if (id == -1) return false;
    normals.push_back(normalOf(n, a, idIn));
    k = kNew;
    nz = n - k;
    return true;
  }

  // ANFM03 afresh over Z, marker removed.
  void factorFresh(int flg) {
    flag = flg;
    if (nz == 0) {
      st = 0;
      return;
    }
    int kf = 0;
    ANFM03(HR.data(), n, HR.data() + at(0, k + 1, n), n, Q.data() + at(0, k, n), n, w.data(),
           ipvt.data(), n, nz, kf, flag, channel);
    if (kf <= -10 * n) kf += 10 * n;
    st = kf;
  }

  // ANFM04 then ANFM05 or ANFM03, as after a blocking step.
  bool add(const std::vector<double>& a, int id) {
    const int nzOld = nz;
    const double t11 = T(0, 0);
    const int kNew = k + 1;
    const int idIn = id;
    ANFM04(Q.data(), n, Rp(), n, a.empty() ? nullptr : a.data(), w.data(), ipvt.data(), n, kNew,
           id, channel);
    if (id == -1) return false;
    normals.push_back(normalOf(n, a, idIn));
    if (nzOld >= 2) {
      int r;
      if (st > 2 * nzOld && st < 3 * nzOld) r = 3 * nzOld - st;
      else if (st > nzOld && st < 2 * nzOld) r = 2 * nzOld - st;
      else if (st >= -nzOld && st < -1) r = -1 - st;
      else if (st < 0) r = -1 - (nzOld + st);
      else r = nzOld;
      const int m = nzOld - 1;
      if (st == -1 || st == -nzOld - 1 || st == 2 * nzOld || st == 3 * nzOld) {
        k = kNew;
        nz = m;
        factorFresh(flag);
        return true;
      }
      if (r > 0)
        ANFM05(HR.data(), n, Rp() + at(0, kNew, n), n, Q.data() + at(0, kNew, n), n, w.data(),
               w2.data(), ipvt.data(), t11, m, r, n, st, flag, channel);
      if (st <= -10 * n) st += 10 * n;
    } else {
      st = 0;
    }
    k = kNew;
    nz = nzOld - 1;
    return true;
  }

  // ANFM02 then ANFM06, dropping list position p (1-based).
  void remove(int p) {
    if (k > 1) ANFM02(Q.data(), n, Rp(), n, n, k, p, channel);
    normals.erase(normals.begin() + (p - 1));
    if (nz == 0) st = 0;
    ANFM06(Q.data() + at(0, k - 1, n), n, HR.data(), n, w.data(), ipvt.data(), n, nz, st,
           channel);
    k -= 1;
  }

  // Reduced Hessian z_a' H z_b for reduced indices a, b (1-based).
  double reduced(int a, int b) const {
    const double* za = &Q[at(0, n - a, n)];
    const double* zb = &Q[at(0, n - b, n)];
    double s = 0.0;
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) s += za[i] * Hfull[at(i, j, n)] * zb[j];
    return s;
  }

  // Q'Q = I, A = Q [R; 0], and, on the factored rows, T'T = P'Z'HZP.
  void expectInvariants(const std::string& where) const {
    const double tol = 1e-12;
    for (int a = 0; a < n; ++a)
      for (int b = 0; b < n; ++b) {
        double s = 0.0;
        for (int i = 0; i < n; ++i) s += Q[at(i, a, n)] * Q[at(i, b, n)];
        EXPECT_NEAR(a == b ? 1.0 : 0.0, s, tol) << where << " Q'Q " << a << "," << b;
      }
    ASSERT_EQ(static_cast<int>(normals.size()), k) << where;
    for (int j = 0; j < k; ++j)
      for (int i = 0; i < n; ++i) {
        double s = 0.0;
        for (int l = 0; l <= j; ++l) s += Q[at(i, l, n)] * R(l, j);
        EXPECT_NEAR(normals[j][i], s, tol) << where << " A=QR col " << j << " row " << i;
      }
    if (nz == 0) return;
    std::vector<int> seen(nz + 1, 0);
    for (int i = 0; i < nz; ++i) {
      ASSERT_GE(ipvt[i], 1) << where;
      ASSERT_LE(ipvt[i], nz) << where;
      seen[ipvt[i]] += 1;
    }
    for (int i = 1; i <= nz; ++i) EXPECT_EQ(seen[i], 1) << where << " ipvt";
    // rows: leading positions whose block of T'T is exact; cross: whether
    // their couplings to every later position are exact too.
    int rows = 0;
    bool cross = true;
    if (st >= 0 && st <= nz) {
      rows = nz - st;
    } else if (st > nz && st <= 2 * nz) {
      rows = 2 * nz - st;
      cross = false;
    } else if (st > 2 * nz) {
      rows = 3 * nz - st;
      cross = false;
    } else if (st <= -2 && st >= -nz) {
      rows = -st - 1;
    } else if (st < -nz) {
      rows = -(nz + st) - 1;
    }
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
