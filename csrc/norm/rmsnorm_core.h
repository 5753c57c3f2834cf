// The numeric core every row norm shares: pair sums, a wave butterfly, one
// value per wave through LDS, and the reciprocal square root with denormal care.
// Also the one-block-per-row kernel, which the geometry norms and the
// argument-selected norms both instantiate.
#pragma once
#include "../platform/device.h"
#include "../platform/numerics.h"

namespace quillon::norm {

// Sum of squares of 8 values: each adjacent pair as one multiply and one fma,
// then the four pair sums in order.
QDEV float pair_sum(const float* v, int i) { return __builtin_fmaf(v[2 * i + 1], v[2 * i + 1], v[2 * i] * v[2 * i]); }
QDEV float pair_sums8(const float v[8]) {
  return ((pair_sum(v, 0) + pair_sum(v, 1)) + pair_sum(v, 2)) + pair_sum(v, 3);
}

// Exchange-and-add by xor masks from LANES/2 down to 1: the whole wave, or
// each group of LANES lanes where one wave holds several rows.
template <int LANES = dev::kWave>
QDEV float wave_butterfly(float s) {
  static_assert(LANES >= 2 && LANES <= dev::kWave && (LANES & (LANES - 1)) == 0, "a power-of-two lane group");
  for (int m = LANES / 2; m >= 1; m >>= 1) s += dev::shfl_xor_f(s, m);
  return s;
}

// Block-wide sum for THREADS threads; every thread gets the total. Called once
// per kernel: its LDS is not fenced for reuse.
template <int THREADS>
QDEV float block_sum(float s) {
  constexpr int kWaves = (THREADS + 31) / 32;
  static_assert(kWaves <= 32, "the first wave holds one value per wave");
  __shared__ float part[32];
  __shared__ float total;
  s = wave_butterfly(s);
  const int w = (int)threadIdx.x / 32, l = (int)threadIdx.x % 32;
  if (l == 0) part[w] = s;
  __syncthreads();
  if (w == 0) {
    float t = l < kWaves ? part[l] : 0.0f;
    t = wave_butterfly(t);
    if (l == 0) total = t;
  }
  __syncthreads();
  return total;
}

QDEV void load8(const uint16_t* p, float v[8]) {
  dev::u32x4 c = *reinterpret_cast<const dev::u32x4*>(p);
  for (int i = 0; i < 4; ++i) {
    v[2 * i] = num::bits_to_float(c[i] << 16);
    v[2 * i + 1] = num::bits_to_float(c[i] & 0xffff0000u);
  }
}
// fp32 input is rounded to bf16 first, so both input types run the same numbers.
QDEV void load8(const float* p, float v[8]) {
  dev::u32x4 a = *reinterpret_cast<const dev::u32x4*>(p);
  dev::u32x4 b = *reinterpret_cast<const dev::u32x4*>(p + 4);
  for (int i = 0; i < 4; ++i) {
    v[i] = num::bf16_to_float(num::bf16_rne(num::bits_to_float(a[i])));
    v[4 + i] = num::bf16_to_float(num::bf16_rne(num::bits_to_float(b[i])));
  }
}
QDEV dev::u32x4 pack_bf16x8(const float v[8]) {
  dev::u32x4 c;
  for (int i = 0; i < 4; ++i)
    c[i] = (uint32_t)num::bf16_rne(v[2 * i]) | ((uint32_t)num::bf16_rne(v[2 * i + 1]) << 16);
  return c;
}
QDEV void store16(void* base, int64_t byte_off, dev::u32x4 v) {
  *reinterpret_cast<dev::u32x4*>(static_cast<uint8_t*>(base) + byte_off) = v;
}
QDEV dev::u32x4 zero16() {
  dev::u32x4 z = {0u, 0u, 0u, 0u};
  return z;
}

// Residual form: the rounded sum is stored back and is what the norm sees.
QDEV void add_residual8(float v[8], uint16_t* rp) {
  float rv[8];
  load8(rp, rv);
  for (int i = 0; i < 8; ++i) v[i] = num::bf16_to_float(num::bf16_rne(rv[i] + v[i]));
  *reinterpret_cast<dev::u32x4*>(rp) = pack_bf16x8(v);
}

// m = sum / H + eps with an exact division by the compile-time H.
template <int H>
QDEV float inv_rms(float sum, float eps) {
  return dev::rsq_care(sum / (float)H + eps);
}

// x * r, then times weight, both in float, no rounding between.
QDEV void scale8(float v[8], float r, const uint16_t* w) {
  if (w) {
    float wv[8];
    load8(w, wv);
    for (int i = 0; i < 8; ++i) v[i] = (v[i] * r) * wv[i];
  } else {
    for (int i = 0; i < 8; ++i) v[i] = v[i] * r;
  }
}

// Byte offset of 16-byte chunk c (columns 8c..8c+7) of row r in a row-block-major
// blk32 panel whose rows hold `chunks` chunks.
QDEV int64_t blk32_chunk_offset(int64_t r, int64_t c, int64_t chunks) {
  return ((r / 32) * (chunks / 4) + c / 4) * 2048 + (r % 32) * 64 + (c % 4) * 16;
}

// One block per row, one chunk per thread: the row stays in registers between
// the reduction and the output. With BLK32 the grid covers the padded rows and
// a block past `rows` writes its zero chunk and stops.
template <int H, bool RESIDUAL, int THREADS, bool AFFINE, bool BLK32, class In>
__global__ __launch_bounds__(THREADS) void rmsnorm_kernel(const In* x, uint16_t* residual, const uint16_t* weight,
                                                           uint16_t* out, int64_t x_stride, int64_t rows, float eps) {
  static_assert(H / 8 == THREADS, "one chunk per thread");
  static_assert(!(BLK32 && RESIDUAL), "the blk32 arm has no residual form");
  const int64_t row = blockIdx.x;
  const int c = (int)threadIdx.x;
  if constexpr (BLK32) {
    if (row >= rows) {
      store16(out, blk32_chunk_offset(row, c, H / 8), zero16());
      return;
    }
  }
  float v[8];
  load8(x + row * x_stride + c * 8, v);
  if constexpr (RESIDUAL) add_residual8(v, residual + row * H + c * 8);
  const float sum = block_sum<THREADS>(pair_sums8(v));
  const float r = inv_rms<H>(sum, eps);
  scale8(v, r, AFFINE ? weight + c * 8 : nullptr);
  if constexpr (BLK32) store16(out, blk32_chunk_offset(row, c, H / 8), pack_bf16x8(v));
  else store16(out, (row * H + c * 8) * 2, pack_bf16x8(v));
}

}  // namespace quillon::norm
