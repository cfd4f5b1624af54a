/* Demo section: risk (to come). */
#include "demo.h"

int demoRisk(const DemoContext* ctx) {
  (void)ctx;
  return 0;
}
