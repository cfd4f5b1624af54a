// SPDX-License-Identifier: Apache-2.0
// Test helper for the Python reference test: reads one problem in solver
// form from stdin (n me mi, then H, c, C column-major, d, lower, upper),
// runs the QP driver with work arrays of the documented size and prints
// the status, x and the multipliers, one number per line.
#include <cstdio>
#include <vector>

#include "qp/qp.h"
#include "qp/solver.h"

namespace {

bool readArray(std::vector<double>& v) {
  for (double& e : v)
    if (std::scanf("%lf", &e) != 1) return false;
  return true;
}

}  // namespace

int main() {
  int n = 0, me = 0, mi = 0;
  if (std::scanf("%d %d %d", &n, &me, &mi) != 3 || n < 1 || me < 0 || mi < 0) return 2;
  const long m = long(me) + mi;
  std::vector<double> H(long(n) * n), c(n), C(n * m + 1), d(m + 1), lower(n), upper(n);
  C.resize(n * m);
  d.resize(m);
  if (!readArray(H) || !readArray(c) || !readArray(C) || !readArray(d) || !readArray(lower) ||
      !readArray(upper))
    return 2;
  C.resize(n * m + 1);
  d.resize(m + 1);
  std::vector<double> work(long(n) * (n + 1) + lumbra::qp::kMainWork(n, mi));
  std::vector<int> iwork(3L * n + me + 2L * mi + 4);
  std::vector<double> x(n, 0.0), mult(n + m, 0.0);
  int status = 0;
  lumbra::qp::qpDriver(n, H.data(), c.data(), me, mi, C.data(), d.data(), lower.data(),
                       upper.data(), iwork.data(), work.data(), mult.data(), x.data(), status);
  std::printf("%d\n", status);
  for (double v : x) std::printf("%.17g\n", v);
  for (double v : mult) std::printf("%.17g\n", v);
  return 0;
}
