// SPDX-License-Identifier: Apache-2.0
// Main iteration of the active-set QP solver.  From the feasible point and
// working set of OPTR01 it alternates between a step in the null space Z of
// the working set (Newton, null-curvature or negative-curvature, chosen by
// the status of the reduced Hessian factor T) and a change of the working
// set: the blocking constraint enters, or the one with the most negative
// multiplier leaves.  It ends when the reduced gradient is negligible and
// no multiplier is negative.
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
constexpr int kDefaultIterationFactor = 14;  // limit 14 (n + me + mi) when none is given
constexpr int kFeasibleStartMode = 11;       // OPTR01: build the start vertex

// The data and the scalars of the loop, shared by its steps.
struct Loop {
  // data
  const double* C;
  int ldc;
  double* Q;
  int ldq;
  double* HR;
  int ldh;
  const double* g;
  const double* b;
  const double* CI;
  const double* CS;
  double* x;
  int* IRE;
  int* list;
  int* ipvt;
  double scale;
  int ibnd;
  int n;
  int me;
  int mi;
  // regions of w
  double* G;     // gradient, n
  double* res;   // row residuals, mi
  double* mult;  // multipliers, then p; n + 1
  double* y;     // reduced vector, saved multipliers, products C_j'p
  double* prod;  // products C_j'p (same place as y)
  double* fac;   // scratch of the factor updates, from n + mi on
  // scalars
  int kact = 0;
  int kcur = 0;
  int nz = 0;
  int st = 0;
  bool marker = false;
  int stepKind = 0;
  int stepMode = 0;
  double alpha = 0.0;
  double relGrad = 0.0;
  int gradCount = 0;
  double minMult = 0.0;
  int dropPos = 0;
  int dropIndex = 0;
  int drop = 0;
  int zeroSteps = 0;
  int lastAdded = 0;
  int beforeLastAdded = 0;
  int startSize = 0;
  int workingSize = 0;
  int added = 0;  // constraints added since the start
  bool vertex = false;
  bool relaxed = false;
  int entered = 0;  // constraint that entered in this pass
  int channel = 6;
};

double* R(const Loop& L) { return L.HR + L.ldh; }
double* T(const Loop& L) { return R(L) + at(0, L.kact, L.ldh); }
double* Z(const Loop& L) { return L.Q + at(0, L.kact, L.ldq); }

// Entry tests; true when the arguments are usable.
bool entryValid(const Loop& L, int ind, int level) {
  (void)level;
  const i64 n = L.n;
  if ((L.me > 0 || L.mi > 0) && L.ldc < n) return false;
  if (n < 2 || n > L.ldh) return false;
  if (n > L.ldq) return false;
  if (ind < -2 || ind > 6 || L.me < 0 || L.mi < 0) return false;
  if (L.ibnd < 0 || L.ibnd > 3 || L.channel <= 0) return false;
  if (L.ibnd == 3)
    for (i64 i = 0; i < n; ++i)
      if (L.CI[i] >= -kSqrtOverflow && L.CS[i] <= kSqrtOverflow && L.CI[i] > L.CS[i])
        return false;
  return true;
}

// Takes the growth marker off st and remembers it.
void takeMarker(Loop& L) {
  const int mark = 10 * L.ldq;
  L.marker = L.st <= -mark;
  if (L.marker) L.st += mark;
}

// T := factor of Z'HZ afresh over the current null space of size nz.
void factorAfresh(Loop& L, int flag) {
  int kf = 0;
  ANFM03(L.HR, L.ldh, T(L), L.ldh, Z(L), L.ldq, L.fac, L.ipvt, L.n, L.nz, kf, flag,
         L.channel);
  L.st = kf;
  takeMarker(L);
}

// G = H x + g from the lower triangle of H:
// G(i) = H(i,0:i) x(0:i) + H(i+1:n-1,i)' x(i+1:n-1) + g(i), the sums of
// H x in the order qpLowerSymProduct gives.
void gradient(Loop& L) {
  const i64 n = L.n;
  double* G = L.G;
  qpLowerSymProduct(L.HR, L.ldh, n, L.x, G);  // G = H x
  for (i64 i = 0; i + 1 < n; ++i) G[i] = G[i] + L.g[i];
  // the last row has an empty column product, which adds as 0.0
  if (n >= 1) G[n - 1] = G[n - 1] + 0.0 + L.g[n - 1];
  if (L.scale != 1.0)
    for (i64 i = 0; i < n; ++i) G[i] = G[i] * L.scale;
}

