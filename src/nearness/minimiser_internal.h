// SPDX-License-Identifier: Apache-2.0
// Internals of the bound-constrained minimiser n2qn1: the storage of its
// Hessian approximation, the factor operations on it, the line search nlis0
// and the stages of the main iteration.
//
// Storage of H (n variables, r of them free), in the working order of the
// variables (free ones in positions 0..r-1, active ones in r..n-1), one
// array `hess` of n (n + 1) / 2 doubles holding three blocks in turn:
//   T  r (r + 1) / 2 doubles: the LDL' factor of the free/free block, by
//      columns; column j holds D(j) and then L(j+1:r-1, j).  L has a unit
//      diagonal that is not stored.  A D(j) of 0.0 marks a column without
//      rank.
//   R  r (n - r) doubles: the free/active block by rows, row i holding
//      H(i, r:n-1).
//   Q  (n - r) (n - r + 1) / 2 doubles: the active/active block by rows,
//      row k holding H(k, k:n-1).
// T and R together fill the first r rows of an upper triangle of order n
// stored row after row, and Q the rest of it: the place of Q(k, l) does not
// depend on r.
//
// Integer values keep their 1-based meaning (variable indices k, the ranks
// held in `position`, counts); memory is reached 0-based through the place
// helpers below.
#pragma once

#include "kernels/index.h"
#include "nearness/minimiser.h"

