// Per-token gates of the gated delta rule, shared by the recurrent and the
// chunked kernels so both see the same beta and decay bits.
#pragma once
#include "../../platform/device.h"

namespace quillon::gdr {

constexpr float kLog2e = __builtin_bit_cast(float, 0x3FB8AA3Bu);
constexpr float kRsqrtDk = __builtin_bit_cast(float, 0x3DB504F3u);  // 1/sqrt(128)
constexpr float kNormEps = 1e-6f;

// ln(1 + t) for t >= 0 in full float accuracy: u = 1 + t = 2^k m with m near
// 1, log m by the atanh series of s = f/(2+f), k ln 2 in two parts, and the
// rounding of 1 + t carried as (t - (u - 1)) / u.
QDEV float log1p_pos(float t) {
  const float u = 1.0f + t;
  if (u == 1.0f) return t;
  uint32_t iu = dev::f2u(u) + (0x3f800000u - 0x3f3504f3u);  // m in [sqrt(2)/2, sqrt(2))
  const int k = (int)(iu >> 23) - 127;
  const float m = dev::u2f((iu & 0x007fffffu) + 0x3f3504f3u);
  const float c = (k > 0 ? 1.0f - (u - t) : t - (u - 1.0f)) / u;
  const float f = m - 1.0f;
  const float s = f / (2.0f + f), z = s * s, w = z * z;
  const float r = z * (0.66666662693f + w * 0.28498786688f) + w * (0.40000972152f + w * 0.24279078841f);
  const float hfsq = 0.5f * f * f;
  const float kf = (float)k;
  return kf * 6.9313812256e-01f + ((f - (hfsq - (s * (hfsq + r) + (kf * 9.0580006145e-06f + c)))));
}

// ln(1 + e^x), linear past 20.
QDEV float softplus(float x) { return x > 20.0f ? x : log1p_pos(dev::exp(x)); }

// beta: the sigmoid of b by true division.
QDEV float beta_of(float b) { return 1.0f / (1.0f + dev::exp2(-b * kLog2e)); }
// g = e^(a_log[h]) softplus(a + dt_bias[h]); ea = e^(a_log[h]).
QDEV float gate_g(float a, float ea, float dt_bias) { return ea * softplus(a + dt_bias); }

}  // namespace quillon::gdr
