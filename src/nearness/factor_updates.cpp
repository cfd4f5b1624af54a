// SPDX-License-Identifier: Apache-2.0
// Operations on the partitioned Hessian approximation of n2qn1: solves with
// the LDL' factor of the free block, rank-one modifications (which may
// pass through a singular matrix), and the transfer of one variable out of
// the free block and back into it, all in place and without refactorising.
#include <cmath>

#include "kernels/index.h"
#include "nearness/minimiser_internal.h"

namespace lumbra::nearness {

namespace {

// Ratio t(i+1) / t(i) above which the second form of the recurrence keeps
// the new column of L better conditioned.
constexpr double kRecurrenceSwitch = 4.0;

// u := L^-1 u in place: u(i) = u(i) - sum_{l<i} L(i,l) u(l), T of order r.
void forwardSubstitute(const double* T, i64 r, double* u) {
  for (i64 i = 1; i < r; ++i) {
    double sum = 0.0;
    for (i64 l = 0; l < i; ++l) sum += T[factorAt(i, l, r)] * u[l];
    u[i] = u[i] - sum;
  }
}

// H(i, q) of the free block from its factor:
// sum_{l <= min(i,q)} L(i,l) D(l) L(q,l), with L(l,l) = 1.
double freeEntry(const double* T, i64 r, i64 i, i64 q) {
  const i64 top = i < q ? i : q;
  double sum = 0.0;
  for (i64 l = 0; l <= top; ++l) {
    const double lil = l == i ? 1.0 : T[factorAt(i, l, r)];
    const double lql = l == q ? 1.0 : T[factorAt(q, l, r)];
    sum += lil * T[factorAt(l, l, r)] * lql;
  }
  return sum;
}

// Rank-one modification of a factor of order 1: D(0) := sigma z(0)^2 + D(0)
// if that is positive (rank 1), otherwise 0.0 (rank 0).
void rankOneSingle(double* T, const double* z, double sigma, int& ir) {
  const double v = sigma * z[0] * z[0] + T[0];
  if (v > 0.0) {
    T[0] = v;
    ir = 1;
  } else {
    T[0] = 0.0;
    ir = 0;
  }
}

// The sums of a downdate: w := L^-1 z (unless mk says w holds it already)
// and t := 1/sigma + sum_i w(i)^2 / D(i) over the columns with rank.
double downdateSum(const double* T, i64 r, const double* z, double sigma, double* w, int mk) {
  double t = 1.0 / sigma;
  if (mk == 0) {
    for (i64 i = 0; i < r; ++i) w[i] = z[i];
    for (i64 i = 0; i < r; ++i) {
      const double d = T[factorAt(i, i, r)];
      if (d > 0.0) {
        t += w[i] * w[i] / d;
        for (i64 j = i + 1; j < r; ++j) w[j] -= T[factorAt(j, i, r)] * w[i];
      } else {
        w[i] = 0.0;
      }
    }
  } else {
    for (i64 i = 0; i < r; ++i) {
      const double d = T[factorAt(i, i, r)];
      if (d != 0.0) t += w[i] * w[i] / d;
    }
  }
  return t;
}

// Back recursion of a downdate: from t(r) = t down to t(0), with
// t(i) = t(i+1) - w(i)^2 / D(i); w(i) := t(i+1).  Returns t(0).
double downdateRecursion(const double* T, i64 r, double* w, double t) {
  for (i64 i = r - 1; i >= 0; --i) {
    const double a = w[i];
    w[i] = t;
    const double d = T[factorAt(i, i, r)];
    if (d != 0.0) t = t - a * a / d;
  }
  return t;
}

}  // namespace

// out(i) = v(position(i)) (selector -1) or out(position(i)) = v(i).
void permuteVector(const int& selector, const int& n, const double* v, double* out,
                   const int* position) {
  if (selector == -1) {
    for (i64 i = 0; i < n; ++i) out[i] = v[position[i] - 1];
  } else {
    for (i64 i = 0; i < n; ++i) out[position[i] - 1] = v[i];
  }
}

// Forward: u(i) = v(i) - sum_{l<i} L(i,l) u(l); aux := u.
// Back: v(i) = u(i) / D(i) - sum_{l>i} L(l,i) v(l), from i = r-1 down.
void factorSolve(const double* hess, const int& r, double* v, double* aux, const int& limit) {
  if (r > limit || r < 1) return;
  forwardSubstitute(hess, r, v);
  for (i64 i = 0; i < r; ++i) aux[i] = v[i];
  for (i64 i = r - 1; i >= 0; --i) {
    double sum = 0.0;
    for (i64 l = i + 1; l < r; ++l) sum += hess[factorAt(l, i, r)] * v[l];
    v[i] = v[i] / hess[factorAt(i, i, r)] - sum;
  }
}

// v(k) = sum_{i<r} R(i,k) s(i) for the active positions k = r..n-1.
void rectangularProduct(const int& n, const int& r, const double* hess, const double* s,
                        double* v) {
  for (i64 k = r; k < n; ++k) {
    double sum = 0.0;
    for (i64 i = 0; i < r; ++i) sum += hess[couplingAt(i, k, r, n)] * s[i];
    v[k] = sum;
  }
}

// Column by column: q = a(i,j) / D(j); a(l,i) -= a(l,j) q for l >= i;
// a(i,j) := q.  A pivot that is not positive becomes 0.0 and is skipped.
void factorFromMatrix(double* hess, const int& n, int& rank) {
  rank = n;
  for (i64 j = 0; j < n; ++j) {
    const double d = hess[factorAt(j, j, n)];
    if (!(d > 0.0)) {
      hess[factorAt(j, j, n)] = 0.0;
      rank -= 1;
      continue;
    }
    for (i64 i = j + 1; i < n; ++i) {
      const double q = hess[factorAt(i, j, n)] / d;
      for (i64 l = i; l < n; ++l) hess[factorAt(l, i, n)] -= hess[factorAt(l, j, n)] * q;
      hess[factorAt(i, j, n)] = q;
    }
  }
}

// L D L' + sigma z z' by the composite t-method.  With t(0) = 1/sigma and
// t(i+1) = t(i) + p(i)^2 / D(i), p = L^-1 z formed in z as the sweep goes:
// D(i) := D(i) t(i+1) / t(i) and the new column i of L from p(i) / (D(i)
// t(i+1)).  A downdate takes its t(i) from the back recursion, which fixes
// the last one (0.0 when the result is known to be singular) so that the
// factor stays semi-definite.
//
// Rank count ir.  An update whose count is < 1 (negative: the second half
// of a pair that lost one rank in its first half) fills the first column
// without rank with z and restores the count.  A downdate announced as the
// first of a pair (ir < 1) is known to be exactly singular: ir becomes
// -ir - 1 and t(r) = 0.0.  An update of a pair that finds no column to fill
// returns -ir: the caller sees the rank still missing.
void factorRankOne(double* T, const int& r, double* z, const double& sigma, double* w, int& ir,
                   const int& mk, const double& eps) {
  if (r < 1) return;
  if (r < 2) {
    rankOneSingle(T, z, sigma, ir);
    return;
  }
  if (sigma == 0.0) return;

  double t0 = 0.0;
  bool useStored = false;
  if (sigma > 0.0) {
    t0 = 1.0 / sigma;
  } else {
    if (ir == 0) return;
    double t = downdateSum(T, r, z, sigma, w, mk);
    bool recurse = true;
    if (ir < 1) {
      ir = -ir - 1;
      t = 0.0;
    } else if (t > 0.0) {
      t = eps / sigma;
      if (eps == 0.0) ir = ir - 1;
    } else if (mk < 2) {
      t0 = 1.0 / sigma;
      recurse = false;
    }
    if (recurse) {
      t0 = downdateRecursion(T, r, w, t);
      useStored = true;
    }
  }

  const int irSweep = ir;
  for (i64 i = 0; i < r; ++i) {
    const i64 c = factorAt(i, i, r);
    if (!(T[c] > 0.0)) {
      if (irSweep < 1 && sigma >= 0.0 && z[i] != 0.0) {
        // The column without rank takes z: D(i) = z(i)^2 / t(i),
        // L(j,i) = z(j) / z(i).
        ir = 1 - irSweep;
        T[c] = z[i] * z[i] / t0;
        for (i64 j = i + 1; j < r; ++j) T[factorAt(j, i, r)] = z[j] / z[i];
        return;
      }
      continue;
    }
    const double p = z[i] / T[c];
    const double t1 = useStored ? w[i] : z[i] * p + t0;
    const double r1 = t1 / t0;
    T[c] = T[c] * r1;
    if (r1 == 0.0 || i == r - 1) break;
    const double beta = p / t1;
    if (r1 <= kRecurrenceSwitch) {
      // z(j) -= z(i) L(j,i); L(j,i) += beta z(j).
      for (i64 j = i + 1; j < r; ++j) {
        z[j] = z[j] - z[i] * T[factorAt(j, i, r)];
        T[factorAt(j, i, r)] = T[factorAt(j, i, r)] + beta * z[j];
      }
    } else {
      // L(j,i) = gamma L(j,i) + beta z(j), then z(j) -= z(i) L_old(j,i).
      const double gamma = t0 / t1;
      for (i64 j = i + 1; j < r; ++j) {
        const double a = T[factorAt(j, i, r)];
        T[factorAt(j, i, r)] = gamma * a + beta * z[j];
        z[j] = z[j] - z[i] * a;
      }
    }
    t0 = t1;
  }
  if (irSweep < 0) ir = -irSweep;
}

// R(i,:) += (sigma z(i)) z(r:n-1); Q(k,k:n-1) += (sigma z(k)) z(k:n-1);
// then T through factorRankOne, which overwrites z(0:r-1).
void hessianRankOne(double* hess, const int& n, const int& r, double* z, const double& sigma,
                    double* w, int& ir, const int& mk, const double& eps) {
  if (r == n) {
    factorRankOne(hess, r, z, sigma, w, ir, mk, eps);
    return;
  }
  for (i64 i = 0; i < r; ++i) {
    const double a = sigma * z[i];
    for (i64 k = r; k < n; ++k) hess[couplingAt(i, k, r, n)] += a * z[k];
  }
  for (i64 k = r; k < n; ++k) {
    const double a = sigma * z[k];
    for (i64 l = k; l < n; ++l) hess[activeAt(k, l, n)] += a * z[l];
  }
  if (r != 0) factorRankOne(hess, r, z, sigma, w, ir, mk, eps);
}

namespace {

// Deleting row and column q0 from L D L' leaves columns q0..r-1 of L with
// one row too many below the diagonal.  Each round combines columns c and
// c+1 (carried diagonal d1, D(c+1) = d2, a = L(c+1,c)):
//   d1 u u' + d2 v v' = dn x x' + (d1 d2 / dn) y y',  dn = a^2 d1 + d2,
// x = (d1 a u + d2 v) / dn the new column c and y = a v - u what column
// c+1 carries on.  The new column c is written one place down, from place
// (c+1, c); the last y is empty.
void removeSweep(double* T, i64 r, i64 q0) {
  double d1 = T[factorAt(q0, q0, r)];
  for (i64 c = q0; c + 1 < r; ++c) {
    const double a = T[factorAt(c + 1, c, r)];
    const double d2 = T[factorAt(c + 1, c + 1, r)];
    const double dn = a * a * d1 + d2;
    T[factorAt(c + 1, c, r)] = dn;
    for (i64 l = c + 2; l < r; ++l) {
      const double b = T[factorAt(l, c, r)];
      const double e = T[factorAt(l, c + 1, r)];
      T[factorAt(l, c + 1, r)] = e * a - b;
      T[factorAt(l, c, r)] = (d1 * a * b + d2 * e) / dn;
    }
    d1 = d1 * d2 / dn;
  }
}

// Compresses T (after removeSweep) to order r-1: new (rho, j) comes from
// place (rho, j) for rho < q0, from (rho+1, j) otherwise.  Every element
// moves towards the front, so ascending order is safe.
void removeCompress(double* T, i64 r, i64 q0) {
  for (i64 j = 0; j + 1 < r; ++j)
    for (i64 rho = j; rho + 1 < r; ++rho)
      T[factorAt(rho, j, r - 1)] = T[factorAt(rho < q0 ? rho : rho + 1, j, r)];
}

}  // namespace

// The free block loses position q0 = position(k) - 1: w(0:r-1) := H(:,q0)
// from the factor, R row q0 saved in w(r:n-1); the factor is reduced by
// removeSweep and compressed; each remaining free row of R gets H(i,q0) in
// front; the first row of Q becomes (H(q0,q0), old R row q0).  Q itself
// does not move.
void factorRemove(const int& n, const int& k, int& r, double* hess, double* w, int* position) {
  const i64 q0 = position[k - 1] - 1;
  if (q0 >= r || r < 1) return;
  const i64 m = n - r;
  for (i64 i = 0; i < r; ++i) w[i] = freeEntry(hess, r, i, q0);
  for (i64 c = 0; c < m; ++c) w[r + c] = hess[couplingAt(q0, r + c, r, n)];
  removeSweep(hess, r, q0);
  removeCompress(hess, r, q0);
  // Rows of the new R, of n - r + 1 values each, move towards the front.
  const i64 rNew = r - 1;
  for (i64 rho = 0; rho < rNew; ++rho) {
    const i64 i = rho < q0 ? rho : rho + 1;
    hess[couplingAt(rho, rNew, rNew, n)] = w[i];
    for (i64 c = 0; c < m; ++c)
      hess[couplingAt(rho, rNew + 1 + c, rNew, n)] = hess[couplingAt(i, r + c, r, n)];
  }
  hess[activeAt(rNew, rNew, n)] = w[q0];
  for (i64 c = 0; c < m; ++c) hess[activeAt(rNew, rNew + 1 + c, n)] = w[r + c];
  for (i64 i = 0; i < n; ++i)
    if (position[i] > q0 + 1 && position[i] <= r) position[i] -= 1;
  position[k - 1] = static_cast<int>(r);
  r -= 1;
}

namespace {

// w(0:r-1) := H(0:r-1, q0), w(r) := H(q0,q0), w(r+1:n-1) := H(q0, p) for
// the other active positions p in order.
void insertExtract(const double* hess, i64 n, i64 r, i64 q0, double* w) {
  for (i64 i = 0; i < r; ++i) w[i] = hess[couplingAt(i, q0, r, n)];
  w[r] = hess[activeAt(q0, q0, n)];
  i64 at1 = r + 1;
  for (i64 p = r; p < n; ++p) {
    if (p == q0) continue;
    w[at1++] = p < q0 ? hess[activeAt(p, q0, n)] : hess[activeAt(q0, p, n)];
  }
}

// Q without position q0: rows r..q0-1 become rows r+1..q0, their columns
// before q0 shift by one as well; rows after q0 keep their places.  Every
// element moves towards the back, so descending order is safe.
void insertShiftActive(double* hess, i64 n, i64 r, i64 q0) {
  for (i64 p1 = q0 - 1; p1 >= r; --p1)
    for (i64 p2 = n - 1; p2 >= p1; --p2) {
      if (p2 == q0) continue;
      hess[activeAt(p1 + 1, p2 < q0 ? p2 + 1 : p2, n)] = hess[activeAt(p1, p2, n)];
    }
}

// R without the column of q0, rows reshaped for r+1 free and n-r-1 active
// positions; then T spread for order r+1.  Both move towards the back, so
// descending order is safe, R before T.
void insertSpread(double* hess, i64 n, i64 r, i64 q0) {
  const i64 rNew = r + 1;
  for (i64 i = r - 1; i >= 0; --i)
    for (i64 p = n - 1; p >= r; --p) {
      if (p == q0) continue;
      hess[couplingAt(i, p < q0 ? p + 1 : p, rNew, n)] = hess[couplingAt(i, p, r, n)];
    }
  for (i64 j = r - 1; j >= 0; --j)
    for (i64 rho = r - 1; rho >= j; --rho) hess[factorAt(rho, j, rNew)] = hess[factorAt(rho, j, r)];
}

}  // namespace

// Position q0 = position(k) - 1 joins the free block as position r:
// u = L^-1 H(0:r-1,q0), delta = H(q0,q0) - sum_i u(i)^2 / D(i) (the Schur
// complement), new row L(r,i) = u(i) / D(i), D(r) = delta, and row r of R
// from H(q0, active).
void factorInsert(int& result, const int& n, const int& k, int& r, double* hess, double* w,
                  int* position, const int& flag) {
  result = -1;
  const i64 q0 = position[k - 1] - 1;
  if (q0 < r || q0 >= n) return;
  insertExtract(hess, n, r, q0, w);
  insertShiftActive(hess, n, r, q0);
  forwardSubstitute(hess, r, w);
  double sum = 0.0;
  for (i64 i = 0; i < r; ++i) sum += w[i] * w[i] / hess[factorAt(i, i, r)];
  const double delta = w[r] - sum;
  for (i64 i = 0; i < r; ++i) w[i] = w[i] / hess[factorAt(i, i, r)];
  insertSpread(hess, n, r, q0);
  if (!(delta > 0.0)) return;
  if (flag == 1 && r > 0)
    for (i64 i = 0; i < n; ++i)
      if (i != r) w[i] = 0.0;
  const i64 rNew = r + 1;
  for (i64 j = 0; j < r; ++j) hess[factorAt(r, j, rNew)] = w[j];
  hess[factorAt(r, r, rNew)] = delta;
  for (i64 p = rNew; p < n; ++p) hess[couplingAt(r, p, rNew, n)] = w[p];
  for (i64 i = 0; i < n; ++i)
    if (position[i] > r && position[i] < q0 + 1) position[i] += 1;
  position[k - 1] = static_cast<int>(rNew);
  r = static_cast<int>(rNew);
  result = 0;
}

}  // namespace lumbra::nearness
