// Plain CPU reference of the RMSNorm family, written from the arithmetic the
// family promises (pair sums, the reduction tree per thread mapping, the mean,
// rsq with denormal care, bf16 rounding), independent of the library's code.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "hw_math.h"
#include "ref_bits.h"
#include "shuffle_ref.h"

namespace ref {

inline float through_bf16(float f) { return widen(round_bf16(f)); }

inline float rsq_care(float m) {
  if (m < 0x1p-126f) return hw_rsq(m * 0x1p24f) * 0x1p12f;
  return hw_rsq(m);
}

// One adjacent pair: a multiply, then an fma.
inline float pair(const float* v, int i) { return std::fma(v[2 * i + 1], v[2 * i + 1], v[2 * i] * v[2 * i]); }
// A thread's sum over its 8-element chunk.
inline float chunk_sum(const float* v) { return ((pair(v, 0) + pair(v, 1)) + pair(v, 2)) + pair(v, 3); }

// Exchange-and-add over `n` lanes with the given xor masks; returns lane 0.
inline float xor_tree(std::vector<float> lanes, std::initializer_list<int> masks) {
  for (int m : masks) {
    std::vector<float> next(lanes.size());
    for (size_t l = 0; l < lanes.size(); ++l) next[l] = lanes[l] + lanes[l ^ (size_t)m];
    lanes = next;
  }
  return lanes[0];
}

// Block sum: each wave of 32 by xor 16..1, then one wave holding the wave
// totals (zeros past the wave count) by the same tree.
inline float block_reduce(const std::vector<float>& per_thread) {
  const size_t waves = (per_thread.size() + 31) / 32;
  std::vector<float> first(32, 0.0f);
  for (size_t w = 0; w < waves; ++w) {
    std::vector<float> lanes(32, 0.0f);
    for (size_t l = 0; l < 32 && w * 32 + l < per_thread.size(); ++l) lanes[l] = per_thread[w * 32 + l];
    first[w] = xor_tree(lanes, {16, 8, 4, 2, 1});
  }
  return xor_tree(first, {16, 8, 4, 2, 1});
}

// How the threads of a block cover a row.
enum class Map {
  Fast,      // H/8 threads, one chunk each; m = sum / H + eps
  Wide,      // 1024 threads, stride loop, pair sums into a running total; m = fma(sum, 1/H, eps)
  Shuffled,  // rows_per_block rows read in four steps by `threads` threads; m = sum / H + eps
};
struct Mapping {
  Map map = Map::Fast;
  int rows_per_block = 1;
  int threads = 0;
};

// Sum of squares of row j (of its block) under the mapping; `row` holds H values.
inline float row_sum(const float* row, int H, const Mapping& mp, int j_in_block) {
  const int chunks = H / 8;
  if (mp.map == Map::Fast) {
    std::vector<float> t(chunks);
    for (int c = 0; c < chunks; ++c) t[c] = chunk_sum(row + 8 * c);
    return block_reduce(t);
  }
  if (mp.map == Map::Wide) {
    std::vector<float> t(1024, 0.0f);
    for (int th = 0; th < 1024; ++th)
      for (int c = th; c < chunks; c += 1024)
        for (int i = 0; i < 4; ++i) t[th] = t[th] + pair(row + 8 * c, i);
    return block_reduce(t);
  }
  std::vector<float> t(mp.threads, 0.0f);
  const int total = mp.rows_per_block * chunks;
  for (int th = 0; th < mp.threads; ++th)
    for (int u = th; u < total; u += mp.threads)
      if (u / chunks == j_in_block) t[th] = t[th] + chunk_sum(row + 8 * (u % chunks));
  return block_reduce(t);
}

// r of row j (of its block) under the mapping.
inline float rinv_of(const float* row, int H, const Mapping& mp, int j_in_block, float eps) {
  const float sum = row_sum(row, H, mp, j_in_block);
  const float m = mp.map == Map::Wide ? std::fma(sum, 1.0f / (float)H, eps) : sum / (float)H + eps;
  return rsq_care(m);
}

// Normalise `rows` rows of H bf16-valued floats (dense, stride H). `weight`
// may be null. Row r sits at position r % rows_per_block of its block.
inline std::vector<uint16_t> norm_rows(const std::vector<float>& x, int H, int64_t rows, const uint16_t* weight,
                                       float eps, const Mapping& mp) {
  std::vector<uint16_t> out((size_t)rows * H);
  for (int64_t r = 0; r < rows; ++r) {
    const float* row = x.data() + r * H;
    const float rr = rinv_of(row, H, mp, (int)(r % mp.rows_per_block), eps);
    for (int i = 0; i < H; ++i) {
      float y = row[i] * rr;
      if (weight) y = y * widen(weight[i]);
      out[(size_t)r * H + i] = round_bf16(y);
    }
  }
  return out;
}

// The row-block-major blk32 panel of `padded` rows holding `rowmajor`
// ([rows, C]) with zero pad rows.
inline std::vector<uint16_t> to_blk32(std::vector<uint16_t> rowmajor, int64_t rows, int64_t padded, int64_t C) {
  rowmajor.resize((size_t)(padded * C), 0);
  return blk32(rowmajor, C, padded, C, padded, false);
}

inline float sigmoid(float g) { return 1.0f / (1.0f + hw_exp2(-g * from_bits(0x3FB8AA3Bu))); }
// The gate applied to y: y sigmoid(g), or y (g sigmoid(g)).
inline float gated(float y, float g, bool sigmoid_gate) {
  const float sg = sigmoid(g);
  return sigmoid_gate ? y * sg : y * (g * sg);
}
// r of one 128-value item: 16 lanes of 8, exchanged by xor 1, 2, 4, 8.
inline float gated_rinv(const float* v, float eps) {
  std::vector<float> lanes(16);
  for (int l = 0; l < 16; ++l) lanes[l] = chunk_sum(v + 8 * l);
  return rsq_care(xor_tree(lanes, {1, 2, 4, 8}) / 128.0f + eps);
}

// Gated norm over (row, head) items; y = (x r) w, then the gate.
inline std::vector<uint16_t> gated_rows(const std::vector<uint16_t>& x, const std::vector<uint16_t>& gate,
                                        int64_t gate_stride, const std::vector<uint16_t>& weight, int64_t rows,
                                        int heads, bool sigmoid_gate, float eps) {
  const int width = heads * 128;
  std::vector<uint16_t> out((size_t)rows * width);
  for (int64_t r = 0; r < rows; ++r)
    for (int h = 0; h < heads; ++h) {
      float v[128];
      for (int i = 0; i < 128; ++i) v[i] = widen(x[(size_t)(r * width + h * 128 + i)]);
      const float rr = gated_rinv(v, eps);
      for (int i = 0; i < 128; ++i) {
        const float g = widen(gate[(size_t)(r * gate_stride + h * 128 + i)]);
        out[(size_t)(r * width + h * 128 + i)] = round_bf16(gated((v[i] * rr) * widen(weight[i]), g, sigmoid_gate));
      }
    }
  return out;
}

}  // namespace ref
