// Plain CPU references of sampling: the softmax in double, the greedy pick,
// the top-k / top-p candidates by a full sort of the row, and the draw. Where
// the operator fixes float arithmetic (the renormalisations, the doubling
// prefix sums, the cut), the reference performs the same float operations so
// the comparison can be exact.
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <vector>

#include "ref_bits.h"

namespace ref::sampling {

// exp((x - max) / t) / sum over the row, with max over the raw logits (NaNs
// ignored) and the argument formed in float as the operator forms it.
inline std::vector<double> softmax_row(const float* x, int64_t V, float temperature) {
  float m = -INFINITY;
  for (int64_t i = 0; i < V; ++i)
    if (x[i] > m) m = x[i];
  const float inv_t = 1.0f / temperature;
  std::vector<double> e((size_t)V);
  double s = 0.0;
  for (int64_t i = 0; i < V; ++i) {
    const float arg = (x[i] - m) * inv_t;
    e[(size_t)i] = std::exp((double)arg);
    s += e[(size_t)i];
  }
  for (auto& v : e) v /= s;
  return e;
}

// Lowest index of the largest value; NaNs never count; 0 when nothing beats -inf.
inline int64_t argmax_row(const float* x, int64_t V) {
  int64_t best = 0;
  float bv = -INFINITY;
  for (int64_t i = 0; i < V; ++i)
    if (x[i] > bv) {
      bv = x[i];
      best = i;
    }
  return best;
}

inline int64_t pow2_at_least(int64_t k) {
  int64_t p = 1;
  while (p < k) p <<= 1;
  return p;
}

// Sum as a balanced pairwise tree over consecutive elements, the shape of a
// butterfly reduction; `v` has a power-of-two length.
inline float pairwise_sum(std::vector<float> v) {
  for (size_t n = v.size(); n > 1; n /= 2)
    for (size_t i = 0; i < n / 2; ++i) v[i] = v[2 * i] + v[2 * i + 1];
  return v.empty() ? 0.0f : v[0];
}

// Inclusive prefix by doubling: in each step every element at or past `step`
// adds the element `step` places before it, all reading the previous step.
inline std::vector<float> doubling_prefix(std::vector<float> v, int64_t steps_below) {
  for (int64_t step = 1; step < steps_below; step <<= 1) {
    std::vector<float> prev = v;
    for (size_t i = (size_t)step; i < v.size(); ++i) v[i] = prev[i] + prev[i - (size_t)step];
  }
  return v;
}

struct TopK {
  int64_t k = 0;          // effective width
  uint32_t kth_bits = 0;  // bits of the k-th largest value
  std::vector<float> vals;       // the k largest, descending (raw probabilities)
  std::vector<float> cand_probs; // K slots
  std::vector<int64_t> cand_ids; // K slots; the lowest indices among ties
  std::vector<float> prefix;     // K2 slots of renormalised prefix sums
  int64_t cut = 0;
};

// `top_k` < 0 means no per-row limit (the null pointer case).
inline TopK topk_topp_row(const float* p, int64_t V, int64_t K, int64_t top_k, bool has_top_k, float top_p) {
  TopK r;
  r.k = has_top_k ? std::clamp<int64_t>(top_k, 1, K) : K;
  std::vector<int64_t> order((size_t)V);
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(), [&](int64_t a, int64_t b) { return p[a] > p[b] || (p[a] == p[b] && a < b); });
  const int64_t K2 = pow2_at_least(K);
  std::vector<float> slot((size_t)K2, 0.0f);
  for (int64_t i = 0; i < r.k; ++i) {
    r.vals.push_back(p[order[(size_t)i]]);
    slot[(size_t)i] = p[order[(size_t)i]];
  }
  r.kth_bits = to_bits(r.vals.back());
  const float s = pairwise_sum(slot);
  const float inv_s = s > 0.0f ? 1.0f / s : 0.0f;
  for (int64_t i = 0; i < r.k; ++i) slot[(size_t)i] = slot[(size_t)i] * inv_s;
  r.prefix = doubling_prefix(slot, K2);
  const std::vector<float>& pre = r.prefix;
  r.cut = r.k - 1;
  for (int64_t i = 0; i < r.k; ++i)
    if (pre[(size_t)i] >= top_p) {
      r.cut = i;
      break;
    }
  const float c = pre[(size_t)r.cut];
  const float inv = c > 0.0f ? 1.0f / c : 0.0f;
  for (int64_t i = 0; i < K; ++i) {
    r.cand_probs.push_back(i <= r.cut ? slot[(size_t)i] * inv : 0.0f);
    r.cand_ids.push_back(i < r.k ? order[(size_t)i] : -1);
  }
  return r;
}

// The first candidate with a positive probability whose doubling prefix sum is
// strictly above u; else the last with a positive probability; else slot 0.
inline int64_t multinomial_row(const float* cp, const int64_t* ids, int64_t K, float u) {
  const std::vector<float> pre = doubling_prefix(std::vector<float>(cp, cp + K), K);
  for (int64_t i = 0; i < K; ++i)
    if (cp[i] > 0.0f && u < pre[(size_t)i]) return ids[i];
  for (int64_t i = K - 1; i >= 0; --i)
    if (cp[i] > 0.0f) return ids[i];
  return ids[0];
}

}  // namespace ref::sampling
