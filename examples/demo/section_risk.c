// SPDX-License-Identifier: Apache-2.0
/* Demo section: risk of an equally weighted portfolio of the sample assets:
 * expected return, volatility, normal and modified value at risk at 95% and
 * 99%, ex-post measures of its realised returns and their kernel density. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "demo.h"
#include "lumbra.h"

#define DENSITY_POINTS 15

/* Prints the density as a table with a bar per point. */
static void printDensity(const double* points, const double* density, int m) {
  double top = 0.0;
  for (int i = 0; i < m; ++i)
    if (density[i] > top) top = density[i];
  printf("Kernel density of the portfolio's daily returns:\n");
  printf("  %10s %10s\n", "return %", "density");
  for (int i = 0; i < m; ++i) {
    const int bar = top > 0.0 ? (int)(40.0 * density[i] / top + 0.5) : 0;
    printf("  %10.3f %10.2f ", 100.0 * points[i], density[i]);
    for (int k = 0; k < bar; ++k) putchar('#');
    putchar('\n');
  }
  printf("\n");
}

int demoRisk(const DemoContext* ctx) {
  int n = ctx->nAssets, T = ctx->nReturns, status = 0, code = 0;
  const size_t nn = (size_t)n * (size_t)n, tn = (size_t)T * (size_t)n;
  double* w = malloc(sizeof(double) * (size_t)n);
  double* cov = malloc(sizeof(double) * nn);
  double* returns = malloc(sizeof(double) * tn);
  double* series = malloc(sizeof(double) * (size_t)T);
  if (!w || !cov || !returns || !series) {
    free(w), free(cov), free(returns), free(series);
    return 1;
  }
  for (int j = 0; j < n; ++j) w[j] = 1.0 / n;

  printf("== Risk of the equally weighted portfolio ==\n");
  double mean = 0.0, vol = 0.0;
  code = ORXanalysisExanteReturn(&n, ctx->mu, w, &mean, &status);
  if (demoCheck("ORXanalysisExanteReturn", code, status)) goto done;
  /* The library converts matrices in place: it is handed copies. */
  memcpy(cov, ctx->cov, sizeof(double) * nn);
  code = ORXanalysisExanteVolatility(&n, cov, w, &vol, &status);
  if (demoCheck("ORXanalysisExanteVolatility", code, status)) goto done;
  printf("Expected daily return %8.4f %%   volatility %8.4f %%\n", 100.0 * mean, 100.0 * vol);

  printf("Daily value at risk (a loss is negative):\n");
  printf("  %6s %12s %12s\n", "level", "normal %", "modified %");
  const double levels[2] = {0.95, 0.99};
  for (int k = 0; k < 2; ++k) {
    double level = levels[k], normal = 0.0, modified = 0.0;
    memcpy(cov, ctx->cov, sizeof(double) * nn);
    code = ORXanalysisExanteNormalVaR(&n, cov, ctx->mu, w, &level, &normal, &status);
    if (demoCheck("ORXanalysisExanteNormalVaR", code, status)) goto done;
    memcpy(cov, ctx->cov, sizeof(double) * nn);
    memcpy(returns, ctx->returns, sizeof(double) * tn);
    code = ORXanalysisExanteModifiedVaR(&T, &n, w, returns, cov, &level, &modified, &status);
    if (demoCheck("ORXanalysisExanteModifiedVaR", code, status)) goto done;
    printf("  %5.0f%% %12.4f %12.4f\n", 100.0 * level, 100.0 * normal, 100.0 * modified);
  }

  /* The portfolio's realised daily returns. */
  double lo = 0.0, hi = 0.0;
  for (int t = 0; t < T; ++t) {
    series[t] = 0.0;
    for (int j = 0; j < n; ++j) series[t] += w[j] * ctx->returns[(size_t)t * n + j];
    if (t == 0 || series[t] < lo) lo = series[t];
    if (t == 0 || series[t] > hi) hi = series[t];
  }
  double realised = 0.0, realisedVol = 0.0;
  code = ORXanalysisExpostReturn(&T, series, &realised, &status);
  if (demoCheck("ORXanalysisExpostReturn", code, status)) goto done;
  code = ORXanalysisExpostVolatility(&T, series, &realisedVol, &status);
  if (demoCheck("ORXanalysisExpostVolatility", code, status)) goto done;
  printf("Realised daily return %8.4f %%   volatility %8.4f %%\n\n", 100.0 * realised,
         100.0 * realisedVol);

  double points[DENSITY_POINTS], density[DENSITY_POINTS];
  int m = DENSITY_POINTS;
  for (int i = 0; i < m; ++i) points[i] = lo + (hi - lo) * i / (m - 1);
  code = ORXanalysisGaussianKernel(&T, &m, series, points, density, &status);
  if (demoCheck("ORXanalysisGaussianKernel", code, status)) goto done;
  printDensity(points, density, m);

done:
  free(w);
  free(cov);
  free(returns);
  free(series);
  return code;
}
