// SPDX-License-Identifier: Apache-2.0
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

/* ---- The picture: volatility across, return up, both in % a day. ---- */

/* A rectangle in pixels, y growing downwards (x0 <= x1, y0 <= y1). */
typedef struct Box {
  double x0, y0, x1, y1;
} Box;

/* A straight piece of a drawn line, in pixels. */
typedef struct Segment {
  double x0, y0, x1, y1;
} Segment;

/* An axis on nice ticks: first * step, (first + 1) * step, ... up to
 * (first + intervals) * step, in percent, printed with `decimals` digits. */
typedef struct Axis {
  double step;
  int first, intervals, decimals;
} Axis;

/* Where the data go: the plot area in pixels and the two axes. */
typedef struct Frame {
  Box area;
  Axis x, y;
} Frame;

/* What is drawn so far that a label or the legend must not hide. */
typedef struct Scene {
  Box* boxes;
  Segment* segments;
  int nBoxes, nSegments, capBoxes, capSegments;
} Scene;

/* A label beside a marker, and where it ended up. */
typedef struct Label {
  const char* text;
  const char* colour;
  double px, py, radius; /* the marker: centre and radius in pixels */
  double size;           /* font size in pixels */
  int bold;
  Box box;    /* placed text box */
  int leader; /* 1 when set off from its marker, joined to it by a line */
} Label;

enum { kMaxIntervals = 7, kLegendRows = 5 };
enum MarkerKind { kAssetMarker, kMinVarMarker, kTangencyMarker };
static const double kCanvasWidth = 820.0, kCanvasHeight = 540.0;
static const Box kPlotArea = {84.0, 70.0, 796.0, 478.0};
/* Breathing room around a label and the font's vertical extent in em:
 * baseline to cap top, and below the baseline. */
static const double kLabelPad = 2.0, kAscent = 0.76, kDescent = 0.22;
static const char kFrontierColour[] = "#1f5fa8", kMinVarColour[] = "#d9820b";
static const char kTangencyColour[] = "#c62828", kAssetColour[] = "#555555";
static const char kCmlStyle[] = "stroke=\"#7a7a7a\" stroke-width=\"1.3\" stroke-dasharray=\"7,4\"";

/* The axis with the smallest step of 1, 2, 2.5 or 5 times a power of ten
 * whose multiples cover [lo, hi] in at most maxIntervals steps. */
static Axis niceAxis(double lo, double hi, int maxIntervals) {
  static const double mantissa[4] = {1.0, 2.0, 2.5, 5.0};
  Axis a = {1.0, 0, 1, 0};
  if (!isfinite(lo) || !isfinite(hi)) return a; /* nothing to scale: 0 to 1 */
  const double span = hi > lo ? hi - lo : 1.0;
  const int e0 = (int)floor(log10(span / maxIntervals));
  for (int k = 0;; ++k) {
    const int e = e0 + k / 4;
    a.step = mantissa[k % 4] * pow(10.0, e);
    /* The tolerance keeps a bound that is already a multiple from being
     * pushed out a whole step by its rounding error. */
    a.first = (int)floor(lo / a.step + 1e-9);
    a.intervals = (int)ceil(hi / a.step - 1e-9) - a.first;
    if (a.intervals < 1) a.intervals = 1;
    a.decimals = (e < 0 ? -e : 0) + (k % 4 == 2 && e < 1 ? 1 : 0);
    if (a.intervals <= maxIntervals) return a;
  }
}

/* Value in percent of tick k of axis a. */
static double tickValue(const Axis* a, int k) { return (a->first + k) * a->step; }

/* Horizontal pixel of a volatility (a fraction). */
static double xPixel(const Frame* fr, double vol) {
  const Axis* a = &fr->x;
  return fr->area.x0 + (100.0 * vol - tickValue(a, 0)) / (a->step * a->intervals) *
                           (fr->area.x1 - fr->area.x0);
}

/* Vertical pixel of a return (a fraction). */
static double yPixel(const Frame* fr, double ret) {
  const Axis* a = &fr->y;
  return fr->area.y1 - (100.0 * ret - tickValue(a, 0)) / (a->step * a->intervals) *
                           (fr->area.y1 - fr->area.y0);
}

