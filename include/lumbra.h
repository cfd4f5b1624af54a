/* SPDX-License-Identifier: Apache-2.0 */
/*
 * lumbra: numerical library for quantitative portfolio work.
 *
 * Every argument is a pointer: int* for counts, double* for scalars,
 * vectors and matrices.  Matrices are dense and row-major: element (r, c)
 * of an R by C matrix stands at position r*C + c.  Arrays marked
 * "converted" are rewritten in place during the call and restored before it
 * returns, so they must not be shared with another thread during the call
 * (an allocator's cov comes back symmetric: its upper triangle is rebuilt
 * from the lower).
 *
 * Return values (all functions but ORXlumbraTest), named ORX_RETURN_...
 * below:
 *   0     success, *status is 0
 *   2     a work array could not be obtained; outputs cleared
 *   5     the engine ran and *status is negative (a failure)
 *   6     the engine ran and *status is positive (a warning or partial result)
 *   301+  argument 300+k failed its test; outputs cleared, *status is 0
 * Every status value is named ORX_STATUS_... below; the README's status
 * table says what the outputs hold after each.
 *
 * Results are never annualised; value-at-risk figures are return quantiles
 * with their sign (a loss is negative).
 *
 * If the temporary of a layout conversion cannot be obtained, the matrix is
 * rewritten in place without it: the call gives the same result.
 *
 * NaN and infinities.  No call returns 0 or 6 with a NaN or an infinity in
 * its outputs, and no output ever holds one: a result that is not finite
 * (an overflow, say) is cleared and the call returns 5 with the status of
 * its family.  A NaN fails every range test of an argument (a VaR level, a
 * lower bound against its upper bound, a price, a density point).  Data
 * holding a NaN or an infinity are refused before they are computed with:
 *   -100  allocators: mu, benchCov, cons, rhs, target, benchReturn,
 *         excess, riskFree not finite or above sqrt(DBL_MAX) ~ 1.34e154 in
 *         magnitude (a product of two would overflow); a bound of +inf
 *         below or -inf above (an infinite bound on its own side means "no
 *         bound")
 *   -108  allocators: cov (it fails the definiteness test)
 *   -103  returns, ex-ante and ex-post return: a return that is not finite
 *   -104  covariance, correlation, volatilities, both VaRs, kernel density:
 *         data, or a variance or result, that is not finite (also a
 *         negative w' Sigma w and a sample of zero spread in the density)
 *   -5    simulation: cov holds a NaN or an infinity (reported as LAPACK
 *         reports an illegal matrix; no such matrix reaches LAPACK)
 *   -104  simulation: a start price, drift or simulated price not finite
 *   -2    simulation: a negative horizon
 * The README lists every export against these values.
 */
#ifndef ORX_LUMBRA_H
#define ORX_LUMBRA_H

#if defined(_WIN32)
#  if defined(LUMBRA_BUILDING)
#    define LUMBRA_API __declspec(dllexport)
#  else
#    define LUMBRA_API __declspec(dllimport)
#  endif
#else
#  define LUMBRA_API __attribute__((visibility("default")))
#endif

/* ---- Return values ---------------------------------------------------- */

#define ORX_RETURN_OK         0    /* success: status is ORX_STATUS_OK */
#define ORX_RETURN_NO_MEMORY  2    /* a work array could not be obtained */
#define ORX_RETURN_FAILURE    5    /* the engine ran; status is negative */
#define ORX_RETURN_WARNING    6    /* the engine ran; status is positive */
#define ORX_RETURN_ARGUMENT   300  /* plus k: argument k failed its test */

/* ---- Status values ---------------------------------------------------- */
/* Every value an export writes to *status.  Negative: a failure (return
 * 5); positive: a warning or a partial result (return 6).  The README's
 * status table says, for each, which exports write it and what the outputs
 * hold then.  Two further kinds are passed on as LAPACK gives them: the
 * simulation's positive INFO of its eigen-decomposition or Cholesky factor,
 * and the nearness exports' INFO of their final eigen-decomposition. */

#define ORX_STATUS_OK                    0      /* success */

/* Call frame. */

