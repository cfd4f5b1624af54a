// Weak stand-in for the QP driver while the solver is not part of the
// build: the allocators link and report "not built" (-1).  The solver's own
// definition, when present, replaces this one at link time.
#include "qp/qp.h"

namespace lumbra::qp {

__attribute__((weak)) void qpDriver(const int&, double*, double*, const int&, const int&,
                                    double*, double*, double*, double*, int*, double*,
                                    double*, double*, int& status) {
  status = -1;
}

}  // namespace lumbra::qp
