// Plain CPU reference of the attention output gate and the SwiGLU of the dense
// MLP, from their arithmetic: fp32, a full division, bf16 rounding as the GEMM
// epilogue rounds. exp2 is the device's own on the exact argument (hw_math.h),
// passed in so that a whole matrix asks the device once.
#pragma once
#include <cstdint>
#include <vector>

#include "gemm_ref.h"
#include "ref_bits.h"

namespace ref {

inline float exp2_arg(uint16_t g) { return -1.44269502f * widen(g); }

// sigmoid(g) * a, with e = exp2(exp2_arg(g)).
inline uint16_t gated(uint16_t a, float e) { return bf16_out(1.0f / (1.0f + e) * widen(a)); }
// silu(g) * u, with e = exp2(exp2_arg(g)).
inline uint16_t swiglu(uint16_t g, uint16_t u, float e) { return bf16_out(widen(g) / (1.0f + e) * widen(u)); }

// The gate element of attention column c: the second half of head c / 256's
// 512-column query-and-gate group.
inline int64_t gate_col(int64_t c) { return (c / 256) * 512 + 256 + c % 256; }

}  // namespace ref
