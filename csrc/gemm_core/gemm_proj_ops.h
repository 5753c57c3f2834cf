// What the operators built on named projections share: their weight shuffle
// at a fixed shape, and the operand of each weight form.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

#include "../gemm/kquant_shuffle.h"
#include "quillon_gen/proj_named_ops.h"

namespace quillon::proj {

// form 0 bf16 rows, 1 fp8 rows (into blk32), 2 a GGUF tensor (into planes;
// the format is checked as by the general GEMM's shuffle).
inline void shuffle_weight(int form, int32_t format, KN kn, const void* src, void* dst, void* meta, hipStream_t s) {
  if (form == 0) shuffle_b_blk32(src, kn.K, dst, kn.N, kn.K, s);
  else if (form == 1) shuffle_b_blk32_fp8(src, kn.K, dst, kn.N, kn.K, s);
  else gemm_kquant_shuffle_b(format, src, dst, meta, kn.N, kn.K, s);
}

inline const uint16_t* bf16_w(const void* w) { return static_cast<const uint16_t*>(w); }
inline gemm_core::Fp8Operand fp8_w(const void* w, const void* scale) {
  return {static_cast<const uint8_t*>(w), static_cast<const uint16_t*>(scale)};
}
inline FormKQuant::Weight kquant_w(int32_t format, const void* quant, const void* meta) {
  return {format, {static_cast<const uint32_t*>(quant), static_cast<const uint8_t*>(meta)}};
}

}  // namespace quillon::proj
