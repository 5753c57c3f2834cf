// Reference MoE routing: logits, top-K selection with its tie and NaN rules,
// the two weightings and the table router, in plain loops.
#pragma once
#include <cmath>
#include <cstdint>
#include <vector>

#include "ref_bits.h"

namespace ref {

// Row dot product in double; exact whenever the inputs make it an integer.
inline float dot_row(const uint16_t* x, const uint16_t* w, int64_t H) {
  double acc = 0.0;
  for (int64_t c = 0; c < H; ++c) acc += (double)widen(x[c]) * (double)widen(w[c]);
  return (float)acc;
}
inline float sqrt_softplus(float x) { return std::sqrt(x > 20.0f ? x : std::log(1.0f + std::exp(x))); }
inline float sigmoid(float x) { return 1.0f / (1.0f + std::exp(-x)); }

struct Routed {
  std::vector<int32_t> ids;  // [M, S]
  std::vector<float> w;      // [M, S]
};

// scoring 0: softmax over the K picked logits; 1: sqrt(softplus) + bias to
// pick, weights from the score alone, renormalised and scaled. Ties: lower id.
inline Routed topk(const std::vector<float>& logits, const std::vector<float>& bias, int64_t M, int64_t E, int64_t K,
                   int scoring, float scale, const std::vector<float>& gate) {
  const int64_t S = K + 1;
  Routed r{std::vector<int32_t>((size_t)(M * S)), std::vector<float>((size_t)(M * S))};
  for (int64_t t = 0; t < M; ++t) {
    const float* x = &logits[(size_t)(t * E)];
    std::vector<float> v((size_t)E);
    std::vector<int64_t> idx((size_t)E);
    for (int64_t e = 0; e < E; ++e) {
      float s = scoring == 1 ? sqrt_softplus(x[e]) + bias[(size_t)e] : x[e];
      idx[(size_t)e] = std::isnan(s) ? E : e;
      v[(size_t)e] = std::isnan(s) ? -INFINITY : s;
    }
    std::vector<bool> taken((size_t)E, false);
    std::vector<int32_t> pick;
    for (int64_t k = 0; k < K; ++k) {
      int64_t best = -1;
      for (int64_t e = 0; e < E; ++e) {
        if (taken[(size_t)e]) continue;
        if (best < 0 || v[(size_t)e] > v[(size_t)best] ||
            (v[(size_t)e] == v[(size_t)best] && idx[(size_t)e] < idx[(size_t)best]))
          best = e;
      }
      taken[(size_t)best] = true;
      pick.push_back((int32_t)best);
    }
    double sum = 0.0;
    std::vector<double> s((size_t)K);
    for (int64_t k = 0; k < K; ++k) {
      const int32_t e = pick[(size_t)k];
      s[(size_t)k] = scoring == 1 ? (double)sqrt_softplus(x[e]) : std::exp((double)x[e] - (double)x[pick[0]]);
      sum += s[(size_t)k];
    }
    for (int64_t k = 0; k < K; ++k) {
      r.ids[(size_t)(t * S + k)] = pick[(size_t)k];
      r.w[(size_t)(t * S + k)] =
          scoring == 1 ? (float)(s[(size_t)k] / std::max(sum, 6.1035156e-05) * scale) : (float)(s[(size_t)k] / sum);
    }
    r.ids[(size_t)(t * S + K)] = (int32_t)E;
    r.w[(size_t)(t * S + K)] = gate.empty() ? 1.0f : gate[(size_t)t];
  }
  return r;
}

}  // namespace ref
