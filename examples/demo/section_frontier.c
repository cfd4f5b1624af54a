/* Demo section: the efficient frontier of the sample universe (long-only,
 * fully invested), its maximum-Sharpe portfolio, and an SVG picture of both
 * with the single assets marked. */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "demo.h"
#include "lumbra.h"

enum { kTargets = 20 };
/* Daily risk-free rate for the tangency portfolio: about 2% a year. */
static const double kRiskFree = 0.00008;
static const double kTradingDays = 252.0;

typedef struct Point {
  double ret, vol; /* daily, as fractions */
} Point;

/* A weight in percent, with the solver's round-off around zero (1e-17
 * and the like, of either sign) shown as a plain 0. */
static double percent(double w) { return fabs(w) < 5e-7 ? 0.0 : 100.0 * w; }

/* Return and volatility of weights w (row-major cov). */
static Point portfolioPoint(int n, const double* cov, const double* mu, const double* w) {
  Point p = {0.0, 0.0};
  double var = 0.0;
  for (int i = 0; i < n; ++i) {
    p.ret += mu[i] * w[i];
    for (int j = 0; j < n; ++j) var += w[i] * cov[i * n + j] * w[j];
  }
  p.vol = sqrt(var > 0.0 ? var : 0.0);
  return p;
}

/* Minimum-variance weights at a target return, long-only, budget 1. */
static int frontierPoint(const DemoContext* ctx, double* cov, double target, double* w,
                         int* status) {
  int n = ctx->nAssets, nEq = 1, nIneq = 0;
  double* ones = malloc(sizeof(double) * (size_t)n * 3);
  if (!ones) return 2;
  double* lower = ones + n;
  double* upper = lower + n;
  for (int i = 0; i < n; ++i) ones[i] = 1.0, lower[i] = 0.0, upper[i] = 1.0;
  double rhs = 1.0;
  int code = ORXallocMV(&n, cov, ctx->mu, &nEq, &nIneq, ones, &rhs, lower, upper, &target,
                        w, status);
  free(ones);
  return code;
}

static int maxSharpe(const DemoContext* ctx, double* cov, double* w, int* status) {
  int n = ctx->nAssets, nEq = 0, nIneq = 0;
  double* bounds = malloc(sizeof(double) * (size_t)n * 2);
  if (!bounds) return 2;
  double* lower = bounds;
  double* upper = bounds + n;
  for (int i = 0; i < n; ++i) lower[i] = 0.0, upper[i] = 1.0;
  double cons = 0.0, rhs = 0.0, rf = kRiskFree;
  int code = ORXallocSharpeRatio(&n, cov, ctx->mu, &nEq, &nIneq, &cons, &rhs, lower, upper,
                                 &rf, w, status);
  free(bounds);
  return code;
}

/* The picture: volatility across, return up, both in % a day. */
static int writeSvg(const DemoContext* ctx, const char* path, const Point* frontier, int count,
                    const Point* assets, const Point* tangency) {
  FILE* f = fopen(path, "w");
  if (!f) return 1;
  const double W = 760, H = 500, left = 70, right = 150, top = 40, bottom = 60;
  double xmax = 0.0, ymin = 0.0, ymax = 0.0;
  for (int i = 0; i < ctx->nAssets; ++i) {
    if (assets[i].vol > xmax) xmax = assets[i].vol;
    if (assets[i].ret > ymax) ymax = assets[i].ret;
    if (assets[i].ret < ymin) ymin = assets[i].ret;
  }
  xmax *= 1.1;
  const double yspan = ymax - ymin > 0.0 ? ymax - ymin : 1e-4;
  ymax += 0.1 * yspan;
  ymin -= 0.1 * yspan;
#define PX(v) (left + (v) / xmax * (W - left - right))
#define PY(r) (H - bottom - ((r) - ymin) / (ymax - ymin) * (H - top - bottom))
  fprintf(f, "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
             "font-family=\"sans-serif\" font-size=\"12\">\n", W, H);
  fprintf(f, "<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n");
  fprintf(f, "<text x=\"%.0f\" y=\"24\" font-size=\"16\">Efficient frontier of the sample "
             "universe (long-only, fully invested)</text>\n", left);
  /* Axes with five ticks each. */
  fprintf(f, "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"black\"/>\n",
          left, H - bottom, W - right, H - bottom);
  fprintf(f, "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"black\"/>\n",
          left, top, left, H - bottom);
  for (int k = 0; k <= 5; ++k) {
    const double xv = xmax * k / 5.0, yv = ymin + (ymax - ymin) * k / 5.0;
    fprintf(f, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%.2f</text>\n", PX(xv),
            H - bottom + 18, 100.0 * xv);
    fprintf(f, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">%.3f</text>\n", left - 6,
            PY(yv) + 4, 100.0 * yv);
  }
  fprintf(f, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">volatility (%% a day)</text>\n",
          (left + W - right) / 2, H - 18);
  fprintf(f, "<text x=\"18\" y=\"%.1f\" transform=\"rotate(-90 18 %.1f)\" "
             "text-anchor=\"middle\">expected return (%% a day)</text>\n",
          (top + H - bottom) / 2, (top + H - bottom) / 2);
  /* The frontier. */
  fprintf(f, "<polyline fill=\"none\" stroke=\"#1f5fa8\" stroke-width=\"2.5\" points=\"");
  for (int k = 0; k < count; ++k)
    fprintf(f, "%.1f,%.1f ", PX(frontier[k].vol), PY(frontier[k].ret));
  fprintf(f, "\"/>\n");
  /* Capital market line from the risk-free rate through the tangency. */
  if (tangency && tangency->vol > 0.0) {
    const double slope = (tangency->ret - kRiskFree) / tangency->vol;
    double xEnd = xmax, yEnd = kRiskFree + slope * xmax;
    if (yEnd > ymax) yEnd = ymax, xEnd = (ymax - kRiskFree) / slope;
    fprintf(f, "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#888\" "
               "stroke-dasharray=\"5,4\"/>\n", PX(0.0), PY(kRiskFree), PX(xEnd), PY(yEnd));
  }
  /* Assets. */
  for (int i = 0; i < ctx->nAssets; ++i) {
    fprintf(f, "<circle cx=\"%.1f\" cy=\"%.1f\" r=\"4\" fill=\"#444\"/>\n", PX(assets[i].vol),
            PY(assets[i].ret));
    fprintf(f, "<text x=\"%.1f\" y=\"%.1f\">%s</text>\n", PX(assets[i].vol) + 7,
            PY(assets[i].ret) + 4, ctx->names[i]);
  }
  if (tangency) {
    fprintf(f, "<circle cx=\"%.1f\" cy=\"%.1f\" r=\"6\" fill=\"#d62728\"/>\n",
            PX(tangency->vol), PY(tangency->ret));
    fprintf(f, "<text x=\"%.1f\" y=\"%.1f\" fill=\"#d62728\">maximum Sharpe</text>\n",
            PX(tangency->vol) + 9, PY(tangency->ret) - 6);
  }
#undef PX
#undef PY
  fprintf(f, "</svg>\n");
  return fclose(f) == 0 ? 0 : 1;
}

