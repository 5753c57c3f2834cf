// Helpers shared by the rotary tests.
#pragma once
#include <cmath>
#include <vector>

#include "common/test_util.h"
#include "reference/rope_ref.h"

namespace rt {

using qt::sync_ok;

// Distance in float steps (signed-magnitude order).
inline int64_t ulps(float a, float b) {
  auto key = [](float f) {
    const int32_t u = (int32_t)ref::to_bits(f);
    return u < 0 ? (int64_t)INT32_MIN - u : (int64_t)u;
  };
  return std::llabs(key(a) - key(b));
}

// Any table content serves a rotation test: the rotation is exact arithmetic
// on whatever entries it reads.
inline ref::Table random_table(qt::Rng& rng, int64_t n, int row) {
  return ref::Table{rng.floats((size_t)(n * row), -1.f, 1.f), rng.floats((size_t)(n * row), -1.f, 1.f)};
}

// A rotated value is a * u + q with one product rounded on its own and the
// other fused. Random data almost never shows which one: this picks the table
// coefficient a (from a near a0) that puts the exact value next to a bf16
// rounding tie, where the choice decides the rounded result.
inline float tie_coefficient(float a0, float u, double q) {
  if (u == 0.0f) return a0;
  const float r0 = (float)((double)a0 * u + q);
  const float tie = ref::from_bits((ref::to_bits(r0) & 0xffff0000u) | 0x8000u);
  return (float)(((double)tie - q) / (double)u);
}

// Entries (c, s) of a standalone rotation of (x0, x1), sine negated for the
// inverse: tuned for x0' = c x0 - s x1 (s x1 rounded), or for x1' = s x0 + c x1
// (c x1 rounded).
inline void tune_pair(float& c, float& s, float x0, float x1, bool first, bool inverse) {
  const float sg = inverse ? -1.0f : 1.0f;
  if (first) c = tie_coefficient(c, x0, -(double)(sg * s) * x1);
  else s = sg * tie_coefficient(sg * s, x0, (double)c * x1);
}

using qt::kGeometryTwo;
using qt::kNoGeometry;

}  // namespace rt
