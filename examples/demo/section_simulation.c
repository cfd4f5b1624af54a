/* Demo section: simulation (to come). */
#include "demo.h"

int demoSimulation(const DemoContext* ctx) {
  (void)ctx;
  return 0;
}
