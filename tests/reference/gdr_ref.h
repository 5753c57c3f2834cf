// Plain CPU references of the gated delta rule for one value head: the token
// recurrence in float in the order the decode promises (two halves of 64 key
// rows, sequential fused steps, halves summed as 0 + half0 + half1; sums of
// squares over 4 waves of 32 lanes by xor 16..1, then the waves in order), and
// the same recurrence in double precision as the contract.
#pragma once
#include <cmath>
#include <cstdint>
#include <vector>

#include "hw_math.h"
#include "ref_bits.h"
#include "rmsnorm_ref.h"

namespace ref {

constexpr int kGdrDim = 128;

// Sum of squares of 128 values as 4 waves of 32 lanes, then wave totals in order.
inline float gdr_sum_squares(const float* x) {
  float total = 0.0f;
  for (int w = 0; w < 4; ++w) {
    std::vector<float> lanes(32);
    for (int l = 0; l < 32; ++l) lanes[l] = x[w * 32 + l] * x[w * 32 + l];
    const float s = xor_tree(lanes, {16, 8, 4, 2, 1});
    total = w == 0 ? s : total + s;
  }
  return total;
}

struct GdrGatesF {
  float beta, decay;
};
// ea = e^(a_log) and sp = softplus(a + dt_bias) as the device computes them.
inline GdrGatesF gdr_gates_f(float b, float ea, float sp) {
  const float log2e = from_bits(0x3FB8AA3Bu);
  const float g = ea * sp;
  return GdrGatesF{1.0f / (1.0f + hw_exp2(-b * log2e)), hw_exp2(-g * log2e)};
}

// One token on S[k*128 + v]; q, k, v are the token's 128-element bf16 parts.
inline void gdr_step_f(std::vector<float>& S, const uint16_t* q, const uint16_t* k, const uint16_t* v,
                       GdrGatesF gt, uint16_t* out) {
  float qf[kGdrDim], kf[kGdrDim], qh[kGdrDim], kh[kGdrDim];
  for (int i = 0; i < kGdrDim; ++i) qf[i] = widen(q[i]), kf[i] = widen(k[i]);
  const float iq = hw_rsq(gdr_sum_squares(qf) + 1e-6f), ik = hw_rsq(gdr_sum_squares(kf) + 1e-6f);
  const float c = from_bits(0x3DB504F3u);
  for (int i = 0; i < kGdrDim; ++i) qh[i] = (qf[i] * iq) * c, kh[i] = kf[i] * ik;
  for (int col = 0; col < kGdrDim; ++col) {
    float m[2] = {0.0f, 0.0f}, o[2] = {0.0f, 0.0f};
    for (int half = 0; half < 2; ++half)
      for (int i = half * 64; i < half * 64 + 64; ++i) {
        float& s = S[(size_t)(i * kGdrDim + col)];
        s = gt.decay * s;
        m[half] = std::fma(s, kh[i], m[half]);
      }
    const float delta = gt.beta * (widen(v[col]) - ((0.0f + m[0]) + m[1]));
    for (int half = 0; half < 2; ++half)
      for (int i = half * 64; i < half * 64 + 64; ++i) {
        float& s = S[(size_t)(i * kGdrDim + col)];
        s = std::fma(kh[i], delta, s);
        o[half] = std::fma(s, qh[i], o[half]);
      }
    if (out) out[col] = round_bf16((0.0f + o[0]) + o[1]);
  }
}

// What one token of the double recurrence saw and gave.
struct GdrTokenD {
  double qh[kGdrDim], kh[kGdrDim], delta[kGdrDim], o[kGdrDim], decay;
};

// The contract in double: gates from the logits and per-layer constants.
inline void gdr_step_d(std::vector<double>& S, const uint16_t* q, const uint16_t* k, const uint16_t* v, double b,
                       double a, double a_log, double dt_bias, GdrTokenD& tok) {
  double* qh = tok.qh;
  double* kh = tok.kh;
  double sq = 0, sk = 0;
  for (int i = 0; i < kGdrDim; ++i) sq += (double)widen(q[i]) * widen(q[i]), sk += (double)widen(k[i]) * widen(k[i]);
  for (int i = 0; i < kGdrDim; ++i)
    qh[i] = widen(q[i]) / std::sqrt(sq + 1e-6) / std::sqrt(128.0), kh[i] = widen(k[i]) / std::sqrt(sk + 1e-6);
  const double x = a + dt_bias;
  const double sp = x > 20 ? x : std::log1p(std::exp(x));
  const double decay = std::exp(-std::exp(a_log) * sp), beta = 1 / (1 + std::exp(-b));
  tok.decay = decay;
  for (double& s : S) s *= decay;
  for (int col = 0; col < kGdrDim; ++col) {
    double m = 0, o = 0;
    for (int i = 0; i < kGdrDim; ++i) m += S[(size_t)(i * kGdrDim + col)] * kh[i];
    const double delta = tok.delta[col] = beta * (widen(v[col]) - m);
    for (int i = 0; i < kGdrDim; ++i) {
      S[(size_t)(i * kGdrDim + col)] += kh[i] * delta;
      o += S[(size_t)(i * kGdrDim + col)] * qh[i];
    }
    tok.o[col] = o;
  }
}

}  // namespace ref
