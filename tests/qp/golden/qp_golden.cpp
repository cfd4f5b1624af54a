// SPDX-License-Identifier: Apache-2.0
// Bit-exact regression corpus of the QP solver and the allocators: seeded random problems (n 2
// to 300), degenerate and tied ones; each outcome in %a is a text record with an FNV-1a digest.
// --digest FILE writes them, --dump the texts, --check FILE compares (77 under an optimised BLAS).
#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "lumbra.h"
#include "qp/qp.h"
#include "qp/solver.h"
#include "../degenerate_problems.h"

namespace {

using Vec = std::vector<double>;
using std::size_t;

struct Rng {  // splitmix64
  std::uint64_t s;
  std::uint64_t next() {
    std::uint64_t z = (s += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL, z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }  // [0, 1)
  double range(double a, double b) { return a + (b - a) * uniform(); }
  int below(int k) { return static_cast<int>(next() % static_cast<std::uint64_t>(k)); }
  bool chance(double p) { return uniform() < p; }
};

constexpr double kAbsent = 1e300;  // beyond sqrt(overflow): the bound does not exist
using Qp = lumbra::testing::DegenerateQp;  // solver form, column-major, C with leading dimension n

// Appends one printf-formatted line, or "tag v0 v1 ..." in %a, to a record.
__attribute__((format(printf, 2, 3))) void line(std::string& t, const char* fmt, ...) {
  char buf[256];
  va_list ap;
  va_start(ap, fmt), std::vsnprintf(buf, sizeof buf, fmt, ap), va_end(ap);
  t += buf, t += '\n';
}
void values(std::string& t, const char* tag, const double* v, long k) {
  char buf[48];
  for (t += tag; k-- > 0; t += buf) std::snprintf(buf, sizeof buf, " %a", *v++);
  t += '\n';
}

// Kind 0..4: H = B B'/k + diag(delta), B B'/k (low rank), zero, indefinite, diagonal with zeros.
void fillHessian(Qp& p, Rng& r, int kind) {
  const int n = p.n;
  p.H.assign(size_t(n) * n, 0.0);
  auto H = [&p, n](int i, int j) -> double& { return p.H[i + size_t(j) * n]; };
  if (kind == 4)
    for (int i = 0; i < n; ++i) H(i, i) = r.chance(0.2) ? 0.0 : r.range(0.1, 2.0);
  if (kind == 3)
    for (int j = 0; j < n; ++j)
      for (int i = j; i < n; ++i) H(i, j) = H(j, i) = r.range(-1.0, 1.0);
  if (kind >= 2) return;
  const int k = kind == 1 ? 1 + r.below(std::max(1, n / 3)) : 1 + r.below(12);
  Vec B(static_cast<size_t>(n) * k);
  for (double& b : B) b = r.range(-1.0, 1.0);
  const double delta = kind == 1 ? 0.0 : r.range(0.001, 0.5);
  for (int j = 0; j < n; ++j)
    for (int i = j; i < n; ++i) {
      double s = 0.0;
      for (int q = 0; q < k; ++q) s += B[i + size_t(q) * n] * B[j + size_t(q) * n];
      s /= k;
      H(i, j) = H(j, i) = i == j ? s + delta : s;
    }
}

// A random problem around a point x0 inside the bounds: feasible unless the family says not.
Qp randomProblem(Rng& r, int n) {
  Qp p;
  p.n = n;
  const int hk = r.below(10);
  fillHessian(p, r, hk < 5 ? 0 : hk < 7 ? 1 : hk < 8 ? 2 : hk < 9 ? 3 : 4);
  for (int i = 0; i < n; ++i) p.c.push_back(r.chance(0.1) ? 0.0 : r.range(-1.0, 1.0));
  // bounds: box, long-only, fixed, absent on one or both sides
  p.lower.resize(n), p.upper.resize(n);
  const int bk = r.below(4);
  Vec x0(n);
  for (int i = 0; i < n; ++i) {
    double lo = bk == 1 ? -1.0 : 0.0, up = 1.0;
    if (bk == 0) up = r.chance(0.5) ? 1.0 : r.range(0.05, 1.0);
    if (bk > 1) lo = r.range(-2.0, 0.5), up = lo + r.range(0.0, 2.0);
    if (r.chance(0.05)) up = lo;                  // fixed variable
    if (bk == 3 && r.chance(0.2)) lo = -kAbsent;  // absent lower bound
    if (bk == 3 && r.chance(0.2)) up = kAbsent;   // absent upper bound
    p.lower[i] = lo, p.upper[i] = up;
    const double a = lo < -1e10 ? (up > 1e10 ? -1.0 : up - 1.0) : lo, b = up > 1e10 ? a + 2.0 : up;
    x0[i] = a == b ? a : r.range(a, b);
    if (r.chance(0.3)) x0[i] = r.chance(0.5) ? a : b;  // on a bound: degenerate starts
  }
  // rows: budget-like equalities, random rows, duplicates
  p.me = r.chance(0.6) ? 1 + r.below(std::min(3, n - 1)) : 0;
  p.mi = r.chance(0.7) ? r.below(std::min(8, 2 * n) + 1) : 0;
  const int m = p.me + p.mi;
  p.C.assign(static_cast<size_t>(n) * m, 0.0), p.d.assign(m, 0.0);
  for (int j = 0; j < m; ++j) {
    double* a = &p.C[static_cast<size_t>(j) * n];
    const int rk = r.below(6);
    const double s = rk == 1 && j > 0 && !r.chance(0.5) ? r.range(0.5, 2.0) : 1.0;
    for (int i = 0; i < n; ++i)
      a[i] = rk == 0 && j < p.me ? 1.0
             : rk == 1 && j > 0  ? s * a[i - n]  // dependent on the previous row
             : rk == 2           ? (r.chance(0.7) ? 0.0 : (r.chance(0.5) ? 1.0 : -1.0))
                                 : r.range(-1.0, 1.0);
    double ax = 0.0;
    for (int i = 0; i < n; ++i) ax += a[i] * x0[i];
    p.d[j] = j < p.me || r.chance(0.4) ? ax : ax + r.range(0.0, 0.5);  // active or slack
  }
  // infeasible and inconsistent variants
  const int fk = r.below(20);
  if (fk == 0 && m > 0) p.d[m - 1] -= 1e3;                                     // impossible row
  if (fk == 1 && p.me >= 2) p.d[1] += 0.5;                                     // may be inconsistent
  if (fk == 2 && n >= 2 && p.lower[0] > -1e10) p.upper[0] = p.lower[0] - 0.5;  // inverted bounds
  return p;
}

// bench_qp's long-only mean-variance problem (budget, binding return row, 0 <= w <= 5/n).
Qp benchProblem(int n) {
  constexpr int kFactors = 10;
  std::mt19937_64 rng(1000 + n);
  auto uniform = [&rng]() { return static_cast<double>(rng() >> 11) * 0x1.0p-53; };
  Vec B(static_cast<size_t>(n) * kFactors), mu(n);
  for (double& b : B) b = 0.2 * uniform() - 0.1;
  Qp p;
  p.n = n, p.me = p.mi = 1, p.H.assign(static_cast<size_t>(n) * n, 0.0);
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < n; ++i) {
      double s = 0.0;
      for (int k = 0; k < kFactors; ++k) s += B[i + k * n] * B[j + k * n];
      p.H[i + static_cast<size_t>(j) * n] = s / kFactors + (i == j ? 0.0004 + 0.0004 * uniform() : 0.0);
    }
  for (double& m : mu) m = 0.01 + 0.1 * uniform();
  const double cap = 5.0 / n;
  Vec sorted = mu;
  std::sort(sorted.begin(), sorted.end(), [](double a, double b) { return a > b; });
  double best = 0.0, left = 1.0, mean = 0.0;
  for (double m : sorted) best += std::min(cap, left) * m, left -= std::min(cap, left);
  for (double m : mu) mean += m;
  mean /= n;
  p.c.assign(n, 0.0), p.C.assign(2 * static_cast<size_t>(n), 1.0);
  for (int i = 0; i < n; ++i) p.C[n + i] = -mu[i];
  p.d = {1.0, -0.5 * (mean + best)}, p.lower.assign(n, 0.0), p.upper.assign(n, cap);
  return p;
}

// Solves p by qpDriver (status, x, multipliers, H restored) and by the main iteration as the
// driver runs it (passes, working set, objective).
std::string solveRecord(const std::string& name, const Qp& p) {
  std::string t;
  const int n = p.n, me = p.me, mi = p.mi, m = me + mi;
  const size_t nn = static_cast<size_t>(n) * n;
  line(t, "problem %s n=%d me=%d mi=%d", name.c_str(), n, me, mi);
  Vec C = p.C, d = p.d;
  C.resize(static_cast<size_t>(n) * m + 1), d.resize(m + 1);  // no rows: still valid pointers
  {
    Vec H = p.H, c = p.c, Cw = C, dw = d, lo = p.lower, up = p.upper, mult(n + m, 0.0), x(n, 0.0);
    Vec work(nn + n + lumbra::qp::kMainWork(n, mi));
    std::vector<int> iwork(3 * n + me + 2 * mi + 4);
    int status = 0, restored = 1;
    lumbra::qp::qpDriver(n, H.data(), c.data(), me, mi, Cw.data(), dw.data(), lo.data(), up.data(),
                         iwork.data(), work.data(), mult.data(), x.data(), status);
    line(t, "driver status %d", status);
    values(t, "x", x.data(), n), values(t, "mult", mult.data(), n + m);
    for (int j = 0; j < n; ++j)
      for (int i = j; i < n; ++i) restored &= H[i + j * size_t(n)] == p.H[i + j * size_t(n)];
    line(t, "H restored %d", restored);
  }
  if (n < 2) return t;  // then the main iteration as the driver runs it
  Vec Q = p.H, G(nn + n, 0.0), w(lumbra::qp::kMainWork(n, mi)), x(n, 0.0);
  for (int j = 0; j < n; ++j) std::copy_n(&p.H[j + j * size_t(n)], n - j, &G[j + j * size_t(n)]);
  std::vector<int> IRE(n + mi + 1), list(n + me + mi + 1), ipvt(n + 3);
  int want = 1, kact = 0, kcur = 0, status = 0, iters = 2500;
  lumbra::qp::OPTR03(C.data(), n, Q.data(), n, G.data(), n, p.c.data(), d.data(), p.lower.data(),
                     p.upper.data(), x.data(), w.data(), want, IRE.data(), list.data(),
                     ipvt.data(), 1.0, 3, n, kact, me, kcur, mi, 6, status, -20, 6, iters);
  line(t, "main status %d iterations %d kact %d kcur %d", status, iters, kact, kcur);
  t += "list";
  for (int j = 0; j < kact && j < n + m; ++j) t += ' ' + std::to_string(list[j]);
  values(t, "\nxmain", x.data(), n);
  if (want >= 1 && static_cast<size_t>(want) <= w.size() && (status == 0 || status == -3))
    values(t, "objective", &w[want - 1], 1);
  return t;
}

struct Alloc {  // row-major allocator data
  int n = 0, nEq = 0, nIneq = 0;
  Vec cov, mu, cons, rhs, lower, upper, q;
  double target = 0, benchReturn = 0, excess = 0, riskFree = 0;
};

// A factor covariance, returns, a budget, sector caps and bounds.
Alloc randomAlloc(Rng& r, int n) {
  Alloc a;
  a.n = n, a.cov.assign(static_cast<size_t>(n) * n, 0.0);
  const int k = 1 + r.below(6);
  Vec F(static_cast<size_t>(n) * k);
  for (double& f : F) f = r.range(-0.1, 0.1);
  const bool singular = r.chance(0.1);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) {
      double s = 0.0;
      for (int q = 0; q < k; ++q) s += F[i * k + q] * F[j * k + q];
      if (i == j && !singular) s += r.range(1e-4, 4e-3);
      a.cov[i * size_t(n) + j] = a.cov[j * size_t(n) + i] = s;
    }
  for (int i = 0; i < n; ++i) a.mu.push_back(r.range(-0.002, 0.01));
  const int sectors = r.chance(0.5) ? std::min(n, 1 + r.below(5)) : 0;
  a.nEq = r.chance(0.8) ? 1 : 0, a.nIneq = sectors;
  const int m = a.nEq + a.nIneq;
  a.cons.assign(std::max<size_t>(size_t(n) * m, 1), 0.0), a.rhs.assign(std::max(m, 1), 0.0);
  for (int i = 0; i < n * a.nEq; ++i) a.cons[i * size_t(m)] = a.rhs[0] = 1.0;
  for (int s = 0; s < sectors; ++s) {
    for (int i = s; i < n; i += sectors) a.cons[i * size_t(m) + a.nEq + s] = 1.0;
    a.rhs[a.nEq + s] = r.range(0.2, 0.9);
  }
  a.lower.assign(n, r.chance(0.7) ? 0.0 : -0.2), a.upper.assign(n, r.chance(0.5) ? 1.0 : std::max(0.3, 2.0 / n));
  if (r.chance(0.1)) a.lower[0] = a.upper[0];  // one fixed weight
  double mean = 0.0, top = -1e9;
  for (double m : a.mu) mean += m, top = std::max(top, m);
  mean /= n;
  a.target = mean + r.range(-0.2, 0.9) * (top - mean);
  a.q.assign(n, 0.0);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) a.q[i] += a.cov[i * size_t(n) + j] / n;
  a.benchReturn = mean, a.excess = r.range(-0.1, 0.6) * (top - mean);
  a.riskFree = r.chance(0.8) ? r.range(-0.001, 0.5) * mean : top + 0.01;
  return a;
}