/* The frame: volatility from 0 (where the capital market line starts),
 * return over the risk-free rate and every point drawn, each range
 * widened by 3% on both sides and rounded out to nice ticks. */
static Frame frameFor(const Point* points, int m) {
  double vmax = 0.0, rmin = kRiskFree, rmax = kRiskFree;
  for (int i = 0; i < m; ++i) {
    vmax = fmax(vmax, points[i].vol);
    rmin = fmin(rmin, points[i].ret);
    rmax = fmax(rmax, points[i].ret);
  }
  const double rpad = 0.03 * (rmax - rmin);
  Frame fr;
  fr.area = kPlotArea;
  fr.x = niceAxis(0.0, 100.0 * 1.03 * vmax, kMaxIntervals);
  fr.y = niceAxis(100.0 * (rmin - rpad), 100.0 * (rmax + rpad), kMaxIntervals);
  return fr;
}

/* Width in pixels of text at a font size, from the advance widths of
 * DejaVu Sans (wider than most sans-serif faces, so it errs on the safe
 * side): narrow letters and punctuation about 0.34 em, capitals 0.72,
 * digits 0.64, other small letters 0.6; bold about 8% wider. */
static double textWidth(const char* s, double size, int bold) {
  double em = 0.0;
  for (; *s; ++s) {
    if (strchr("iljtfr .,:;'()-", *s))
      em += 0.34;
    else if (*s >= 'A' && *s <= 'Z')
      em += *s == 'M' || *s == 'W' ? 0.9 : 0.72;
    else if (*s >= '0' && *s <= '9')
      em += 0.64;
    else
      em += 0.6;
  }
  return em * size * (bold ? 1.08 : 1.0);
}

/* Clips segment s to box b (Liang-Barsky: the part of x0 + t dx, t in
 * [0, 1], inside each of the four edges); 0 when none of it is inside. */
static int clipSegment(const Box* b, Segment* s) {
  const double dx = s->x1 - s->x0, dy = s->y1 - s->y0;
  const double p[4] = {-dx, dx, -dy, dy};
  const double q[4] = {s->x0 - b->x0, b->x1 - s->x0, s->y0 - b->y0, b->y1 - s->y0};
  double t0 = 0.0, t1 = 1.0;
  for (int i = 0; i < 4; ++i) {
    if (p[i] == 0.0) {
      if (q[i] < 0.0) return 0; /* parallel to this edge and outside it */
      continue;
    }
    const double t = q[i] / p[i];
    if (p[i] < 0.0) t0 = fmax(t0, t); /* entering across this edge */
    else t1 = fmin(t1, t);            /* leaving across it */
  }
  if (t0 > t1) return 0;
  const Segment in = {s->x0 + t0 * dx, s->y0 + t0 * dy, s->x0 + t1 * dx, s->y0 + t1 * dy};
  *s = in;
  return 1;
}

/* Area shared by two boxes. */
static double overlapArea(const Box* a, const Box* b) {
  const double w = fmin(a->x1, b->x1) - fmax(a->x0, b->x0);
  const double h = fmin(a->y1, b->y1) - fmax(a->y0, b->y0);
  return w > 0.0 && h > 0.0 ? w * h : 0.0;
}

/* Records a box that later labels must avoid. */
static void sceneAddBox(Scene* s, Box b) {
  if (s->nBoxes < s->capBoxes) s->boxes[s->nBoxes++] = b;
}

/* Records a piece of line that later labels must avoid. */
static void sceneAddSegment(Scene* s, Segment g) {
  if (s->nSegments < s->capSegments) s->segments[s->nSegments++] = g;
}

/* How much a box would hide or stick out: the area it shares with what is
 * drawn, each line it crosses counted as a strip of its height (plus one
 * square of it, so that clipping a corner still counts), and ten times its
 * area outside the plot. */
