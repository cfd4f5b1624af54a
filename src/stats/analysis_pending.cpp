// Placeholder engines of the analysis exports: the exports run their whole
// frame and report that the computation is not part of this build.
#include "stats/analysis.h"

namespace lumbra::stats {

constexpr int kNotBuilt = -1;

void analysisPortfolioReturn(const int&, const double*, const double*, double&,
                             int& status) {
  status = kNotBuilt;
}
void analysisPortfolioVolatility(const int&, const double*, const double*, double&,
                                 int& status) {
  status = kNotBuilt;
}
void analysisNormalVaR(const int&, const double*, const double*, const double*,
                       const double&, double&, int& status) {
  status = kNotBuilt;
}
void analysisModifiedVaR(const int&, const int&, const double*, const double*, const double*,
                         const double&, double*, double&, int& status) {
  status = kNotBuilt;
}
void analysisSeriesStdDev(const int&, const double*, double&, int& status) {
  status = kNotBuilt;
}
void analysisGaussianKernel(const int&, const int&, const double*, const double*, double*,
                            int& status) {
  status = kNotBuilt;
}

}  // namespace lumbra::stats