// Fuzzing reproducers on tied data (diagonal covariances): two tracking-error problems whose
// feasibility start overran its work, a Sharpe ratio once out of its bounds, a mean-variance
// problem once solved at a point missing its rows.
Alloc tiedAlloc(int k) {
  Alloc a;
  auto diagonal = [&a](const Vec& v) {
    a.n = static_cast<int>(v.size()), a.cov.assign(v.size() * v.size(), 0.0);
    for (int i = 0; i < a.n; ++i) a.cov[i * size_t(a.n) + i] = v[i];
  };
  const double o = -0.036875;
  a.cons = {0.0}, a.rhs = {0.0};  // no rows
  if (k == 0) {
    a.n = 2, a.nIneq = 1, a.cov = {.04, 0, 0, .08}, a.mu = {.05, .10}, a.q = {.01, .01};
    a.cons = {1, 1}, a.rhs = {1}, a.lower = {-1e5, -1e5}, a.upper = {1e5, 1e5};
    a.benchReturn = a.target = .05, a.riskFree = 0.0;
  } else if (k == 1) {
    diagonal({0.03225, 0.01725, 0.01725, 1.626, 3.126});
    a.mu = {3.78125, -0.0003125, -3.125, -3.125, -2.8125};
    a.q = {0.031875, 0.0171875, 3.53125, 0.0378125, 0.0178125};
    a.lower = {3.09375, -0.0003125, -0.0003125, -2.8125, 0.031875};
    a.upper = {3.09375, 0.0134375, 0, -2.78125, 0.063125};
  } else if (k == 2) {
    diagonal({0.0025625, 0.001, 0.0013125, 0.09475, 0.0050625, 0.0200625, 0.001});
    a.mu = {0, -0.09375, -0.03125, 0, 0, -0.03125, 0}, a.lower = {0, 0, 0, 0, 0.0025, 0, 0.0246875};
    a.upper = {1, 0, 0, 0.03125, 0.0028125, 0.09375, 0.5246875}, a.riskFree = -0.0003125, a.q.assign(a.n, 0.0);
  } else {
    diagonal({3.34475, 3.34475, 0.001, 0.001, 0.001, 0.0056875, 0.016, 1.5635});
    a.nEq = 3, a.nIneq = 3, a.mu = {0.0159375, 1, 0, 0.0378125, -0.03125, -0.03125, -0.03125, -0.03125};
    a.lower = {o, o, o, o, o, 0, 0.03, 0.0009375};
    a.upper = {1.963125, 3.619375, 3.619375, 3.619375, 3.619375, 3.65625, 3.7175, 3.6571875};
    a.cons = {0, o, o, o, o, o, o, 0, 0.03, 0.0009375, -2, -3.65625, -3.65625, -3.65625, -3.65625, -3.65625,
              -3.65625, 0, o, o, 0.035312500000000004, o, -0.0003125, -0.03125, -0.15625, o, o, o, o, o, o, o,
              o, o, o, o, o, o, o, o, o, 0, 0, 0, 0.0021875, o, o, o};
    a.rhs.assign(6, o), a.target = -3.65625, a.q.assign(a.n, 0.0);
  }
  return a;
}