/* Returns, statistics and simulation. */
#define ORX_STATUS_TOO_FEW_OBSERVATIONS  (-2)   /* a series too short for the statistic */
#define ORX_STATUS_NEGATIVE_HORIZON      (-2)   /* simulation: horizon below 0 */
#define ORX_STATUS_FACTOR_NOT_FINITE     (-3)   /* simulation: floored cov not finite */
#define ORX_STATUS_COV_NOT_FINITE        (-5)   /* simulation: cov holds a NaN or Inf */
#define ORX_STATUS_DEGENERATE_ASSET      5      /* correlation: an asset of zero variance */
#define ORX_STATUS_BAD_LEVEL             (-102) /* VaR level outside the engine's limits */
#define ORX_STATUS_UNUSABLE_RETURN       (-103) /* a price too small or a return not finite */
#define ORX_STATUS_UNUSABLE_VARIANCE     (-104) /* a variance, or a result on one, unusable */
#define ORX_STATUS_BAD_MOMENT_INDEX      (-1000) /* co-moment index or order out of range */

/* Allocation. */
#define ORX_STATUS_INFEASIBLE            (-100) /* no feasible portfolio, or data unusable */
#define ORX_STATUS_INCONSISTENT          (-101) /* the constraints contradict each other */
#define ORX_STATUS_COV_NOT_PD            (-108) /* cov failed the definiteness test */
#define ORX_STATUS_INACCURATE            (-109) /* solved point misses a row or bound */
#define ORX_STATUS_NO_SCALE              (-113) /* Sharpe: the scale variable vanished */
#define ORX_STATUS_START_VIOLATED        1111   /* feasibility start misses a row (internal) */
#define ORX_STATUS_AUXILIARY_BUILD       (-8888) /* feasibility problem not built (internal) */

/* Quadratic programming solver, passed on by the allocators. */
#define ORX_STATUS_NO_FEASIBLE_POINT     1001   /* no point meets the constraints */
#define ORX_STATUS_ITERATION_LIMIT       1007   /* 2500 passes: last iterate, not optimal */
#define ORX_STATUS_UNBOUNDED             (-1002) /* no limit to the step: unbounded */
#define ORX_STATUS_CYCLING               (-1003) /* cycling at a degenerate point */
#define ORX_STATUS_STEP_TOO_LONG         (-1004) /* a step too long to be trusted */
#define ORX_STATUS_QP_INVALID_INPUT      (-1005) /* invalid solver input */
#define ORX_STATUS_EQUALITIES_INCONSISTENT (-1006) /* the equality rows have no solution */
#define ORX_STATUS_NOTHING_TO_ADD        (-1008) /* a constraint was needed, none was left */
#define ORX_STATUS_START_ITERATION_LIMIT 10077  /* feasible-point search: iteration limit */
#define ORX_STATUS_START_INVALID_INPUT   (-10078) /* feasible-point search: invalid input */
#define ORX_STATUS_REFINE_BAD_LIST       (-18)  /* final refinement: bad working-list entry */
#define ORX_STATUS_SCALAR_INEQUALITY     (-7)   /* one variable: a void inequality fails */
#define ORX_STATUS_SCALAR_EQUALITY       (-8)   /* one variable: a void equality fails */
#define ORX_STATUS_SCALAR_EMPTY          (-9)   /* one variable: no feasible value */

/* Matrix nearness. */
#define ORX_STATUS_SIMULATOR_STOP        (-1101) /* the minimiser's simulator asked to stop */
#define ORX_STATUS_MINIMISER_REFUSED     (-1102) /* the minimiser refused its start */
#define ORX_STATUS_BFGS_FAILED           (-1103) /* the quasi-Newton update failed */
#define ORX_STATUS_MINIMISER_ITERATIONS  1104   /* iteration limit: best point returned */
#define ORX_STATUS_MINIMISER_SIMULATIONS 1105   /* evaluation limit: best point returned */
#define ORX_STATUS_NO_PROGRESS           1106   /* line search stuck: best point returned */
#define ORX_STATUS_RELEASE_FAILED        (-1107) /* factor update failed releasing a bound */
#define ORX_STATUS_NO_PROGRESS_AT_ZERO   (-1108) /* line search stuck at a vanishing step */
#define ORX_STATUS_EQUALITY_MISSED       (-1109) /* an equality misses by more than 1e-5 */
#define ORX_STATUS_INEQUALITY_VIOLATED   (-1110) /* an inequality violated by more than 1e-5 */
#define ORX_STATUS_BAD_EIGEN_FLOOR       (-2001) /* eigenvalue floor not in [0, 1 - 1e-15] */

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Portfolio allocation ------------------------------------------- */

