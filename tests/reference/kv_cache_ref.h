// Plain CPU reference of the paged KV pool: element offsets, the bf16 and int8
// writers, slot resolution and the window view.
#pragma once
#include <cmath>
#include <cstdint>
#include <vector>

#include "rmsnorm_ref.h"

namespace ref {

struct KvShape {
  int64_t nkv, hd;
};
inline int64_t kv_k_index(const KvShape& s, int64_t p, int64_t h, int64_t d, int64_t o) {
  return ((p * s.nkv + h) * (s.hd / 16) + d / 16) * 256 + o * 16 + d % 16;
}
inline int64_t kv_v_index(const KvShape& s, int64_t p, int64_t h, int64_t d, int64_t o) {
  return ((p * s.nkv + h) * s.hd + d) * 16 + o;
}

// bf16 pools updated in place; negative slots skipped; no V pool when v_pool is null.
inline void kv_write_bf16(const KvShape& s, const std::vector<uint16_t>& k, const std::vector<uint16_t>& v,
                          int64_t k_stride, int64_t v_stride, const std::vector<int32_t>& slots,
                          std::vector<uint16_t>& k_pool, std::vector<uint16_t>* v_pool) {
  for (size_t t = 0; t < slots.size(); ++t) {
    if (slots[t] < 0) continue;
    const int64_t p = slots[t] / 16, o = slots[t] % 16;
    for (int64_t h = 0; h < s.nkv; ++h)
      for (int64_t d = 0; d < s.hd; ++d) {
        k_pool[(size_t)kv_k_index(s, p, h, d, o)] = k[(size_t)(t * k_stride + h * s.hd + d)];
        if (v_pool) (*v_pool)[(size_t)kv_v_index(s, p, h, d, o)] = v[(size_t)(t * v_stride + h * s.hd + d)];
      }
  }
}

// Symmetric int8 of one group: the bf16 scale, then bytes against its exact reciprocal.
inline uint16_t quantize_group(const uint16_t* x, int64_t n, int8_t* out, int64_t out_step) {
  float amax = 0.0f;
  for (int64_t i = 0; i < n; ++i) amax = std::max(amax, std::fabs(widen(x[i])));
  const uint16_t scale = round_bf16(amax > 0.0f ? amax / 127.0f : 1.0f);
  const float inv = 1.0f / widen(scale);
  for (int64_t i = 0; i < n; ++i) {
    const float q = std::nearbyint(widen(x[i]) * inv);
    out[i * out_step] = (int8_t)std::min(127.0f, std::max(-127.0f, q));
  }
  return scale;
}

inline void kv_write_int8(const KvShape& s, const std::vector<uint16_t>& k, const std::vector<uint16_t>& v,
                          int64_t k_stride, int64_t v_stride, const std::vector<int32_t>& slots,
                          std::vector<int8_t>& k_pool, std::vector<int8_t>& v_pool, std::vector<uint16_t>& k_scales,
                          std::vector<uint16_t>& v_scales) {
  for (size_t t = 0; t < slots.size(); ++t) {
    if (slots[t] < 0) continue;
    const int64_t p = slots[t] / 16, o = slots[t] % 16;
    for (int64_t h = 0; h < s.nkv; ++h) {
      v_scales[(size_t)((p * s.nkv + h) * 16 + o)] =
          quantize_group(&v[(size_t)(t * v_stride + h * s.hd)], s.hd, &v_pool[(size_t)kv_v_index(s, p, h, 0, o)], 16);
      for (int64_t g = 0; g < s.hd / 32; ++g) {
        int8_t q[32];
        k_scales[(size_t)(((int64_t)slots[t] * s.nkv + h) * (s.hd / 32) + g)] =
            quantize_group(&k[(size_t)(t * k_stride + h * s.hd + 32 * g)], 32, q, 1);
        for (int i = 0; i < 32; ++i) k_pool[(size_t)kv_k_index(s, p, h, 32 * g + i, o)] = q[i];
      }
    }
  }
}

// Window view of one sequence, as the compact table row and its length.
inline void window_row(const int32_t* row, int64_t last, int64_t page, int64_t head_blocks, int64_t tail_blocks,
                       std::vector<int32_t>& view, int32_t& len) {
  const int64_t used = (int64_t)std::floor((double)last / (double)page) + 1, keep = head_blocks + tail_blocks;
  if (used <= keep) {
    for (size_t i = 0; i < view.size(); ++i) view[i] = (int64_t)i < used ? row[i] : 0;
    len = (int32_t)(last + 1);
    return;
  }
  for (int64_t i = 0; i < keep; ++i) view[(size_t)i] = i < head_blocks ? row[i] : row[i + used - keep];
  len = (int32_t)(last + 1 - (used - keep) * page);
}

}  // namespace ref
