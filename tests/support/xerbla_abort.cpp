// SPDX-License-Identifier: Apache-2.0
// LAPACK's argument-error handler for the tests: the library's exits with status 0 (OpenBLAS's
// returns), so a bad argument would pass; this one aborts.
#include <cstddef>
#include <cstdio>
#include <cstdlib>

extern "C" void xerbla_(const char* routine, const int* info, std::size_t routineLength) {
  std::fprintf(stderr, " ** On entry to %.*s parameter number %d had an illegal value\n",
               static_cast<int>(routineLength), routine, *info);
  std::abort();
}
