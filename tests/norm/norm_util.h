// Helpers shared by the norm tests.
#pragma once
#include <algorithm>
#include <cmath>
#include <vector>

#include "common/test_util.h"
#include "reference/rmsnorm_ref.h"

namespace nt {

inline std::vector<float> widen_all(const std::vector<uint16_t>& v) {
  std::vector<float> f(v.size());
  for (size_t i = 0; i < v.size(); ++i) f[i] = ref::widen(v[i]);
  return f;
}

// Rows of H taken out of a strided matrix.
template <class T>
std::vector<T> dense_rows(const std::vector<T>& m, int64_t rows, int64_t H, int64_t stride) {
  std::vector<T> d((size_t)(rows * H));
  for (int64_t r = 0; r < rows; ++r)
    for (int64_t i = 0; i < H; ++i) d[(size_t)(r * H + i)] = m[(size_t)(r * stride + i)];
  return d;
}

// Values spread over eleven binades, so that sums of squares do not fit one
// float mantissa and the order of the additions shows in the sum.
inline float spread(qt::Rng& rng) {
  return (rng.bits() & 1 ? -1.f : 1.f) * rng.uniform(1.f, 2.f) * std::ldexp(1.f, (int)rng.integer(-8, 2));
}
inline std::vector<uint16_t> spread_bf16s(qt::Rng& rng, size_t n) {
  std::vector<uint16_t> v(n);
  for (auto& h : v) h = ref::round_bf16(spread(rng));
  return v;
}

// Rows of four kinds, by row index mod 4: uniform over the whole row and
// spread over the whole row (the reduction tree shows); one live chunk (the
// total is that chunk's own sum, so the order inside a chunk shows); live
// chunks only at indices congruent mod 1024, two or more where the row is
// long enough (one thread of the width-generic form holds several, so its
// running total shows). Dead chunks hold values near 2^-40: their squares
// vanish in the total, but their outputs still round and so still show r.
inline std::vector<float> mixed_rows(qt::Rng& rng, int64_t rows, int64_t H, int64_t stride) {
  std::vector<float> v((size_t)(rows * stride), 0.0f);
  const int64_t chunks = H / 8;
  for (int64_t r = 0; r < rows; ++r) {
    const int kind = (int)(r % 4);
    const int64_t c0 = rng.integer(0, (chunks > 1024 ? std::min<int64_t>(chunks - 1024, 1024) : chunks) - 1);
    for (int64_t c = 0; c < chunks; ++c) {
      const bool live = kind < 2 || (kind == 2 ? c == c0 : c % 1024 == c0);
      for (int i = 0; i < 8; ++i) {
        float& e = v[(size_t)(r * stride + c * 8 + i)];
        e = kind == 0 ? rng.uniform(-3.f, 3.f) : live ? spread(rng) : spread(rng) * 0x1p-40f;
      }
    }
  }
  return v;
}
inline std::vector<uint16_t> round_all(const std::vector<float>& f) {
  std::vector<uint16_t> v(f.size());
  for (size_t i = 0; i < f.size(); ++i) v[i] = ref::round_bf16(f[i]);
  return v;
}
inline std::vector<uint16_t> mixed_bf16_rows(qt::Rng& rng, int64_t rows, int64_t H, int64_t stride) {
  return round_all(mixed_rows(rng, rows, H, stride));
}

// Outputs round to bf16 and hide the low bits of r, so random data rarely shows
// a reduction done in another order. The tests pick an operand that does not
// feed r (the weight, or the gate) so that many outputs land within a few ulps
// of a rounding tie: then an r off by one ulp changes them. This is the bf16
// of the given sign and exponent whose output y(operand) lies nearest a tie.
template <class Y>
uint16_t nearest_tie(uint16_t sign_exp, Y&& y) {
  uint16_t best = sign_exp;
  uint32_t best_d = ~0u;
  for (uint16_t m = 0; m < 128; ++m) {
    const uint32_t lo = ref::to_bits(y(ref::widen((uint16_t)(sign_exp | m)))) & 0xffffu;
    const uint32_t d = lo > 0x8000u ? lo - 0x8000u : 0x8000u - lo;
    if (d < best_d) best_d = d, best = (uint16_t)(sign_exp | m);
  }
  return best;
}

// A weight tuned so: column i for row i % rows.
inline std::vector<uint16_t> sensitive_weight(const std::vector<float>& x, int H, int64_t rows, float eps,
                                              const ref::Mapping& mp, qt::Rng& rng) {
  std::vector<float> r(rows);
  for (int64_t k = 0; k < rows; ++k) r[k] = ref::rinv_of(x.data() + k * H, H, mp, (int)(k % mp.rows_per_block), eps);
  std::vector<uint16_t> w(H);
  for (int i = 0; i < H; ++i) {
    const float xr = x[(size_t)((i % rows) * H + i)] * r[i % rows];
    const uint16_t sign_exp = (uint16_t)((rng.bits() & 1 ? 0x8000u : 0u) | ((uint32_t)(126 + rng.integer(0, 2)) << 7));
    w[i] = nearest_tie(sign_exp, [&](float c) { return xr * c; });
  }
  return w;
}

// Every other gate of the gated norm tuned so, keeping its sign.
inline void sensitise_gate(const std::vector<uint16_t>& x, std::vector<uint16_t>& gate, int64_t gate_stride,
                           const std::vector<uint16_t>& w, int64_t rows, int heads, bool sigmoid_gate, float eps) {
  const int width = heads * 128;
  for (int64_t r = 0; r < rows; ++r)
    for (int h = 0; h < heads; ++h) {
      float v[128];
      for (int i = 0; i < 128; ++i) v[i] = ref::widen(x[(size_t)(r * width + h * 128 + i)]);
      const float rr = ref::gated_rinv(v, eps);
      for (int i = 0; i < 128; i += 2) {
        uint16_t& g = gate[(size_t)(r * gate_stride + h * 128 + i)];
        const float y = (v[i] * rr) * ref::widen(w[i]);
        g = nearest_tie((uint16_t)((g & 0x8000u) | (127u << 7)),
                        [&](float c) { return ref::gated(y, c, sigmoid_gate); });
      }
    }
}

using qt::sync_ok;

}  // namespace nt
