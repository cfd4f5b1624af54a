// SPDX-License-Identifier: Apache-2.0
// LAPACK's and BLAS's argument-error handler for the test programs.  The
// library's handler prints "On entry to <routine> parameter number <k> had
// an illegal value" and ends the process with exit status 0 (OpenBLAS's
// prints and returns), so a test program that hands a routine a bad argument
// (a workspace one element short, say) would stop early and still count as
// passed.  Defined in the executable, this one takes the place of the
// library's for every call and aborts, which fails the test outright; CTest
// also fails any test whose output holds the message, for the programs that
// run without it (the Python tests and the helper programs).
#include <cstddef>
#include <cstdio>
#include <cstdlib>

extern "C" void xerbla_(const char* routine, const int* info, std::size_t routineLength) {
  std::fprintf(stderr, " ** On entry to %.*s parameter number %d had an illegal value\n",
               static_cast<int>(routineLength), routine, *info);
  std::fflush(stderr);
  std::abort();
}
