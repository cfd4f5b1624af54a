/* Demo section: frontier (to come). */
#include "demo.h"

int demoFrontier(const DemoContext* ctx) {
  (void)ctx;
  return 0;
}
