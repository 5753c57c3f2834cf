// Rotation arithmetic shared by the rotary kernels. Which product of a pair is
// rounded on its own and which one is fused is part of each form's result.
#pragma once
#include "../platform/device.h"
#include "../platform/numerics.h"

namespace quillon::rope {

// A position becomes a float first: above 2^24 it rounds, and the angle is of
// the rounded value.
QDEV float angle(const float* inv_freq, int j, int64_t pos) { return inv_freq[j] * (float)pos; }

// Standalone rotation of a pair (x0, x1): x0' = c x0 - s x1 with s x1 rounded,
// x1' = s x0 + c x1 with c x1 rounded.
struct Pair {
  float a, b;
};
QDEV Pair rotate(float c, float s, float x0, float x1) {
  return Pair{__builtin_fmaf(c, x0, -(s * x1)), __builtin_fmaf(s, x0, c * x1)};
}

// The fused norm's form, the same for both halves: the partner times s is
// rounded and signed, the lane's own value times c is fused onto it.
QDEV float rotate_own(float own, float partner, float c, float s, bool low) {
  const float ps = partner * s;
  return __builtin_fmaf(own, c, low ? -ps : ps);
}

QDEV uint32_t pack2(float a, float b) { return (uint32_t)num::bf16_rne(a) | ((uint32_t)num::bf16_rne(b) << 16); }

}  // namespace quillon::rope