static double clutter(const Scene* s, const Box* b, const Box* area) {
  const double h = b->y1 - b->y0;
  double score = 0.0;
  for (int i = 0; i < s->nBoxes; ++i) score += overlapArea(b, &s->boxes[i]);
  for (int i = 0; i < s->nSegments; ++i) {
    Segment g = s->segments[i];
    if (clipSegment(b, &g)) score += h * (h + hypot(g.x1 - g.x0, g.y1 - g.y0));
  }
  return score + 10.0 * ((b->x1 - b->x0) * h - overlapArea(b, area));
}

/* The box of a w x h label whose near corner or edge midpoint sits at
 * distance d from (px, py) in direction (dx, dy), each -1, 0 or 1. */
static Box labelBox(double px, double py, int dx, int dy, double d, double w, double h) {
  const double ax = px + dx * d, ay = py + dy * d;
  Box b;
  b.x0 = dx > 0 ? ax : dx < 0 ? ax - w : ax - 0.5 * w;
  b.y0 = dy > 0 ? ay : dy < 0 ? ay - h : ay - 0.5 * h;
  b.x1 = b.x0 + w;
  b.y1 = b.y0 + h;
  return b;
}

/* Places a label: of eight directions around its marker (right, left, the
 * four diagonals, above, below), first close to it and then set off, the
 * first spot with nothing under it, else the least cluttered one. */
static void placeLabel(const Scene* s, const Box* area, Label* l) {
  static const int dirs[8][2] = {{1, 0}, {-1, 0}, {1, -1}, {1, 1},
                                 {-1, -1}, {-1, 1}, {0, -1}, {0, 1}};
  const double w = textWidth(l->text, l->size, l->bold) + 2.0 * kLabelPad;
  const double h = (kAscent + kDescent) * l->size + 2.0 * kLabelPad;
  const double gap = l->radius + 2.0;
  double best = HUGE_VAL;
  for (int ring = 0; ring < 2 && best > 0.0; ++ring) {
    for (int k = 0; k < 8 && best > 0.0; ++k) {
      const double d = ring == 0 ? gap : 3.0 * gap + 6.0;
      const Box b = labelBox(l->px, l->py, dirs[k][0], dirs[k][1], d, w, h);
      const double score = clutter(s, &b, area);
      if (score < best) best = score, l->box = b, l->leader = ring;
    }
  }
}

/* Writes text with the XML specials escaped. */
static void writeEscaped(FILE* f, const char* s) {
  for (; *s; ++s) {
    if (*s == '<') fputs("&lt;", f);
    else if (*s == '>') fputs("&gt;", f);
    else if (*s == '&') fputs("&amp;", f);
    else if (*s == '"') fputs("&quot;", f);
    else fputc(*s, f);
  }
}

/* A marker of the given kind centred at (x, y); returns its outer radius. */
static double writeMarker(FILE* f, enum MarkerKind kind, double x, double y) {
  if (kind == kAssetMarker) {
    fprintf(f, "<circle cx=\"%.1f\" cy=\"%.1f\" r=\"4\" fill=\"%s\"/>\n", x, y, kAssetColour);
    return 4.0;
  }
  if (kind == kMinVarMarker) {
    fprintf(f, "<path d=\"M%.1f %.1fl7 7l-7 7l-7 -7z\" fill=\"%s\" stroke=\"white\"/>\n", x,
            y - 7.0, kMinVarColour);
    return 7.0;
  }
  /* A ring, so that an asset it sits on stays visible. */
  fprintf(f, "<circle cx=\"%.1f\" cy=\"%.1f\" r=\"7\" fill=\"none\" stroke=\"%s\" "
             "stroke-width=\"2.5\"/>\n", x, y, kTangencyColour);
  return 8.0;
}

/* Light grid lines and the tick labels of both axes, the zero return
 * line a shade darker. */
