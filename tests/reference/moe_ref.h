// Reference MoE sort layout and scatter-reduce, from plain loops.
#pragma once
#include <cmath>
#include <cstdint>
#include <vector>

#include "ref_bits.h"

namespace ref {

// What a sort must produce, up to the order of rows inside an expert.
struct MoeSortRef {
  std::vector<int64_t> count, offset;  // offset has E_tot + 1 entries
  std::vector<int32_t> tile_expert;    // tiles in use
  int32_t tiles = 0, routed_tiles = 0;
};

inline MoeSortRef moe_sort_layout(const std::vector<int32_t>& ids, int64_t E_tot, int64_t T) {
  MoeSortRef r;
  r.count.assign((size_t)E_tot, 0);
  for (int32_t e : ids) ++r.count[(size_t)e];
  r.offset.assign((size_t)E_tot + 1, 0);
  for (int64_t e = 0; e < E_tot; ++e)
    r.offset[(size_t)e + 1] = r.offset[(size_t)e] + (r.count[(size_t)e] + T - 1) / T * T;
  r.tiles = (int32_t)(r.offset[(size_t)E_tot] / T);
  r.routed_tiles = (int32_t)(r.offset[(size_t)E_tot - 1] / T);
  for (int64_t e = 0; e < E_tot; ++e)
    for (int64_t t = r.offset[(size_t)e] / T; t < r.offset[(size_t)e + 1] / T; ++t) r.tile_expert.push_back((int32_t)e);
  return r;
}

inline int64_t moe_max_tiles(int64_t M, int64_t S, int64_t T, int64_t E_tot) {
  const int64_t a = M * S, b = (M * S + T - 1) / T + E_tot;
  return a < b ? a : b;
}

// The bf16 names the expert reference calls.
inline uint16_t bf16_rne_bits(float f) { return round_bf16(f); }
inline float bf16_value(uint16_t h) { return widen(h); }

// out[t, c] = fma chain over slots s in order of w[t, s] * row(t, s)[c].
inline std::vector<uint16_t> moe_scatter_reduce(const std::vector<uint16_t>& rows, const std::vector<float>& sorted_w,
                                                const std::vector<int32_t>& inverse, int64_t M, int64_t S,
                                                int64_t H) {
  std::vector<uint16_t> out((size_t)(M * H));
  for (int64_t t = 0; t < M; ++t)
    for (int64_t c = 0; c < H; ++c) {
      float acc = 0.0f;
      for (int64_t s = 0; s < S; ++s) {
        const int64_t p = inverse[(size_t)(t * S + s)];
        acc = std::fma(sorted_w[(size_t)p], bf16_value(rows[(size_t)(p * H + c)]), acc);
      }
      out[(size_t)(t * H + c)] = bf16_rne_bits(acc);
    }
  return out;
}

}  // namespace ref
