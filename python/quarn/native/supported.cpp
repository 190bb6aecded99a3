#include "packers.h"

int quarn_supported() {
  return __builtin_cpu_supports("x86-64-v3");
}