// The three exports on fresh copies (they convert their matrices in place).
std::string allocRecord(const std::string& name, const Alloc& a) {
  std::string t;
  line(t, "alloc %s n=%d nEq=%d nIneq=%d", name.c_str(), a.n, a.nEq, a.nIneq);
  static const char* const kNames[] = {"MV", "IT", "Sharpe"};
  for (int which = 0; which < 3; ++which) {
    Alloc b = a;
    Vec w(a.n, -7.0);
    int status = 0;
    double *cons = b.cons.data(), *rhs = b.rhs.data(), *lo = b.lower.data(), *up = b.upper.data();
    const int ret =
        which == 0 ? ORXallocMV(&b.n, b.cov.data(), b.mu.data(), &b.nEq, &b.nIneq, cons, rhs, lo, up, &b.target,
                                w.data(), &status)
        : which == 1 ? ORXallocIT(&b.n, b.cov.data(), b.mu.data(), b.q.data(), &b.benchReturn, &b.nEq, &b.nIneq,
                                  cons, rhs, lo, up, &b.excess, w.data(), &status)
                     : ORXallocSharpeRatio(&b.n, b.cov.data(), b.mu.data(), &b.nEq, &b.nIneq, cons, rhs, lo, up,
                                           &b.riskFree, w.data(), &status);
    line(t, "%s return %d status %d", kNames[which], ret, status);
    values(t, "w", w.data(), a.n);
  }
  return t;
}

