// Test helper for the Python reference test of the minimiser: reads one
// problem from stdin (n, then A column-major, b, c, lower, upper, x0),
// minimises f(x) = 0.5 x'Ax - b'x + 0.25 sum c(i) x(i)^4 over the box
// with n2qn1 as the nearness solvers call it (mode 1, dxmin from df1 and
// the largest gradient, epsabs = n * 1e-10), and prints mode, iterations,
// simulations, f and x, one number per line.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "nearness/minimiser.h"

namespace {

struct Problem {
  int n;
  std::vector<double> A, b, c;
};

bool readArray(std::vector<double>& v) {
  for (double& e : v)
    if (std::scanf("%lf", &e) != 1) return false;
  return true;
}

void simulator(int&, const int& n, const double* x, double& f, double* g, int*, double* dzs) {
  const auto* p = reinterpret_cast<const Problem*>(dzs);
  f = 0.0;
  for (int i = 0; i < n; ++i) {
    double ax = 0.0;
    for (int j = 0; j < n; ++j) ax += p->A[i + static_cast<long>(j) * n] * x[j];
    const double x3 = x[i] * x[i] * x[i];
    g[i] = ax - p->b[i] + p->c[i] * x3;
    f += x[i] * (0.5 * ax - p->b[i]) + 0.25 * p->c[i] * x3 * x[i];
  }
}

}  // namespace

int main() {
  Problem p{};
  if (std::scanf("%d", &p.n) != 1 || p.n < 1) return 2;
  const int n = p.n;
  p.A.resize(static_cast<long>(n) * n);
  p.b.resize(n);
  p.c.resize(n);
  std::vector<double> lower(n), upper(n), x(n), g(n);
  if (!readArray(p.A) || !readArray(p.b) || !readArray(p.c) || !readArray(lower) ||
      !readArray(upper) || !readArray(x))
    return 2;
  double* data = reinterpret_cast<double*>(&p);
  int indic = 4;
  double f = 0.0;
  simulator(indic, n, x.data(), f, g.data(), nullptr, data);
  double gmax = 1e-6;
  for (double v : g) gmax = std::max(gmax, std::fabs(v));
  const double df1 = std::max(std::fabs(f) / 10.0, 1e-15);
  std::vector<double> dxmin(n, df1 * 1e-10 / gmax), rz(static_cast<long>(n + 9) * n / 2);
  std::vector<int> iz(2 * n + 1);
  double epsabs = n * 1e-10;
  int mode = 1, iter = std::max(2 * n, 300), nsim = 3 * iter;
  lumbra::nearness::n2qn1(simulator, n, x.data(), f, g.data(), dxmin.data(), df1, epsabs, 0, 6,
                          mode, iter, nsim, lower.data(), upper.data(), iz.data(), rz.data(),
                          nullptr, nullptr, data);
  std::printf("%d\n%d\n%d\n%.17g\n", mode, iter, nsim, f);
  for (double v : x) std::printf("%.17g\n", v);
  return 0;
}
