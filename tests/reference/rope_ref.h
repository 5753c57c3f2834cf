// Plain CPU reference of the rotary family: tables from double-precision sine
// and cosine, the rotations with their stated fused multiply-adds, and the
// per-head norm over the lane mapping of a head (reciprocal square root given
// by the caller, since the device's is a hardware estimate).
#pragma once
#include <cmath>
#include <cstdint>
#include <vector>

#include "rmsnorm_ref.h"

namespace ref {
// Element (r, c) of a row-block-major blk32 panel C wide.
inline size_t blk32_index(int64_t r, int64_t c, int64_t C) {
  return (size_t)(((r / 32) * (C / 32) + c / 32) * 1024 + (r % 32) * 32 + (c % 32));
}

// Angle of pair j: the position rounded to float, times the frequency in float.
inline float rope_angle(float inv_freq, int64_t pos) { return inv_freq * (float)pos; }
inline float cos_of(float a) { return (float)std::cos((double)a); }
inline float sin_of(float a) { return (float)std::sin((double)a); }

// Position stream of pair j under sections (s0, s1, s2) of the M-RoPE interleave.
inline int mrope_stream(int j, int s1, int s2) {
  if (j % 3 == 1 && j < 3 * s1) return 1;
  if (j % 3 == 2 && j < 3 * s2) return 2;
  return 0;
}

// Table rows of `row` floats from `pairs` angles; with dup each entry twice.
struct Table {
  std::vector<float> cos, sin;
};
inline Table table(const std::vector<int64_t>& pos, const std::vector<float>& inv_freq, int64_t n, int pairs,
                   bool dup, bool mrope, float scale = 1.0f) {
  const int row = dup ? 2 * pairs : pairs;
  Table t{std::vector<float>((size_t)(n * row)), std::vector<float>((size_t)(n * row))};
  for (int64_t i = 0; i < n; ++i)
    for (int j = 0; j < pairs; ++j) {
      const int64_t p = pos[(size_t)((mrope ? mrope_stream(j, 11, 10) : 0) * n + i)];
      const float a = rope_angle(inv_freq[j], p);
      for (int k = 0; k < (dup ? 2 : 1); ++k) {
        t.cos[(size_t)(i * row + j + k * pairs)] = cos_of(a) * scale;
        t.sin[(size_t)(i * row + j + k * pairs)] = sin_of(a) * scale;
      }
    }
  return t;
}

// Standalone rotation: x0' = fma(c, x0, -(s x1)), x1' = fma(s, x0, c x1).
inline void rotate(float c, float s, float& x0, float& x1) {
  const float a = std::fma(c, x0, -(s * x1)), b = std::fma(s, x0, c * x1);
  x0 = a;
  x1 = b;
}

// Half-split rotation of dims (j, j+32) of each dense row of `head` dims; row
// r uses table row r / heads (rows of 64).
inline void rope_apply(std::vector<uint16_t>& x, const Table& t, int64_t rows, int heads, int head) {
  for (int64_t r = 0; r < rows; ++r)
    for (int j = 0; j < 32; ++j) {
      uint16_t* p = x.data() + r * head;
      float a = widen(p[j]), b = widen(p[j + 32]);
      rotate(t.cos[(size_t)(r / heads * 64 + j)], t.sin[(size_t)(r / heads * 64 + j)], a, b);
      p[j] = round_bf16(a);
      p[j + 32] = round_bf16(b);
    }
}

// groups blocks of [padded, cols]: row-major, or blk32 with row-block-major tiles.
inline std::vector<uint16_t> rope_tail_group(const std::vector<uint16_t>& src, const Table& t, int64_t head,
                                             int64_t width, int64_t col_offset, int64_t cols, int64_t groups,
                                             int64_t rows, int64_t padded, bool blk32, bool inverse) {
  std::vector<uint16_t> dst((size_t)(groups * padded * cols), 0);
  for (int64_t g = 0; g < groups; ++g)
    for (int64_t r = 0; r < rows; ++r) {
      std::vector<uint16_t> row(src.begin() + r * width + col_offset + g * cols,
                                src.begin() + r * width + col_offset + (g + 1) * cols);
      for (int64_t h = 0; h < cols / head; ++h)
        for (int p = 0; p < 32; ++p) {
          const size_t d = (size_t)(h * head + head - 64 + 2 * p), e = (size_t)(r * 32 + p);
          float x0 = widen(row[d]), x1 = widen(row[d + 1]);
          rotate(t.cos[e], inverse ? -t.sin[e] : t.sin[e], x0, x1);
          row[d] = round_bf16(x0);
          row[d + 1] = round_bf16(x1);
        }
      for (int64_t c = 0; c < cols; ++c)
        dst[(size_t)(g * padded * cols) + (blk32 ? blk32_index(r, c, cols) : (size_t)(r * cols + c))] = row[c];
    }
  return dst;
}

// Sum of squares of one head as its lanes hold it: 8 dims a lane, then an xor
// butterfly over the head's lanes from the widest mask down.
inline float head_sum(const float* v, int head) {
  const int lanes = head / 8;
  std::vector<float> l(lanes);
  for (int i = 0; i < lanes; ++i) l[i] = chunk_sum(v + 8 * i);
  return lanes == 32 ? xor_tree(l, {16, 8, 4, 2, 1}) : xor_tree(l, {8, 4, 2, 1});
}
inline float head_mean(const float* v, int head, float eps) { return head_sum(v, head) / (float)head + eps; }

// y = (x r) w; with `rotary` > 0 the first `rotary` dims rotate in pairs
// (i, i + rotary/2) before rounding: the partner times s rounded, the own value
// times c fused onto it. `c`, `s` point at the token's table row.
inline void norm_head(const float* x, int head, float r, const uint16_t* w, int rotary, const float* c,
                      const float* s, uint16_t* out) {
  std::vector<float> y(head);
  for (int i = 0; i < head; ++i) y[i] = (x[i] * r) * widen(w[i]);
  std::vector<float> z = y;
  const int half = rotary / 2;
  for (int i = 0; i < half; ++i) {
    z[i] = std::fma(y[i], c[i], -(y[i + half] * s[i]));
    z[i + half] = std::fma(y[i + half], c[i], y[i] * s[i]);
  }
  for (int i = 0; i < head; ++i) out[i] = round_bf16(z[i]);
}

}  // namespace ref
