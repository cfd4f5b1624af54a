// SPDX-License-Identifier: Apache-2.0
// Orthogonal factor of the active normals and Cholesky-type factor of the
// reduced Hessian: construction, addition of a constraint (ANFM01, ANFM03,
// ANFM04, ANFM05), deletion (ANFM02, ANFM06).
//
// Memory is reached 0-based through at(); integer arguments keep their
// 1-based meaning (counts, positions, reduced indices in ipvt).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "kernels/blas.h"
#include "kernels/index.h"
#include "qp/factors.h"
#include "qp/products.h"

// The two hottest loops of the factor updates (the Householder additions
// and the deletions' reflections of Q) are compiled twice, for the baseline
// x86-64 and for AVX2, and the loader picks the version the processor runs
// (function multi-versioning).  Only the vector width differs: contraction
// is off, so no fused multiply-add appears, and every element takes the
// same operations in the same order, so both versions give the same
// numbers.  Not under ThreadSanitizer, whose runtime is not yet set up when
// the loader makes that choice.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define LUMBRA_UNDER_TSAN 1
#endif
#endif
#if defined(__x86_64__) && !defined(__SANITIZE_THREAD__) && !defined(LUMBRA_UNDER_TSAN)
#define LUMBRA_WIDE_SIMD __attribute__((target_clones("avx2", "default")))
#else
#define LUMBRA_WIDE_SIMD
#endif