int demoFrontier(const DemoContext* ctx) {
  const int n = ctx->nAssets;
  const size_t nn = (size_t)n * (size_t)n;
  /* The allocators convert cov in place; they work on a copy. */
  double* cov = malloc(sizeof(double) * nn);
  double* w = malloc(sizeof(double) * (size_t)n * (kTargets + 2));
  Point* points = malloc(sizeof(Point) * (size_t)(kTargets + n + 1));
  if (!cov || !w || !points) {
    free(cov), free(w), free(points);
    return 1;
  }
  memcpy(cov, ctx->cov, sizeof(double) * nn);
  Point* frontier = points;
  Point* assets = points + kTargets;
  double* tangencyW = w + (size_t)n * kTargets;
  double* gmv = tangencyW + n;
  int failed = 0, status = 0;

  printf("== Efficient frontier (long-only, fully invested) ==\n");
  /* Any target at or below the smallest asset return is met by every
   * long-only portfolio, so it gives the minimum-variance portfolio. */
  double rmin = ctx->mu[0], rmax = ctx->mu[0];
  for (int i = 1; i < n; ++i) {
    if (ctx->mu[i] < rmin) rmin = ctx->mu[i];
    if (ctx->mu[i] > rmax) rmax = ctx->mu[i];
  }
  int code = frontierPoint(ctx, cov, rmin, gmv, &status);
  if (demoCheck("ORXallocMV (minimum variance)", code, status)) failed = 1;
  const double r0 = failed ? rmin : portfolioPoint(n, ctx->cov, ctx->mu, gmv).ret;

  printf("%9s %9s", "ret %/d", "vol %/d");
  for (int j = 0; j < n; ++j) printf(" %7.7s", ctx->names[j]);
  printf("\n");
  int count = 0;
  for (int k = 0; k < kTargets && !failed; ++k) {
    const double target = r0 + (rmax - r0) * k / (kTargets - 1);
    double* wk = w + (size_t)n * k;
    code = frontierPoint(ctx, cov, target, wk, &status);
    if (demoCheck("ORXallocMV", code, status)) {
      failed = 1;
      break;
    }
    frontier[count] = portfolioPoint(n, ctx->cov, ctx->mu, wk);
    printf("%9.4f %9.4f", 100.0 * frontier[count].ret, 100.0 * frontier[count].vol);
    for (int j = 0; j < n; ++j) printf(" %7.2f", percent(wk[j]));
    printf("\n");
    ++count;
  }

  Point tangency = {0.0, 0.0};
  int haveTangency = 0;
  code = maxSharpe(ctx, cov, tangencyW, &status);
  if (demoCheck("ORXallocSharpeRatio", code, status)) {
    failed = 1;
  } else {
    haveTangency = 1;
    tangency = portfolioPoint(n, ctx->cov, ctx->mu, tangencyW);
    const double sharpe = (tangency.ret - kRiskFree) / tangency.vol;
    printf("\nMaximum Sharpe ratio portfolio (risk-free %.4f %%/day): return %.4f %%/day, "
           "volatility %.4f %%/day, Sharpe %.4f a day (%.2f a year)\n",
           100.0 * kRiskFree, 100.0 * tangency.ret, 100.0 * tangency.vol, sharpe,
           sharpe * sqrt(kTradingDays));
    for (int j = 0; j < n; ++j) printf("  %-12s %7.2f %%\n", ctx->names[j], percent(tangencyW[j]));
  }

  for (int i = 0; i < n; ++i) {
    assets[i].ret = ctx->mu[i];
    assets[i].vol = sqrt(ctx->cov[i * n + i]);
  }
  if (count > 1) {
    const char* name = "lumbra_frontier.svg";
    const size_t len = strlen(ctx->outputDir) + strlen(name) + 2;
    char* path = malloc(len);
    if (path) {
      snprintf(path, len, "%s/%s", ctx->outputDir, name);
      if (writeSvg(ctx, path, frontier, count, assets, haveTangency ? &tangency : NULL) == 0)
        printf("\nFrontier picture written to %s\n", path);
      else {
        fprintf(stderr, "could not write %s\n", path);
        failed = 1;
      }
      free(path);
    }
  }
  printf("\n");
  free(cov), free(w), free(points);
  return failed;
}
