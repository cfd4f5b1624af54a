// SPDX-License-Identifier: Apache-2.0
/* The demo: the main job of the library on its sample universe.  Each
 * section is a file of its own and prints one part of the report. */
#ifndef LUMBRA_DEMO_H
#define LUMBRA_DEMO_H

extern const int kSampleObservations;
extern const int kSampleAssets;
extern const char* const kSampleNames[];
extern const double kSamplePrices[];

/* What the sections share: the sample and the estimates made from it, all
 * row-major as the library's callers hold them. */
typedef struct DemoContext {
  int nPrices;              /* price rows */
  int nReturns;             /* return rows, nPrices - 1 */
  int nAssets;
  const char* const* names;
  const double* prices;     /* nPrices x nAssets */
  double* returns;          /* nReturns x nAssets, daily simple returns */
  double* mu;               /* nAssets, mean daily return */
  double* cov;              /* nAssets x nAssets, sample covariance */
  double* corr;             /* nAssets x nAssets, sample correlation */
  const char* outputDir;    /* where files (the frontier picture) are written */
} DemoContext;

/* Prints a failed call and returns its code (0 when it succeeded). */
int demoCheck(const char* what, int code, int status);

int demoModeling(DemoContext* ctx);   /* returns, covariance, correlation */
int demoRisk(const DemoContext* ctx);       /* ex-ante and ex-post risk */
int demoSimulation(const DemoContext* ctx); /* a simulated path */
int demoFrontier(const DemoContext* ctx);   /* efficient frontier, max Sharpe */
int demoNearness(const DemoContext* ctx);   /* repairing a stressed correlation */

#endif
