// Placeholder engines of the allocators: the exports run their whole frame
// and report that the computation is not part of this build.
#include "alloc/alloc.h"

namespace lumbra::alloc {

constexpr int kNotBuilt = -1;

void allocMV(const int&, double*, const double*, const int&, const int&, const double*,
             const double*, const double*, const double*, const double&, int*, double*,
             double*, int& status) {
  status = kNotBuilt;
}

void allocIT(const int&, double*, const double*, const double*, const double&, const int&,
             const int&, const double*, const double*, const double*, const double*,
             const double&, int*, double*, double*, int& status) {
  status = kNotBuilt;
}

void allocSharpeRatio(const int&, double*, const double*, const int&, const int&,
                      const double*, const double*, const double*, const double*,
                      const double&, int*, double*, double*, int& status) {
  status = kNotBuilt;
}

}  // namespace lumbra::alloc