// y(j) = q_(n-1-j)' G, j = 0..nz-1, and its size relative to G.
void reducedGradient(Loop& L) {
  // column n - nz + c of Q goes to y(nz-1-c)
  qpColumnDots(L.Q + at(0, L.n - L.nz, L.ldq), L.ldq, L.n, L.nz, L.G, L.y + L.nz - 1, -1);
  if (!L.vertex) {
    L.relGrad = dnrm2_(&L.nz, L.y, &kOne) / (qpAbsMax(L.n, L.G) + 1.0);
  } else {
    L.relGrad = 0.0;
  }
}

// Removes place dropPos from the working set and grows T by the freed
// column.  Returns -1 when a fresh factor finds no usable curvature.
int deleteConstraint(Loop& L) {
  if (L.kact > 1) ANFM02(L.Q, L.ldq, R(L), L.ldh, L.n, L.kact, L.dropPos, L.channel);
  L.dropIndex = L.list[L.dropPos - 1];
  if (L.dropIndex > L.n) L.res[L.dropIndex - L.n - 1] = 0.0;
  L.IRE[(L.dropIndex < 0 ? -L.dropIndex : L.dropIndex) - 1] = 0;
  for (int j = L.dropPos; j < L.kact; ++j) L.list[j - 1] = L.list[j];
  if (L.vertex) {
    L.nz = 0;
    L.st = 0;
  }
  if (L.st >= 0 && L.st <= L.nz) {
    // The new null vector is column kact-1 (0-based) of Q.
    ANFM06(L.Q + at(0, L.kact - 1, L.ldq), L.ldq, L.HR, L.ldh, L.fac + L.n, L.ipvt, L.n, L.nz,
           L.st, L.channel);
    --L.kact;
  } else {
    // A status the extension cannot start from: factor the grown null
    // space afresh.
    --L.kact;
    ++L.nz;
    factorAfresh(L, L.added);
    if (L.st == L.n) return codes::kMainUnbounded;
  }
  --L.workingSize;
  L.stepMode = 1;
  return 0;
}

// Multipliers of the working set and, when the smallest inequality
// multiplier is negative or negligible, deletion of its constraint.
// Returns 10 to go to the direction at once, -1 on a failed refactor,
// 0 to go on with the stop test.
int multipliersAndDeletion(Loop& L) {
  const i64 k = L.kact;
  // lambda: R lambda = v, v(j) = -q_j' G
  qpColumnDots(L.Q, L.ldq, L.n, k, L.G, L.mult, 1);
  for (i64 j = 0; j < k; ++j) L.mult[j] = -L.mult[j];
  qpTriSolve(R(L), L.ldh, L.kact, L.mult, L.mult, 2);
  if (L.kact <= L.kcur) return 0;
  for (int j = L.kcur + 1; j <= L.kact; ++j)
    if (L.mult[j - 1] < L.minMult) {
      L.minMult = L.mult[j - 1];
      L.dropPos = j;
    }
  if (L.minMult > kPrecision075) return 0;
  const bool zero = L.minMult >= -kPrecision075;
  double* saved = L.y;
  if (zero)
    for (i64 j = 0; j < k; ++j) saved[j] = L.mult[j];
  if (L.gradCount > 0) L.gradCount = 0;
  if (deleteConstraint(L) != 0) return codes::kMainUnbounded;
  if (std::fabs(L.minMult) > kPrecision075) return 10;
  // A zero multiplier: the constraint stays out.
  if (L.st < 0 || L.st > L.nz) {
    L.drop = L.dropIndex;
    return 0;
  }
  for (i64 j = 0; j < L.kact; ++j) L.mult[j] = j < L.dropPos - 1 ? saved[j] : saved[j + 1];
  return 0;
}