static void writeGrid(FILE* f, const Frame* fr) {
  const Box* a = &fr->area;
  for (int k = 0; k <= fr->x.intervals; ++k) {
    const double v = tickValue(&fr->x, k), x = xPixel(fr, v / 100.0);
    fprintf(f, "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#e6e6e6\"/>\n",
            x, a->y0, x, a->y1);
    fprintf(f, "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#333\"/>\n", x,
            a->y1, x, a->y1 + 5.0);
    fprintf(f, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%.*f</text>\n", x,
            a->y1 + 20.0, fr->x.decimals, v);
  }
  for (int k = 0; k <= fr->y.intervals; ++k) {
    const double v = tickValue(&fr->y, k), y = yPixel(fr, v / 100.0);
    const char* colour = fr->y.first + k == 0 ? "#b0b0b0" : "#e6e6e6";
    fprintf(f, "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\"/>\n", a->x0,
            y, a->x1, y, colour);
    fprintf(f, "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#333\"/>\n",
            a->x0 - 5.0, y, a->x0, y);
    fprintf(f, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">%.*f</text>\n", a->x0 - 9.0,
            y + 4.5, fr->y.decimals, v);
  }
}

/* The axis lines and their titles with units. */
static void writeAxes(FILE* f, const Frame* fr) {
  const Box* a = &fr->area;
  fprintf(f, "<path d=\"M%.1f %.1fV%.1fH%.1f\" fill=\"none\" stroke=\"#333\"/>\n", a->x0, a->y0,
          a->y1, a->x1);
  fprintf(f, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\" font-size=\"14\">"
             "Daily volatility (%%)</text>\n", 0.5 * (a->x0 + a->x1), a->y1 + 44.0);
  const double cy = 0.5 * (a->y0 + a->y1);
  fprintf(f, "<text x=\"24\" y=\"%.1f\" transform=\"rotate(-90 24 %.1f)\" text-anchor=\"middle\" "
             "font-size=\"14\">Expected daily return (%%)</text>\n", cy, cy);
}

/* Title, and a subtitle with the assumptions and the best Sharpe ratio. */
static void writeTitles(FILE* f, const DemoContext* ctx, const Point* tangency) {
  fprintf(f, "<text x=\"%.1f\" y=\"28\" font-size=\"19\" font-weight=\"bold\">Efficient "
             "frontier of the sample universe</text>\n", kPlotArea.x0);
  fprintf(f, "<text x=\"%.1f\" y=\"50\" font-size=\"13\" fill=\"#555\">Long-only, fully "
             "invested; %d daily returns; risk-free rate %.3f%% a day",
          kPlotArea.x0, ctx->nReturns, 100.0 * kRiskFree);
  if (tangency && tangency->vol > 0.0) {
    const double sharpe = (tangency->ret - kRiskFree) / tangency->vol;
    fprintf(f, "; best Sharpe ratio %.2f a year", sharpe * sqrt(kTradingDays));
  }
  fprintf(f, "</text>\n");
}

/* The capital market line, from the risk-free rate through the tangency
 * portfolio to the right edge, clipped to the plot; 0 when not drawn. */
static int cmlSegment(const Frame* fr, const Point* tangency, Segment* s) {
  if (!tangency || !(tangency->vol > 0.0)) return 0;
  const double slope = (tangency->ret - kRiskFree) / tangency->vol;
  const double xEnd = tickValue(&fr->x, fr->x.intervals) / 100.0;
  const Segment whole = {xPixel(fr, 0.0), yPixel(fr, kRiskFree), xPixel(fr, xEnd),
                         yPixel(fr, kRiskFree + slope * xEnd)};
  *s = whole;
  return clipSegment(&fr->area, s);
}

/* The lines: capital market line and frontier, recorded for the labels. */
static void writeLines(FILE* f, const Frame* fr, Scene* scene, const Point* frontier, int count,
                       const Point* tangency) {
  Segment cml;
  if (cmlSegment(fr, tangency, &cml)) {
    fprintf(f, "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" %s/>\n", cml.x0, cml.y0,
            cml.x1, cml.y1, kCmlStyle);
    sceneAddSegment(scene, cml);
  }
  fprintf(f, "<polyline fill=\"none\" stroke=\"%s\" stroke-width=\"2.5\" "
             "stroke-linejoin=\"round\" points=\"", kFrontierColour);
  for (int k = 0; k < count; ++k) {
    const double x = xPixel(fr, frontier[k].vol), y = yPixel(fr, frontier[k].ret);
    fprintf(f, "%.1f,%.1f ", x, y);
    if (k > 0) {
      const Segment g = {xPixel(fr, frontier[k - 1].vol), yPixel(fr, frontier[k - 1].ret), x, y};
      sceneAddSegment(scene, g);
    }
  }
  fprintf(f, "\"/>\n");
}