/* Minimum-variance portfolio with expected return >= *target.
 * n >= 2 (301); cov[n][n] (302, converted); mu[n] (303); nEq >= 0 (304);
 * nIneq >= 0 (305); cons[n][nEq+nIneq] one column per constraint,
 * equalities first, inequalities as cons_j' w <= rhs_j (306, converted);
 * rhs (307); lower[n] (308, also lower > upper); upper[n] (309);
 * weights[n] out.  Statuses: -108 cov not positive definite (or not
 * finite), -100 no feasible portfolio (also: data not finite or beyond
 * 1.34e154 in magnitude), -101 inconsistent constraints, -109 the solver
 * ended but its point misses a row or bound by more than 1e-8 relative
 * (accuracy lost on degenerate data; weights hold that point), 1007
 * iteration limit, and the solver statuses -1002..-1006, -1008, 10077, -10078.
 * A NaN bound fails the scan (308).
 * cov must be symmetric: the definiteness test reads the whole matrix, the
 * solver only its lower triangle (element [i][j], i > j), and cov comes
 * back with its upper triangle copied from the lower.  {1, 0, 3, 1} passes
 * the test (eigenvalues 1 and 1) and is solved as the indefinite
 * {1, 3, 3, 1}, with return 0.  The same holds for the other allocators. */
LUMBRA_API int ORXallocMV(int* n, double* cov, double* mu, int* nEq, int* nIneq,
                          double* cons, double* rhs, double* lower, double* upper,
                          double* target, double* weights, int* status);

/* Smallest tracking-error portfolio with expected return >= benchmark
 * return + *excess.  benchCov[n] = Sigma b (304); other arguments as in
 * ORXallocMV, shifted by the two benchmark arguments (306..311).  The result
 * is verified against the caller's constraints (-100 when it fails). */
LUMBRA_API int ORXallocIT(int* n, double* cov, double* mu, double* benchCov,
                          double* benchReturn, int* nEq, int* nIneq, double* cons,
                          double* rhs, double* lower, double* upper, double* excess,
                          double* weights, int* status);

/* Fully invested portfolio of largest Sharpe ratio over *riskFree.
 * Arguments and tests as ORXallocMV.  Statuses as ORXallocMV plus -113 (the
 * scale variable of the homogeneous problem vanished); -100 when no feasible
 * portfolio beats the risk-free rate; -109 when the solved portfolio misses
 * the budget, w >= 0, an inequality or a bound by more than 1e-8 relative,
 * or its scale is not positive. */
LUMBRA_API int ORXallocSharpeRatio(int* n, double* cov, double* mu, int* nEq,
                                   int* nIneq, double* cons, double* rhs,
                                   double* lower, double* upper, double* riskFree,
                                   double* weights, int* status);

/* ---- Data modelling -------------------------------------------------- */

/* Simple returns over *lag rows: result[nObs-lag][nSeries].
 * nObs >= 2 (301); nSeries >= 1 (302); prices[nObs][nSeries] all positive
 * and finite (303, converted); 0 < lag < nObs (304).  Status -103: a price
 * below 1e-30, or a return that overflows.
 * result is cleared over nSeries * (nObs - lag) doubles even when the lag
 * is refused, so size it from the lag passed. */
LUMBRA_API int ORXmodelingReturns(int* nObs, int* nSeries, double* prices, int* lag,
                                  double* result, int* status);

/* Logarithmic returns, as ORXmodelingReturns; -103 below 1e-15 (single). */
LUMBRA_API int ORXmodelingLogReturns(int* nObs, int* nSeries, double* prices,
                                     int* lag, double* result, int* status);

/* Sample covariance (divisor nObs - 1, scale in single precision):
 * nObs >= 2 (301); nAssets >= 1 (302); returns[nObs][nAssets] (303,
 * converted); result[nAssets][nAssets].  Status -104: data or a result
 * that is not finite. */
LUMBRA_API int ORXmodelingCov(int* nObs, int* nAssets, double* returns,
                              double* result, int* status);

/* Sample correlation, arguments as ORXmodelingCov.  Status 5 (return 6):
 * an asset of (near) zero variance, whose correlations are set to 0.
 * Status -104: data or a covariance that is not finite. */
LUMBRA_API int ORXmodelingCorr(int* nObs, int* nAssets, double* returns,
                               double* result, int* status);