// First inactive bound or row, active within t1, that p would violate at
// once and whose normal has a projection on Z of size at least t2; 0 if
// none.  Bounds and rows with a negligible projection get a zero
// component (p_i or C_j'p).  Stores C_j'p for the rows not active.
int screenDegenerate(Loop& L, double* p) {
  const i64 n = L.n;
  const double t1 = kPrecision075;
  for (i64 i = 0; i < n; ++i) {
    if (L.ibnd > 1 && L.CS[i] <= kSqrtOverflow && L.IRE[i] == 0 && p[i] > t1 &&
        L.x[i] >= L.CS[i] - t1) {
      if (dnrm2_(&L.nz, L.Q + at(i, L.kact, L.ldq), &L.ldq) >= kPrecision09)
        return static_cast<int>(i + 1);
      p[i] = 0.0;
    }
    if (L.ibnd != 2 && L.CI[i] >= -kSqrtOverflow && L.IRE[i] == 0 && p[i] < -t1 &&
        L.CI[i] + t1 >= L.x[i]) {
      if (dnrm2_(&L.nz, L.Q + at(i, L.kact, L.ldq), &L.ldq) >= kPrecision09)
        return static_cast<int>(-(i + 1));
      p[i] = 0.0;
    }
  }
  double* proj = L.prod + L.mi;  // Z' C_j, nz entries
  const char trans = 'T';
  const double one = 1.0;
  const double zero = 0.0;
  for (i64 j = 0; j < L.mi; ++j) {
    if (L.IRE[n + j] == 1) continue;
    const double* a = L.C + at(0, L.me + j, L.ldc);
    L.prod[j] = qpDot(n, a, p);
    if (L.res[j] >= -t1 && L.prod[j] > t1) {
      dgemv_(&trans, &L.n, &L.nz, &one, Z(L), &L.ldq, a, &kOne, &zero, proj, &kOne, 1);
      if (dnrm2_(&L.nz, proj, &kOne) >= kPrecision09) return static_cast<int>(n + j + 1);
      L.prod[j] = 0.0;
    }
  }
  return 0;
}

// Count of leading positions of T that survive an addition, by st.
int survivingRank(int st, int nz) {
  if (st > 2 * nz && st < 3 * nz) return 3 * nz - st;
  if (st > nz && st < 2 * nz) return 2 * nz - st;
  if (st >= -nz && st < -1) return -1 - st;
  if (st < 0) return -1 - (nz + st);
  return nz;
}

// Adds the blocking constraint e to Q, R and updates T.  Returns -15 when
// there is none, -1 when the new factor has no usable curvature.
int addConstraint(Loop& L, int e) {
  if (e == 0 || L.kact >= L.n) return codes::kMainNothingToAdd;
  const i64 ae = e < 0 ? -e : e;
  const double t11 = L.nz >= 1 ? T(L)[0] : 0.0;  // old T(0,0), overwritten by ANFM04
  ++L.kact;
  int id = 0;
  const double* a = nullptr;
  if (ae <= L.n) {
    id = e;
  } else {
    a = L.C + at(0, L.me + (ae - L.n) - 1, L.ldc);
  }
  double* cs = L.fac;
  ANFM04(L.Q, L.ldq, R(L), L.ldh, a, cs, L.ipvt, L.n, L.kact, id, L.channel);
  if (id != 0) {
    // Dependent after all: leave the working set as it was.
    --L.kact;
    return 0;
  }
  L.list[L.kact - 1] = e;
  L.IRE[ae - 1] = e < 0 ? -1 : 1;
  ++L.workingSize;
  ++L.added;
  const int nz = L.nz;
  if (nz >= 2) {
    if (L.marker && L.st == -2) L.st = -1;
    const int r = survivingRank(L.st, nz);
    const int m = nz - 1;
    if (L.st == -1 || L.st == -nz - 1 || L.st == 3 * nz || L.st == 2 * nz) {
      L.nz = m;
      factorAfresh(L, L.added);
      L.nz = nz;
    } else if (r > 0) {
      const int rr = L.marker ? r - 1 : r;
      ANFM05(L.HR, L.ldh, T(L), L.ldh, Z(L), L.ldq, cs, L.fac + 2 * i64{m}, L.ipvt, t11, m, rr,
             L.n, L.st, L.added, L.channel);
      takeMarker(L);
    }
    if (L.st == L.n) return codes::kMainUnbounded;
  }
  --L.nz;
  return 0;
}