namespace lumbra::qp {

namespace {

// z' H z with u = H z formed in w: sum_i z(i) u(i), in order.
double selfCurvature(const double* H, i64 ldh, i64 n, const double* z, double* w) {
  qpLowerSymProduct(H, ldh, n, z, w);
  double sum = 0.0;
  for (i64 i = 0; i < n; ++i) sum += z[i] * w[i];
  return sum;
}

// Exchanges columns a and b (0-based) of T in rows 0..rows-1.
void swapColumns(double* T, i64 ldt, i64 rows, i64 a, i64 b) {
  for (i64 i = 0; i < rows; ++i) std::swap(T[at(i, a, ldt)], T[at(i, b, ldt)]);
}

// Coefficient j of the bound normal +-e_id in the basis Q: +-Q(id-1,j).
double boundCoefficient(const double* Q, i64 ldq, int id, i64 j) {
  const double v = Q[at((id < 0 ? -id : id) - 1, j, ldq)];
  return id < 0 ? -v : v;
}

// Positions of the non-zero entries of a, when there are at most
// kSparseNormal of them and every entry is finite; returns their count, or
// -1 when the normal is to be treated as dense.
constexpr int kSparseNormal = 32;
int sparsePattern(const double* a, i64 n, i64* idx) {
  int count = 0;
  for (i64 i = 0; i < n; ++i) {
    if (!std::isfinite(a[i])) return -1;
    if (a[i] == 0.0) continue;
    if (count == kSparseNormal) return -1;
    idx[count++] = i;
  }
  return count;
}

// out(j - j0) = Q(:,j)' a for the columns j0..j1-1, each the sequential sum
// from 0.0 over ascending i (the reference DDOT).  A zero entry of a adds a
// zero product, which leaves such a sum as it is (the sum is never -0.0,
// as it starts from +0.0); so a normal with few non-zeros, like a row that
// stands for a bound in a homogeneous problem, takes only its non-zero
// terms, in the same order.  A dense one is a DGEMV ('T', alpha 1, beta 0).
void normalCoefficients(const double* Q, i64 ldq, i64 n, const double* a, i64 j0, i64 j1,
                        double* out) {
  if (j1 <= j0) return;
  i64 idx[kSparseNormal];
  const int nnz = sparsePattern(a, n, idx);
  if (nnz >= 0) {
    for (i64 j = j0; j < j1; ++j) {
      double s = 0.0;
      for (int t = 0; t < nnz; ++t) s = s + Q[at(idx[t], j, ldq)] * a[idx[t]];
      out[j - j0] = s;
    }
    return;
  }
  constexpr double kOne = 1.0, kZero = 0.0;
  constexpr int kUnit = 1;
  const int rows = static_cast<int>(n), cols = static_cast<int>(j1 - j0);
  const int ld = static_cast<int>(ldq);
  dgemv_("T", &rows, &cols, &kOne, &Q[at(0, j0, ldq)], &ld, a, &kUnit, &kZero, out, &kUnit, 1);
}

// Column k-1 (0-based) of R above the diagonal: R(0:k-2,k-1) = Q(:,0:k-2)' a
// (a = +-e_id when id is non-zero).
void rangePart(const double* Q, i64 ldq, double* R, i64 ldr, const double* a, i64 n, i64 k,
               int id) {
  if (id != 0) {
    for (i64 j = 0; j + 1 < k; ++j) R[at(j, k - 1, ldr)] = boundCoefficient(Q, ldq, id, j);
    return;
  }
  normalCoefficients(Q, ldq, n, a, 0, k - 1, &R[at(0, k - 1, ldr)]);
}

// The part still to be reduced, w = Q(:,k-1:n-1)' a; returns its 2-norm.
double nullPart(const double* Q, i64 ldq, const double* a, double* w, i64 n, i64 k, int id) {
  if (id != 0) {
    for (i64 j = k - 1; j < n; ++j) w[j - (k - 1)] = boundCoefficient(Q, ldq, id, j);
  } else {
    normalCoefficients(Q, ldq, n, a, k - 1, n, w);
  }
  return qpBlasNrm2(n - k + 1, w, 1);
}

// Q(:,c0:c0+len-1) -= (Q(:,c0:c0+len-1) w) w', rows in blocks of 32: t(i)
// the sum over j in ascending order from 0.0, then Q(i,j) - t(i) w(j) (what
// the reference DGEMV and DGER would form).  The block's 32 sums advance
// side by side down contiguous column segments, and the block stays in the
// first-level cache for the update.  This stays in the library's own loop,
// with the same numbers on every BLAS: the dependency tests of the start
// vertex and the rest of the path are read from these reflections, and on
// exactly tied data an optimised BLAS's rounding of them led a solve to a
// markedly less accurate point (the tied mean-variance case of the cvxopt
// comparison test).
LUMBRA_WIDE_SIMD void applyReflector(double* Q, i64 ldq, i64 n, i64 c0, i64 len,
                                     const double* w) {
  constexpr i64 kBlock = 32;
  for (i64 i0 = 0; i0 < n; i0 += kBlock) {
    const i64 nb = std::min(kBlock, n - i0);
    double t[kBlock] = {};
    for (i64 j = 0; j < len; ++j) {
      const double* q = &Q[at(i0, c0 + j, ldq)];
      for (i64 b = 0; b < nb; ++b) t[b] += q[b] * w[j];
    }
    for (i64 j = 0; j < len; ++j) {
      double* q = &Q[at(i0, c0 + j, ldq)];
      for (i64 b = 0; b < nb; ++b) q[b] -= t[b] * w[j];
    }
  }
}

}  // namespace

// Writes the trap message of a routine called with impossible arguments and
// stops the process: these are bugs of the caller, not data conditions.
void qpArgumentTrap(const char* routine) {
  std::fprintf(stderr, "INCORRECT LIST OF CALLING IN %s.\n", routine);
  std::fflush(stderr);
  std::abort();
}

// z_a' H z_b = sum_i z_a(i) (H(i,0:i) z_b(0:i) + H(i+1:n-1,i)' z_b(i+1:n-1)).
double qpCurvature(const double* H, const int& ldh, const double* Z, const int& ldz,
                   const int& n, const int& a, const int& b) {
  const double* za = &Z[at(0, a - 1, ldz)];
  const double* zb = &Z[at(0, b - 1, ldz)];
  double sum = 0.0;
  for (i64 i = 0; i < n; ++i)
    sum += za[i] * (qpBlasDot(i + 1, &H[at(i, 0, ldh)], ldh, zb, 1) +
                    qpBlasDot(n - i - 1, &H[at(i + 1, i, ldh)], 1, &zb[i + 1], 1));
  return sum;
}

// Adds the normal (a, or +-e_id) as column k of R with one Householder
// reflection of Q(:,k-1:n-1); id out 0, or -1 when the normal lies in the
// span of the first k-1 columns.
void ANFM01(double* Q, const int& ldq, double* R, const int& ldr, const double* a, double* w,
            const int& n, const int& k, int& id, const int& channel) {
  (void)channel;
  if (!(k >= 1 && k <= n && n >= 2 && n <= ldq && n <= ldr && id >= -n && id <= n))
    qpArgumentTrap("ANFM01");
  const i64 len = n - k + 1;  // entries of w, for columns k-1..n-1
  rangePart(Q, ldq, R, ldr, a, n, k, id);  // written even for a dependent normal
  const double nrm = nullPart(Q, ldq, a, w, n, k, id);
  if (kPrecision09 > nrm) {
    id = -1;
    return;
  }
  id = 0;
  if (k == n) {
    R[at(n - 1, n - 1, ldr)] = w[0];
    return;
  }
  // w := (w + sigma e_0) / sqrt(w(0) sigma), so that I - w w' maps w to -sigma e_0.
  const double sigma = w[0] < 0.0 ? -nrm : nrm;
  w[0] += sigma;
  const double scale = 1.0 / std::sqrt(w[0] * sigma);
  for (i64 j = 0; j < len; ++j) w[j] *= scale;
  applyReflector(Q, ldq, n, k - 1, len, w);
  R[at(k - 1, k - 1, ldr)] = -sigma;
}

// Adds the normal as column k of R while T exists: the part of the normal
// in the null space, held at w(2nz'..3nz'), is swept into column k-1 by
// plane rotations that meet the columns of Z in T's pivot order.  Cosines
// go to w(0:nz'-1), sines to w(nz':2nz'-1).
void ANFM04(double* Q, const int& ldq, double* R, const int& ldr, const double* a, double* w,
            const int* ipvt, const int& n, const int& k, int& id, const int& channel) {
  (void)channel;
  if (!(k >= 1 && n >= 2 && k <= n && n <= ldq && n <= ldr && id >= -n && id <= n))
    qpArgumentTrap("ANFM04");
  const i64 nzp = n - k;
  double* v = &w[2 * nzp];  // v[c - (k-1)] belongs to column c of Q
  // the null-space part first: a dependent normal leaves R and T untouched
  const double nrm = nullPart(Q, ldq, a, v, n, k, id);
  if (kPrecision09 > nrm) {
    id = -1;
    return;
  }
  rangePart(Q, ldq, R, ldr, a, n, k, id);
  id = 0;
  if (k == n) {
    R[at(n - 1, n - 1, ldr)] = v[0];
    return;
  }
  const i64 off = k - 1;
  i64 lo = n - ipvt[0];  // 0-based Q column of reduced index ipvt(0)
  double rho = 0.0;
  for (i64 j = 0; j < nzp; ++j) {
    const i64 hi = n - ipvt[j + 1];
    const i64 l = std::min(lo, hi), h = std::max(lo, hi);
    const double x = v[l - off], y = v[h - off];
    rho = std::sqrt(x * x + y * y);
    double c = 1.0, s = 0.0;
    double* ql = &Q[at(0, l, ldq)];
    double* qh = &Q[at(0, h, ldq)];
    if (rho >= kPrecision075) {
      c = x / rho;
      s = y / rho;
      v[l - off] = rho;
      v[h - off] = 0.0;
      // (q_l, q_h) := (c q_l + s q_h, s q_l - c q_h)
      for (i64 i = 0; i < n; ++i) {
        const double a0 = ql[i], b0 = qh[i];
        ql[i] = c * a0 + s * b0;
        qh[i] = s * a0 - c * b0;
      }
    } else {
      for (i64 i = 0; i < n; ++i) qh[i] = -qh[i];
    }
    w[j] = c;
    w[nzp + j] = s;
    lo = l;
  }
  R[at(k - 1, k - 1, ldr)] = rho;
}

namespace {

// Reflections of ANFM02 gathered before they meet Q: at most kPairChunk at
// a time, each on the columns (col-1, col) of Q with the factors u1, u2, v.
constexpr i64 kPairChunk = 32;

// Applies the gathered reflections in order to every row of Q: for each
// pair, t = -Q(i,col-1) - Q(i,col) v, Q(i,col-1) += u1 t, Q(i,col) += u2 t.
// A row meets the reflections in the same order as in a sweep column pair
// after column pair, so every number is the same; a block of rows goes
// through the whole chunk while its columns stay in the first-level cache.
LUMBRA_WIDE_SIMD void reflectPairs(double* Q, i64 ldq, i64 n, const i64* col,
                                   const double* u1, const double* u2, const double* v,
                                   i64 count) {
  constexpr i64 kRows = 64;
  for (i64 i0 = 0; i0 < n; i0 += kRows) {
    const i64 i1 = std::min(n, i0 + kRows);
    for (i64 t = 0; t < count; ++t) {
      double* qa = &Q[at(0, col[t] - 1, ldq)];
      double* qb = &Q[at(0, col[t], ldq)];
      const double a1 = u1[t], a2 = u2[t], vt = v[t];
      for (i64 i = i0; i < i1; ++i) {
        const double s = -qa[i] - qb[i] * vt;
        qa[i] += a1 * s;
        qb[i] += a2 * s;
      }
    }
  }
}

}  // namespace

// Removes column p of R (1-based) by order-two Householder reflections that
// restore the triangle behind it, applied to Q as well; then shifts the
// columns p+1..k of R one place left.  The reflections depend on R alone,
// so R is swept first, a chunk of pairs at a time, and each chunk then
// reflects Q.
void ANFM02(double* Q, const int& ldq, double* R, const int& ldr, const int& n, const int& k,
            const int& p, const int& channel) {
  (void)channel;
  if (!(k >= p && k >= 2 && p >= 1 && n <= ldq && n <= ldr)) qpArgumentTrap("ANFM02");
  if (p == k) return;
  i64 col[kPairChunk];
  double u1s[kPairChunk], u2s[kPairChunk], vs[kPairChunk];
  i64 j = p;  // 0-based column j, pair of rows (j-1, j)
  while (j < k) {
    i64 count = 0;
    for (; j < k && count < kPairChunk; ++j) {
      const double x0 = R[at(j - 1, j, ldr)], y0 = R[at(j, j, ldr)];
      if (y0 == 0.0) continue;
      double sigma = qpBlasNrm2(2, &R[at(j - 1, j, ldr)], 1);
      if (sigma <= kPrecision) continue;
      if (x0 != 0.0) sigma = std::copysign(sigma, x0);
      const double x = x0 / sigma, y = y0 / sigma;
      const double u1 = 1.0 + x, u2 = y, v = u2 / u1;
      for (i64 c = j + 1; c < k; ++c) {
        double& ra = R[at(j - 1, c, ldr)];
        double& rb = R[at(j, c, ldr)];
        const double t = -ra - rb * v;
        ra += u1 * t;
        rb += u2 * t;
      }
      R[at(j - 1, j, ldr)] = -sigma;
      col[count] = j;
      u1s[count] = u1;
      u2s[count] = u2;
      vs[count] = v;
      ++count;
    }
    reflectPairs(Q, ldq, n, col, u1s, u2s, vs, count);
  }
  // column c-1 of R takes R(0:c-1, c), c = p..k-1 (0-based)
  for (i64 c = p; c < k; ++c)
    for (i64 i = 0; i < c; ++i) R[at(i, c - 1, ldr)] = R[at(i, c, ldr)];
}

namespace {

// Diagonal position (0-based row kf + j) of column j of the block handed to
// the reduced Hessian factorisation.
inline double& diagOf(double* T, i64 ldt, i64 kf, i64 j) { return T[at(kf + j, j, ldt)]; }

// Pivot candidate of column r: its diagonal less the squares above it when
// the column is formed afresh (sw = 0), else the diagonal already updated.
double pivotCandidate(const double* T, i64 ldt, i64 K, i64 r, int sw) {
  const i64 rr = K + r;
  if (sw == 0) return T[at(r, r, ldt)] - qpBlasDot(rr, &T[at(0, r, ldt)], 1, &T[at(0, r, ldt)], 1);
  return T[at(K + r, r, ldt)];
}

// T(c,c) -= |T(0:rows-1,c)|^2 for the later columns c = from..L-1 (only
// used before any finished rows exist, so the diagonal is at (c, c)).
void updateLaterDiagonals(double* T, i64 ldt, i64 rows, i64 from, i64 L) {
  for (i64 c = from; c < L; ++c)
    T[at(c, c, ldt)] -= qpBlasDot(rows, &T[at(0, c, ldt)], 1, &T[at(0, c, ldt)], 1);
}

// Column of Z for position j of the block: reduced index ipvt(j) stands
// for column m - ipvt(j) (0-based) of the m columns handed in.
const double* zColumn(const double* Z, i64 ldz, i64 m, const int* ipvt, i64 j) {
  return &Z[at(0, m - ipvt[j], ldz)];
}

// Diagonals of the L columns still to do: z_c' H z_c less the squares of
// the K finished entries above them, stored at their diagonal places, and
// gamma = max(1, |diagonal|), the scale of the tolerances.  Returns false,
// a refusal, when flag is 0 and a diagonal is clearly negative (below
// -10P): that caller wants no account of indefiniteness.
bool formDiagonals(const double* H, i64 ldh, double* T, i64 ldt, const double* Z, i64 ldz,
                   double* w, const int* ipvt, i64 n, i64 m, i64 K, i64 L, int flag,
                   double& gamma) {
  const double tenP = 10.0 * kPrecision;
  gamma = 1.0;
  for (i64 j = 0; j < L; ++j) {
    double diag = selfCurvature(H, ldh, n, zColumn(Z, ldz, m, ipvt, j), w);  // z_c' H z_c
    diag -= qpBlasDot(K, &T[at(0, j, ldt)], 1, &T[at(0, j, ldt)], 1);
    if (flag == 0 && diag < -tenP) return false;
    diagOf(T, ldt, K, j) = diag;
    gamma = std::max(gamma, std::fabs(diag));
  }
  return true;
}

// A single column decides by its diagonal e alone, against 10P: sqrt(e)
// stored and status 0, a negative pivot (-1), or no curvature (1).
int singleColumnStatus(double* T, i64 ldt, i64 K) {
  const double tenP = 10.0 * kPrecision;
  const double e = diagOf(T, ldt, K, 0);
  if (e > tenP) {
    diagOf(T, ldt, K, 0) = std::sqrt(e);
    return 0;
  }
  return e < -tenP ? -1 : 1;
}

// Diagonal pivoting at column r.  The first time, every later diagonal is
// brought up to date (sw := 1), since from now on the largest is chosen.
// The largest diagonal, the first of equals, from a start at d, becomes the
// pivot d: its column and ipvt entry exchange places with r's, and r's
// diagonal goes to its place.  Returns false when even the largest is not
// above tol: what is left is a singular or indefinite tail.
bool pivotOnLargestDiagonal(double* T, i64 ldt, int* ipvt, i64 K, i64 r, i64 L, double tol,
                            int& sw, double& d) {
  const i64 rr = K + r;
  if (sw == 0) {
    updateLaterDiagonals(T, ldt, rr, r + 1, L);
    sw = 1;
  }
  double best = d;
  i64 p = r;
  for (i64 c = r + 1; c < L; ++c)
    if (diagOf(T, ldt, K, c) > best) {
      best = diagOf(T, ldt, K, c);
      p = c;
    }
  if (!(best > tol)) return false;
  if (p != r) {
    swapColumns(T, ldt, rr, r, p);
    std::swap(ipvt[r], ipvt[p]);
    diagOf(T, ldt, K, p) = d;
    d = best;
  }
  return true;
}

// Accepts pivot d of column r: row rr = K + r of T, with s = sqrt(d) on the
// diagonal and T(rr,c) = (z_c' H z_r - T(0:rr-1,c)' T(0:rr-1,r)) / s for
// the later columns, u = H z_r formed once in w.  Once pivoting has begun
// (sw = 1) each later diagonal loses T(rr,c)^2 at once.  Returns the
// largest |T(rr,c)|, the growth that the next column tests.
double eliminateRow(const double* H, i64 ldh, double* T, i64 ldt, const double* Z, i64 ldz,
                    const int* ipvt, double* w, i64 n, i64 m, i64 K, i64 r, i64 L, int sw,
                    double d) {
  const i64 rr = K + r;
  const double s = std::sqrt(d);
  T[at(rr, r, ldt)] = s;
  qpLowerSymProduct(H, ldh, n, zColumn(Z, ldz, m, ipvt, r), w);
  double mx = 0.0;
  for (i64 c = r + 1; c < L; ++c) {
    const double t = (qpBlasDot(n, zColumn(Z, ldz, m, ipvt, c), 1, w, 1) -
                      qpBlasDot(rr, &T[at(0, c, ldt)], 1, &T[at(0, r, ldt)], 1)) /
                     s;
    T[at(rr, c, ldt)] = t;
    if (sw == 1) diagOf(T, ldt, K, c) -= t * t;
    mx = std::max(mx, std::fabs(t));
  }
  return mx;
}

// The last column, once all before it are pivots: its diagonal against
// tol gives sqrt stored and status 0, a negative pivot (-L), or a one
// column singular tail (1).
int lastColumnStatus(double* T, i64 ldt, i64 K, i64 L, int sw, double tol) {
  const i64 r = L - 1;
  const double d = pivotCandidate(T, ldt, K, r, sw);
  if (d > tol) {
    diagOf(T, ldt, K, r) = std::sqrt(d);
    return 0;
  }
  if (d < -tol) return static_cast<int>(-L);
  return 1;
}

// A tail whose diagonals are all above -tol may still hide curvature in
// its couplings z_c' H z_c' less the finished rows, which are formed row
// after row (rows K+r.. of T) until the largest |coupling| so far, from a
// start at dmin, exceeds tol.  Such a pair is indefinite: its two columns
// are brought to positions r and r+1, the coupling goes next to the
// diagonal, and the status is -(r+1) - L (a refusal, n, when flag is 0).
// Without one the L - r tail columns have no curvature: status L - r.
int hiddenCouplingStatus(const double* H, i64 ldh, double* T, i64 ldt, const double* Z,
                         i64 ldz, int* ipvt, double* w, i64 n, i64 m, i64 K, i64 r, i64 L,
                         double dmin, i64 q, double tol, int flag) {
  const i64 rr = K + r;
  double big = dmin;
  i64 bigCol = q;
  double bigVal = dmin;
  for (i64 rp = r; rp < L - 1; ++rp) {
    qpLowerSymProduct(H, ldh, n, zColumn(Z, ldz, m, ipvt, rp), w);
    for (i64 c = rp + 1; c < L; ++c) {
      const double t = qpBlasDot(n, zColumn(Z, ldz, m, ipvt, c), 1, w, 1) -
                       qpBlasDot(rr, &T[at(0, c, ldt)], 1, &T[at(0, rp, ldt)], 1);
      T[at(K + rp, c, ldt)] = t;
      if (std::fabs(t) > big) {
        big = std::fabs(t);
        bigCol = c;
        bigVal = t;
      }
    }
    if (big > tol) {
      if (flag == 0) return static_cast<int>(n);
      if (rp != r) {
        swapColumns(T, ldt, rr, r, rp);
        std::swap(ipvt[r], ipvt[rp]);
      }
      if (bigCol != r + 1 && bigCol > r) {
        swapColumns(T, ldt, rr, r + 1, bigCol);
        std::swap(ipvt[r + 1], ipvt[bigCol]);
      }
      T[at(rr, r + 1, ldt)] = bigVal;
      return static_cast<int>(-(r + 1) - L);
    }
  }
  return static_cast<int>(L - r);
}

// The tail from column r (diagonal d) where plain pivoting stopped, after
// a growth stop (g = 1) or for want of a pivot above tol.  The smallest
// diagonal, the first of equals, below -tol is a negative pivot: it moves
// to position r and the status is -(r+1), with the marker -10 ldz added
// after a growth stop: the last finished row followed a tiny pivot, and
// the next update keeps one factored row fewer (a refusal, n, when flag is
// 0).  Otherwise the couplings decide.
int tailStatus(const double* H, i64 ldh, double* T, i64 ldt, const double* Z, i64 ldz,
               int* ipvt, double* w, i64 n, i64 m, i64 K, i64 r, i64 L, double d, int g,
               double tol, int flag) {
  const i64 rr = K + r;
  double dmin = d;
  i64 q = r;
  for (i64 c = r + 1; c < L; ++c)
    if (diagOf(T, ldt, K, c) < dmin) {
      dmin = diagOf(T, ldt, K, c);
      q = c;
    }
  if (!(dmin < -tol))
    return hiddenCouplingStatus(H, ldh, T, ldt, Z, ldz, ipvt, w, n, m, K, r, L, dmin, q, tol,
                                flag);
  if (flag == 0) return static_cast<int>(n);
  swapColumns(T, ldt, rr, r, q);
  std::swap(ipvt[r], ipvt[q]);
  diagOf(T, ldt, K, q) = d;
  diagOf(T, ldt, K, r) = dmin;
  return static_cast<int>(-(r + 1)) - (g == 1 ? 10 * static_cast<int>(ldz) : 0);
}

}  // namespace

// Cholesky-type factor with diagonal pivoting of the reduced Hessian of the
// m columns of Z (columns L..m-1 already reduced by kf finished rows),
// reporting definite (0), a singular tail (count), a negative pivot or an
// indefinite pair (negative), or a refusal (n) when flag is 0.
//
// Stages: the diagonals of the columns to do; a single column decided
// alone; then column after column, without pivoting while the diagonals
// stay above the growing tolerance, with the largest diagonal as pivot
// from the first one that does not; the last column; or, where pivoting
// stops, the tail's account of negative or hidden curvature.  A row of
// large couplings (above max(10 L eps, 1.2 sqrt(gamma))) means that a tiny
// pivot went before, and stops the factorisation too.
void ANFM03(const double* H, const int& ldh, double* T, const int& ldt, const double* Z,
            const int& ldz, double* w, int* ipvt, const int& n, const int& m, int& kf,
            const int& flag, const int& channel) {
  (void)channel;
  if (!(ldh >= n && m <= ldt && ldz >= n && m - kf >= 1 && kf >= 0)) qpArgumentTrap("ANFM03");
  const i64 K = kf;
  const i64 L = m - K;

  // sw = 0: columns not yet swept, their diagonals updated only when used.
  int sw = 0;
  if (K == 0) {
    for (i64 i = 0; i < L; ++i) ipvt[i] = static_cast<int>(i + 1);
  } else {
    sw = 1;
  }
  double gamma = 1.0;
  if (!formDiagonals(H, ldh, T, ldt, Z, ldz, w, ipvt, n, m, K, L, flag, gamma)) {
    kf = n;
    return;
  }
  if (L == 1) {
    kf = singleColumnStatus(T, ldt, K);
    return;
  }

  // Plain and pivoted elimination; tol grows by eps at each column.
  const double eps = kPrecision * gamma;
  double tol = static_cast<double>(K) * eps;
  const double bound = std::max(10.0 * static_cast<double>(L) * eps, 1.2 * std::sqrt(gamma));
  double mx = 0.0;  // largest coupling of the last finished row
  for (i64 r = 0; r < L - 1; ++r) {
    tol += eps;
    const i64 rr = K + r;
    double d = pivotCandidate(T, ldt, K, r, sw);
    if (mx > bound) {
      // growth: the later diagonals are brought up to date for the tail
      if (sw == 0) updateLaterDiagonals(T, ldt, rr, r + 1, L);
      kf = tailStatus(H, ldh, T, ldt, Z, ldz, ipvt, w, n, m, K, r, L, d, 1, tol, flag);
      return;
    }
    if (!(d > tol && sw == 0) && !pivotOnLargestDiagonal(T, ldt, ipvt, K, r, L, tol, sw, d)) {
      kf = tailStatus(H, ldh, T, ldt, Z, ldz, ipvt, w, n, m, K, r, L, d, 0, tol, flag);
      return;
    }
    mx = eliminateRow(H, ldh, T, ldt, Z, ldz, ipvt, w, n, m, K, r, L, sw, d);
  }
  tol += eps;
  kf = lastColumnStatus(T, ldt, K, L, sw, tol);
}

namespace {

// Column stage of the update after an addition: ANFM04's rotations
// (c, s) = (cs(j), cs(m+j)) applied to the columns of the old factor, as
// they met Z's columns in pivot order.  a = w(0:m) is the running column,
// starting as the old first column (t11 alone, or 1.0 with no good rows);
// b = w(m+1:2m+1) the old column j+1, of its min(j+2, rg) good entries.
// Where the rotation ran the other way (ipvt(j+1) above the running
// index), a and b change roles, a tail column entering as a unit column.
// New column j is s a - c b moved one row up, so that the old first row
// goes below the triangle, at row j+1 (row rg-1 beyond the good rows): T is
// left triangular with that extra row along its subdiagonal.
void rotateColumns(double* T, i64 ldt, const double* cs, double* w, int* ipvt, double t11,
                   i64 m, i64 rg) {
  double* a = w;
  double* b = &w[m + 1];
  for (i64 i = 0; i <= m; ++i) a[i] = 0.0;
  a[0] = rg <= 0 ? 1.0 : t11;
  int mth = ipvt[0];
  for (i64 j = 0; j < m; ++j) {  // new column j from old column j+1 = passed column j
    const double c = cs[j], s = cs[m + j];
    const i64 nb = std::min<i64>(j + 2, std::max<i64>(rg, 0));
    for (i64 i = 0; i <= j + 1; ++i) b[i] = i < nb ? T[at(i, j, ldt)] : 0.0;
    a[j + 1] = 0.0;
    if (ipvt[j + 1] > mth) {
      if (j + 2 > rg) b[j + 1] = 1.0;  // a tail column enters as a unit column
      for (i64 i = 0; i <= j + 1; ++i) std::swap(a[i], b[i]);
      std::swap(mth, ipvt[j + 1]);
    }
    ipvt[j] = std::min(mth, ipvt[j + 1]);
    // rotated column s a - c b, running column c a + s b
    const double extra = s * a[0] - c * b[0];
    a[0] = c * a[0] + s * b[0];
    for (i64 i = 1; i <= j + 1; ++i) {
      const double ai = a[i], bi = b[i];
      T[at(i - 1, j, ldt)] = s * ai - c * bi;
      a[i] = c * ai + s * bi;
    }
    const i64 extraRow = j + 1 < rg ? j + 1 : rg - 1;
    if (extraRow >= 0) T[at(extraRow, j, ldt)] = extra;
  }
}

// Row stage: the extra row (row min(c+1, rg-1) of column c) is folded into
// rows 0..rg-2 of the triangle by plane rotations, a rank-one update: the
// subdiagonal e of column j against the diagonal d, rho = sqrt(d^2 + e^2).
// A subdiagonal at or below P leaves its row unrotated.
void foldExtraRow(double* T, i64 ldt, i64 m, i64 rg) {
  for (i64 j = 0; j + 1 < rg; ++j) {
    const double e = T[at(j + 1, j, ldt)];
    const double dj = T[at(j, j, ldt)];
    if (!(std::fabs(e) > kPrecision)) continue;
    const double rho = std::sqrt(dj * dj + e * e);
    T[at(j, j, ldt)] = rho;
    const double c = dj / rho, s = e / rho;
    for (i64 cc = j + 1; cc < m; ++cc) {
      double& u = T[at(j, cc, ldt)];
      double& v = T[at(std::min(cc + 1, rg - 1), cc, ldt)];
      const double u0 = u, v0 = v;
      u = c * u0 + s * v0;
      v = s * u0 - c * v0;
    }
  }
}

// Closing of a singular tail: the largest |entry| of row rg-1, the first of
// equals, is pivoted onto the diagonal (the row negated first when that
// entry is below -P).  A diagonal above P^0.9 means the addition gave the
// tail's first position curvature: the tail is one shorter.
void closeSingularTail(double* T, i64 ldt, int* ipvt, i64 m, i64 rg, int& st) {
  const i64 rr = rg - 1;
  i64 cbest = rr;
  double best = std::fabs(T[at(rr, rr, ldt)]);
  for (i64 cc = rr + 1; cc < m; ++cc)
    if (std::fabs(T[at(rr, cc, ldt)]) > best) {
      best = std::fabs(T[at(rr, cc, ldt)]);
      cbest = cc;
    }
  if (T[at(rr, cbest, ldt)] < -kPrecision)
    for (i64 cc = rr; cc < m; ++cc) T[at(rr, cc, ldt)] = -T[at(rr, cc, ldt)];
  if (cbest != rr) {
    swapColumns(T, ldt, rr + 1, rr, cbest);
    std::swap(ipvt[rr], ipvt[cbest]);
  }
  if (T[at(rr, rr, ldt)] > kPrecision09) st = st - 1;
}

// An indefinite part cannot be updated: it is factored again from position
// rg-1 on, going on from the rg-1 good rows.  ANFM03's status counts from
// that position; it is shifted to the whole factor (below L - m, an
// indefinite pair, by -2L; a negative pivot by -L), the growth marker kept.
int refactorIndefinitePart(const double* H, const int& ldh, double* T, const int& ldt,
                           const double* Z, const int& ldz, double* w, int* ipvt, const int& m,
                           i64 rg, const int& n, const int& flag, const int& channel) {
  const int L = static_cast<int>(rg - 1);
  int kf = L;
  ANFM03(H, ldh, &T[at(0, L, ldt)], ldt, Z, ldz, w, &ipvt[L], n, m, kf, flag, channel);
  const int marker = 10 * ldz;
  bool marked = false;
  if (kf <= -marker) {
    kf += marker;
    marked = true;
  }
  if (kf < L - m)
    kf -= 2 * L;
  else if (kf < 0)
    kf -= L;
  return marked ? kf - marker : kf;
}

}  // namespace

// Rebuilds T for the m columns of Z left after ANFM04: the column stage
// applies ANFM04's rotations to the columns of the old factor (which leaves
// the old first row as an extra row along the subdiagonal), the row stage
// folds that row back in by plane rotations, and the closing stage either
// lets a singular tail shrink or refactors an indefinite part.  A complete
// factor stays complete through the first two stages.
void ANFM05(const double* H, const int& ldh, double* T, const int& ldt, const double* Z,
            const int& ldz, const double* cs, double* w, int* ipvt, const double& t11,
            const int& m, const int& r, const int& n, int& st, const int& flag,
            const int& channel) {
  (void)channel;
  if (!(n <= ldh && m < ldt && n <= ldz && m >= 1 && r >= 0 && n >= 2)) qpArgumentTrap("ANFM05");
  const bool singularTail = st >= 1 && st <= m + 1;
  const i64 rg = singularTail ? m - st + 1 : r;  // good leading rows
  if (st == m + 1) {
    // nothing of the old factor was usable, and nothing is now
    st = m;
    return;
  }
  rotateColumns(T, ldt, cs, w, ipvt, t11, m, rg);
  foldExtraRow(T, ldt, m, rg);
  if (singularTail) {
    closeSingularTail(T, ldt, ipvt, m, rg, st);
    return;
  }
  if (st == 0) return;
  st = refactorIndefinitePart(H, ldh, T, ldt, Z, ldz, w, ipvt, m, rg, n, flag, channel);
}

// Extends T by the new null vector z after a deletion: T moves one column
// left in HR, the couplings z_i' H z of the old directions with the new one
// are reduced by the factored rows, and the new direction goes in at the
// last position (or ahead of a singular tail when it has curvature).
void ANFM06(const double* z, const int& ldq, double* HR, const int& ldr, double* w, int* ipvt,
            const int& n, int& nz, int& st, const int& channel) {
  (void)channel;
  if (!(st >= 0 && st <= nz && nz < n)) qpArgumentTrap("ANFM06");
  const double tol = kPrecision075;
  const i64 nz0 = nz;
  const i64 k = n - nz0;  // active count before the deletion; z is column k-1 of Q
  const i64 r = nz0 - st;
  const i64 s0 = st;
  // T(i,j) of the new block at HR(i, k + j); v = its column nz0 = HR(:, n).
  double* T = &HR[at(0, k, ldr)];
  double* v = &HR[at(0, n, ldr)];

  qpLowerSymProduct(HR, ldr, n, z, w);
  double c = qpBlasDot(n, z, 1, w, 1);
  // T one column left: column j keeps its j+1 entries
  for (i64 j = 0; j < nz0; ++j)
    for (i64 i = 0; i <= j; ++i) T[at(i, j, ldr)] = T[at(i, j + 1, ldr)];
  // v(i) = z_i' H z, z_i = column (n-1-i) of Q = z + (nz0 - i) columns:
  // column 1 + c from z goes to v(nz0-1-c)
  qpColumnDots(&z[at(0, 1, ldq)], ldq, n, nz0, w, v + nz0 - 1, -1);
  for (i64 i = 0; i < nz0; ++i) w[i] = v[ipvt[i] - 1];
  ipvt[nz0] = static_cast<int>(nz0 + 1);
  if (r > 0) {
    const int rr = static_cast<int>(r), job = 1;
    qpTriSolve(T, ldr, rr, w, v, job);
    c -= qpBlasDot(r, v, 1, v, 1);
  }
  bool small = false;
  if (s0 > 0) {
    if (r < 1) {
      for (i64 i = 0; i < s0; ++i) v[i] = w[i];
    } else {
      // the product runs over st terms of v, which it reads as it is written
      for (i64 j = 0; j < s0; ++j)
        v[r + j] = w[r + j] - qpBlasDot(s0, &T[at(0, r + j, ldr)], 1, v, 1);
    }
    small = qpBlasNrm2(s0, &v[r], 1) < tol;
  }
  if (c > tol) {
    const double s = std::sqrt(c);
    v[nz0] = s;
    if (s0 > 0) {
      if (!small) {
        for (i64 i = r; i < nz0; ++i) v[i] = v[i] / s;
        st = st + 2 * static_cast<int>(nz0 + 1);
      }
      // the new direction moves ahead of the singular tail
      swapColumns(T, ldr, r, nz0, r);
      std::swap(ipvt[nz0], ipvt[r]);
      T[at(r, r, ldr)] = s;
      for (i64 j = r + 1; j < nz0; ++j) T[at(r, j, ldr)] = v[j];
    }
  } else {
    v[nz0] = c;
    if (c < -tol) {
      st = st != 0 ? st + static_cast<int>(nz0) + 2 : -static_cast<int>(nz0 + 1);
    } else if (s0 == 0) {
      st = 1;
    } else if (small) {
      st = st + 1;
    } else {
      st = st + static_cast<int>(nz0) + 2;
    }
  }
  nz = static_cast<int>(nz0 + 1);
}

}  // namespace lumbra::qp