/* Nearest symmetric matrix (semi-definite least squares): minimises
 * ||X - Csym||_F over symmetric X subject to
 *   trace(sym(A_k) X) = eqValues[k],                 k < nEq,
 *   ineqLower[k] <= trace(sym(B_k) X) <= ineqUpper[k], k < nIneq,
 *   all eigenvalues of X >= *eigenFloor,
 * where Csym is built from the upper triangle of target (the lower triangle
 * is never read) and sym(A) = (A + A') / 2: constraint matrices need not be
 * symmetric.  The n by n matrices A_k stand side by side in
 * eqMatrices[n][nEq*n] (A_k in columns k*n .. k*n+n-1), likewise B_k in
 * ineqMatrices[n][nIneq*n]; both and target are converted.
 * Tests: n >= 1 (301); target (302); nEq >= 0 (303); eqMatrices (304);
 * eqValues (305); nIneq >= 0 (306); ineqMatrices (307); ineqLower (308,
 * also ineqLower > ineqUpper); ineqUpper (309); tolerance > 0 (310);
 * eigenFloor >= 0 (311); a NaN in ineqLower or ineqUpper fails the scan (308).  The pointers must be non-null even when the
 * counts are 0.
 *
 * Solved through the dual, one multiplier per equality and per bound, by a
 * bound-constrained quasi-Newton method; each step costs one symmetric
 * eigen-decomposition of order n.  *tolerance bounds the root mean square
 * of the constraint residuals at the end, times the number of multipliers
 * M = nEq + 2 nIneq: the run stops when rms(residual) <= M * tolerance.
 * Residuals much below 1e-8 (times the scale of the data) are beyond the
 * reach of double precision: the line search runs out of digits first and
 * the run ends with 1106, its result still good to that level.
 * Eigenvalues below 1e-30 are raised to it.  Every equality and inequality
 * is then checked on the result with trace(A_k X) of the matrices as given,
 * to 1e-5 (single precision).  result holds the solution on every path
 * past the argument tests, failures included, except for non-finite data.
 * A one-sided inequality takes a finite bound on the open side (a bound
 * that is not finite is refused, see -1102).
 *
 * Statuses (return 6 for the positive ones, 5 for the negative ones):
 *   0      solved; constraints verified
 *   1104   iteration limit max(2M, 300) reached; best point returned
 *   1105   evaluation limit (3 times the iteration limit) reached
 *   1106   line search could make no more progress (result usable)
 *  -1101   the dual asked to stop (does not arise)
 *  -1102   the dual could not be started: a NaN or an infinity in target
 *          (upper triangle), a constraint matrix, eqValues, the bounds or
 *          eigenFloor; result stays zero, nothing is computed
 *  -1103   quasi-Newton update failed
 *  -1107   factor update failed while a bound was released
 *  -1108   line search stalled below the resolution of the multipliers
 *  -1109   an equality misses by more than 1e-5 (inconsistent constraints,
 *          or too loose a tolerance); result written
 *  -1110   an inequality is violated by more than 1e-5; result written
 *  other negative: LAPACK's DSYEVR refused the final eigen-decomposition.
 * The checks (-1109, -1110) overwrite 1104..1106. */
LUMBRA_API int ORXmodelingSDLS(int* n, double* target, int* nEq, double* eqMatrices,
                               double* eqValues, int* nIneq, double* ineqMatrices,
                               double* ineqLower, double* ineqUpper,
                               double* tolerance, double* eigenFloor, double* result,
                               int* status);

/* Nearest correlation matrix: minimises ||X - Csym||_F over symmetric X
 * with unit diagonal and all eigenvalues >= *eigenFloor; Csym from the
 * upper triangle of target (converted; the lower triangle is never read).
 * Tests: n >= 1 (301); target (302); tolerance > 0 (303, over 301 and 302);
 * 0 <= eigenFloor < 1 (304, over all others).
 *
 * Solved through the dual, one multiplier per diagonal entry, with
 * X = (1 - s) Y + s I so that Y is a correlation matrix without floor.
 * *tolerance bounds the diagonal: the run stops when the root mean square
 * of X(i,i) - 1 is at most n * tolerance (so n = 100 and tolerance 1e-10
 * give diagonal errors of about 1e-8; much below that double precision does
 * not reach, and the run simply ends where it stalls).  The diagonal is not reset to 1
 * afterwards and not checked: an iteration limit or a loose tolerance also
 * ends with status 0.
 * Statuses: 0 done; -2001 eigenFloor above 0.999999999999999 (the engine's
 * own limit); -1102 a NaN or an infinity in the upper triangle of target,
 * result stays zero; any other value is LAPACK's DSYEVR INFO from the final
 * eigen-decomposition (positive: no convergence, the result is still
 * written). */
LUMBRA_API int ORXmodelingSDLScorr(int* n, double* target, double* tolerance,
                                   double* eigenFloor, double* result, int* status);

