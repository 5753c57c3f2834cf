// The vocabulary every kernel is written in. Kernels reach target-specific
// behaviour only through this header; it has one implementation per flavour.
#pragma once
#include <stdint.h>
#include <string.h>

namespace quillon::dev {
// Wave size is a compile-time constant of the target, never queried.
inline constexpr int kWave = 32;
}  // namespace quillon::dev

#if defined(QUILLON_FLAVOUR_HIP)
#include "device_hip.h"
#elif defined(QUILLON_FLAVOUR_CPU)
#include "device_cpu.h"
#else
#error "define QUILLON_FLAVOUR_HIP or QUILLON_FLAVOUR_CPU"
#endif

namespace quillon::dev {

// Fragments of v_wmma_f32_16x16x16_bf16: lane l holds row l%16 of A (column
// l%16 of B) as 16 bf16 in 8 registers; lanes 16..31 duplicate lanes 0..15.
// Accumulator register i of lane l holds row 2i + l/16, column l%16.
using bf16x16 = wmma_bf16x16_t;
using f32x8 = wmma_f32x8_t;
using u32x4 = bl_u32x4;
using u32x2 = bl_u32x2;

QDEV f32x8 wmma_bf16(bf16x16 a, bf16x16 b, f32x8 c) { return wmma_bf16_raw(a, b, c); }

QDEV uint32_t lane_id() { return threadIdx.x & (kWave - 1); }
QHD uint32_t f2u(float f) { return __builtin_bit_cast(uint32_t, f); }
QHD float u2f(uint32_t u) { return __builtin_bit_cast(float, u); }

QDEV float shfl_xor_f(float v, int mask, int width = kWave) { return u2f(shfl_xor(f2u(v), mask, width)); }
QDEV float bpermute_f(int lane, float v) { return u2f(bpermute(lane, f2u(v))); }
QDEV float readlane_f(float v, int lane) { return u2f(readlane(f2u(v), lane)); }

// Reciprocal square root with denormal care: inputs below 2^-126 are scaled
// by 2^24 and the result by 2^12, so the instruction never sees a denormal.
QDEV float rsq_care(float m) {
  if (m < 1.17549435e-38f) return rsq(m * 16777216.0f) * 4096.0f;
  return rsq(m);
}

// Transcendentals without a hardware instruction, written once over exp2 so
// both flavours run the same arithmetic.
QDEV float tanh(float x) {
  float ax = x < 0.0f ? -x : x;
  if (ax > 9.0f) return x < 0.0f ? -1.0f : 1.0f;
  float e = exp2(-2.0f * 1.4426950408889634f * ax);  // e^{-2|x|}
  float t = (1.0f - e) / (1.0f + e);
  return x < 0.0f ? -t : t;
}
// erf after Abramowitz and Stegun 7.1.26 refined: |error| below 2e-7.
QDEV float erf(float x) {
  float ax = x < 0.0f ? -x : x;
  float t = 1.0f / __builtin_fmaf(0.3275911f, ax, 1.0f);
  float p = __builtin_fmaf(__builtin_fmaf(__builtin_fmaf(__builtin_fmaf(1.061405429f, t, -1.453152027f), t, 1.421413741f), t, -0.284496736f), t, 0.254829592f);
  float y = 1.0f - p * t * exp2(-ax * ax * 1.4426950408889634f);
  return x < 0.0f ? -y : y;
}
// The full-precision exponential (the hardware one is a base-2 estimate):
// reduction by ln 2 in two fused steps, a degree-7 polynomial on |r| <= ln2/2,
// and the scale by 2^n in two halves so a subnormal result rounds only once.
// Within 1.02 ulp over every float input; 0 below -103.278931, infinity above
// 88.7228394.
QDEV float exp(float x) {
  if (x != x) return x;
  if (x > 88.7228394f) return __builtin_inff();
  if (x < -103.278931f) return 0.0f;
  const float n = __builtin_rintf(x * 1.44269502f);
  float r = __builtin_fmaf(-n, 0.693145751953125f, x);  // ln 2 high part, exact product
  r = __builtin_fmaf(-n, 1.42860677e-6f, r);            // ln 2 low part
  float p = __builtin_fmaf(1.9875691500e-4f, r, 1.3981999507e-3f);
  p = __builtin_fmaf(p, r, 8.3334519073e-3f);
  p = __builtin_fmaf(p, r, 4.1665795894e-2f);
  p = __builtin_fmaf(p, r, 1.6666665459e-1f);
  p = __builtin_fmaf(p, r, 5.0000001201e-1f);
  const float y = __builtin_fmaf(p, r * r, r) + 1.0f;
  const int k = (int)n, k1 = k / 2, k2 = k - k1;  // both halves in the normal range
  return y * u2f((uint32_t)(k1 + 127) << 23) * u2f((uint32_t)(k2 + 127) << 23);
}

// Sine and cosine in single precision with exact argument reduction, in integer
// and float arithmetic only, so both flavours give the same bits. Rotary angles
// reach 2^31 and beyond, where the hardware's reduction has no bits left.
namespace trig {
// 32-bit words of 2/pi after the binary point, behind one zero word so that the
// window of an argument near 1 may start before the point.
QDEV uint32_t two_over_pi_word(int k) {
  switch (k) {
    case 1: return 0xA2F9836Eu;
    case 2: return 0x4E441529u;
    case 3: return 0xFC2757D1u;
    case 4: return 0xF534DDC0u;
    case 5: return 0xDB629599u;
    case 6: return 0x3C439041u;
    case 7: return 0xFE5163ABu;
    default: return 0u;
  }
}
QDEV uint32_t window_word(int k, int sh) {
  const uint32_t hi = two_over_pi_word(k), lo = two_over_pi_word(k + 1);
  return sh ? (hi << sh) | (lo >> (32 - sh)) : hi;
}
// x = (q + f) pi/2 with q mod 4 and |f| <= 1/2, f pi/2 returned as r + lo.
// |x| = m 2^e with an integer m below 2^24. Of (2/pi) 2^e only its value mod 4
// matters to m (2/pi) 2^e mod 4: 96 bits from bit e-1 of 2/pi on, so that after
// the product 62 bits remain behind the quadrant, against at most about 30 lost
// to cancellation near a multiple of pi/2.
struct Reduced {
  float r, lo;
  int q;
};
QDEV Reduced reduce(float x) {
  const uint32_t ix = f2u(x) & 0x7fffffffu;
  if (ix <= 0x3f490fdbu) return Reduced{x, 0.0f, 0};  // |x| <= pi/4
  const int e = (int)(ix >> 23) - 150;
  const uint64_t m = (ix & 0x7fffffu) | 0x800000u;
  const int g = e + 30;  // bit e-1 of 2/pi, counting the zero word
  const int k = g >> 5, sh = g & 31;
  const uint64_t p0 = m * window_word(k + 2, sh), p1 = m * window_word(k + 1, sh), p2 = m * window_word(k, sh);
  // Bits 32..95 of the product: quadrant in the top two, the fraction below.
  const uint64_t w = (p2 << 32) + p1 + (p0 >> 32);
  const uint64_t q = (w + (1ull << 61)) >> 62;
  const int64_t f = (int64_t)(w - (q << 62));  // f 2^-62 in [-1/2, 1/2)
  const float fh = (float)f, fl = (float)(f - (int64_t)fh);
  const float ch = 0x1.921fb6p-62f;   // float(pi/2) 2^-62
  const float cl = -0x1.777a5cp-87f;  // (pi/2 - float(pi/2)) 2^-62
  const float hi = fh * ch;
  const float t = __builtin_fmaf(fl, ch, __builtin_fmaf(fh, cl, __builtin_fmaf(fh, ch, -hi)));
  const float r = hi + t;
  const float lo = t - (r - hi);
  const int qi = (int)(q & 3u);
  if (f2u(x) >> 31) return Reduced{-r, -lo, (4 - qi) & 3};
  return Reduced{r, lo, qi};
}
// On |r| <= pi/4, with lo the tail of the reduced argument.
QDEV float sin_poly(float r, float lo) {
  const float z = r * r;
  const float p = __builtin_fmaf(__builtin_fmaf(-1.9515295891e-4f, z, 8.3321608736e-3f), z, -1.6666654611e-1f);
  return r + __builtin_fmaf(r * z, p, lo);
}
QDEV float cos_poly(float r, float lo) {
  const float z = r * r;
  const float p = __builtin_fmaf(__builtin_fmaf(2.443315711809948e-5f, z, -1.388731625493765e-3f), z,
                                 4.166664568298827e-2f);
  const float hz = 0.5f * z, w = 1.0f - hz;
  return w + (((1.0f - w) - hz) + __builtin_fmaf(z * z, p, -(r * lo)));
}
}  // namespace trig

QDEV float sin(float x) {
  if ((f2u(x) & 0x7fffffffu) >= 0x7f800000u) return x - x;
  const trig::Reduced a = trig::reduce(x);
  switch (a.q) {
    case 0: return trig::sin_poly(a.r, a.lo);
    case 1: return trig::cos_poly(a.r, a.lo);
    case 2: return -trig::sin_poly(a.r, a.lo);
    default: return -trig::cos_poly(a.r, a.lo);
  }
}
QDEV float cos(float x) {
  if ((f2u(x) & 0x7fffffffu) >= 0x7f800000u) return x - x;
  const trig::Reduced a = trig::reduce(x);
  switch (a.q) {
    case 0: return trig::cos_poly(a.r, a.lo);
    case 1: return -trig::sin_poly(a.r, a.lo);
    case 2: return -trig::cos_poly(a.r, a.lo);
    default: return trig::sin_poly(a.r, a.lo);
  }
}
}  // namespace quillon::dev
