// SPDX-License-Identifier: Apache-2.0
/* Demo section: daily returns, their means, covariance and correlation. */
#include <stdio.h>
#include <stdlib.h>
#include <math.h>
#include <string.h>

#include "demo.h"
#include "lumbra.h"

static void printMatrix(const DemoContext* ctx, const char* title, const double* m,
                        double scale, const char* fmt) {
  printf("%s\n%-12s", title, "");
  for (int j = 0; j < ctx->nAssets; ++j) printf(" %11.11s", ctx->names[j]);
  printf("\n");
  for (int i = 0; i < ctx->nAssets; ++i) {
    printf("%-12s", ctx->names[i]);
    for (int j = 0; j < ctx->nAssets; ++j) printf(fmt, m[i * ctx->nAssets + j] * scale);
    printf("\n");
  }
  printf("\n");
}

int demoModeling(DemoContext* ctx) {
  int status = 0, lag = 1;
  /* The library converts its matrix arguments in place, so it gets a copy
   * of the constant sample. */
  const size_t count = (size_t)ctx->nPrices * (size_t)ctx->nAssets;
  double* prices = malloc(sizeof(double) * count);
  if (!prices) return 1;
  memcpy(prices, ctx->prices, sizeof(double) * count);
  int code = ORXmodelingReturns(&ctx->nPrices, &ctx->nAssets, prices, &lag, ctx->returns,
                                &status);
  free(prices);
  if (demoCheck("ORXmodelingReturns", code, status)) return code;

  printf("== Data modelling ==\n");
  printf("Daily simple returns, first and last rows (%%):\n%-12s", "");
  for (int j = 0; j < ctx->nAssets; ++j) printf(" %11.11s", ctx->names[j]);
  printf("\n");
  const int shown[4] = {0, 1, ctx->nReturns - 2, ctx->nReturns - 1};
  for (int k = 0; k < 4; ++k) {
    printf("day %-8d", shown[k] + 1);
    for (int j = 0; j < ctx->nAssets; ++j)
      printf(" %11.4f", 100.0 * ctx->returns[shown[k] * ctx->nAssets + j]);
    printf("\n");
  }
  printf("\n");

  double* column = malloc(sizeof(double) * (size_t)ctx->nReturns);
  if (!column) return 1;
  for (int j = 0; j < ctx->nAssets; ++j) {
    for (int t = 0; t < ctx->nReturns; ++t) column[t] = ctx->returns[t * ctx->nAssets + j];
    code = ORXanalysisExpostReturn(&ctx->nReturns, column, &ctx->mu[j], &status);
    if (demoCheck("ORXanalysisExpostReturn", code, status)) break;
  }
  free(column);
  if (code != 0) return code;

  code = ORXmodelingCov(&ctx->nReturns, &ctx->nAssets, ctx->returns, ctx->cov, &status);
  if (demoCheck("ORXmodelingCov", code, status)) return code;
  code = ORXmodelingCorr(&ctx->nReturns, &ctx->nAssets, ctx->returns, ctx->corr, &status);
  if (demoCheck("ORXmodelingCorr", code, status)) return code;

  printf("Mean daily return and volatility (%%):\n");
  for (int j = 0; j < ctx->nAssets; ++j)
    printf("  %-12s mean %8.4f   volatility %8.4f\n", ctx->names[j], 100.0 * ctx->mu[j],
           100.0 * sqrt(ctx->cov[j * ctx->nAssets + j]));
  printf("\n");
  printMatrix(ctx, "Covariance of daily returns (x 1e4):", ctx->cov, 1e4, " %11.4f");
  printMatrix(ctx, "Correlation of daily returns:", ctx->corr, 1.0, " %11.3f");
  return 0;
}