namespace lumbra::nearness {

// Place of L(i, j) (of D(j) when i == j), 0-based with i >= j, in a factor
// T of order r.
constexpr i64 factorAt(i64 i, i64 j, i64 r) { return j * (2 * r - j + 1) / 2 + (i - j); }

// Place of H(i, k) in R: free position i, active position k >= r (0-based).
constexpr i64 couplingAt(i64 i, i64 k, i64 r, i64 n) {
  return r * (r + 1) / 2 + i * (n - r) + (k - r);
}

// Place of H(k, l) in Q: active positions r <= k <= l (0-based).
constexpr i64 activeAt(i64 k, i64 l, i64 n) { return k * n - k * (k - 1) / 2 + (l - k); }

// ---------------------------------------------------------------------------
// Factor operations.

// Selector -1: out(i) = v(position(i) - 1), from working order to variable
// order; any other selector: out(position(i) - 1) = v(i), the reverse.
void permuteVector(const int& selector, const int& n, const double* v, double* out,
                   const int* position);

// v := (L D L')^-1 v with the factor T at the head of hess, order r;
// aux := L^-1 v, the value before the division by D.  Does nothing when
// r > limit.
void factorSolve(const double* hess, const int& r, double* v, double* aux, const int& limit);

// v(r:n-1) := R' s(0:r-1); v(0:r-1) is left alone.
void rectangularProduct(const int& n, const int& r, const double* hess, const double* s,
                        double* v);

// In-place LDL' factorisation of a symmetric matrix of order n held in the
// layout of T (lower triangle by columns).  A pivot that is not positive is
// set to 0.0, its column left as it is, and lowers `rank` (n at best).
void factorFromMatrix(double* hess, const int& n, int& rank);

// T := factor of (L D L' + sigma z z'), composite method with the threshold
// 4.0 between its two recurrences.  mk = 1 says w holds L^-1 z already.
// ir is the rank, negative when this call is the first half of a pair (or
// the second half of a pair whose first half lost one rank); see
// factorRankOne in factor_updates.cpp.  z is overwritten.
void factorRankOne(double* T, const int& r, double* z, const double& sigma, double* w, int& ir,
                   const int& mk, const double& eps);

// The same modification of all of H: R and Q directly, T through
// factorRankOne.  z is in working order and is overwritten in z(0:r-1).
void hessianRankOne(double* hess, const int& n, const int& r, double* z, const double& sigma,
                    double* w, int& ir, const int& mk, const double& eps);

// Variable k (1-based, free) leaves the free block: it becomes the first
// active position and r falls by one.  w: n doubles of work.  Does nothing
// when k is not free.
void factorRemove(const int& n, const int& k, int& r, double* hess, double* w, int* position);

// Variable k (1-based, active) enters the free block as its last position
// and r grows by one; result 0.  With flag 1 and r > 0 the new variable is
// decoupled from all others.  result -1 when its Schur complement is not
// positive (hess is then left rearranged and unusable) or k is not active.
void factorInsert(int& result, const int& n, const int& k, int& r, double* hess, double* w,
                  int* position, const int& flag);

// ---------------------------------------------------------------------------
// Line search.

// Scalar product handed to the line search.
using ScalarProduct = void (*)(const int& n, const double* u, const double* v, double& result,
                               int* izs, double* rzs, double* dzs);

// The Euclidean scalar product sum u(i) v(i), in ascending i.
void dotProduct(const int& n, const double* u, const double* v, double& result, int* izs,
                double* rzs, double* dzs);

// Slope and descent constants of the Wolfe tests (the doubles nearest 0.99
// and 1e-4).
constexpr double kSlopeConstant = 0.99;     // amd
constexpr double kDescentConstant = 1e-4;   // amf

// Wolfe line search from x along d, which descends with slope fp < 0.
// logic on exit: 0 both tests met; 1 step at tmax passing the descent test;
// 4 nap went past napmax; 5 the simulator asked to stop; 6 bad call or no
// further progress; negative: no progress after the simulator refused a
// point (its indic).  x and f move together; g holds the gradient of the
// last point evaluated.  A value that is not a number fails the descent
// test, so it is never accepted.  xn: n doubles of work (the trial point).
void nlis0(const int& n, Simulator simul, ScalarProduct prosca, double* x, double& f,
           const double& fp, double& t, double& tmin, const double& tmax, const double* d,
           double* g, const double& amd, const double& amf, const int& imp, const int& io,
           int& logic, int& nap, const int& napmax, double* xn, int* izs, double* rzs,
           double* dzs);

// ---------------------------------------------------------------------------
// The minimiser.

// Everything one run of the iteration reads and writes: the caller's
// arguments, the work arrays carved from iz and rz, and the counters.
struct MinimiserState {
  Simulator simul;
  int n;
  double* x;
  double f;
  double* g;
  const double* dxmin;
  double df1;
  double epsabs;  // already scaled by the root mean square of dxmin
  int imp;
  int io;
  int mode;
  int iterMax;
  int napMax;
  const double* binf;
  const double* bsup;
  int* izs;
  double* rzs;
  double* dzs;
  // Work carved from iz: position(n), active(n), then the free count.
  int* position;
  int* active;
  int nfree;
  // Work carved from rz: hess, dir, scratch, aux, gnew.
  double* hess;
  double* dir;
  double* scratch;
  double* aux;
  double* gnew;
  // Counters and switches of the run.
  int iterations;
  int nap;
  bool scaleFirst;
};

// The whole run after the entry checks: start (cold, from a matrix, from a
// factor, or warm), main loop, end values.  Sets mode, iterations, nap,
// epsabs (the final gradient measure) and nfree.
void n2qn1Iterate(MinimiserState& s);

// The variable whose bound should be released (1-based), 0 for none.
// simple: the largest |g(i)| dxmin(i) over active variables whose gradient
// points inwards, if above epsabs.  Otherwise the full form: the largest
// predicted gain e^2 / c over the candidates, with e the gradient predicted
// after the step s (working order) and c the Schur complement, if above
// -fp.  work and aux: n doubles each.
int boundToRelease(const bool& simple, const int& n, const int& nfree, const int* active,
                   const int* position, const double* hess, const double* g, const double* s,
                   const double& epsabs, const double* dxmin, const double& fp, double* work,
                   double* aux);

// The library's one output channel for the minimiser: writes text to
// standard error when io is 0 (the unit of standard error) and nothing for
// any other unit, since the library owns no files.  Only a call refused by
// the first entry check of n2qn1 writes; the exports never make one, and
// they pass io = 6 besides.
void minimiserMessage(const int& io, const char* text);

}  // namespace lumbra::nearness
