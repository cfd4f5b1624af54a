// Placeholder engine of the simulation export: the export runs its whole
// frame and reports that the computation is not part of this build.
#include "simul/simul.h"

namespace lumbra::simul {

void simulGeometricBrownian(const int&, const int&, const int&, const double*, const double*,
                            const double*, int*, double*, double*, int& status) {
  status = -1;
}

}  // namespace lumbra::simul
