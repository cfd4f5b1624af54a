// SPDX-License-Identifier: Apache-2.0
/* Demo section: one simulated year of the sample assets, a joint geometric
 * Brownian path from their estimated daily drift and covariance. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "demo.h"
#include "lumbra.h"

/* Trading days simulated after the last sample price, and the days shown. */
#define SIM_MOVES 252
#define SIM_SHOWN 6

int demoSimulation(const DemoContext* ctx) {
  int n = ctx->nAssets;
  /* steps time points, the first being the start; dt = horizon / steps, so
   * horizon = steps gives daily moves on daily drift and covariance. */
  int steps = SIM_MOVES + 1;
  int horizon = steps;
  int status = 0;
  const size_t nn = (size_t)n * (size_t)n;
  double* start = malloc(sizeof(double) * (size_t)n);
  double* drift = malloc(sizeof(double) * (size_t)n);
  double* cov = malloc(sizeof(double) * nn);
  double* paths = malloc(sizeof(double) * (size_t)steps * (size_t)n);
  int code = 1;
  if (start && drift && cov && paths) {
    /* The last sample prices start the path; the library converts its
     * matrix argument in place, so it gets a copy of the covariance. */
    memcpy(start, ctx->prices + (size_t)(ctx->nPrices - 1) * (size_t)n, sizeof(double) * (size_t)n);
    memcpy(drift, ctx->mu, sizeof(double) * (size_t)n);
    memcpy(cov, ctx->cov, sizeof(double) * nn);
    code = ORXsimulGeometricBrownianX(&n, &horizon, &steps, start, drift, cov, paths, &status);
    if (demoCheck("ORXsimulGeometricBrownianX", code, status) == 0) {
      static const int shown[SIM_SHOWN] = {0, 1, 21, 63, 126, SIM_MOVES};
      printf("== Simulation ==\n");
      printf("One simulated year of daily prices from the last sample prices, with the\n"
             "estimated daily drift and covariance (Euler steps of a correlated geometric\n"
             "Brownian motion).  The generator is reseeded from the clock, so the paths\n"
             "differ from run to run.\n%-12s", "");
      for (int j = 0; j < n; ++j) printf(" %11.11s", ctx->names[j]);
      printf("\n");
      for (int k = 0; k < SIM_SHOWN; ++k) {
        printf("day %-8d", shown[k]);
        for (int j = 0; j < n; ++j) printf(" %11.4f", paths[(size_t)shown[k] * (size_t)n + (size_t)j]);
        printf("\n");
      }
      printf("\n");
    }
  } else {
    fprintf(stderr, "out of memory\n");
  }
  free(start);
  free(drift);
  free(cov);
  free(paths);
  return code;
}
