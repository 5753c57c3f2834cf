// Variant state: plain globals, read at each call; writes happen between steps.
#include "moe_variant.h"

namespace quillon {
namespace {
constexpr MoeVariant kTable[3] = {{16, false}, {64, true}, {128, true}};
int32_t g_forced_T = 0;
bool g_forced_shuffled = false;
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

}  // namespace quillon