/* Draws a marker, records it for the labels and sets up its label. */
static void markPoint(FILE* f, const Frame* fr, Scene* scene, enum MarkerKind kind,
                      const Point* p, const char* text, Label* l) {
  const double x = xPixel(fr, p->vol), y = yPixel(fr, p->ret);
  const double r = writeMarker(f, kind, x, y);
  const Box b = {x - r - 1.0, y - r - 1.0, x + r + 1.0, y + r + 1.0};
  sceneAddBox(scene, b);
  Label made = {text, "#222", x, y, r, 12.0, 0, b, 0};
  if (kind != kAssetMarker) {
    made.colour = kind == kMinVarMarker ? kMinVarColour : kTangencyColour;
    made.size = 13.0;
    made.bold = 1;
  }
  *l = made;
}

/* Writes a placed label (with its leader line when set off) and records it. */
static void writeLabel(FILE* f, Scene* scene, const Label* l) {
  const Box* b = &l->box;
  if (l->leader) {
    /* From the marker's rim to the nearest point of the text box. */
    const double tx = fmin(fmax(l->px, b->x0), b->x1), ty = fmin(fmax(l->py, b->y0), b->y1);
    const double d = hypot(tx - l->px, ty - l->py);
    const double sx = l->px + (tx - l->px) * (l->radius + 1.0) / d;
    const double sy = l->py + (ty - l->py) * (l->radius + 1.0) / d;
    fprintf(f, "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#888\"/>\n", sx,
            sy, tx, ty);
  }
  fprintf(f, "<text x=\"%.1f\" y=\"%.1f\" font-size=\"%.0f\" fill=\"%s\"%s stroke=\"white\" "
             "stroke-width=\"3\" stroke-linejoin=\"round\" paint-order=\"stroke\">",
          b->x0 + kLabelPad, b->y0 + kLabelPad + kAscent * l->size, l->size, l->colour,
          l->bold ? " font-weight=\"bold\"" : "");
  writeEscaped(f, l->text);
  fprintf(f, "</text>\n");
  sceneAddBox(scene, *b);
}

/* One legend row at (x, y): a sample of the line or marker, then its text. */
static void writeLegendRow(FILE* f, int row, double x, double y, const char* text) {
  if (row == 0)
    fprintf(f, "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" "
               "stroke-width=\"2.5\"/>\n", x, y, x + 26.0, y, kFrontierColour);
  else if (row == 1)
    fprintf(f, "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" %s/>\n", x, y, x + 26.0, y,
            kCmlStyle);
  else
    writeMarker(f, (enum MarkerKind)(row - 2), x + 13.0, y);
  fprintf(f, "<text x=\"%.1f\" y=\"%.1f\">%s</text>\n", x + 34.0, y + 4.5, text);
}

/* The legend, in the corner of the plot where it hides least (tried in
 * the order lower right, upper left, upper right, lower left); recorded so
 * that the labels keep clear of it. */
static void writeLegend(FILE* f, const Frame* fr, Scene* scene) {
  static const char* const rows[kLegendRows] = {
      "Efficient frontier", "Capital market line", "Single asset",
      "Minimum-variance portfolio", "Maximum-Sharpe (tangency) portfolio"};
  static const int corners[4][2] = {{1, 1}, {0, 0}, {1, 0}, {0, 1}};
  const double rowHeight = 20.0, inset = 10.0;
  double w = 0.0;
  for (int i = 0; i < kLegendRows; ++i) w = fmax(w, textWidth(rows[i], 12.0, 0));
  w += 34.0 + 2.0 * inset;
  const double h = kLegendRows * rowHeight + inset;
  const Box* a = &fr->area;
  Box best = *a;
  double bestScore = HUGE_VAL;
  for (int k = 0; k < 4; ++k) {
    const double x0 = corners[k][0] ? a->x1 - 8.0 - w : a->x0 + 8.0;
    const double y0 = corners[k][1] ? a->y1 - 8.0 - h : a->y0 + 8.0;
    const Box b = {x0, y0, x0 + w, y0 + h};
    const double score = clutter(scene, &b, a);
    if (score < bestScore) bestScore = score, best = b;
  }
  fprintf(f, "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"white\" "
             "fill-opacity=\"0.92\" stroke=\"#cccccc\" rx=\"3\"/>\n",
          best.x0, best.y0, w, h);
  for (int i = 0; i < kLegendRows; ++i)
    writeLegendRow(f, i, best.x0 + inset, best.y0 + inset + (i + 0.5) * rowHeight - 2.0,
                   rows[i]);
  sceneAddBox(scene, best);
}

