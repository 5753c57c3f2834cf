// Low-bit expert weights: IQ2_XXS, IQ3_XXS, IQ2_S and MXFP4. Their shuffles
// write K-block-major planes (entry [kb][row] at (kb * stride + row) * width),
// and their weights come from grids and sign masks kept on the device as bf16,
// so a group of eight weights costs two table rows and eight multiplies.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

#include "../platform/device.h"
#include "../platform/fatal.h"
#include "../platform/launch.h"
#include "../platform/numerics.h"
#include "gemm_w_kquant.h"
#include "quillon/dispatch.h"
#include "quillon_gen/gguf_tables.h"

namespace quillon::iquant {

// The expert quant format, a separate small id.
enum IQuant : int { IQ2_XXS = 0, IQ3_XXS = 1, MXFP4 = 2, IQ2_S = 3 };
using ExpertFormats = ValueList<0, 1, 2, 3>;

// Plane entry widths in bytes: p0 codes, p1 signs and scales (MXFP4: the
// exponent), p2 the super-block's d (none for MXFP4).
constexpr int lowbit_width(int q, int plane) {
  switch (plane) {
    case 0: return q == IQ2_XXS ? 4 : q == MXFP4 ? 16 : 8;
    case 1: return q == MXFP4 ? 1 : 4;
    default: return q == MXFP4 ? 0 : 2;
  }
}
// Source block and plane entry widths of one format.
template <int Q>
struct LowBitFormat {
  static_assert(Q >= 0 && Q <= 3, "expert quant formats are 0..3");
  static constexpr int block_weights = Q == MXFP4 ? 32 : 256;
  static constexpr int block_bytes = Q == IQ2_XXS ? 66 : Q == IQ3_XXS ? 98 : Q == MXFP4 ? 17 : 82;
  static constexpr int p0_width = lowbit_width(Q, 0), p1_width = lowbit_width(Q, 1), p2_width = lowbit_width(Q, 2);
};
// Plane bytes at a stride in rows: p0 and p1 one entry per 32 weights, p2 one
// per 256 (K / 256 rounds down, as the callers' sizing does).
constexpr int64_t lowbit_plane_bytes(int q, int plane, int64_t stride, int64_t K) {
  return stride * lowbit_width(q, plane) * (plane == 2 ? K / 256 : K / 32);
}

// ---- Host checks --------------------------------------------------------------------
inline void check_expert_format(const char* file, int line, int32_t q) {
  if (!ExpertFormats::contains(q))
    fatal_at(file, line, "expert quant format must be 0 (IQ2_XXS), 1 (IQ3_XXS), 2 (MXFP4) or 3 (IQ2_S), got %d", q);
}
// Runtime expert format to compile-time: f(Value<q>{}).
template <class F>
inline decltype(auto) on_expert_format(const char* file, int line, int32_t q, F&& f) {
  check_expert_format(file, line, q);
  return dispatch_value<ExpertFormats>(file, line, q, f);
}
inline void check_lowbit_k(const char* file, int line, int32_t q, int64_t K) {
  if (q == MXFP4) {
    if (K % 32 != 0) fatal_at(file, line, "an MXFP4 shuffle needs K=%lld to divide into 32-weight blocks", (long long)K);
  } else if (K % 256 != 0) {
    fatal_at(file, line, "an i-quant shuffle needs K=%lld to divide into 256-weight super-blocks", (long long)K);
  }
}
// Planes read through a buffer descriptor have 32-bit byte offsets.
inline void check_lowbit_plane_addressable(const char* file, int line, int64_t bytes, int64_t K, int64_t stride) {
  if (bytes >= (int64_t(1) << 31))
    fatal_at(file, line,
             "i-quant plane is %lld bytes at K=%lld, stride=%lld -- past the 2 GiB a buffer descriptor's 32-bit "
             "offsets can address",
             (long long)bytes, (long long)K, (long long)stride);
}

// ---- Shuffles ------------------------------------------------------------------------
using gemm_core::ld_u16;
using gemm_core::ld_u32_h;
using gemm_core::ld_u8;

// One thread per (row r, super-block b) of matrix blockIdx.y; the matrix's rows
// start at global row y * R. Writes the eight 32-weight entries of p0 and p1
// and the super-block's d in p2.
template <int Q, class SRC>
__global__ __launch_bounds__(256) void iquant_shuffle_kernel(SRC src, uint8_t* p0, uint8_t* p1, uint8_t* p2, int64_t R,
                                                            int64_t blocks, int64_t stride) {
  static_assert(Q == IQ2_XXS || Q == IQ3_XXS || Q == IQ2_S, "i-quant formats");
  const int64_t i = (int64_t)blockIdx.x * 256 + threadIdx.x;
  if (i >= R * blocks) return;
  const int64_t y = blockIdx.y;
  const int64_t r = i / blocks, b = i % blocks;
  const int64_t row = y * R + r;
  const uint8_t* blk = src.row(y, r) + b * src.block_bytes;
  reinterpret_cast<uint16_t*>(p2)[b * stride + row] = (uint16_t)ld_u16(blk);
#pragma unroll
  for (int j = 0; j < 8; ++j) {
    const int64_t e = (b * 8 + j) * stride + row;
    if constexpr (Q == IQ2_XXS) {
      reinterpret_cast<uint32_t*>(p0)[e] = ld_u32_h(blk + 2 + 8 * j);
      reinterpret_cast<uint32_t*>(p1)[e] = ld_u32_h(blk + 6 + 8 * j);
    } else if constexpr (Q == IQ3_XXS) {
      reinterpret_cast<dev::u32x2*>(p0)[e] = dev::u32x2{ld_u32_h(blk + 2 + 8 * j), ld_u32_h(blk + 6 + 8 * j)};
      reinterpret_cast<uint32_t*>(p1)[e] = ld_u32_h(blk + 66 + 4 * j);
    } else {
      // Four 16-bit values: a 10-bit grid index each, and the scale of each
      // 16-weight half in the top nibble of values 0 and 1.
      const uint8_t* qs = blk + 2 + 4 * j;
      const uint32_t qh = ld_u8(blk + 66 + j), sc = ld_u8(blk + 74 + j);
      const uint32_t v0 = ld_u8(qs) | ((qh & 3u) << 8) | ((sc & 0x0fu) << 12);
      const uint32_t v1 = ld_u8(qs + 1) | (((qh >> 2) & 3u) << 8) | ((sc & 0xf0u) << 8);
      const uint32_t v2 = ld_u8(qs + 2) | (((qh >> 4) & 3u) << 8);
      const uint32_t v3 = ld_u8(qs + 3) | (((qh >> 6) & 3u) << 8);
      reinterpret_cast<dev::u32x2*>(p0)[e] = dev::u32x2{v0 | (v1 << 16), v2 | (v3 << 16)};
      reinterpret_cast<uint32_t*>(p1)[e] = ld_u32_h(blk + 34 + 4 * j);
    }
  }
}

// One thread per (row r, 32-weight block b): the codes re-paired so that byte
// t holds weights 2t (low nibble) and 2t + 1, and the exponent byte.
template <class SRC>
__global__ __launch_bounds__(256) void mxfp4_shuffle_kernel(SRC src, uint8_t* p0, uint8_t* p1, int64_t R,
                                                           int64_t blocks, int64_t stride) {
  const int64_t i = (int64_t)blockIdx.x * 256 + threadIdx.x;
  if (i >= R * blocks) return;
  const int64_t y = blockIdx.y;
  const int64_t r = i / blocks, b = i % blocks;
  const int64_t e = b * stride + y * R + r;
  const uint8_t* blk = src.row(y, r) + b * src.block_bytes;
  uint32_t q[16];
#pragma unroll
  for (int t = 0; t < 16; ++t) q[t] = ld_u8(blk + 1 + t);
  uint32_t w[4];
#pragma unroll
  for (int v = 0; v < 4; ++v) {
    w[v] = 0;
#pragma unroll
    for (int j = 0; j < 4; ++j) {
      const int t = 4 * v + j;  // byte t: weights 2t and 2t + 1, from source byte (2t) % 16
      const uint32_t lo = t < 8 ? (q[2 * t] & 15u) : (q[2 * t - 16] >> 4);
      const uint32_t hi = t < 8 ? (q[2 * t + 1] & 15u) : (q[2 * t + 1 - 16] >> 4);
      w[v] |= (lo | (hi << 4)) << (8 * j);
    }
  }
  reinterpret_cast<dev::u32x4*>(p0)[e] = dev::u32x4{w[0], w[1], w[2], w[3]};
  p1[e] = (uint8_t)ld_u8(blk);
}

// The low-bit shuffle of `n` matrices of R rows: check K, clear the planes
// (the rows past n * R read as zero), launch.
template <int Q, class SRC>
inline void launch_lowbit_shuffle(SRC src, void* p0, void* p1, void* p2, int64_t R, int64_t K, int64_t n,
                                  int64_t stride, hipStream_t s) {
  check_lowbit_k(QUILLON_HERE, Q, K);
  const int64_t b0 = lowbit_plane_bytes(Q, 0, stride, K), b1 = lowbit_plane_bytes(Q, 1, stride, K),
                b2 = lowbit_plane_bytes(Q, 2, stride, K);
  if (b0) QUILLON_HIP_CHECK(hipMemsetAsync(p0, 0, (size_t)b0, s));
  if (b1) QUILLON_HIP_CHECK(hipMemsetAsync(p1, 0, (size_t)b1, s));
  if (b2) QUILLON_HIP_CHECK(hipMemsetAsync(p2, 0, (size_t)b2, s));
  const int64_t blocks = K / LowBitFormat<Q>::block_weights;
  const int64_t threads = R * blocks;
  if (threads <= 0 || n <= 0) return;
  const dim3 grid((unsigned)((threads + 255) / 256), (unsigned)n);
  if constexpr (Q == MXFP4)
    launch(&mxfp4_shuffle_kernel<SRC>, grid, dim3(256), 0, s, src, static_cast<uint8_t*>(p0),
           static_cast<uint8_t*>(p1), R, blocks, stride);
  else
    launch(&iquant_shuffle_kernel<Q, SRC>, grid, dim3(256), 0, s, src, static_cast<uint8_t*>(p0),
           static_cast<uint8_t*>(p1), static_cast<uint8_t*>(p2), R, blocks, stride);
}

// ---- Values ----------------------------------------------------------------------------
// Each returns the eight bf16 weights of 8-weight group l (0..3) of one
// 32-weight block, low first. Magnitudes are a * grid in fp32, rounded by
// adding 0x8000; signs are xor masks on the bf16 bits.
QDEV uint32_t scaled_pair(uint32_t grid2, float a) {
  const uint32_t lo = num::bf16_round_dequant(a * num::bf16_to_float((uint16_t)grid2));
  const uint32_t hi = num::bf16_round_dequant(a * num::bf16_to_float((uint16_t)(grid2 >> 16)));
  return lo | (hi << 16);
}

// IQ2_XXS: p0 four grid indices, p1 four 7-bit sign fields and the scale in bits 28..31.
QDEV dev::u32x4 iq2xxs_dequant8(uint32_t p0, uint32_t p1, uint16_t d, int l) {
  const float a = num::f16_to_float(d) * (0.5f + (float)(p1 >> 28)) * 0.25f;
  const dev::u32x4 g = *reinterpret_cast<const dev::u32x4*>(kGridIq2xxs[(p0 >> (8 * l)) & 0xffu]);
  const dev::u32x4 sg = *reinterpret_cast<const dev::u32x4*>(kSignParity[(p1 >> (7 * l)) & 127u]);
  dev::u32x4 out;
  for (int i = 0; i < 4; ++i) out[i] = scaled_pair(g[i], a) ^ sg[i];
  return out;
}

// IQ3_XXS: p0 eight grid bytes (two per group, four weights each), p1 as IQ2_XXS.
QDEV dev::u32x4 iq3xxs_dequant8(dev::u32x2 p0, uint32_t p1, uint16_t d, int l) {
  const float a = num::f16_to_float(d) * (0.5f + (float)(p1 >> 28)) * 0.5f;
  const uint32_t idx = p0[l / 2] >> (16 * (l % 2));
  const dev::u32x2 g0 = *reinterpret_cast<const dev::u32x2*>(kGridIq3xxs[idx & 0xffu]);
  const dev::u32x2 g1 = *reinterpret_cast<const dev::u32x2*>(kGridIq3xxs[(idx >> 8) & 0xffu]);
  const dev::u32x4 sg = *reinterpret_cast<const dev::u32x4*>(kSignParity[(p1 >> (7 * l)) & 127u]);
  return dev::u32x4{scaled_pair(g0[0], a) ^ sg[0], scaled_pair(g0[1], a) ^ sg[1], scaled_pair(g1[0], a) ^ sg[2],
                    scaled_pair(g1[1], a) ^ sg[3]};
}

// IQ2_S: p0 four 16-bit values (grid index in bits 0..9, the halves' scales in
// the top nibble of values 0 and 1), p1 one sign byte per group.
QDEV dev::u32x4 iq2s_dequant8(dev::u32x2 p0, uint32_t p1, uint16_t d, int l) {
  const uint32_t nib = (p0[0] >> (l < 2 ? 12 : 28)) & 15u;
  const float a = num::f16_to_float(d) * (0.5f + (float)nib) * 0.25f;
  const uint32_t v = p0[l / 2] >> (16 * (l % 2));
  const dev::u32x4 g = *reinterpret_cast<const dev::u32x4*>(kGridIq2s[v & 0x3ffu]);
  const dev::u32x4 sg = *reinterpret_cast<const dev::u32x4*>(kSignDirect[(p1 >> (8 * l)) & 0xffu]);
  dev::u32x4 out;
  for (int i = 0; i < 4; ++i) out[i] = scaled_pair(g[i], a) ^ sg[i];
  return out;
}

// MXFP4: p0 sixteen re-paired code bytes, e the exponent byte; the scale is
// 2^(e - 128), and the table values are twice the FP4 values. From e = 2 that
// is the float with bits (e - 1) << 23; e = 0 and 1 are the subnormals
// 2^-128 and 2^-127, not the bits that formula would give.
QDEV dev::u32x4 mxfp4_dequant8(dev::u32x4 p0, uint32_t e, int l) {
  const float scale = num::bits_to_float(e >= 2 ? (e - 1u) << 23 : 0x00200000u << e);
  const uint32_t bytes = p0[l];
  dev::u32x4 out;
  for (int i = 0; i < 4; ++i)
    out[i] = scaled_pair(*reinterpret_cast<const uint32_t*>(mxfp4::kPairs[(bytes >> (8 * i)) & 0xffu]), scale);
  return out;
}

// The three planes of one role.
struct LowBitPlanes {
  const uint8_t* p0;
  const uint8_t* p1;
  const uint8_t* p2;
};

// Weights k .. k + 7 (k a multiple of 8) of global row `row`.
template <int Q>
QDEV dev::u32x4 lowbit_dequant8(LowBitPlanes p, int64_t stride, int64_t row, int64_t k) {
  const int64_t e = (k / 32) * stride + row;
  const int l = (int)((k % 32) / 8);
  if constexpr (Q == MXFP4) {
    return mxfp4_dequant8(reinterpret_cast<const dev::u32x4*>(p.p0)[e], p.p1[e], l);
  } else {
    const uint16_t d = reinterpret_cast<const uint16_t*>(p.p2)[(k / 256) * stride + row];
    const uint32_t w1 = reinterpret_cast<const uint32_t*>(p.p1)[e];
    if constexpr (Q == IQ2_XXS) return iq2xxs_dequant8(reinterpret_cast<const uint32_t*>(p.p0)[e], w1, d, l);
    else if constexpr (Q == IQ3_XXS) return iq3xxs_dequant8(reinterpret_cast<const dev::u32x2*>(p.p0)[e], w1, d, l);
    else return iq2s_dequant8(reinterpret_cast<const dev::u32x2*>(p.p0)[e], w1, d, l);
  }
}

}  // namespace quillon::iquant
