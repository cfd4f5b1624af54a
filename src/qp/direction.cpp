// SPDX-License-Identifier: Apache-2.0
// Search direction of the active-set QP solver in the null space of the
// working set, and the small triangular solves it shares with the rest of
// the solver.
#include <algorithm>
#include <cmath>

#include "kernels/blas.h"
#include "kernels/index.h"
#include "qp/factors.h"
#include "qp/products.h"

namespace lumbra::qp {

namespace {

// Forward solve R'x = b for the B unknowns j0..j0+B-1, x(0:j0-1) known:
// x(j) = (b(j) - R(0:j-1,j)' x(0:j-1)) / R(j,j), each sum taken term after
// term from 0.0.  The B sums run side by side over the known unknowns, then
// each takes its terms from the block in turn, as those are solved.
template <int B>
void forwardBlock(const double* R, i64 ldr, i64 j0, const double* b, double* x) {
  double s[B];
  for (int c = 0; c < B; ++c) s[c] = 0.0;
  for (i64 i = 0; i < j0; ++i) {
    const double xi = x[i];
    for (int c = 0; c < B; ++c) s[c] = s[c] + R[at(i, j0 + c, ldr)] * xi;
  }
  for (int c = 0; c < B; ++c) {
    const i64 j = j0 + c;
    double sj = s[c];
    for (i64 i = j0; i < j; ++i) sj = sj + R[at(i, j, ldr)] * x[i];
    x[j] = (b[j] - sj) / R[at(j, j, ldr)];
  }
}

// Scatters the reduced vector out of pivot order: y(ipvt(i)-1) = p(i).
void scatter(i64 m, const double* p, const int* ipvt, double* y) {
  for (i64 i = 0; i < m; ++i) y[ipvt[i] - 1] = p[i];
}

}  // namespace

// Triangular solve with the leading m by m upper triangle of R:
// job 1, R'x = b: x(j) = (b(j) - R(0:j-1,j)' x(0:j-1)) / R(j,j);
// otherwise R x = b: x(i) = (b(i) - R(i,i+1:m-1) x(i+1:m-1)) / R(i,i).
// Every product is a sequential sum from 0.0; the forward solve forms eight
// of them side by side (x may be b: b(j) is read before x(j) is written).
void qpTriSolve(const double* R, const int& ldr, const int& m, const double* b, double* x,
                const int& job) {
  if (m <= 0) return;
  if (job == 1) {
    i64 j = 0;
    for (; j + 8 <= m; j += 8) forwardBlock<8>(R, ldr, j, b, x);
    for (; j < m; ++j) forwardBlock<1>(R, ldr, j, b, x);
  } else {
    for (i64 i = m - 1; i >= 0; --i)
      x[i] = (b[i] - qpBlasDot(m - 1 - i, &R[at(i, i + 1, ldr)], ldr, &x[i + 1], 1)) / R[at(i, i, ldr)];
  }
}

// y := P (T'T)^-1 P' y on m positions: gather in pivot order, solve T'u = w
// and T v = u in place, scatter back.
void qpNormalSolve(const double* T, const int& ldt, double* y, double* w, const int* ipvt,
                   const int& m) {
  for (i64 i = 0; i < m; ++i) w[i] = y[ipvt[i] - 1];
  const int forward = 1, backward = 2;
  qpTriSolve(T, ldt, m, w, w, forward);
  qpTriSolve(T, ldt, m, w, w, backward);
  scatter(m, w, ipvt, y);
}

namespace {

// Stage 1, the reduced gradient, by mode: 0 forms y(j) = -z_j' g with
// z_j = Z(:, nz-1-j); 1 forms only c = -Z(:,0)' g, the slope along the
// column just freed by a deletion, since the rest of Z was already
// stationary; 10 negates the Z'G the main loop left in y and turns mode
// to 0.  Returns c, 0 unless mode is 1.
double reducedGradient(const double* Z, int ldq, const double* g, double* y, int nz, int n,
                       int& mode) {
  double c = 0.0;
  if (mode == 0) {
    // column c of Z goes to y(nz-1-c)
    qpColumnDots(Z, ldq, n, nz, g, y + nz - 1, -1);
    for (i64 j = 0; j < nz; ++j) y[j] = -y[j];
  } else if (mode == 1) {
    c = -qpBlasDot(n, &Z[at(0, 0, ldq)], 1, g, 1);
  } else if (mode == 10) {
    mode = 0;
    for (i64 j = 0; j < nz; ++j) y[j] = -y[j];
  }
  return c;
}

// Complete factor (st = 0, Z'HZ positive definite).  Mode 0: the Newton
// step y = -(Z'HZ)^-1 Z'g, natural step 1.  Otherwise only the newest
// column, the last position of T, sees the gradient: T p = -e_(nz-1) gives
// the direction whose step alpha = |c p(nz-1)| is the exact minimiser along
// it, without a full solve.
void definiteStep(const double* T, int ldt, double* y, double* p, const int* ipvt, int nz,
                  int mode, double c, double scale, double& alpha) {
  const int job2 = 2;
  if (mode == 0) {
    qpNormalSolve(T, ldt, y, p, ipvt, nz);  // y = -(Z'HZ)^-1 Z'g
    return;
  }
  for (i64 i = 0; i < nz; ++i) p[i] = 0.0;
  p[nz - 1] = -1.0;
  qpTriSolve(T, ldt, nz, p, p, job2);
  double e = c * p[nz - 1];
  if (e > 0.0) {
    scatter(nz, p, ipvt, y);
  } else {
    for (i64 i = 0; i < nz; ++i) y[ipvt[i] - 1] = -p[i];
    e = -e;
  }
  alpha = e / scale;
}

// Negative pivot at position r-1 (-nz <= st < -1, r = -st), positions
// 0..r-2 factored: p(0:r-2) solves T(0:r-2,0:r-2) p = -T(0:r-2,r-1), and
// y = (p, 1) in pivot order is a direction of negative curvature.
void negativePivotDirection(const double* T, int ldt, double* y, double* p, const int* ipvt,
                            int nz, int st) {
  const int job2 = 2;
  const i64 r = -st;
  for (i64 i = 0; i + 1 < r; ++i) p[i] = -T[at(i, r - 1, ldt)];
  const int rm1 = static_cast<int>(r - 1);
  qpTriSolve(T, ldt, rm1, p, p, job2);
  for (i64 i = 0; i < nz; ++i) y[i] = 0.0;
  scatter(r - 1, p, ipvt, y);
  y[ipvt[r - 1] - 1] = 1.0;
}

// Coupling of the gradient with tail position cp through v, the solve
// T(0:r-1,0:r-1) v = T(0:r-1,cp): the slope along the null-curvature
// direction (v, -e_cp).  Mode 0 reads the reduced gradient yg in pivot
// order; otherwise only the newest column, at position qNew, carries the
// slope c.
double tailCoupling(const double* v, const double* yg, i64 r, i64 cp, int mode, double c,
                    i64 qNew) {
  if (mode == 0) return qpBlasDot(r, v, 1, yg, 1) - yg[cp];
  if (qNew == cp) return -c;
  if (qNew >= r) return 0.0;
  return c * v[qNew];
}

// Singular tail (1 <= st < nz): r = nz - st positions factored, the last st
// without curvature.  Every tail position whose direction (v, -e_cp) has a
// slope d above t adds d times it to p: a null-curvature direction that
// goes downhill.  If none has, the gradient lives in the factored part
// alone: the Newton step there (mode 0) or the line step along the newest
// column (mode 1), zero in the tail, and the function returns true (the
// main loop's positive-curvature case).  y's second half holds the reduced
// gradient in pivot order while the first half takes the solves.
bool singularTailDirection(const double* T, int ldt, double* y, double* p, const int* ipvt,
                           int nz, int st, int mode, double c, double scale, double t) {
  const int job2 = 2;
  const i64 r = nz - st;
  const int ri = static_cast<int>(r);
  double* v = y;        // first half: solves with the factored triangle
  double* yg = &y[nz];  // second half: reduced gradient in pivot order
  if (mode == 0)
    for (i64 i = 0; i < nz; ++i) yg[i] = y[ipvt[i] - 1];
  for (i64 i = 0; i < r; ++i) p[i] = 0.0;
  i64 qNew = 0;  // position of the newest reduced index, for mode 1
  if (mode != 0)
    for (i64 i = 0; i < nz; ++i)
      if (ipvt[i] == nz) qNew = i;
  bool found = false;
  for (i64 j = 0; j < st; ++j) {
    const i64 cp = r + j;
    qpTriSolve(T, ldt, ri, &T[at(0, cp, ldt)], v, job2);
    const double d = tailCoupling(v, yg, r, cp, mode, c, qNew);
    if (std::fabs(d) > t) {
      for (i64 i = 0; i < r; ++i) p[i] += d * v[i];
      found = true;
      p[cp] = -d;
    }
  }
  if (found) {
    scatter(nz, p, ipvt, y);
    return false;
  }
  if (mode != 0) {
    for (i64 i = 0; i < r; ++i) p[i] = 0.0;
    p[r - 1] = -1.0;
    qpTriSolve(T, ldt, ri, p, p, job2);
    for (i64 i = r; i < nz; ++i) p[i] = 0.0;
    scatter(nz, p, ipvt, y);
  } else {
    for (i64 i = 0; i < nz; ++i) y[ipvt[i] - 1] = yg[i];
    if (scale != 1.0)
      for (i64 i = 0; i < nz; ++i) y[i] = y[i] / scale;
    qpNormalSolve(T, ldt, y, p, ipvt, ri);
    for (i64 i = r; i < nz; ++i) y[ipvt[i] - 1] = 0.0;
  }
  return true;
}

// Zero-curvature last position coupled to the tail (nz < st <= 2nz,
// r = 2nz - st): p(0:r-1) from T(0:r-1,0:r-1) p = T(0:r-1,r:nz-2)
// T(r:nz-2,nz-1) - T(0:r-1,nz-1), then -T(r:nz-2,nz-1) and 1, negated
// when the slope c is negative.  The coupling of a zero pivot makes the
// objective non-convex along it: the ratio test takes it as a direction of
// negative curvature.
void coupledLastDirection(const double* T, int ldt, double* y, double* p, const int* ipvt,
                          int nz, int st, double c) {
  const int job2 = 2;
  const i64 r = 2 * nz - st;
  for (i64 i = 0; i < r; ++i)
    p[i] = qpBlasDot(nz - r - 1, &T[at(i, r, ldt)], ldt, &T[at(r, nz - 1, ldt)], 1) -
           T[at(i, nz - 1, ldt)];
  const int ri = static_cast<int>(r);
  qpTriSolve(T, ldt, ri, p, p, job2);
  for (i64 i = r; i + 1 < nz; ++i) p[i] = -T[at(i, nz - 1, ldt)];
  p[nz - 1] = 1.0;
  if (c < 0.0)
    for (i64 i = 0; i < nz; ++i) p[i] = -p[i];
  scatter(nz, p, ipvt, y);
}

// Position r-1 carries a row of couplings over a zero pivot (st > 2nz,
// r = 3nz - st): with b the row T(r-1,r:nz-1), p(0:r-2) = -T(0:r-2,r:nz-1) b,
// p(r-1) = -|b|^2, solved with the leading r triangle, then -b, negated
// when c p(r-1) is negative: a direction of negative curvature.
void couplingRowDirection(const double* T, int ldt, double* y, double* p, const int* ipvt,
                          int nz, int st, double c) {
  const int job2 = 2;
  const i64 r = 3 * nz - st;
  for (i64 i = 0; i + 1 < r; ++i)
    p[i] = -qpBlasDot(nz - r, &T[at(i, r, ldt)], ldt, &T[at(r - 1, r, ldt)], ldt);
  const double b = qpBlasNrm2(nz - r, &T[at(r - 1, r, ldt)], ldt);
  p[r - 1] = -b * b;
  const int ri = static_cast<int>(r);
  qpTriSolve(T, ldt, ri, p, p, job2);
  for (i64 i = r; i < nz; ++i) p[i] = -T[at(r - 1, i, ldt)];
  if (c * p[r - 1] < 0.0)
    for (i64 i = 0; i < nz; ++i) p[i] = -p[i];
  scatter(nz, p, ipvt, y);
}

// Indefinite pair at positions r-1, r (st < -nz, r = -(nz + st)) with zero
// diagonal and coupling a = T(r-1,r): p(0:r-2) solves the leading r-1
// triangle against a T(0:r-2,r-1) - T(0:r-2,r), p(r-1) = -a, and y = (p, 1)
// in pivot order is a direction of negative curvature.
void indefinitePairDirection(const double* T, int ldt, double* y, double* p, const int* ipvt,
                             int nz, int st) {
  const int job2 = 2;
  const i64 r = -(nz + st);
  const double ar = T[at(r - 1, r, ldt)];
  for (i64 i = 0; i + 1 < r; ++i) p[i] = ar * T[at(i, r - 1, ldt)] - T[at(i, r, ldt)];
  const int rm1 = static_cast<int>(r - 1);
  qpTriSolve(T, ldt, rm1, p, p, job2);
  p[r - 1] = -ar;
  for (i64 i = 0; i < nz; ++i) y[i] = 0.0;
  scatter(r, p, ipvt, y);
  y[ipvt[r] - 1] = 1.0;
}

// Stage 3, back to the variables: p = sum_j y(j) Z(:, nz-1-j).  With
// st = -1 the direction is the column of the first pivot itself; with no
// curvature at all (st = nz) it is the reduced gradient, which is
// c Z(:,0) after a deletion.  Returns true when that gradient is at or
// below t: p = 0, the point is stationary on Z.
bool toVariables(const double* Z, int ldq, double* y, double* p, const int* ipvt, int nz,
                 int n, int st, int mode, double c, double t) {
  if (st == -1) {
    const double* zc = &Z[at(0, nz - ipvt[0], ldq)];
    for (i64 i = 0; i < n; ++i) p[i] = zc[i];
    return false;
  }
  if (st == nz && mode == 1) {
    if (std::fabs(c) <= t) {
      for (i64 i = 0; i < n; ++i) p[i] = 0.0;
      return true;
    }
    for (i64 i = 0; i < n; ++i) p[i] = c * Z[at(i, 0, ldq)];
    return false;
  }
  if (st == nz && qpBlasNrm2(nz, y, 1) <= t) {
    for (i64 i = 0; i < n; ++i) p[i] = 0.0;
    return true;
  }
  if (nz > 0) {
    // Z times y read backwards: y is reversed in place (it is not read
    // again), so that this stage needs no room beyond its nz entries.
    std::reverse(y, y + nz);
    qpColumnCombination(Z, ldq, n, nz, y, p);
  } else {
    for (i64 i = 0; i < n; ++i) p[i] = 0.0;
  }
  return false;
}

// Stage 4, the sign.  Newton and null-curvature directions already point
// downhill (except the line step of a singular tail).  A direction of
// negative curvature is turned to keep the constraint just deleted (dropIn)
// on its feasible side: its bound component, or its row product, must not
// move towards it; with none deleted, it must go downhill.  All other
// directions are turned so that e = p'g < 0, and alpha = |e| / scale.
void chooseSign(const double* g, const double* a, double* p, int n, int st, int mode, int drop,
                int dropIn, double scale, double& alpha) {
  if (st >= 0 && !(drop == 1 && mode == 1 && st >= 1)) return;
  if (st < 0 && drop != 1) {
    double v;
    bool flip;
    if (dropIn == 0) {
      v = qpBlasDot(n, p, 1, g, 1);
      flip = v > 0.0;
    } else {
      const int ad = dropIn < 0 ? -dropIn : dropIn;
      v = ad <= n ? p[ad - 1] : qpBlasDot(n, p, 1, a, 1);
      flip = dropIn > 0 ? v > 0.0 : v < 0.0;
    }
    if (flip)
      for (i64 i = 0; i < n; ++i) p[i] = -p[i];
    return;
  }
  double e = qpBlasDot(n, p, 1, g, 1);
  if (e > 0.0)
    for (i64 i = 0; i < n; ++i) p[i] = -p[i];
  else
    e = -e;
  alpha = e / scale;
}

}  // namespace

// Direction p = Z y in four stages: the reduced gradient (stage 1); the
// reduced direction y by the curvature status st of T (stage 2), a Newton
// step on a complete factor, a line step along a newly freed column, a
// null-curvature direction in a singular tail, or a direction of negative
// curvature; p = Z y (stage 3); and its sign (stage 4), downhill, or
// keeping a just deleted constraint on its feasible side.  drop out: 1 for
// a positive-curvature step or none at all, 0 otherwise.
void qpDirection(const double* Z, const int& ldq, const double* T, const int& ldt,
                 const double* g, const double* a, double* y, double* p, const int* ipvt,
                 const double& scale, const int& nz, const int& n, const int& st, int& mode,
                 int& drop, double& alpha) {
  const double t = std::pow(kPrecision, 0.75);
  const int dropIn = drop;
  drop = 0;
  double c = 0.0;

  if (st >= 0) {
    alpha = 1.0;
    c = reducedGradient(Z, ldq, g, y, nz, n, mode);
  }

  if (st == 0) {
    drop = 1;
    definiteStep(T, ldt, y, p, ipvt, nz, mode, c, scale, alpha);
  } else if (st < -1 && st >= -nz) {
    negativePivotDirection(T, ldt, y, p, ipvt, nz, st);
  } else if (st >= 1 && st < nz) {
    if (singularTailDirection(T, ldt, y, p, ipvt, nz, st, mode, c, scale, t)) drop = 1;
  } else if (st > nz && st <= 2 * nz) {
    coupledLastDirection(T, ldt, y, p, ipvt, nz, st, c);
  } else if (st > 2 * nz) {
    couplingRowDirection(T, ldt, y, p, ipvt, nz, st, c);
  } else if (st < -nz) {
    indefinitePairDirection(T, ldt, y, p, ipvt, nz, st);
  }
  // st = -1: the column of the first pivot; st = nz: y as stage 1 left it.

  if (toVariables(Z, ldq, y, p, ipvt, nz, n, st, mode, c, t)) drop = 1;

  chooseSign(g, a, p, n, st, mode, drop, dropIn, scale, alpha);
}

}  // namespace lumbra::qp
