// SPDX-License-Identifier: Apache-2.0
// Feasible point search of the QP solver: least-norm solution of the
// equalities, a start vertex from the nearest bounds and rows, then an
// active-set descent on the sum of infeasibilities whose step may run over
// several breakpoints of the piecewise linear function.
#include <cmath>

#include "kernels/blas.h"
#include "kernels/index.h"
#include "kernels/status.h"
#include "qp/factors.h"
#include "qp/products.h"
#include "qp/solver.h"

namespace lumbra::qp {
namespace {

constexpr int kOne = 1;
constexpr double kUnit = 1.0;
constexpr double kMinusUnit = -1.0;
constexpr double kZero = 0.0;

// The fixed data of one search, shared by its steps.
struct Problem {
  const double* C;  // all rows, equalities first
  int ldc;
  const double* CI;
  const double* CS;
  const double* b;
  int ibnd;
  int n;
  int me;
  int mi;
};

bool hasLower(const Problem& p, i64 i) {
  return (p.ibnd == 1 || p.ibnd == 3) && p.CI[i] >= -kSqrtOverflow;
}
bool hasUpper(const Problem& p, i64 i) { return p.ibnd >= 2 && p.CS[i] <= kSqrtOverflow; }

// Column of C holding the normal of constraint index c > n (inequality row).
const double* rowNormal(const Problem& p, i64 c) {
  return p.C + at(0, p.me + (c - p.n) - 1, p.ldc);
}

// Right-hand side of working constraint c in the orientation a'x <= v:
// -CI for a lower bound, CS for an upper bound, b for a row.
double workingValue(const Problem& p, i64 c) {
  if (c < 0) return -p.CI[-c - 1];
  if (c <= p.n) return p.CS[c - 1];
  return p.b[p.me + (c - p.n) - 1];
}

// Adds constraint c (bound by signed index, row by its column) as column k
// of R; returns false when its normal depends on the earlier ones.
bool addToFactors(const Problem& p, double* Q, int ldq, double* R, int ldr, double* scratch,
                  int k, i64 c, int channel) {
  if (k > p.n) return false;  // R is full: every further normal is dependent
  int id = 0;
  const double* a = nullptr;
  if (c >= -p.n && c <= p.n) {
    id = static_cast<int>(c);
  } else {
    a = rowNormal(p, c);
  }
  ANFM01(Q, ldq, R, ldr, a, scratch, p.n, k, id, channel);
  return id == 0;
}

// x := Y u with R(0:k-1,0:k-1)' u = v and Y = Q(:,0:k-1); added to x when
// accumulate is set.  v is overwritten by u.
void solveOnRange(const Problem& p, const double* Q, int ldq, const double* R, int ldr, int k,
                  double* v, double* x, bool accumulate) {
  qpTriSolve(R, ldr, k, v, v, 1);
  const char trans = 'N';
  const double beta = accumulate ? kUnit : kZero;
  dgemv_(&trans, &p.n, &k, &kUnit, Q, &ldq, v, &kOne, &beta, x, &kOne, 1);
}

// Argument tests; true when the search may start.
bool argumentsValid(const Problem& p, int ldq, int ldr, int ind, const int* IRE) {
  if (p.me < 0 || p.mi < 0 || p.ibnd < 0 || p.ibnd > 3 || p.n < 2) return false;
  if (ind < 1 || ind > 22) return false;
  if (p.ldc < p.n || ldq < p.n || ldr < p.n) return false;
  if (p.ibnd == 3)
    for (i64 i = 0; i < p.n; ++i)
      if (p.CI[i] >= -kSqrtOverflow && p.CS[i] <= kSqrtOverflow && p.CI[i] > p.CS[i])
        return false;
  const bool readsStates = ind == 2 || ind == 4 || ind == 12 || ind == 14 || ind == 22;
  if (readsStates) {
    for (i64 i = 0; i < p.n; ++i)
      if (IRE[i] < -1 || IRE[i] > 1) return false;
    for (i64 j = 0; j < p.mi; ++j)
      if (IRE[p.n + j] < 0 || IRE[p.n + j] > 1) return false;
  }
  return true;
}

// Q := I; the independent equalities enter R in order, the dependent ones
// go to the tail of list(0:me-1).  Returns the rank in kcur.
void factorEqualities(const Problem& p, double* Q, int ldq, double* R, int ldr, double* scratch,
                      int* list, int& kcur, int channel) {
  for (i64 j = 0; j < p.n; ++j)
    for (i64 i = 0; i < p.n; ++i) Q[at(i, j, ldq)] = i == j ? 1.0 : 0.0;
  int k = 1;
  int tail = p.me;
  for (int i = 1; i <= p.me; ++i) {
    bool independent = false;
    if (k <= p.n) {
      int id = 0;
      ANFM01(Q, ldq, R, ldr, p.C + at(0, i - 1, p.ldc), scratch, p.n, k, id, channel);
      independent = id == 0;
    }
    if (independent) {
      list[k - 1] = i;
      ++k;
    } else {
      list[tail - 1] = i;
      --tail;
    }
  }
  kcur = k - 1;
}

// Least-norm correction of x onto the independent equalities, then the test
// of the dependent ones; false when they are inconsistent.
bool solveEqualities(const Problem& p, const double* Q, int ldq, const double* R, int ldr,
                     const int* list, int kcur, double* v, double* x) {
  bool zero = true;
  for (i64 i = 0; i < p.n; ++i)
    if (x[i] != 0.0) zero = false;
  if (kcur >= 1) {
    for (i64 j = 0; j < kcur; ++j) {
      const i64 c = list[j] - 1;
      v[j] = zero ? p.b[c] : p.b[c] - qpDot(p.n, p.C + at(0, c, p.ldc), x);
    }
    solveOnRange(p, Q, ldq, R, ldr, kcur, v, x, !zero);
  }
  for (i64 j = kcur; j < p.me; ++j) {
    const i64 c = list[j] - 1;
    const double r = kcur == 0 ? p.b[c] : p.b[c] - qpDot(p.n, p.C + at(0, c, p.ldc), x);
    if (std::fabs(r) > kPrecision075) return false;
  }
  return true;
}

// Enters constraint c with state s, unless the working set is full or c is
// dependent; true when it entered.
bool enter(const Problem& p, double* Q, int ldq, double* R, int ldr, double* scratch, int* list,
           int* IRE, int& kact, i64 c, int s, int channel) {
  if (kact >= p.n) return false;
  if (!addToFactors(p, Q, ldq, R, ldr, scratch, kact + 1, c, channel)) return false;
  ++kact;
  list[kact - 1] = static_cast<int>(c);
  IRE[(c < 0 ? -c : c) - 1] = s;
  return true;
}

// Enters the states given in IRE (bounds, then rows); dependent ones and
// those beyond a full working set are cleared.
void enterGivenStates(const Problem& p, double* Q, int ldq, double* R, int ldr, double* scratch,
                      int* list, int* IRE, int& kact, int channel) {
  for (i64 i = 0; i < p.n; ++i) {
    const int s = IRE[i];
    if (s != 1 && s != -1) continue;
    IRE[i] = 0;
    enter(p, Q, ldq, R, ldr, scratch, list, IRE, kact, s * (i + 1), s, channel);
  }
  for (i64 j = 0; j < p.mi; ++j) {
    if (IRE[p.n + j] != 1) continue;
    IRE[p.n + j] = 0;
    enter(p, Q, ldq, R, ldr, scratch, list, IRE, kact, p.n + j + 1, 1, channel);
  }
}

// Start vertex: bounds reached by x, rows active at x, then the nearest
// bound of each free variable and the remaining rows, until kact = n.
void buildStartVertex(const Problem& p, double* Q, int ldq, double* R, int ldr, double* scratch,
                      int* list, int* IRE, int& kact, const double* x, int channel) {
  for (i64 i = 0; i < p.n && kact < p.n; ++i) {
    if (IRE[i] != 0) continue;
    if ((p.ibnd == 1 || p.ibnd == 3) && p.CI[i] >= x[i]) {
      enter(p, Q, ldq, R, ldr, scratch, list, IRE, kact, -(i + 1), -1, channel);
    } else if (p.ibnd >= 2 && x[i] >= p.CS[i]) {
      enter(p, Q, ldq, R, ldr, scratch, list, IRE, kact, i + 1, 1, channel);
    }
  }
  for (i64 j = 0; j < p.mi && kact < p.n; ++j) {
    if (IRE[p.n + j] != 0) continue;
    const double* a = p.C + at(0, p.me + j, p.ldc);
    if (p.b[p.me + j] - qpDot(p.n, a, x) <= kPrecision075)
      enter(p, Q, ldq, R, ldr, scratch, list, IRE, kact, p.n + j + 1, 1, channel);
  }
  for (i64 i = 0; i < p.n && kact < p.n; ++i) {
    if (IRE[i] != 0) continue;
    const bool lo = hasLower(p, i);
    const bool up = hasUpper(p, i);
    if (!lo && !up) continue;
    bool upper = up;
    if (lo && up) upper = p.CS[i] - x[i] <= x[i] - p.CI[i];
    if (upper) {
      enter(p, Q, ldq, R, ldr, scratch, list, IRE, kact, i + 1, 1, channel);
    } else {
      enter(p, Q, ldq, R, ldr, scratch, list, IRE, kact, -(i + 1), -1, channel);
    }
  }
  for (i64 j = 0; j < p.mi && kact < p.n; ++j)
    if (IRE[p.n + j] == 0)
      enter(p, Q, ldq, R, ldr, scratch, list, IRE, kact, p.n + j + 1, 1, channel);
}

// x := the point where all kact working constraints hold with equality,
// from the range of the working normals.
void moveToVertex(const Problem& p, const double* Q, int ldq, const double* R, int ldr,
                  const int* list, int kact, int kcur, double* v, double* x) {
  if (kact < 1) return;
  for (i64 j = 0; j < kact; ++j)
    v[j] = j < kcur ? p.b[list[j] - 1] : workingValue(p, list[j]);
  solveOnRange(p, Q, ldq, R, ldr, kact, v, x, false);
}

// State of the descent on the sum of infeasibilities.
struct Search {
  double s = 0.0;        // slope along d
  int dropPlace = 0;     // 1-based place dropped in this pass, 0 if none
  int dropped = 0;       // the index dropped
  int hits = 0;          // consecutive degenerate steps
  int lastHit = 0;       // entering constraints of the last two degenerate steps
  int beforeLastHit = 0;
  int entering = 0;      // kept from pass to pass
};

// Descent direction d in w[n,2n): the projection Z Z'w of the negative
// gradient, or, when that is negligible, the freed column after dropping
// the working constraint with the smallest multiplier.  Returns -2 when no
// multiplier is negative enough (x minimises the infeasibility), else 0.
int descentDirection(const Problem& p, double* Q, int ldq, double* R, int ldr, int kact,
                     int kcur, double* w, Search& st, int channel) {
  const int n = p.n;
  double* d = w + n;
  double* y = w + 2 * i64{n};
  double nrm = 0.0;
  const int nz = n - kact;
  if (kact < n) {
    // y(0:nz-1) = Z' w, Z = Q(:,kact:n-1), each entry 0 + (its dot product)
    // as the transposed matrix-vector product forms it
    qpColumnDots(Q + at(0, kact, ldq), ldq, n, nz, w, y, 1);
    for (i64 j = 0; j < nz; ++j) y[j] = 0.0 + y[j];
    nrm = dnrm2_(&nz, y, &kOne);
  }
  st.dropPlace = 0;
  st.dropped = 0;
  if (nrm >= kPrecision075) {
    qpColumnCombination(Q + at(0, kact, ldq), ldq, n, nz, y, d);  // d = Z y
    st.s = -qpDot(n, w, d);
    return 0;
  }
  // Multipliers of the working set: R u = Q(:,0:kact-1)' w.
  qpColumnDots(Q, ldq, n, kact, w, d, 1);
  for (i64 j = 0; j < kact; ++j) d[j] = 0.0 + d[j];
  qpTriSolve(R, ldr, kact, d, d, 2);
  int place = 0;
  double best = 0.0;
  for (int j = kcur + 1; j <= kact; ++j)
    if (place == 0 || d[j - 1] < best) {
      best = d[j - 1];
      place = j;
    }
  if (best > -kPrecision075) return -2;
  if (place < kact) ANFM02(Q, ldq, R, ldr, n, kact, place, channel);
  st.dropPlace = place;
  st.dropped = 0;
  const double* q = Q + at(0, kact - 1, ldq);
  double s0 = qpDot(n, q, w);
  if (s0 < 0.0) {
    for (i64 i = 0; i < n; ++i) d[i] = -q[i];
  } else {
    for (i64 i = 0; i < n; ++i) d[i] = q[i];
    s0 = -s0;
  }
  st.s = s0;
  return 0;
}

// First inactive bound or row that lies on its limit and that d would
// violate at once; 0 if none.  Without a hit, the products C_j'd of all
// rows not in the working set are stored at w[3n+mi+j].
int degenerateHit(const Problem& p, const double* x, const double* w, double* prod,
                  const int* IRE) {
  const i64 n = p.n;
  const double* d = w + n;
  const double* res = w + 3 * n;
  const double t = kPrecision075;
  for (i64 i = 0; i < n; ++i) {
    if (IRE[i] != 0) continue;
    if (hasUpper(p, i) && d[i] > t && x[i] >= p.CS[i] - t) return static_cast<int>(i + 1);
    if (p.ibnd != 2 && p.CI[i] >= -kSqrtOverflow && d[i] < -t && p.CI[i] + t >= x[i])
      return static_cast<int>(-(i + 1));
  }
  for (i64 j = 0; j < p.mi; ++j)
    if (IRE[n + j] != 1) prod[j] = qpDot(n, p.C + at(0, p.me + j, p.ldc), d);
  for (i64 j = 0; j < p.mi; ++j)
    if (IRE[n + j] == 0 && res[j] >= -t && prod[j] > t) return static_cast<int>(n + j + 1);
  return 0;
}

// Ratio at which x + a d reaches the limit of breakpoint c.
double ratio(const Problem& p, const double* x, const double* d, const double* res,
             const double* prod, i64 c) {
  if (c < 0) return (p.CI[-c - 1] - x[-c - 1]) / d[-c - 1];
  if (c <= p.n) return (p.CS[c - 1] - x[c - 1]) / d[c - 1];
  const i64 j = c - p.n - 1;
  return -res[j] / prod[j];
}

// Breakpoints of the line x + a d, a > 0, written to bp; returns their count.
int listBreakpoints(const Problem& p, const double* x, const double* d, const double* res,
                    const double* prod, const int* IRE, const Search& st, int* bp) {
  const i64 n = p.n;
  const double t = kPrecision075;
  int nb = 0;
  for (i64 i = 0; i < n; ++i) {
    const int s = IRE[i];
    if (hasUpper(p, i) && ((s == 0 && d[i] > t) || (s == 2 && d[i] < -t))) {
      bp[nb++] = static_cast<int>(i + 1);
    } else if (p.ibnd != 2 && p.CI[i] >= -kSqrtOverflow &&
               ((s == 0 && d[i] < -t) || (s == -2 && d[i] > t))) {
      bp[nb++] = static_cast<int>(-(i + 1));
    }
  }
  // The opposite limit of a bound dropped in this pass.
  const i64 q = st.dropped < 0 ? -st.dropped : st.dropped;
  if (st.dropPlace != 0 && q >= 1 && q <= n && hasLower(p, q - 1) && hasUpper(p, q - 1)) {
    const i64 c = -st.dropped;
    const double a = ratio(p, x, d, res, prod, c);
    if (a >= 0.0 && a <= kOverflow) bp[nb++] = static_cast<int>(c);
  }
  for (i64 j = 0; j < p.mi; ++j) {
    const int s = IRE[n + j];
    if ((s == 0 && prod[j] > t) || (s == 2 && prod[j] < -t)) bp[nb++] = static_cast<int>(n + j + 1);
  }
  return nb;
}

// Walks over the breakpoints in groups of equal ratio, updating the slope,
// until it is no longer negative.  Returns the step; c the first of the
// last group treated.
double walk(const Problem& p, const double* x, const double* d, const double* res,
            const double* prod, int* IRE, int* bp, int nb, Search& st) {
  const double t = kPrecision075;
  double level = 0.0;
  bool first = true;
  double a = 0.0;
  while (st.s < -t) {
    // The group: the smallest ratio above the level (at or above 0 at
    // first), the first found of equal ones leading.
    double g = 0.0;
    int lead = -1;
    for (int e = 0; e < nb; ++e) {
      const double r = ratio(p, x, d, res, prod, bp[e]);
      const bool above = first ? r >= level : r > level;
      if (above && (lead < 0 || r < g)) {
        g = r;
        lead = e;
      }
    }
    if (lead < 0) break;
    first = false;
    a = g;
    st.entering = bp[lead];
    int place = 0;
    for (int e = lead; e < nb; ++e) {
      const i64 c = bp[e];
      if (ratio(p, x, d, res, prod, c) != g) continue;
      ++place;
      if (c < 0) {
        const i64 i = -c - 1;
        if (IRE[i] == -2) {
          st.s += d[i];
          if (hasLower(p, i) && hasUpper(p, i)) {
            IRE[i] = 0;
            bp[e] = static_cast<int>(i + 1);
          }
        } else {
          st.s -= d[i];
        }
      } else if (c <= p.n) {
        const i64 i = c - 1;
        if (IRE[i] == 2) {
          st.s -= d[i];
          // The upper limit tested is that of the variable numbered by the
          // breakpoint's place in its group.
          if (p.CI[i] >= -kSqrtOverflow && place <= p.n && p.CS[place - 1] <= kSqrtOverflow) {
            IRE[i] = 0;
            bp[e] = static_cast<int>(-(i + 1));
          }
        } else {
          st.s += d[i];
        }
      } else {
        const i64 j = c - p.n - 1;
        if (IRE[p.n + j] == 2) {
          st.s -= prod[j];
        } else {
          st.s += prod[j];
        }
      }
    }
    level = g;
  }
  return a;
}

// Puts constraint c into the working set after a step, in place of the
// dropped one if there was one; false when c turns out dependent.
bool acceptEntering(const Problem& p, double* Q, int ldq, double* R, int ldr, double* scratch,
                    int* list, int* IRE, int& kact, const Search& st, int channel) {
  const i64 c = st.entering;
  if (st.dropPlace != 0) {
    const i64 q = st.dropped < 0 ? -st.dropped : st.dropped;
    IRE[q - 1] = 0;
    for (int j = st.dropPlace; j < kact; ++j) list[j - 1] = list[j];
    --kact;
  }
  int& state = IRE[(c < 0 ? -c : c) - 1];
  const int before = state;
  if (before == (c < 0 ? -1 : 1)) return false;  // already in the working set
  state = c < 0 ? -1 : 1;
  if (!addToFactors(p, Q, ldq, R, ldr, scratch, kact + 1, c, channel)) {
    state = before;
    return false;
  }
  ++kact;
  list[kact - 1] = static_cast<int>(c);
  return true;
}

// The digits of ind: above 20, stop as soon as the QR factors stand; 11..20,
// build the start vertex; what is left, 2 or 4, reads the states in IRE.
struct StartMode {
  bool stopAfterFactors;
  bool vertex;
  bool readStates;
};

StartMode decodeStartMode(int ind) {
  int mode = ind;
  const bool stopAfterFactors = mode > 20;
  if (mode > 20) mode -= 20;
  const bool vertex = mode >= 11;
  if (mode > 10) mode -= 10;
  return StartMode{stopAfterFactors, vertex, mode == 2 || mode == 4};
}

// The start: Q := I and the independent equalities factored, x moved onto
// them by the least-norm correction; then the states given in IRE when
// they are read; then the start vertex, bounds and rows nearest to x, and
// the move to it.  Returns -1 when the equalities are inconsistent, 1 when
// the caller asked to stop once the factors stand, 0 to go on.
int startPoint(const Problem& p, const StartMode& mode, double* Q, int ldq, double* R, int ldr,
               double* w, double* x, int* list, int* IRE, int& kact, int& kcur, int channel) {
  double* scratch = w + p.n;           // Householder vector of ANFM01
  double* reduced = w + 2 * i64{p.n};  // right-hand sides and multipliers
  factorEqualities(p, Q, ldq, R, ldr, scratch, list, kcur, channel);
  if (!solveEqualities(p, Q, ldq, R, ldr, list, kcur, reduced, x)) return codes::kSearchEqualities;
  kact = kcur;
  if (mode.readStates) enterGivenStates(p, Q, ldq, R, ldr, scratch, list, IRE, kact, channel);
  if (mode.stopAfterFactors) return 1;
  if (mode.vertex) {
    buildStartVertex(p, Q, ldq, R, ldr, scratch, list, IRE, kact, x, channel);
    moveToVertex(p, Q, ldq, R, ldr, list, kact, kcur, reduced, x);
  }
  return 0;
}

// Bookkeeping of a degenerate hit, a step of length zero: false when the
// search cycles, that is when a pass that dropped a constraint makes the
// run of consecutive hits longer than the working set, or when the
// constraint that entered two hits ago comes back while the place just
// dropped is the last of the working set.
bool recordDegenerateHit(Search& st, int hit, int kact) {
  ++st.hits;
  if ((st.dropPlace != 0 && st.hits > kact) ||
      (hit == st.beforeLastHit && kact == st.dropPlace))
    return false;
  st.beforeLastHit = st.lastHit;
  st.lastHit = hit;
  st.entering = hit;
  return true;
}

// One pass of the descent on the sum of infeasibilities, once
// qpInfeasibility has found x infeasible and formed the negative gradient
// in w: the descent direction (dropping a working constraint if need be),
// the degeneracy test, the walk over the breakpoints of the line, the step,
// and the entering constraint.  Returns 0 to go on, 1 when no constraint
// enters (the search ends with x as it stands), or the status -2 (x
// minimises the infeasibility) or -3 (cycling).
int descentPass(const Problem& p, double* Q, int ldq, double* R, int ldr, double* x, double* w,
                int* list, int* IRE, int& kact, int kcur, Search& st, int channel) {
  const i64 n = p.n;
  double* scratch = w + n;
  const double* d = w + n;
  const double* res = w + 3 * n;
  double* prod = w + 3 * n + p.mi;
  if (descentDirection(p, Q, ldq, R, ldr, kact, kcur, w, st, channel) != 0) return codes::kSearchNoPoint;
  if (st.dropPlace != 0) st.dropped = list[st.dropPlace - 1];

  const int hit = degenerateHit(p, x, w, prod, IRE);
  double a = 0.0;
  if (hit != 0) {
    if (!recordDegenerateHit(st, hit, kact)) return codes::kSearchCycling;
  } else {
    st.hits = 0;
    st.lastHit = 0;
    st.beforeLastHit = 0;
    int* bp = list + kact;  // breakpoints behind the working set
    const int nb = listBreakpoints(p, x, d, res, prod, IRE, st, bp);
    a = walk(p, x, d, res, prod, IRE, bp, nb, st);
  }

  if (a != 0.0) daxpy_(&p.n, &a, d, &kOne, x, &kOne);
  const i64 c = st.entering;
  if (c == 0 || c < -(n + p.mi) || c > n + p.mi) return 1;
  acceptEntering(p, Q, ldq, R, ldr, scratch, list, IRE, kact, st, channel);
  return 0;
}

}  // namespace

// Sum of infeasibilities at x with the states and negative gradient w.
void qpInfeasibility(const double* C, const int& ldc, const double* CI, const double* CS,
                     const double* b, const double* x, double* w, int* IRE, const int& ibnd,
                     const int& n, const int& mi, const int& job, double& sum, int& found) {
  const double t = kPrecision075;
  const bool full = job == 1;
  if (full) {
    sum = 0.0;
    for (i64 i = 0; i < n; ++i) w[i] = 0.0;
  }
  found = 0;
  for (i64 i = 0; i < n; ++i) {
    if (IRE[i] == 1 || IRE[i] == -1) continue;
    bool marked = false;
    if (ibnd != 2 && CI[i] >= -kSqrtOverflow && CI[i] - t > x[i]) {
      found = 1;
      if (!full) return;
      sum += CI[i] - x[i];
      IRE[i] = -2;
      w[i] = 1.0;
      marked = true;
    } else if (full) {
      IRE[i] = 0;
    }
    if (marked) continue;
    if (ibnd >= 2 && CS[i] <= kSqrtOverflow && x[i] > CS[i] + t) {
      found = 1;
      if (!full) return;
      sum += x[i] - CS[i];
      IRE[i] = 2;
      w[i] = -1.0;
    } else if (full) {
      IRE[i] = 0;
    }
  }
  for (i64 j = 0; j < mi; ++j) {
    if (IRE[n + j] == 1) continue;
    const double* a = C + at(0, j, ldc);
    const double r = qpDot(n, a, x) - b[j];
    if (full) {
      w[3 * i64{n} + j] = r;
    } else {
      w[j] = r;
    }
    if (r > t) {
      found = 1;
      if (!full) return;
      IRE[n + j] = 2;
      daxpy_(&n, &kMinusUnit, a, &kOne, w, &kOne);
      sum += r;
    } else if (full) {
      IRE[n + j] = 0;
    }
  }
}

// Feasible point and working set; see solver.h for the layout of w.  The
// start (equalities, given states, start vertex) is followed by passes of
// the descent on the sum of infeasibilities until x is feasible.  The
// iteration limit n + me + mi is tested after a completed pass only.
void OPTR01(const double* C, const int& ldc, double* Q, const int& ldq, double* R,
            const int& ldr, const double* CI, const double* CS, const double* b, double* x,
            double* w, int* list, int* IRE, const int& ibnd, const int& n, int& kact,
            const int& me, int& kcur, const int& mi, int& status, const int& level,
            const int& channel, const int& ind) {
  (void)level;  // progress messages are not written at any level used here
  const Problem p{C, ldc, CI, CS, b, ibnd, n, me, mi};
  status = 0;
  kact = 0;
  kcur = 0;
  if (!argumentsValid(p, ldq, ldr, ind, IRE)) {
    status = codes::kSearchInvalidInput;
    return;
  }
  const StartMode mode = decodeStartMode(ind);
  if (!mode.readStates)
    for (i64 i = 0; i < i64{n} + mi; ++i) IRE[i] = 0;
  const i64 nn = n;
  double* res = w + 3 * nn;
  for (i64 j = 0; j < mi; ++j) res[j] = 0.0;

  const int start = startPoint(p, mode, Q, ldq, R, ldr, w, x, list, IRE, kact, kcur, channel);
  if (start != 0) {
    status = start < 0 ? start : 0;
    return;
  }

  const i64 limit = nn + me + mi;
  i64 iterations = 0;
  Search st;
  for (;;) {
    double sum = 0.0;
    int found = 0;
    qpInfeasibility(C + at(0, me, ldc), ldc, CI, CS, b + me, x, w, IRE, ibnd, n, mi, 1, sum,
                    found);
    if (found == 0) return;
    if (kact == kcur) {
      status = codes::kSearchNoPoint;  // only equalities to work with, and still infeasible
      return;
    }
    ++iterations;
    const int pass = descentPass(p, Q, ldq, R, ldr, x, w, list, IRE, kact, kcur, st, channel);
    if (pass != 0) {
      status = pass < 0 ? pass : 0;
      return;
    }
    if (iterations > limit) {
      status = codes::kSearchIterationLimit;
      return;
    }
  }
}

}  // namespace lumbra::qp
