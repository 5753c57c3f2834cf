#include "device_config.h"

#include <cstdlib>
#include <mutex>

#include <hip/hip_runtime_api.h>

#include "../platform/fatal.h"

namespace quillon {
namespace {
int32_t compute() {
  const char* e = std::getenv("QUILLON_NUM_CUS");
  if (e && *e) {
    // Decimal digits and nothing else: no sign, no whitespace at either end.
    int32_t v = 0;
    for (const char* p = e; *p; ++p) {
      if (*p < '0' || *p > '9' || (v = v * 10 + (*p - '0')) > 1024) {
        v = 0;
        break;
      }
    }
    if (v < 1) QUILLON_FATAL("QUILLON_NUM_CUS must be a positive integer <= 1024 (got \"%s\")", e);
    return v;
  }
  int dev = 0;
  hipDeviceProp_t prop;
  if (hipGetDevice(&dev) != hipSuccess || hipGetDeviceProperties(&prop, dev) != hipSuccess ||
      prop.multiProcessorCount < 1) {
    (void)hipGetLastError();
    return 40;
  }
  return 2 * prop.multiProcessorCount;
}
std::once_flag g_once;
int32_t g_cus = 0;
}  // namespace

int32_t num_cus() {
  std::call_once(g_once, [] { g_cus = compute(); });
  return g_cus;
}

int32_t num_cus_p2() {
  int32_t n = num_cus(), p = 1;
  while (p < n) p <<= 1;
  return p;
}
}  // namespace quillon