// Direction of the pass: qpDirection on Z, T and G, with the normal of the
// constraint just deleted (G itself for a bound or none).  Its kind for
// the ratio test follows drop: 1 positive curvature, otherwise 2 null
// curvature when 1 <= st <= nz, 0 negative curvature.
void searchDirection(Loop& L, double* p) {
  const double* a = L.G;
  if (L.dropIndex > L.n) a = L.C + at(0, L.me + (L.dropIndex - L.n) - 1, L.ldc);
  qpDirection(Z(L), L.ldq, T(L), L.ldh, L.G, a, L.y, p, L.ipvt, L.scale, L.nz, L.n, L.st,
              L.stepMode, L.drop, L.alpha);
  if (L.drop == 1) {
    L.stepKind = 1;
  } else {
    L.stepKind = (1 <= L.st && L.st <= L.nz) ? 2 : 0;
  }
}

// Zero-step bookkeeping, with e the constraint that stops the step: false
// when the method cycles at a degenerate point, that is when the run of
// zero steps grows longer than the working set, or when e entered two zero
// steps ago while the place just dropped is the last of the working set.
bool countZeroStep(Loop& L, int e) {
  ++L.zeroSteps;
  if ((L.zeroSteps > L.kact && L.kact > 0) || (L.beforeLastAdded == e && L.kact == L.dropPos))
    return false;
  L.beforeLastAdded = L.lastAdded;
  L.lastAdded = e;
  return true;
}

// A step of non-zero length: the zero-step counters are cleared, the
// residuals of the inactive rows move with x (unless the rows are frozen
// out of the step), and x := x + alpha p, a plain addition for the full
// Newton step.
void takeStep(Loop& L, const double* p, bool frozen) {
  const i64 n = L.n;
  L.zeroSteps = 0;
  L.lastAdded = 0;
  L.beforeLastAdded = 0;
  if (!frozen)
    for (i64 j = 0; j < L.mi; ++j)
      if (L.IRE[n + j] == 0) L.res[j] += L.alpha * L.prod[j];
  if (L.alpha == 1.0) {
    for (i64 i = 0; i < n; ++i) L.x[i] = L.x[i] + p[i];
  } else {
    for (i64 i = 0; i < n; ++i) L.x[i] = L.x[i] + L.alpha * p[i];
  }
}

// One pass from the direction on: direction, screening for degeneracy,
// ratio test, step, and the addition of the blocking constraint.  Returns
// 0 to go on, or a final status: -1 unbounded, -2 cycling, -15 nothing to
// add (or -1 from the new factor).
int stepAndUpdate(Loop& L) {
  double* p = L.mult;
  searchDirection(L, p);

  // Relaxed rule: while the working set is still OPTR01's, the rows are
  // left out of the step.
  const bool frozen = L.relaxed && L.workingSize == L.startSize;
  int entering = 0;
  bool zeroStep = false;
  if (frozen) {
    for (i64 j = 0; j < L.mi; ++j) L.prod[j] = 0.0;
  } else {
    entering = screenDegenerate(L, p);
    zeroStep = entering != 0;
  }
  if (!zeroStep) {
    double* w = L.G;  // qpStepLength reads the layout starting at the gradient
    int kind = L.stepKind;
    qpStepLength(L.CI, L.CS, L.x, L.alpha, w, L.IRE, entering, L.ibnd, L.n, L.mi, kind);
    if (kind == -1) return codes::kMainUnbounded;
    if (kind == 0) {
      zeroStep = true;
      kind = 2;
    }
    L.stepKind = kind;
  }
  L.list[L.kact] = entering;

  if (zeroStep) {
    if (!countZeroStep(L, entering)) return codes::kMainCycling;
  } else {
    takeStep(L, p, frozen);
  }

  if (zeroStep || L.stepKind == 1 || L.stepKind == 3 || L.stepKind == 11) {
    const int s = addConstraint(L, entering);
    if (s != 0) return s;
    L.entered = entering;
  }
  return 0;
}

