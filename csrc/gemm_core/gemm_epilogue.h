// How an accumulator reaches memory. An epilogue stores one fp32 value of C at
// (row, col); kRowGuard says whether rows at or past M are skipped.
#pragma once
#include <stdint.h>

#include "../platform/device.h"
#include "../platform/numerics.h"
#include "gemm_shuffle.h"

namespace quillon::gemm_core {

// The bf16 output element.
using bf16 = num::bf16;

// Output rounding: fp32 stays as it is; bf16 rounds to nearest even, a NaN
// staying a quiet NaN.
QDEV void store_out(float* p, float v) { *p = v; }
QDEV void store_out(bf16* p, float v) { p->bits = num::bf16_rne_quiet(v); }

// Row-major C of T with row stride N.
template <class T>
struct EpilogueRowMajor {
  using Out = T;
  static constexpr bool kRowGuard = true;
  template <class P>
  static QDEV void store(const P& p, int64_t row, int64_t col, float v) {
    store_out(static_cast<T*>(p.C) + row * p.N + col, v);
  }
};

// bf16 into a row-block-major blk32 activation buffer of dst_blocks * 32
// columns, at column dst_col + col. Pad rows are written too, so the result is
// a complete A operand for a later product.
struct EpilogueBlk32 {
  using Out = bf16;
  static constexpr bool kRowGuard = false;
  template <class P>
  static QDEV void store(const P& p, int64_t row, int64_t col, float v) {
    const int64_t off = blk32_a_offset(row, p.dst_col + col, p.dst_blocks * 32);
    *reinterpret_cast<uint16_t*>(static_cast<unsigned char*>(p.C) + off) = num::bf16_rne_quiet(v);
  }
};

// Split partials: fp32, unrounded, at ws[(s * M + row) * N + col].
QDEV void store_partial(float* ws, int64_t M, int64_t N, int64_t s, int64_t row, int64_t col, float v) {
  ws[(s * M + row) * N + col] = v;
}

}  // namespace quillon::gemm_core
