// SPDX-License-Identifier: Apache-2.0
/* Demo section: a stress scenario on the sample correlation matrix.  A risk
 * manager overrides a few correlations by hand; the overridden matrix is no
 * longer positive semi-definite, so no covariance built from it can be
 * simulated or optimised.  ORXmodelingSDLScorr repairs it with a floor on
 * the eigenvalues; ORXmodelingSDLS then repairs it again while keeping the
 * stressed NORDBANK/ALTAPHARM correlation exactly as set. */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "demo.h"
#include "lumbra.h"

#define STRESSED 3

/* Smallest eigenvalue of the symmetric n x n matrix a (row-major), by
 * cyclic Jacobi rotations on a copy; enough for the demo's 8 x 8. */
static double smallestEigenvalue(int n, const double* a) {
  double* m = malloc(sizeof(double) * (size_t)n * (size_t)n);
  if (!m) return NAN;
  memcpy(m, a, sizeof(double) * (size_t)n * (size_t)n);
  for (int sweep = 0; sweep < 100; ++sweep) {
    double off = 0.0;
    for (int p = 0; p < n; ++p)
      for (int q = p + 1; q < n; ++q) off += m[p * n + q] * m[p * n + q];
    if (off < 1e-30) break;
    for (int p = 0; p < n; ++p)
      for (int q = p + 1; q < n; ++q) {
        if (m[p * n + q] == 0.0) continue;
        const double theta = (m[q * n + q] - m[p * n + p]) / (2.0 * m[p * n + q]);
        const double t = (theta >= 0 ? 1.0 : -1.0) / (fabs(theta) + sqrt(theta * theta + 1.0));
        const double c = 1.0 / sqrt(t * t + 1.0), s = t * c;
        for (int k = 0; k < n; ++k) { /* columns p, q */
          const double kp = m[k * n + p], kq = m[k * n + q];
          m[k * n + p] = c * kp - s * kq;
          m[k * n + q] = s * kp + c * kq;
        }
        for (int k = 0; k < n; ++k) { /* rows p, q */
          const double pk = m[p * n + k], qk = m[q * n + k];
          m[p * n + k] = c * pk - s * qk;
          m[q * n + k] = s * pk + c * qk;
        }
      }
  }
  double smallest = m[0];
  for (int i = 1; i < n; ++i)
    if (m[i * n + i] < smallest) smallest = m[i * n + i];
  free(m);
  return smallest;
}

static double distance(int n, const double* a, const double* b) {
  double s = 0.0;
  for (int k = 0; k < n * n; ++k) s += (a[k] - b[k]) * (a[k] - b[k]);
  return sqrt(s);
}

static void printStressed(const DemoContext* ctx, const char* label, const double* m,
                          const int (*pairs)[2]) {
  printf("  %-26s", label);
  for (int k = 0; k < STRESSED; ++k)
    printf(" %8.3f", m[pairs[k][0] * ctx->nAssets + pairs[k][1]]);
  printf("   smallest eigenvalue %9.5f\n", smallestEigenvalue(ctx->nAssets, m));
}

int demoNearness(const DemoContext* ctx) {
  int n = ctx->nAssets, status = 0;
  const size_t nn = (size_t)n * (size_t)n;
  /* The scenario: banks and pharma move together, tech decouples from
   * banks but not from pharma, a combination no real market can show. */
  const int pairs[STRESSED][2] = {{0, 1}, {1, 2}, {0, 2}};
  const double values[STRESSED] = {0.90, 0.85, -0.60};
  double* stressed = malloc(sizeof(double) * nn);
  double* target = malloc(sizeof(double) * nn);
  double* repaired = malloc(sizeof(double) * nn);
  double* kept = malloc(sizeof(double) * nn);
  /* n + 1 equalities: the unit diagonal and the stressed (0, 1) entry. */
  int nEq = n + 1, nIneq = 0;
  double* eqMatrices = calloc((size_t)nEq * nn, sizeof(double));
  double* eqValues = malloc(sizeof(double) * (size_t)nEq);
  double none = 0.0;
  int code = 1;
  if (!stressed || !target || !repaired || !kept || !eqMatrices || !eqValues) goto done;

  memcpy(stressed, ctx->corr, sizeof(double) * nn);
  for (int k = 0; k < STRESSED; ++k) {
    stressed[pairs[k][0] * n + pairs[k][1]] = values[k];
    stressed[pairs[k][1] * n + pairs[k][0]] = values[k];
  }
  printf("== Matrix nearness: repairing a stressed correlation matrix ==\n");
  printf("Stressed correlations NORDBANK/ALTAPHARM, ALTAPHARM/CIRRUSTECH,"
         " NORDBANK/CIRRUSTECH:\n");
  printStressed(ctx, "sample", ctx->corr, pairs);
  printStressed(ctx, "stressed", stressed, pairs);

  /* The tolerance bounds the rms constraint residual divided by the number
   * of constraints: here about 1e-7, near what the dual can reach in double
   * precision (much below 1e-8 its line search runs out of digits). */
  double tolerance = 1e-8, floor = 0.01;
  memcpy(target, stressed, sizeof(double) * nn);
  code = ORXmodelingSDLScorr(&n, target, &tolerance, &floor, repaired, &status);
  if (demoCheck("ORXmodelingSDLScorr", code, status)) goto done;
  printStressed(ctx, "nearest, floor 0.01", repaired, pairs);

  /* A_i picks X(i, i) = 1; A_n picks X(0, 1) = 0.90 through the
   * unsymmetric matrix with a single 1 at (0, 1): trace(A X) = X(1, 0). */
  const int width = nEq * n;
  for (int i = 0; i < n; ++i) {
    eqMatrices[i * width + i * n + i] = 1.0;
    eqValues[i] = 1.0;
  }
  eqMatrices[0 * width + n * n + 1] = 1.0;
  eqValues[n] = values[0];
  memcpy(target, stressed, sizeof(double) * nn);
  code = ORXmodelingSDLS(&n, target, &nEq, eqMatrices, eqValues, &nIneq, &none, &none, &none,
                         &tolerance, &floor, kept, &status);
  if (demoCheck("ORXmodelingSDLS", code, status)) goto done;
  printStressed(ctx, "nearest, first one kept", kept, pairs);
  printf("Distance to the stressed matrix (Frobenius): %.4f repaired, %.4f with the"
         " view kept\n\n",
         distance(n, repaired, stressed), distance(n, kept, stressed));
done:
  free(stressed);
  free(target);
  free(repaired);
  free(kept);
  free(eqMatrices);
  free(eqValues);
  return code;
}
