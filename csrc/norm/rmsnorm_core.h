// The numeric core every row norm shares: pair sums, a wave butterfly, one
// value per wave through LDS, and the reciprocal square root with denormal care.
#pragma once
#include "../platform/device.h"
#include "../platform/numerics.h"

namespace quillon::norm {

// Sum of squares of 8 values: each adjacent pair as one multiply and one fma,
// then the four pair sums in order.
QDEV float pair_sums8(const float v[8]) {
  float p[4];
  for (int i = 0; i < 4; ++i) p[i] = __builtin_fmaf(v[2 * i + 1], v[2 * i + 1], v[2 * i] * v[2 * i]);
  return ((p[0] + p[1]) + p[2]) + p[3];
}

QDEV float wave_butterfly(float s) {
  for (int m = 16; m >= 1; m >>= 1) s += dev::shfl_xor_f(s, m);
  return s;
}

// Block-wide sum for THREADS threads; every thread gets the total.
template <int THREADS>
QDEV float block_sum(float s) {
  constexpr int kWaves = (THREADS + 31) / 32;
  __shared__ float part[32];
  __shared__ float total;
  s = wave_butterfly(s);
  const int w = (int)threadIdx.x / 32, l = (int)threadIdx.x % 32;
  if (l == 0) part[w] = s;
  __syncthreads();
  if (w == 0) {
    float t = l < kWaves ? part[l] : 0.0f;
    t = wave_butterfly(t);
    if (l == 0) total = t;
  }
  __syncthreads();
  return total;
}

QDEV void load_bf16x8(const uint16_t* p, float v[8]) {
  dev::u32x4 c = *reinterpret_cast<const dev::u32x4*>(p);
  for (int i = 0; i < 4; ++i) {
    v[2 * i] = num::bits_to_float(c[i] << 16);
    v[2 * i + 1] = num::bits_to_float(c[i] & 0xffff0000u);
  }
}
// fp32 input is rounded to bf16 first, so both input types run the same numbers.
QDEV void load_f32x8(const float* p, float v[8]) {
  dev::u32x4 a = *reinterpret_cast<const dev::u32x4*>(p);
  dev::u32x4 b = *reinterpret_cast<const dev::u32x4*>(p + 4);
  for (int i = 0; i < 4; ++i) {
    v[i] = num::bf16_to_float(num::bf16_rne(num::bits_to_float(a[i])));
    v[4 + i] = num::bf16_to_float(num::bf16_rne(num::bits_to_float(b[i])));
  }
}
QDEV dev::u32x4 pack_bf16x8(const float v[8]) {
  dev::u32x4 c;
  for (int i = 0; i < 4; ++i)
    c[i] = (uint32_t)num::bf16_rne(v[2 * i]) | ((uint32_t)num::bf16_rne(v[2 * i + 1]) << 16);
  return c;
}

// m = sum / H + eps with an exact division by the compile-time H.
template <int H>
QDEV float inv_rms(float sum, float eps) {
  float m = sum / (float)H + eps;
  return dev::rsq_care(m);
}

// x * r, then times weight, both in float, no rounding between.
QDEV void scale8(float v[8], float r, const uint16_t* w) {
  if (w) {
    float wv[8];
    load_bf16x8(w, wv);
    for (int i = 0; i < 8; ++i) v[i] = (v[i] * r) * wv[i];
  } else {
    for (int i = 0; i < 8; ++i) v[i] = v[i] * r;
  }
}

}  // namespace quillon::norm