/* Draws the points and their labels: markers first (so every label sees
 * them all), then the legend, then the labels, most important first. */
static void writePoints(FILE* f, const DemoContext* ctx, const Frame* fr, Scene* scene,
                        const Point* assets, const Point* minVar, const Point* tangency,
                        Label* labels) {
  for (int i = 0; i < ctx->nAssets; ++i)
    markPoint(f, fr, scene, kAssetMarker, &assets[i], ctx->names[i], &labels[2 + i]);
  markPoint(f, fr, scene, kMinVarMarker, minVar, "Minimum variance", &labels[1]);
  if (tangency) markPoint(f, fr, scene, kTangencyMarker, tangency, "Maximum Sharpe", &labels[0]);
  writeLegend(f, fr, scene);
  for (int i = tangency ? 0 : 1; i < ctx->nAssets + 2; ++i) {
    placeLabel(scene, &fr->area, &labels[i]);
    writeLabel(f, scene, &labels[i]);
  }
}

/* The picture: frontier, capital market line, assets, the minimum-variance
 * and tangency portfolios, labelled, with a legend, on nice axes. */
static int writeSvg(const DemoContext* ctx, const char* path, const Point* frontier, int count,
                    const Point* assets, const Point* minVar, const Point* tangency) {
  const int n = ctx->nAssets, m = count + n + 2;
  Point* all = malloc(sizeof(Point) * (size_t)m);
  Label* labels = malloc(sizeof(Label) * (size_t)(n + 2));
  Scene scene = {NULL, NULL, 0, 0, 2 * n + 5, count + 1};
  scene.boxes = malloc(sizeof(Box) * (size_t)scene.capBoxes);
  scene.segments = malloc(sizeof(Segment) * (size_t)scene.capSegments);
  FILE* f = all && labels && scene.boxes && scene.segments ? fopen(path, "w") : NULL;
  int failed = 1;
  if (f) {
    memcpy(all, frontier, sizeof(Point) * (size_t)count);
    memcpy(all + count, assets, sizeof(Point) * (size_t)n);
    all[m - 2] = *minVar;
    all[m - 1] = tangency ? *tangency : *minVar;
    const Frame fr = frameFor(all, m);
    fprintf(f, "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
               "font-family=\"DejaVu Sans, Arial, Helvetica, sans-serif\" font-size=\"12\" "
               "fill=\"#222\">\n", kCanvasWidth, kCanvasHeight);
    fprintf(f, "<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n");
    writeTitles(f, ctx, tangency);
    writeGrid(f, &fr);
    writeLines(f, &fr, &scene, frontier, count, tangency);
    writePoints(f, ctx, &fr, &scene, assets, minVar, tangency, labels);
    writeAxes(f, &fr);
    fprintf(f, "</svg>\n");
    failed = fclose(f) != 0;
  }
  free(all), free(labels), free(scene.boxes), free(scene.segments);
  return failed;
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
  const Point unknown = {rmin, 0.0};
  const Point minVar = failed ? unknown : portfolioPoint(n, ctx->cov, ctx->mu, gmv);
  const double r0 = failed ? rmin : minVar.ret;

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
      if (writeSvg(ctx, path, frontier, count, assets, &minVar,
                   haveTangency ? &tangency : NULL) == 0)
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
