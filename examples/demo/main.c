// SPDX-License-Identifier: Apache-2.0
/* lumbra demo: models the sample universe, analyses its risk, simulates it
 * and builds its efficient frontier, all through the library's C exports.
 * Usage: lumbra_demo [output-directory]   (default: the current directory) */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "demo.h"
#include "lumbra.h"

int demoCheck(const char* what, int code, int status) {
  if (code != 0) fprintf(stderr, "%s: return %d, status %d\n", what, code, status);
  return code;
}

int main(int argc, char** argv) {
  int v[6];
  ORXlumbraTest(&v[0], &v[1], &v[2], &v[3], &v[4], &v[5]);
  printf("lumbra %d.%d.%d.%d (stamp %d)\n", v[0], v[1], v[2], v[3], v[4]);
  printf("Sample universe: %d assets, %d daily prices (synthetic, seed 20261123)\n\n",
         kSampleAssets, kSampleObservations);

  DemoContext ctx;
  memset(&ctx, 0, sizeof ctx);
  ctx.nPrices = kSampleObservations;
  ctx.nReturns = kSampleObservations - 1;
  ctx.nAssets = kSampleAssets;
  ctx.names = kSampleNames;
  ctx.prices = kSamplePrices;
  ctx.outputDir = argc > 1 ? argv[1] : ".";
  const size_t n = (size_t)ctx.nAssets;
  ctx.returns = malloc(sizeof(double) * (size_t)ctx.nReturns * n);
  ctx.mu = malloc(sizeof(double) * n);
  ctx.cov = malloc(sizeof(double) * n * n);
  ctx.corr = malloc(sizeof(double) * n * n);
  if (!ctx.returns || !ctx.mu || !ctx.cov || !ctx.corr) {
    fprintf(stderr, "out of memory\n");
    return 1;
  }

  int failed = 0;
  failed |= demoModeling(&ctx) != 0;
  if (!failed) {
    failed |= demoNearness(&ctx) != 0;
    failed |= demoRisk(&ctx) != 0;
    failed |= demoSimulation(&ctx) != 0;
    failed |= demoFrontier(&ctx) != 0;
  }
  free(ctx.returns);
  free(ctx.mu);
  free(ctx.cov);
  free(ctx.corr);
  return failed ? 1 : 0;
}