// The records, name and text, in a fixed order (new families go at the end).
std::vector<std::pair<std::string, std::string>> corpus() {
  std::vector<std::pair<std::string, std::string>> out;
  auto qp = [&out](const std::string& name, const Qp& p) { out.emplace_back(name, solveRecord(name, p)); };
  auto alloc = [&out](const std::string& name, const Alloc& a) { out.emplace_back(name, allocRecord(name, a)); };
  Rng r{20240611};
  for (int k = 0; k < 360; ++k) {  // mostly small, a tail up to 300 variables
    const int sk = r.below(40);
    const int n = sk < 24   ? 2 + r.below(9)
                  : sk < 34 ? 11 + r.below(40)
                  : sk < 38 ? 51 + r.below(100) : 151 + r.below(150);
    qp("qp" + std::to_string(k), randomProblem(r, n));
  }
  for (int k = 0; k < 12; ++k) {  // one variable, through the scalar path of the driver
    Qp p;
    p.n = 1, p.H = {k % 3 == 0 ? 0.0 : r.range(0.0, 2.0)}, p.c = {r.range(-1.0, 1.0)};
    p.me = k % 4 == 1, p.mi = k % 2;
    for (int j = 0; j < p.me + p.mi; ++j) p.C.push_back(r.range(-1.0, 1.0)), p.d.push_back(r.range(-1.0, 1.0));
    p.lower = {-1.0}, p.upper = {k % 5 == 0 ? -1.0 : 1.0};
    qp("scalar" + std::to_string(k), p);
  }
  for (int n : {50, 200}) out.emplace_back("bench" + std::to_string(n), solveRecord("bench", benchProblem(n)));
  for (int k = 0; k < 90; ++k)  // allocator problems, each through the three exports
    alloc("alloc" + std::to_string(k), randomAlloc(r, k < 70 ? 2 + r.below(30) : 31 + r.below(120)));
  for (int k = 0; k < lumbra::testing::kDegenerateCount; ++k)
    qp("degenerate" + std::to_string(k), lumbra::testing::degenerateProblem(k));
  for (int k = 0; k < 4; ++k) alloc("tied" + std::to_string(k), tiedAlloc(k));
  return out;
}

