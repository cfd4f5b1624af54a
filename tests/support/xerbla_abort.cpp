// SPDX-License-Identifier: Apache-2.0
// LAPACK's argument-error handler for the test programs: the library's
// prints its message and exits with status 0 (OpenBLAS's returns), so a test
// handing a routine a bad argument would still pass.  This one, defined in
// the executable, aborts; CTest fails any output holding the message too.
#include <cstddef>
#include <cstdio>
#include <cstdlib>

extern "C" void xerbla_(const char* routine, const int* info, std::size_t routineLength) {
  std::fprintf(stderr, " ** On entry to %.*s parameter number %d had an illegal value\n",
               static_cast<int>(routineLength), routine, *info);
  std::abort();
}
