// SPDX-License-Identifier: Apache-2.0
// Degenerate QPs of the corpus and the tolerance checks: tied Hessian diagonals and linear terms,
// zero-width bounds, repeated rows, a budget the bounds pin down, zero or rank-one Hessians.
// Dyadic data, so every tie is exact.  Column-major, one constraint per column.
#pragma once
#include <algorithm>
#include <vector>

namespace lumbra::testing {

struct DegenerateQp {
  int n = 0, me = 0, mi = 0;
  std::vector<double> H, c, C, d, lower, upper;
};
constexpr int kDegenerateCount = 48;

// Problem k: 4 .. 9 variables; H a tied diagonal, zero, rank one, or tied
// plus rank one; pinned: bounds that fix the budget exactly.
inline DegenerateQp degenerateProblem(int k) {
  DegenerateQp p;
  const int n = 4 + k % 6, hessian = (k / 6) % 4;
  const bool pinned = (k / 24) % 2 == 1;
  p.n = n, p.me = 2, p.mi = 4 + k % 2;
  const int m = p.me + p.mi;
  p.H.assign(n * n, 0.0), p.c.resize(n), p.C.assign(n * m, 0.0), p.d.assign(m, 0.0);
  auto C = [&p, n](int i, int j) -> double& { return p.C[i + j * n]; };
  for (int i = 0; i < n * n; ++i)  // diagonal: i = j (n + 1), row j
    p.H[i] = ((hessian == 0 || hessian == 3) && i % (n + 1) == 0 ? (i / n % 2 == 0 ? 0.25 : 0.125) : 0.0) +
             (hessian >= 2 ? 0.0625 : 0.0);
  for (int i = 0; i < n; ++i) p.c[i] = i % 3 == 0 ? -0.5 : -0.25;  // ties
  p.lower.assign(n, 0.0), p.upper.assign(n, 0.5);
  p.upper[1] = 0.0, p.lower[2] = p.upper[2] = 0.125;  // zero-width at 0 and inside
  for (int i = 3; pinned && i < n; ++i) p.upper[i] = 0.125;  // sum of the upper bounds is exact
  // The budget twice; a cap on x0 + x3, again, scaled by 2; x0 - x1 <= u0
  // (the sum of two bounds); for odd k a tied return row mu'x >= target.
  std::fill_n(p.C.begin(), 2 * n, 1.0), p.d[0] = p.d[1] = pinned ? 0.5 + 0.125 + 0.125 * (n - 3) : 1.0;
  const double cap = pinned ? 0.625 : 0.375;  // pinned: active at the only point
  for (int j = 2; j < 5; ++j) C(0, j) = C(3, j) = j == 4 ? 2.0 : 1.0, p.d[j] = C(0, j) * cap;
  C(0, 5) = 1.0, C(1, 5) = -1.0, p.d[5] = 0.5;
  for (int i = 0; p.mi == 5 && i < n; ++i) C(i, 6) = -(i % 2 == 0 ? 0.125 : 0.0625), p.d[6] = -0.0625;
  return p;
}

}  // namespace lumbra::testing