// True when an optimised BLAS is mapped into this process.
bool optimisedBlasLoaded() {
  std::ifstream maps("/proc/self/maps");
  for (std::string l; std::getline(maps, l);)
    for (const char* lib : {"openblas", "libmkl", "blis", "atlas"})
      if (l.find(lib) != std::string::npos) return true;
  return false;
}

std::string digest(const std::string& text) {
  std::uint64_t h = 0xcbf29ce484222325ULL;
  for (unsigned char ch : text) h = (h ^ ch) * 0x100000001b3ULL;  // FNV-1a
  char hash[32];
  std::snprintf(hash, sizeof hash, "%016" PRIx64, h);
  return hash;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (!(mode == "--dump" || ((mode == "--digest" || mode == "--check") && argc > 2)))
    return std::fprintf(stderr, "usage: %s --dump | --digest FILE | --check FILE\n", argv[0]), 2;
  if (mode == "--check" && optimisedBlasLoaded())
    return std::printf("optimised BLAS in use: the corpus holds for the reference BLAS only; skipped\n"), 77;
  const auto records = corpus();
  if (mode != "--check") {
    std::FILE* f = mode == "--dump" ? stdout : std::fopen(argv[2], "w");
    for (const auto& [name, text] : records)
      if (f) std::fprintf(f, "%s", mode == "--dump" ? text.c_str() : (name + ' ' + digest(text) + '\n').c_str());
    return f && std::fclose(f) == 0 ? 0 : 2;
  }
  std::ifstream in(argv[2]);  // the records' digests in their order
  int passed = 0, failed = 0;
  for (const auto& [name, text] : records) {
    std::string wantName = "(none)", want;
    in >> wantName >> want;
    if (wantName == name && want == digest(text)) ++passed;
    else ++failed, std::printf("MISMATCH %s: expected %s %s\n", name.c_str(), wantName.c_str(), want.c_str());
  }
  for (std::string extra; in >> extra;) ++failed, std::printf("EXTRA %s\n", extra.c_str());
  std::printf("%d passed, %d failed\n", passed, failed);
  return failed == 0 ? 0 : 1;
}