// Stores the objective behind the kact multipliers and returns its 1-based
// position in w.  Called once the loop has ended, when the gradient's place
// is free to hold H x.
int storeObjective(Loop& L, double* w) {
  const i64 pos = i64{L.n} + L.mi + L.kact;
  const double f = qpObjective(L.HR, L.ldh, L.g, L.x, L.G, L.scale, L.n);
  w[pos] = f;
  return static_cast<int>(pos + 1);
}

// The start: x := 0 (whatever the caller had there is ignored), OPTR01's
// feasible point and working set, the row residuals moved from where
// OPTR01 left them to their place, and the first factor of the reduced
// Hessian over Z, unless the working set is a vertex.  Returns 0, or the
// final status: OPTR01's failure less 10, or -1 when the reduced Hessian
// has no usable curvature at all.
int startSolve(Loop& L, double* w, int level) {
  const i64 n = L.n;
  for (i64 i = 0; i < n; ++i) L.x[i] = 0.0;
  int s01 = 0;
  OPTR01(L.C, L.ldc, L.Q, L.ldq, R(L), L.ldh, L.CI, L.CS, L.b, L.x, w, L.list, L.IRE, L.ibnd,
         L.n, L.kact, L.me, L.kcur, L.mi, s01, level, L.channel, kFeasibleStartMode);
  if (s01 < 0) return s01 + codes::kMainSearchShift;
  for (i64 j = 0; j < L.mi; ++j) L.res[j] = w[3 * n + j];
  L.startSize = L.workingSize = L.kact;
  if (L.kact == L.n) {
    L.nz = 0;
    L.stepKind = 2;
    L.vertex = true;
    return 0;
  }
  L.nz = L.n - L.kact;
  L.vertex = false;
  factorAfresh(L, 0);
  if (L.st == L.n && L.workingSize == L.startSize) return codes::kMainUnbounded;
  return 0;
}

// Opening of a pass.  When the bound that entered in the last pass is the
// opposite of the one dropped in it, the step ran across the whole
// interval of the variable and the working set spans the subspace it had
// before the deletion, on which the point was a minimiser: the pass goes
// straight to the optimality test (stepKind 2).  The gradient G = H x + g
// is formed again unless the last step had length zero, and the smallest
// multiplier starts from the overflow value.
void openPass(Loop& L, int lastDropped) {
  if (lastDropped != 0 && L.entered == -lastDropped &&
      (lastDropped < 0 ? -lastDropped : lastDropped) <= L.n)
    L.stepKind = 2;
  L.dropIndex = 0;
  L.drop = 0;
  L.entered = 0;
  if (L.zeroSteps == 0) gradient(L);
  L.minMult = kOverflow;
}

// Verdict of the optimality test of a pass.
enum class Verdict { Step, Optimal, Failed };

// Optimality test, at a point that minimises the objective on the current
// subspace as far as the last step knows (stepKind >= 2).  The reduced
// gradient and its relative size come first; the multipliers are formed
// when it is negligible, or when it has stayed above t2 for exactly three
// passes, and the constraint with the smallest multiplier leaves the
// working set when that multiplier is negative or zero.  Optimal when
// nothing was deleted, no multiplier is below -t1 and the reduced gradient
// is negligible or stubborn; also at a vertex, which leaves no direction.
// Failed when a fresh factor after a deletion has no usable curvature.
Verdict testOptimality(Loop& L) {
  reducedGradient(L);
  if (L.relGrad >= kPrecision09) {
    L.stepMode = 10;
    ++L.gradCount;
  } else if (L.gradCount >= 0) {
    L.gradCount = 0;
  }
  bool deleted = false;
  if (L.kact != 0 && (L.gradCount == 0 || L.gradCount == 3)) {
    const int s = multipliersAndDeletion(L);
    if (s == -1) return Verdict::Failed;
    deleted = s == 10;
  }
  if (!deleted && L.stepKind >= 2 && L.minMult >= -kPrecision075 && L.drop == 0 &&
      (L.relGrad < kPrecision09 || L.gradCount >= 3))
    return Verdict::Optimal;
  if (L.nz == 0) return Verdict::Optimal;  // a vertex leaves no direction to take
  return Verdict::Step;
}

