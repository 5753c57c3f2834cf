// Where the arms of a fused decode launch sit along x, per geometry and arm
// formats: arm 0's column tiles up to the seam, then the triple's one-tile
// bf16 arm in s2 splits, then the split arm of t1 tiles by s1 (s1 1: unsplit).
// The launches take their split counts and grids from here.
#pragma once
#include <stdint.h>

#include "gemm_entry_proj.h"

namespace quillon::proj {

struct FusedLayout {
  int64_t seam, t1;
  int s1, s2;
  int64_t grid_x;
};

constexpr FusedLayout fused_layout(int64_t seam, int64_t t1, int s1, int s2) {
  return {seam, t1, s1, s2, seam + s2 + t1 * s1};
}

// Code bits as the width pairs compare them: both IQ4 forms count as 4.
constexpr int code_bits(int F) { return F == kq::IQ4_NL || F == kq::IQ4_XS ? 4 : kq::format_info(F).bits; }

// A bf16 split arm keeps at least 512 K per split: at 256 it does not fit
// beside another arm in the registers of 16 waves (spills) or of 12 (more).
constexpr int bf16_arm_splits(int64_t K, int want) {
  int s = want < max_splits(K) ? want : max_splits(K);
  while (s > 1 && K / s < 512) s /= 2;
  return s;
}

// q and k with v at another k-quant width: v in as many splits as K allows.
constexpr FusedLayout qkv_pair_layout(int32_t g) {
  const KN qk = qkv_proj_qk_kquant_shape(g), v = qkv_proj_v_kquant_shape(g);
  return fused_layout(qk.N / 128, v.N / 128, max_splits(qk.K), 0);
}

// q in k-quant, k and v in bf16: 8 splits where the bf16 arm's floor allows.
constexpr FusedLayout q_kv_layout(int32_t g) {
  const KN q = qkv_proj_q_kquant_shape(g), kv = qkv_proj_kv_shape(g);
  return fused_layout(q.N / 128, kv.N / 128, bf16_arm_splits(q.K, 8), 0);
}

// Gate and up at equal N: an arm 1 of no more code bits runs unsplit beside
// arm 0; a wider one splits by 2, by 4 against Q3_K's narrow arm 0 at Q8_0.
constexpr FusedLayout mlp_pair_layout(int32_t g, int f0, int f1) {
  const KN s = mlp_gate_kquant_shape(g);
  const int splits = code_bits(f1) <= code_bits(f0) ? 1 : f0 == kq::Q3_K && f1 == kq::Q8_0 ? 4 : 2;
  return fused_layout(s.N / 128, s.N / 128, splits, 0);
}

// The triple: z in as many splits as K allows while its blocks stay within
// 256; the one-tile bf16 arm by arm 0's format, 8 beside Q3_K, 2 beside Q8_0,
// else 4, as far as K and the bf16 floor allow.
constexpr FusedLayout triple_layout(int32_t g, int f0) {
  const KN q = linear_in_proj_qkv_kquant_shape(g), z = linear_in_proj_z_kquant_shape(g);
  const int64_t t1 = z.N / 128;
  int s1 = max_splits(q.K);
  while (s1 > 1 && t1 * s1 > 256) s1 /= 2;
  return fused_layout(q.N / 128, t1, s1, bf16_arm_splits(q.K, f0 == kq::Q3_K ? 8 : f0 == kq::Q8_0 ? 2 : 4));
}

}  // namespace quillon::proj
