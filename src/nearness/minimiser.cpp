// SPDX-License-Identifier: Apache-2.0
// The bound-constrained quasi-Newton minimiser n2qn1: a projected BFGS
// method holding the variables either free or active at a bound, with the
// Hessian approximation of the free block kept as an LDL' factor, steps
// stopped at the first bound met, and bounds released on the multiplier
// estimate.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "kernels/index.h"
#include "nearness/minimiser.h"
#include "nearness/minimiser_internal.h"

namespace lumbra::nearness {

namespace {

constexpr double kLargestStep = 1e20;   // no step is longer; also the test for no bound
constexpr double kReleaseFactor = 1.0;  // weight of -fp against the predicted gain
constexpr int kGather = 1;              // permuteVector: variable order to working order
constexpr int kScatter = -1;            // permuteVector: working order to variable order
constexpr double kNoEps = 0.0;          // eps of the rank-one modifications

// sqrt(k) of a count, the count converted to single precision first.
double sqrtCount(i64 k) { return std::sqrt(static_cast<double>(static_cast<float>(k))); }

// One evaluation of f and g at x, not counted in nap.
void finalSimulation(MinimiserState& s) {
  int indic = 4;
  s.simul(indic, s.n, s.x, s.f, s.g, s.izs, s.dzs);
}

// active(i): +1 at the upper bound, -1 at the lower, 0 free, with a bound
// within dxmin(i) counting as reached.  At a cold start (mode 1) a variable
// is held only when its gradient pushes it out of the box.
void classifyVariables(MinimiserState& s) {
  const bool cold = s.mode == 1;
  for (i64 i = 0; i < s.n; ++i) {
    const double x = s.x[i], g = s.g[i], dx = s.dxmin[i];
    if (x >= s.bsup[i] - dx && (!cold || g < 0.0))
      s.active[i] = 1;
    else if (s.binf[i] + dx >= x && (!cold || g > 0.0))
      s.active[i] = -1;
    else
      s.active[i] = 0;
  }
}

// nfree := number of free variables; returns
// gdx = sqrt(sum over free i of (dxmin(i) g(i))^2).
double countFree(MinimiserState& s) {
  s.nfree = 0;
  double sum = 0.0;
  for (i64 i = 0; i < s.n; ++i) {
    if (s.active[i] != 0) continue;
    s.nfree += 1;
    const double v = s.dxmin[i] * s.g[i];
    sum += v * v;
  }
  return std::sqrt(sum);
}

// H := diag(c / dxmin(i)^2), c = (0.5 sum over free i of (g(i) dxmin(i))^2)
// / df1: a quadratic model whose decrease along -g is df1.  Positions:
// free variables first, each group in index order.
void diagonalStart(MinimiserState& s) {
  const i64 n = s.n;
  double sum = 0.0;
  for (i64 i = 0; i < n; ++i) {
    if (s.active[i] != 0) continue;
    const double v = s.g[i] * s.dxmin[i];
    sum += v * v;
  }
  const double c = 0.5 * sum / s.df1;
  for (i64 i = 0; i < n; ++i) s.scratch[i] = c / (s.dxmin[i] * s.dxmin[i]);
  std::fill(s.hess, s.hess + n * (n + 1) / 2, 0.0);
  int next = 1;
  for (i64 i = 0; i < n; ++i)
    if (s.active[i] == 0) s.position[i] = next++;
  for (i64 i = 0; i < n; ++i)
    if (s.active[i] != 0) s.position[i] = next++;
  permuteVector(kGather, s.n, s.scratch, s.dir, s.position);
  for (i64 k = 0; k < s.nfree; ++k) s.hess[factorAt(k, k, s.nfree)] = s.dir[k];
  for (i64 k = s.nfree; k < n; ++k) s.hess[activeAt(k, k, n)] = s.dir[k];
}

// mode 2 (a symmetric matrix in the layout of T) or mode 3 (its LDL'
// factor) in variable order: factorise if needed, then move every active
// variable out of the free block.  False when the matrix or factor is not
// positive definite.
bool hessianFromCaller(MinimiserState& s) {
  const i64 n = s.n;
  if (s.mode == 2) {
    int rank = 0;
    factorFromMatrix(s.hess, s.n, rank);
    if (rank < n) return false;
  } else {
    for (i64 j = 0; j < n; ++j)
      if (s.hess[factorAt(j, j, n)] <= 0.0) return false;
  }
  for (i64 i = 0; i < n; ++i) s.position[i] = static_cast<int>(i + 1);
  int r = s.n;
  for (i64 i = 0; i < n; ++i)
    if (s.active[i] != 0) factorRemove(s.n, static_cast<int>(i + 1), r, s.hess, s.gnew, s.position);
  s.nfree = r;
  return true;
}

// Start of a run.  Warm (mode 4): everything as it stands.  Otherwise
// classify, stop at once (mode 1, one iteration) on a stationary start with
// no bound to release, and set up H.  False when the run is already over.
bool startRun(MinimiserState& s) {
  s.nap = 1;  // the caller's evaluation at x
  s.iterations = 0;
  s.scaleFirst = s.mode == 1;
  if (s.mode == 4) return true;
  classifyVariables(s);
  const double gdx = countFree(s);
  if (gdx <= s.epsabs * sqrtCount(s.nfree)) {
    const double noSlope = 0.0;
    const int k = boundToRelease(true, s.n, s.nfree, s.active, s.position, s.hess, s.g, s.scratch,
                                 s.epsabs, s.dxmin, noSlope, s.dir, s.gnew);
    if (k == 0) {
      s.mode = 1;
      s.iterations = 1;
      return false;
    }
    s.active[k - 1] = 0;
    s.nfree += 1;
  }
  if (s.mode == 1 || !hessianFromCaller(s)) diagonalStart(s);
  return true;
}

// The quasi-Newton direction on the free block: scratch(0:nfree-1) solves
// L D L' s = -g (g in working order), aux = L^-1 (-g), scratch(nfree:) = 0,
// dir = scratch in variable order, fp = g' dir.  False at a stationary
// point: no free variable, a projected gradient below the resolution
// (sqrt(sum (dxmin(k) g(k))^2) <= epsabs sqrt(nfree), dxmin read by
// position), or a direction that does not descend.
bool freeDirection(MinimiserState& s, double& fp) {
  fp = 0.0;
  const i64 r = s.nfree;
  if (r == 0) return false;
  permuteVector(kGather, s.n, s.g, s.scratch, s.position);
  double sum = 0.0;
  for (i64 k = 0; k < r; ++k) {
    const double v = s.dxmin[k] * s.scratch[k];
    sum += v * v;
  }
  const double gdx = std::sqrt(sum);
  for (i64 k = 0; k < r; ++k) s.scratch[k] = -s.scratch[k];
  if (gdx <= s.epsabs * sqrtCount(r)) return false;
  factorSolve(s.hess, s.nfree, s.scratch, s.aux, s.n);
  for (i64 k = r; k < s.n; ++k) s.scratch[k] = 0.0;
  permuteVector(kScatter, s.n, s.scratch, s.dir, s.position);
  double slope = 0.0;
  for (i64 i = 0; i < s.n; ++i) slope += s.g[i] * s.dir[i];
  fp = slope;
  return !(fp >= 0.0);
}

// The step to the first bound met along dir, 1e20 at most, the variable
// (1-based, 0 for none) and the side.  Components too small to reach their
// bound within 1e20 are skipped without forming the quotient; ties go to
// the largest index.
void largestStep(const MinimiserState& s, double& tmax, int& idx, int& sign) {
  tmax = kLargestStep;
  idx = 0;
  sign = 0;
  for (i64 i = 0; i < s.n; ++i) {
    const double d = s.dir[i];
    double c = 0.0;
    int side = 0;
    if (d > 0.0) {
      c = s.bsup[i] - s.x[i];
      if (d < 1.0 && c > kLargestStep * d) continue;
      c = c / d;
      side = 1;
    } else if (d < 0.0) {
      c = s.binf[i] - s.x[i];
      if (d > -1.0 && kLargestStep * d >= c) continue;
      c = c / d;
      side = -1;
    } else {
      continue;  // zero (or not a number)
    }
    if (c <= tmax) {
      idx = static_cast<int>(i + 1);
      tmax = c;
      sign = side;
    }
  }
}

// The first half of an iteration: direction, release of a bound, largest step
// and activation of a bound within resolution, repeated until a line
// search can start.  False when the run ends here (mode 1 or 7).
bool prepareStep(MinimiserState& s, double& fp, double& tmax) {
  bool changed = false;
  for (;;) {
    const bool descent = freeDirection(s, fp);
    if (!descent || !changed) {
      const bool simple = !descent;
      const int k = boundToRelease(simple, s.n, s.nfree, s.active, s.position, s.hess, s.g,
                                   s.scratch, s.epsabs, s.dxmin, fp, s.dir, s.gnew);
      if (k == 0 && !descent) {
        s.mode = 1;
        return false;
      }
      if (k == 0) {
        permuteVector(kScatter, s.n, s.scratch, s.dir, s.position);  // dir was the test's work
      } else {
        s.active[k - 1] = 0;
        int result = 0;
        factorInsert(result, s.n, k, s.nfree, s.hess, s.gnew, s.position, simple ? 1 : 0);
        if (result != 0) {
          s.mode = 7;
          return false;
        }
        changed = true;
        continue;
      }
    }
    int idx = 0, sign = 0;
    largestStep(s, tmax, idx, sign);
    if (idx != 0 && s.dxmin[idx - 1] >= std::fabs(tmax * s.dir[idx - 1])) {
      // The bound is reached within resolution: hold the variable there
      // without moving.
      s.active[idx - 1] = sign;
      factorRemove(s.n, idx, s.nfree, s.hess, s.gnew, s.position);
      changed = true;
      continue;
    }
    return true;
  }
}

// nlis0 along dir from the trial step t, with tmin = 1 / max |dir(i) /
// dxmin(i)|; the new gradient lands in gnew.  Returns logic.
int lineSearch(MinimiserState& s, double fp, double& t, double tmax) {
  double largest = 0.0;
  for (i64 i = 0; i < s.n; ++i) largest = std::max(largest, std::fabs(s.dir[i] / s.dxmin[i]));
  double tmin = 1.0 / largest;
  int logic = 0;
  nlis0(s.n, s.simul, dotProduct, s.x, s.f, fp, t, tmin, tmax, s.dir, s.gnew, kSlopeConstant,
        kDescentConstant, s.imp, s.io, logic, s.nap, s.napMax, s.scratch, s.izs, s.rzs, s.dzs);
  return logic;
}

// Oren-Luenberger scaling of the diagonal start after the first step:
// D and diag(Q) times y's / s'Hs, with num = y'd over all variables and
// den = sum over the free block of s(k)^2 D(k), s = d in working order, per
// unit step t.  False when either is not positive.
bool firstScaling(MinimiserState& s, double t) {
  double num = 0.0;
  for (i64 i = 0; i < s.n; ++i) num += (s.gnew[i] - s.g[i]) * s.dir[i];
  permuteVector(kGather, s.n, s.dir, s.scratch, s.position);
  const i64 r = s.nfree;
  double den = 0.0;
  for (i64 k = 0; k < r; ++k) den += s.scratch[k] * s.scratch[k] * s.hess[factorAt(k, k, r)];
  if (num <= 0.0 || den <= 0.0) return false;
  const double factor = num / den / t;
  for (i64 k = 0; k < r; ++k) s.hess[factorAt(k, k, r)] *= factor;
  for (i64 k = r; k < s.n; ++k) s.hess[activeAt(k, k, s.n)] *= factor;
  s.scaleFirst = false;
  return true;
}

// BFGS: H := H - (H s)(H s)' / (s'H s) + y y' / (y's), in working order,
// as two rank-one modifications; the first, with H s = -g on the free block
// and L^-1 (H s) = aux, leaves the free block singular, the second restores
// its rank.  g := gnew on the way, gnew := y.  False when the rank did not
// come back.
bool bfgsUpdate(MinimiserState& s, double t) {
  const i64 n = s.n, r = s.nfree;
  double* sv = s.scratch;  // s = d in working order
  double* v = s.dir;       // H s, then y, in working order
  permuteVector(kGather, s.n, s.dir, sv, s.position);
  permuteVector(kGather, s.n, s.g, v, s.position);
  for (i64 k = 0; k < r; ++k) v[k] = -v[k];
  rectangularProduct(s.n, s.nfree, s.hess, sv, v);
  double shs = 0.0;
  for (i64 k = 0; k < r; ++k) shs += sv[k] * v[k];
  double sigma = 1.0 / (-shs);
  int ir = -s.nfree;
  const int mkStored = 1, mkFresh = 0;
  hessianRankOne(s.hess, s.n, s.nfree, v, sigma, s.aux, ir, mkStored, kNoEps);
  ir = -ir;
  for (i64 i = 0; i < n; ++i) {
    const double gn = s.gnew[i];
    s.gnew[i] = gn - s.g[i];
    s.g[i] = gn;
  }
  permuteVector(kGather, s.n, s.gnew, v, s.position);
  double ys = 0.0;
  for (i64 k = 0; k < r; ++k) ys += sv[k] * v[k];
  const double sy = t * ys;
  sigma = 1.0 / sy;
  hessianRankOne(s.hess, s.n, s.nfree, v, sigma, s.aux, ir, mkFresh, kNoEps);
  return !(s.nfree > ir);
}

// The main loop: one line search and one update per iteration, until a
// stationary point, a limit or a failure.
void mainLoop(MinimiserState& s) {
  for (;;) {
    s.iterations += 1;
    if (s.iterations > s.iterMax) {
      s.mode = 4;
      return;
    }
    double fp = 0.0, tmax = 0.0;
    if (!prepareStep(s, fp, tmax)) return;
    double t = std::min(1.0, tmax);
    const int logic = lineSearch(s, fp, t, tmax);
    // After a step at tmax (or a shortened one) g stays that of the old
    // point: the next iteration rebuilds the same direction, whose blocking
    // variable then lies at distance zero and is activated.
    if (logic == 1 || logic < 0) continue;
    if (logic != 0) {
      s.mode = logic == 4 ? 5 : logic == 5 ? 0 : 6;
      if (s.mode == 5) finalSimulation(s);
      return;
    }
    if ((s.scaleFirst && s.nfree >= 1 && !firstScaling(s, t)) || !bfgsUpdate(s, t)) {
      s.mode = 3;
      finalSimulation(s);
      return;
    }
  }
}

// epsabs := sqrt(sum over free i of g(i)^2) / sqrt(nfree); the plain sum
// when nothing is free.
void finishRun(MinimiserState& s) {
  double sum = 0.0;
  for (i64 i = 0; i < s.n; ++i)
    if (s.active[i] == 0) sum += s.g[i] * s.g[i];
  s.epsabs = s.nfree > 0 ? std::sqrt(sum) / sqrtCount(s.nfree) : sum;
}

// c = Q(q,q) - r' (L D L')^-1 r, r = R(0:nfree-1, q): the curvature of H
// along q once the free block is minimised out.  work(0:nfree-1) and aux
// are overwritten.
double schurComplement(const double* hess, i64 n, i64 r, i64 q, double* work, double* aux) {
  const double qq = hess[activeAt(q, q, n)];
  if (r == 0) return qq;
  for (i64 i = 0; i < r; ++i) work[i] = hess[couplingAt(i, q, r, n)];
  const int ri = static_cast<int>(r), ni = static_cast<int>(n);
  factorSolve(hess, ri, work, aux, ni);
  double sum = 0.0;
  for (i64 i = 0; i < r; ++i) sum += hess[couplingAt(i, q, r, n)] * work[i];
  return qq - sum;
}

// A warm start needs the arrays of an earlier run: nfree in 0..n, position
// a permutation of 1..n, active in {-1, 0, 1} and 0 exactly for the
// positions 1..nfree.  marks: n doubles of work.
bool warmArraysConsistent(i64 n, const int* iz, double* marks) {
  const int* position = iz;
  const int* active = iz + n;
  const i64 nfree = iz[2 * n];
  if (nfree < 0 || nfree > n) return false;
  std::fill(marks, marks + n, 0.0);
  for (i64 i = 0; i < n; ++i) {
    const i64 p = position[i];
    if (p < 1 || p > n || marks[p - 1] != 0.0 || active[i] < -1 || active[i] > 1) return false;
    if ((active[i] == 0) != (p <= nfree)) return false;
    marks[p - 1] = 1.0;
  }
  return true;
}

}  // namespace

// Simple form: the largest |g(i)| dxmin(i) over the active variables whose
// gradient points into the box (first index on ties), if above epsabs.
// Full form: with w = R' s the predicted change of the active gradient and
// e = g(i) + w(q) the gradient after the step, the largest gain e^2 / c
// over the variables whose e points inwards, is reliable (2 |w| below |g|
// and |e|) and above the resolution; released only when above -fp.
int boundToRelease(const bool& simple, const int& n, const int& nfree, const int* active,
                   const int* position, const double* hess, const double* g, const double* s,
                   const double& epsabs, const double* dxmin, const double& fp, double* work,
                   double* aux) {
  if (nfree == n) return 0;
  double best = 0.0;
  int k = 0;
  if (simple) {
    for (i64 i = 0; i < n; ++i) {
      if (active[i] == 0 || (active[i] == -1 && g[i] >= 0.0) || (active[i] == 1 && g[i] <= 0.0))
        continue;
      const double v = std::fabs(g[i]) * dxmin[i];
      if (v > best) {
        best = v;
        k = static_cast<int>(i + 1);
      }
    }
    return epsabs >= best ? 0 : k;
  }
  rectangularProduct(n, nfree, hess, s, work);
  for (i64 i = 0; i < n; ++i) {
    if (active[i] == 0) continue;
    const i64 q = position[i] - 1;
    const double w = work[q];
    const double e = w + g[i];
    if (2.0 * std::fabs(w) >= std::min(std::fabs(g[i]), std::fabs(e))) continue;
    if ((active[i] == -1 && e >= 0.0) || (active[i] == 1 && e <= 0.0)) continue;
    if (epsabs >= dxmin[i] * std::fabs(e)) continue;
    const double c = schurComplement(hess, n, nfree, q, work, aux);
    const double gain = e * e / c;
    if (gain > best) {
      best = gain;
      k = static_cast<int>(i + 1);
    }
  }
  if (k == 0) return 0;
  return -fp * kReleaseFactor >= best ? 0 : k;
}

void minimiserMessage(const int& io, const char* text) {
  if (io != 0) return;
  std::fputs(text, stderr);
  std::fflush(stderr);
}

// Start, main loop and the final gradient measure.
void n2qn1Iterate(MinimiserState& s) {
  if (startRun(s)) mainLoop(s);
  finishRun(s);
}

// Entry: checks (mode 2 on a bad call, and on a warm start whose integer
// arrays are not those of an earlier run), epsabs scaled by the root mean
// square of dxmin, work arrays carved from iz and rz, the run, end values.
void n2qn1(Simulator simul, const int& n, double* x, double& f, double* g, const double* dxmin,
           const double& df1, double& epsabs, const int& imp, const int& io, int& mode,
           int& iter, int& nsim, const double* binf, const double* bsup, int* iz, double* rz,
           int* izs, double* rzs, double* dzs) {
  if (n < 1 || (mode == 1 && df1 <= 0.0) || epsabs < 0.0 || imp < 0 || imp > 5 || mode < 1 ||
      mode > 4 || iter < 1 || nsim < 1) {
    minimiserMessage(io,
                     " >>> m2qn1: appel incoherent (n, df1, epsabs, imp,\n"
                     "     mode, iter ou nsim)\n");
    mode = 2;
    return;
  }
  for (i64 i = 0; i < n; ++i) {
    if (dxmin[i] <= 0.0 || binf[i] > x[i] || x[i] > bsup[i]) {
      mode = 2;
      return;
    }
  }
  const i64 nn = n;
  if (mode == 4 && !warmArraysConsistent(nn, iz, rz + nn * (nn + 1) / 2)) {
    mode = 2;
    return;
  }
  double sum = 0.0;
  for (i64 i = 0; i < n; ++i) sum += dxmin[i] * dxmin[i];
  MinimiserState s{};
  s.simul = simul;
  s.n = n;
  s.x = x;
  s.f = f;
  s.g = g;
  s.dxmin = dxmin;
  s.df1 = df1;
  s.epsabs = epsabs * std::sqrt(sum / static_cast<double>(n));
  s.imp = imp;
  s.io = io;
  s.mode = mode;
  s.iterMax = iter;
  s.napMax = nsim;
  s.binf = binf;
  s.bsup = bsup;
  s.izs = izs;
  s.rzs = rzs;
  s.dzs = dzs;
  s.position = iz;
  s.active = iz + nn;
  s.nfree = iz[2 * nn];
  s.hess = rz;
  s.dir = rz + nn * (nn + 1) / 2;
  s.scratch = s.dir + nn;
  s.aux = s.scratch + nn;
  s.gnew = s.aux + nn;
  n2qn1Iterate(s);
  iz[2 * nn] = s.nfree;
  f = s.f;
  epsabs = s.epsabs;
  mode = s.mode;
  iter = s.iterations;
  nsim = s.nap;
}

}  // namespace lumbra::nearness
