// What the paged decode and prefill kernels share: the base-2 softmax
// constants and matrix operands read as two 16-byte chunks.
#pragma once
#include "../../platform/device.h"

namespace quillon::pattn {

// log2(e), the float with bits 0x3FB8AA3B, folded into the softmax scale.
constexpr float kLog2e = 1.4426950216f;
constexpr float kNegInf = -__builtin_inff();

typedef uint32_t u32x8 __attribute__((ext_vector_type(8)));
QDEV dev::bf16x16 bf16x16_of(dev::u32x4 lo, dev::u32x4 hi) {
  const u32x8 v = __builtin_shufflevector(lo, hi, 0, 1, 2, 3, 4, 5, 6, 7);
  return __builtin_bit_cast(dev::bf16x16, v);
}
QDEV dev::u32x4 ld16(const void* p) { return *reinterpret_cast<const dev::u32x4*>(p); }
// 16 bf16 from two chunks (a swizzled row may not hold them side by side).
QDEV dev::bf16x16 frag(const uint16_t* p, const uint16_t* p8) { return bf16x16_of(ld16(p), ld16(p8)); }
QDEV dev::bf16x16 frag(const uint16_t* p) { return frag(p, p + 8); }

}  // namespace quillon::pattn