// Close of a pass: a full working set is a vertex, where the next pass
// takes no step but tests the multipliers at once.
void closePass(Loop& L) {
  if (L.kact == L.n) {
    L.stepKind = 2;
    L.nz = 0;
    L.vertex = true;
  } else {
    L.vertex = false;
  }
}

// At an optimum: one step of refinement of x against the working set, and
// the objective behind the multipliers when it is asked for.  The
// refinement's residuals go behind the multipliers and the place of the
// objective, its correction to the gradient's place, which the loop no
// longer needs: so the whole of it, with a full working set, takes
// 3n + mi + 1 doubles, within what a linear problem's solve has.
void finishAtOptimum(Loop& L, double* w, int& wantObjective, int& status) {
  double* e = L.mult + L.kact + 1;
  qpRefine(L.Q, L.ldq, R(L), L.ldh, L.C, L.ldc, L.b, L.CI, L.CS, L.x, e, L.G, L.list, L.n,
           L.kact, L.me, L.kcur, L.mi, status);
  if (wantObjective != 0) wantObjective = storeObjective(L, w);
}

}  // namespace

// Primal active-set QP iteration; see solver.h.  After the start, each
// pass opens (gradient), tests optimality at a subspace minimiser (which
// may delete a constraint), then takes a step along the search direction
// and adds the constraint that blocks it, until the test finds the point
// optimal, the step is too long (-3, the objective stored), another
// failure ends the solve, or the iteration limit is passed (1).
void OPTR03(const double* C, const int& ldc, double* Q, const int& ldq, double* HR,
            const int& ldh, const double* g, const double* b, const double* CI,
            const double* CS, double* x, double* w, int& wantObjective, int* IRE, int* list,
            int* ipvt, const double& scale, const int& ibnd, const int& n, int& kact,
            const int& me, int& kcur, const int& mi, const int& ind, int& status,
            const int& level, const int& channel, int& iterations) {
  Loop L{C, ldc, Q, ldq, HR, ldh, g, b, CI, CS, x, IRE, list, ipvt, scale, ibnd, n, me, mi,
         nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
  L.channel = channel;
  status = 0;
  if (!entryValid(L, ind, level)) {
    status = codes::kMainInvalidInput;
    return;
  }
  if (ind != 6) {
    // Only the cold start is built.
    status = codes::kMainInvalidInput;
    return;
  }
  const i64 nn = n;
  L.G = w;
  L.res = w + nn;
  L.mult = w + nn + mi;
  L.y = w + 2 * nn + mi;
  L.prod = L.y;
  L.fac = L.mult;

  L.relaxed = true;
  const i64 limit =
      iterations < 1 ? i64{kDefaultIterationFactor} * (nn + me + mi) : i64{iterations};
  iterations = 0;
  status = startSolve(L, w, level);
  kact = L.kact;
  kcur = L.kcur;
  if (status != 0) return;

  int lastDropped = 0;
  for (;;) {
    openPass(L, lastDropped);
    if (L.stepKind >= 2) {
      const Verdict v = testOptimality(L);
      if (v == Verdict::Failed) {
        status = codes::kMainUnbounded;
        break;
      }
      if (v == Verdict::Optimal) break;
    }
    lastDropped = L.dropIndex;
    const int s = stepAndUpdate(L);
    if (s != 0) {
      status = s;
      break;
    }
    if (L.stepKind == 11) {
      // a step so long that the problem counts as unbounded
      wantObjective = storeObjective(L, w);
      status = codes::kMainStepTooLong;
      break;
    }
    closePass(L);
    ++iterations;
    if (iterations > limit) {
      status = codes::kMainIterationLimit;
      break;
    }
  }
  kact = L.kact;
  kcur = L.kcur;
  if (status != 0) return;
  finishAtOptimum(L, w, wantObjective, status);
}

}  // namespace lumbra::qp
