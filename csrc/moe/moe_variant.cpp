// Variant state: plain globals, read at each call; writes happen between steps.
#include "moe_variant.h"

#include "../platform/fatal.h"

namespace quillon {
namespace {
constexpr MoeVariant kTable[3] = {{16, false}, {64, true}, {128, true}};
int32_t g_forced_T = 0;
bool g_forced_shuffled = false;
constexpr int32_t kNarrowCap = 4;
int32_t g_narrow_max[3] = {kNarrowCap, kNarrowCap, kNarrowCap};
bool g_split_forced = false;
}  // namespace

MoeVariant moe_variant_at(int64_t M) {
  if (g_forced_T != 0) return {g_forced_T, g_forced_shuffled};
  return M <= 768 ? kTable[0] : M <= 2048 ? kTable[1] : kTable[2];
}

void moe_variant_force(int32_t index) {
  if ((uint32_t)index > 2u) {
    g_forced_T = 0;
    return;
  }
  g_forced_T = kTable[index].T;
  g_forced_shuffled = kTable[index].shuffled;
}

void moe_dispatch_force(int32_t T, bool shuffled) {
  g_forced_T = T;
  g_forced_shuffled = shuffled;
}

int32_t moe_variant_count() { return 3; }

const char* moe_variant_name(int32_t index) {
  static const char* const kNames[3] = {"variant-0", "variant-1", "variant-2"};
  return (uint32_t)index <= 2u ? kNames[index] : "auto";
}

int32_t moe_narrow_max_m(MoeNarrow kind) { return g_narrow_max[(int)kind]; }

void moe_narrow_force_max_m(MoeNarrow kind, int32_t max_m) {
  if (max_m < 0 || max_m > kNarrowCap) QUILLON_FATAL("max_m must be in 0..%d (got %d)", kNarrowCap, max_m);
  g_narrow_max[(int)kind] = max_m;
}

bool moe_lowbit_split_forced() { return g_split_forced; }
void moe_lowbit_force_split(int32_t flag) { g_split_forced = flag != 0; }

}  // namespace quillon
