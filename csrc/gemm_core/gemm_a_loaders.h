// Element sources of activation shuffles that compute their values on the way:
// the sigmoid gate of the attention output and the SwiGLU of a gate-up row. The
// same loaders feed the row-major kernels of the decode paths, so both layouts
// hold the same bits.
#pragma once
#include <stdint.h>

#include "../platform/device.h"
#include "../platform/numerics.h"

namespace quillon::gemm_core {

QDEV float bf16_lo(uint32_t w) { return dev::u2f(w << 16); }
QDEV float bf16_hi(uint32_t w) { return dev::u2f(w & 0xffff0000u); }

// sigmoid(g) * a, rounded like the GEMM epilogue.
QDEV uint32_t gate_one(float a, float g) {
  const float s = 1.0f / (1.0f + dev::exp2(-1.44269502f * g));
  return num::bf16_rne_quiet(s * a);
}
// silu(g) * u.
QDEV uint32_t swiglu_one(float g, float u) {
  const float e = dev::exp2(-1.44269502f * g);
  const float s = g / (1.0f + e);
  return num::bf16_rne_quiet(s * u);
}

// Eight bf16 from two chunks through f, packed back into one chunk.
template <class F>
QDEV dev::u32x4 pairwise8(dev::u32x4 x, dev::u32x4 y, F f) {
  dev::u32x4 r;
  for (int j = 0; j < 4; ++j) r[j] = f(bf16_lo(x[j]), bf16_lo(y[j])) | (f(bf16_hi(x[j]), bf16_hi(y[j])) << 16);
  return r;
}

// Gated attention output of geometry G: element (row, c) is attn[row, c]
// (row stride heads * 256) times the sigmoid of the gate half of head c / 256's
// 512-column query-and-gate group. Chunks never cross a head. The gate rows
// are read 16 bytes at a time: gate and its stride keep 16-byte alignment, as
// the fused QKV output does.
template <class G>
struct ScaledALoader {
  using Chunk = dev::u32x4;
  static constexpr int64_t K = G::num_q_heads * G::head_dim;
  const uint16_t* attn;
  const uint16_t* gate;
  int64_t gate_stride;  // elements
  QDEV Chunk load(uint32_t row, uint32_t col) const {
    const dev::u32x4 a = *reinterpret_cast<const dev::u32x4*>(attn + (uint64_t)row * K + col);
    const uint16_t* g = gate + (int64_t)row * gate_stride + (col / 256) * 512 + 256 + col % 256;
    return pairwise8(a, *reinterpret_cast<const dev::u32x4*>(g), gate_one);
  }
};

// The gate and up halves of a gate-up result, for the SwiGLU of the dense MLP.
struct GateUp {
  const uint16_t* gate;
  const uint16_t* up;
  int64_t stride;  // elements, both halves
};
struct SwigluALoader : GateUp {
  using Chunk = dev::u32x4;
  QDEV Chunk load(uint32_t row, uint32_t col) const {
    const int64_t o = (int64_t)row * stride + col;
    return pairwise8(*reinterpret_cast<const dev::u32x4*>(gate + o), *reinterpret_cast<const dev::u32x4*>(up + o),
                     swiglu_one);
  }
};

}  // namespace quillon::gemm_core