/* ---- Risk analysis --------------------------------------------------- */

/* w' mu.  n >= 1 (301); mu (302); weights (303).  Status -103: a result
 * that is not finite. */
LUMBRA_API int ORXanalysisExanteReturn(int* n, double* mu, double* weights,
                                       double* result, int* status);

/* sqrt(w' Sigma w).  n >= 1 (301); cov (302, converted); weights (303).
 * Status -104: a result that is not finite (NaN data, w' Sigma w < 0). */
LUMBRA_API int ORXanalysisExanteVolatility(int* n, double* cov, double* weights,
                                           double* result, int* status);

/* Normal value at risk w'mu - sigma z(level).  0 < level < 1 (305; NaN
 * is refused).  Status -102: level outside the engine's limits; -104: a
 * result that is not finite (NaN data, a negative w' Sigma w). */
LUMBRA_API int ORXanalysisExanteNormalVaR(int* n, double* cov, double* mu,
                                          double* weights, double* level,
                                          double* result, int* status);

/* Modified (Cornish-Fisher) value at risk from a return history
 * returns[nObs][nAssets] (nObs >= 4) and a covariance cov[nAssets][nAssets].
 * 0 < level < 1 (306; NaN is refused).  Statuses -102, -104 (also weights,
 * returns or cov not finite, or a result that is not), -1000, -2.
 * Cost: about nObs * nAssets^4 operations (sums over asset tuples); with
 * nObs = 250 measured 0.003 s for 10 assets, 0.54 s for 40, 18.2 s for
 * 100. */
LUMBRA_API int ORXanalysisExanteModifiedVaR(int* nObs, int* nAssets, double* weights,
                                            double* returns, double* cov,
                                            double* level, double* result,
                                            int* status);

/* Mean of series[n].  n >= 1 (301); series (302).  Status -103: a result
 * that is not finite. */
LUMBRA_API int ORXanalysisExpostReturn(int* n, double* series, double* result,
                                       int* status);

/* Sample standard deviation of series[n].  n >= 2 (301); series (302).
 * Status -104: a result that is not finite.
 * One-pass formula (sum x^2 - (sum x)^2 / n) / (n - 1): a series far from
 * zero loses its digits.  {x, x+0.01, x, x+0.01} gives 0.0057735026918963
 * at x = 0 (exact), 0.0057722609460629 at x = 1e4 and 0.0180421959121758
 * at x = 1e6.  Pass returns, not price levels. */
LUMBRA_API int ORXanalysisExpostVolatility(int* n, double* series, double* result,
                                           int* status);

/* Gaussian kernel density of data[nObs] (nObs >= 2, 301) at the
 * non-decreasing points[nPoints] (nPoints >= 1, 302; 304, also for a NaN
 * point): result[nPoints].  Status -104: data not finite, or a sample of
 * zero spread (no bandwidth). */
LUMBRA_API int ORXanalysisGaussianKernel(int* nObs, int* nPoints, double* data,
                                         double* points, double* result, int* status);

/* ---- Simulation ------------------------------------------------------ */

/* One correlated geometric Brownian path of n assets: paths[steps][n], the
 * first row from start[n] (304), drift[n] (305), cov[n][n] (306,
 * converted), time step horizon / steps.  The caller guarantees n >= 1 and
 * steps >= 1.  A positive status (return 6) is DPOTRF's INFO: the
 * covariance has no Cholesky factor even after its eigenvalues were floored,
 * and the paths then carry no shocks.  Failures: -2 a negative horizon;
 * -5 cov holds a NaN or an infinity (the paths hold the start row); -104
 * start or drift not finite, or simulated prices beyond the double range.
 * The generator is reseeded from the clock before every variate: its state
 * is multiplied by (millisecond of the second - 500), so every variate
 * drawn during the 500th millisecond of a second is the same value.  One
 * path of one asset over 8e6 steps held 6,271 repeated increments, 6,254
 * of them one value.  Paths cannot be reproduced; not for Monte Carlo
 * estimates. */
LUMBRA_API int ORXsimulGeometricBrownianX(int* n, int* horizon, int* steps,
                                          double* start, double* drift, double* cov,
                                          double* paths, int* status);

/* ---- Version probe --------------------------------------------------- */

/* Writes 10, 4, 1, 16, a build stamp and 2; returns 0. */
LUMBRA_API int ORXlumbraTest(int* a, int* b, int* c, int* d, int* stamp, int* f);

#ifdef __cplusplus
}
#endif

#endif /* ORX_LUMBRA_H */
