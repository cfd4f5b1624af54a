// SPDX-License-Identifier: Apache-2.0
/* Links against the installed library and checks two exports. */
#include <stdio.h>

#include "lumbra.h"

int main(void) {
  int v[6];
  if (ORXlumbraTest(&v[0], &v[1], &v[2], &v[3], &v[4], &v[5]) != 0 || v[0] != 10) return 1;
  int nObs = 3, nAssets = 1, status = -1;
  double returns[3] = {1.0, 2.0, 3.0}, cov = 0.0;
  int code = ORXmodelingCov(&nObs, &nAssets, returns, &cov, &status);
  printf("cov %g, return %d, status %d\n", cov, code, status);
  return code == 0 && status == 0 && cov == 1.0 ? 0 : 1;
}
