// K-quant weight operands: the quant and meta planes, the shuffle that makes
// them from GGUF rows, the exact dequantisation of every format, the fp8 byte
// decode, and the B-operand descriptors that matrix Configs name.
//
// Planes. The quant plane holds codes only, in tiles of 32 rows by one 32-weight
// group: row n's codes of group G sit at byte (G * N + n) * 4 * bits, one
// little-endian bit stream in K order, followed by 4 zero bytes after the last
// tile. The meta plane holds scales, in tiles of 32 rows by one super-block:
// tile (s, n / 32) at (s * (N / 32) + n / 32) * meta tile bytes, row r's 16
// bytes at r * 16 and, for formats that have one, its tail at 512 + r * width.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

#include "../platform/device.h"
#include "../platform/fatal.h"
#include "../platform/launch.h"
#include "../platform/numerics.h"
#include "gemm_shuffle.h"
#include "quillon/kquant_sets.h"
#include "quillon_gen/gguf_tables.h"

namespace quillon::gemm_core {

// Compile-time facts of one format, all from the kquant_sets table.
template <int F>
struct KQuantFormat {
  static_assert(kq::is_format_id(F), "not a k-quant format id");
  static constexpr kq::FormatInfo info = kq::format_info(F);
  static constexpr int id = F;
  static constexpr int bits = info.bits;
  static constexpr int gguf_bytes = info.gguf_bytes;  // per 256 weights: a super-block's source bytes
  static constexpr int gguf_block = info.gguf_block;  // 32 or 256 weights
  static constexpr int gguf_block_bytes = gguf_bytes * gguf_block / 256;
  static constexpr int quant_row_bytes = 4 * bits;
  static constexpr int quant_tile_bytes = 32 * quant_row_bytes;
  static constexpr int meta_tile_bytes = info.meta_tile_bytes;
  static constexpr int meta_tail_width = (meta_tile_bytes - 512) / 32;  // 0, 2 or 4 bytes
  // Weights that share one (a, b) pair.
  static constexpr int scale_span = (F == kq::Q2_K || F == kq::Q3_K || F == kq::Q6_K) ? 16 : 32;
  static constexpr bool iq4 = F == kq::IQ4_NL || F == kq::IQ4_XS;
};

// ---- Plane addresses ---------------------------------------------------------------
template <int F>
QHD int64_t kq_quant_row_offset(int64_t N, int64_t n, int64_t group) {
  return (group * N + n) * KQuantFormat<F>::quant_row_bytes;
}
template <int F>
QHD int64_t kq_meta_tile_offset(int64_t N, int64_t n, int64_t sb) {
  return (sb * (N / 32) + n / 32) * KQuantFormat<F>::meta_tile_bytes;
}

// ---- Byte access to GGUF blocks ----------------------------------------------------
// GGUF blocks start only 2-byte aligned (1 for some formats), so words are read
// as two halves.
QDEV uint32_t ld_u8(const uint8_t* p) { return *p; }
QDEV uint32_t ld_u16(const uint8_t* p) { return *reinterpret_cast<const uint16_t*>(p); }
QDEV uint32_t ld_u32_h(const uint8_t* p) { return ld_u16(p) | (ld_u16(p + 2) << 16); }

// A plane row is 2 to 8 words, only 4-byte aligned at 3 and 5 bits: each is
// stored whole, as the widest stores its alignment allows.
typedef uint32_t u32x4_a4 __attribute__((ext_vector_type(4), aligned(4)));

template <int W>
QDEV void store_words(uint32_t* p, const uint32_t (&v)[W]) {
  if constexpr (W == 2) {
    *reinterpret_cast<dev::u32x2*>(p) = dev::u32x2{v[0], v[1]};
  } else if constexpr (W == 3) {
    // Not a 3-vector type: clang stores those as four words, clobbering the next row.
    struct alignas(4) Row3 {
      uint32_t a, b, c;
    };
    *reinterpret_cast<Row3*>(p) = Row3{v[0], v[1], v[2]};
  } else if constexpr (W == 4) {
    *reinterpret_cast<dev::u32x4*>(p) = dev::u32x4{v[0], v[1], v[2], v[3]};
  } else if constexpr (W == 5) {
    *reinterpret_cast<u32x4_a4*>(p) = u32x4_a4{v[0], v[1], v[2], v[3]};
    p[4] = v[4];
  } else if constexpr (W == 6) {
    *reinterpret_cast<u32x4_a4*>(p) = u32x4_a4{v[0], v[1], v[2], v[3]};
    *reinterpret_cast<dev::u32x2*>(p + 4) = dev::u32x2{v[4], v[5]};
  } else {
    static_assert(W == 8, "row widths are 2 to 8 words");
    *reinterpret_cast<dev::u32x4*>(p) = dev::u32x4{v[0], v[1], v[2], v[3]};
    *reinterpret_cast<dev::u32x4*>(p + 4) = dev::u32x4{v[4], v[5], v[6], v[7]};
  }
}

// ---- Shuffle: GGUF super-block to plane entries ------------------------------------
// The 32 codes of group g of a super-block (g is the 34- or 18-byte block for
// Q8_0 and IQ4_NL), one per byte: code 4i + j in byte j of c[i].
template <int F>
QDEV void kq_group_codes(const uint8_t* blk, int g, uint32_t (&c)[8]) {
#pragma unroll
  for (int i = 0; i < 8; ++i) {
    if constexpr (F == kq::Q2_K) {
      c[i] = (ld_u32_h(blk + 16 + (g / 4) * 32 + 4 * i) >> (2 * (g % 4))) & 0x03030303u;
    } else if constexpr (F == kq::Q3_K) {
      const uint32_t lo = (ld_u32_h(blk + 32 + (g / 4) * 32 + 4 * i) >> (2 * (g % 4))) & 0x03030303u;
      const uint32_t hi = (ld_u32_h(blk + 4 * i) >> g) & 0x01010101u;
      c[i] = lo | (hi << 2);
    } else if constexpr (F == kq::Q4_K) {
      c[i] = (ld_u32_h(blk + 16 + (g / 2) * 32 + 4 * i) >> (4 * (g % 2))) & 0x0f0f0f0fu;
    } else if constexpr (F == kq::Q5_K) {
      const uint32_t lo = (ld_u32_h(blk + 48 + (g / 2) * 32 + 4 * i) >> (4 * (g % 2))) & 0x0f0f0f0fu;
      const uint32_t hi = (ld_u32_h(blk + 16 + 4 * i) >> g) & 0x01010101u;
      c[i] = lo | (hi << 4);
    } else if constexpr (F == kq::Q6_K) {
      const int h = g / 4, q = g % 4;
      const uint32_t lo = (ld_u32_h(blk + 64 * h + 32 * (q % 2) + 4 * i) >> (4 * (q / 2))) & 0x0f0f0f0fu;
      const uint32_t hi = (ld_u32_h(blk + 128 + 32 * h + 4 * i) >> (2 * q)) & 0x03030303u;
      c[i] = lo | (hi << 4);
    } else if constexpr (F == kq::Q8_0) {
      c[i] = ld_u32_h(blk + 34 * g + 2 + 4 * i) ^ 0x80808080u;
    } else {
      // Nibbles, weights 0..15 low and 16..31 high of the same 16 bytes.
      const uint8_t* qs = F == kq::IQ4_NL ? blk + 18 * g + 2 : blk + 8 + 16 * g;
      c[i] = (ld_u32_h(qs + 4 * (i % 4)) >> (i < 4 ? 0 : 4)) & 0x0f0f0f0fu;
    }
  }
}

// 32 codes of BITS bits as one little-endian bit stream.
template <int BITS>
QDEV void kq_pack_codes(const uint32_t (&c)[8], uint32_t (&out)[BITS]) {
  for (int w = 0; w < BITS; ++w) out[w] = 0;
#pragma unroll
  for (int k = 0; k < 32; ++k) {
    const uint32_t v = (c[k / 4] >> (8 * (k % 4))) & 0xffu;
    const int pos = k * BITS;
    out[pos / 32] |= v << (pos % 32);
    if (pos % 32 + BITS > 32) out[pos / 32 + 1] |= v >> (32 - pos % 32);
  }
}

// Row r's meta entry of one super-block: the 16 bytes and, where the format
// has one, the tail. `groups` < 8 only for the ragged last super-block of
// Q8_0 and IQ4_NL, whose entries past K stay unwritten.
template <int F>
QDEV void kq_write_meta(const uint8_t* blk, uint8_t* tile, int r, int groups) {
  using Fmt = KQuantFormat<F>;
  uint32_t m[4];
  if constexpr (F == kq::Q2_K) {
    for (int i = 0; i < 4; ++i) m[i] = ld_u32_h(blk + 4 * i);
  } else if constexpr (F == kq::Q3_K) {
    // The 16 six-bit scales unpacked, each minus 32 as a signed byte.
    const uint32_t w0 = ld_u32_h(blk + 96), w1 = ld_u32_h(blk + 100), w2 = ld_u32_h(blk + 104);
    m[0] = (w0 & 0x0f0f0f0fu) | (((w2 >> 0) & 0x03030303u) << 4);
    m[1] = (w1 & 0x0f0f0f0fu) | (((w2 >> 2) & 0x03030303u) << 4);
    m[2] = ((w0 >> 4) & 0x0f0f0f0fu) | (((w2 >> 4) & 0x03030303u) << 4);
    m[3] = ((w1 >> 4) & 0x0f0f0f0fu) | (((w2 >> 6) & 0x03030303u) << 4);
    for (int i = 0; i < 4; ++i) m[i] = ((m[i] | 0x80808080u) - 0x20202020u) ^ 0x80808080u;  // bytewise - 32
  } else if constexpr (F == kq::Q4_K || F == kq::Q5_K) {
    // (scale, min) of group g at bytes 2g, 2g + 1.
    uint32_t c[12];
#pragma unroll
    for (int i = 0; i < 12; ++i) c[i] = ld_u8(blk + 4 + i);
    uint32_t sm[16];
#pragma unroll
    for (int g = 0; g < 8; ++g) {
      if (g < 4) {
        sm[2 * g] = c[g] & 63u;
        sm[2 * g + 1] = c[g + 4] & 63u;
      } else {
        sm[2 * g] = (c[g + 4] & 15u) | ((c[g - 4] >> 6) << 4);
        sm[2 * g + 1] = (c[g + 4] >> 4) | ((c[g] >> 6) << 4);
      }
    }
    for (int i = 0; i < 4; ++i)
      m[i] = sm[4 * i] | (sm[4 * i + 1] << 8) | (sm[4 * i + 2] << 16) | (sm[4 * i + 3] << 24);
  } else if constexpr (F == kq::Q6_K) {
    for (int i = 0; i < 4; ++i) m[i] = ld_u32_h(blk + 192 + 4 * i);
  } else if constexpr (F == kq::Q8_0 || F == kq::IQ4_NL) {
    constexpr int kBlock = Fmt::gguf_block_bytes;
    if (groups < 8) {
      uint16_t* row = reinterpret_cast<uint16_t*>(tile + r * 16);
      for (int g = 0; g < groups; ++g) row[g] = (uint16_t)ld_u16(blk + kBlock * g);
      return;
    }
    for (int i = 0; i < 4; ++i) m[i] = ld_u16(blk + kBlock * 2 * i) | (ld_u16(blk + kBlock * (2 * i + 1)) << 16);
  } else {
    // IQ4_XS: ls - 32 as signed 16-bit, ls from scales_l (low 4) and scales_h (high 2).
    const uint32_t sh = ld_u16(blk + 2), sl = ld_u32_h(blk + 4);
    uint32_t v[8];
    for (int b = 0; b < 8; ++b) {
      const uint32_t ls = ((sl >> (4 * b)) & 15u) | (((sh >> (2 * b)) & 3u) << 4);
      v[b] = (ls - 32u) & 0xffffu;
    }
    for (int i = 0; i < 4; ++i) m[i] = v[2 * i] | (v[2 * i + 1] << 16);
  }
  *reinterpret_cast<dev::u32x4*>(tile + r * 16) = dev::u32x4{m[0], m[1], m[2], m[3]};
  if constexpr (F == kq::Q2_K) {
    *reinterpret_cast<uint32_t*>(tile + 512 + r * 4) = ld_u32_h(blk + 80);  // d, dmin
  } else if constexpr (F == kq::Q4_K || F == kq::Q5_K) {
    *reinterpret_cast<uint32_t*>(tile + 512 + r * 4) = ld_u32_h(blk);  // d, dmin
  } else if constexpr (F == kq::Q3_K) {
    *reinterpret_cast<uint16_t*>(tile + 512 + r * 2) = (uint16_t)ld_u16(blk + 108);
  } else if constexpr (F == kq::Q6_K) {
    *reinterpret_cast<uint16_t*>(tile + 512 + r * 2) = (uint16_t)ld_u16(blk + 208);
  } else if constexpr (F == kq::IQ4_XS) {
    *reinterpret_cast<uint16_t*>(tile + 512 + r * 2) = (uint16_t)ld_u16(blk);
  }
}

// Where a shuffle reads its rows. Any source type gives row(z, n), the first
// byte of row n of matrix z, and block_bytes, the bytes of one super-block.
// KQuantDenseSrc is one tensor (or several back to back, `matrix_bytes` apart).
struct KQuantDenseSrc {
  const uint8_t* base;
  int64_t row_bytes;     // K * B / 256
  int64_t matrix_bytes;  // 0 for one matrix
  int64_t block_bytes;   // B, the GGUF bytes of 256 weights
  QDEV const uint8_t* row(int64_t z, int64_t n) const { return base + z * matrix_bytes + n * row_bytes; }
};

// Gate-up rows of the MoE, interleaved: row 2i is gate row i, row 2i + 1 up
// row i. Split: two tensors of I rows per expert. Fused: one tensor per
// expert, its I gate rows first.
struct KQuantGateUpSplitSrc {
  const uint8_t* gate;
  const uint8_t* up;
  int64_t row_bytes;
  int64_t expert_bytes;  // row bytes times I
  int64_t block_bytes;
  QDEV const uint8_t* row(int64_t z, int64_t n) const {
    return (n % 2 ? up : gate) + z * expert_bytes + (n / 2) * row_bytes;
  }
};
struct KQuantGateUpFusedSrc {
  const uint8_t* base;
  int64_t row_bytes;
  int64_t expert_bytes;  // row bytes times 2I
  int64_t block_bytes;
  int64_t I;
  QDEV const uint8_t* row(int64_t z, int64_t n) const {
    return base + z * expert_bytes + (n / 2 + (n % 2) * I) * row_bytes;
  }
};

// One thread per (row n, super-block s); blockIdx.y is the matrix.
template <int F, class SRC>
__global__ __launch_bounds__(256) void kquant_shuffle_kernel(SRC src, uint32_t* quant, uint8_t* meta, int64_t N,
                                                            int64_t SB, int64_t quant_rb_stride,
                                                            int64_t meta_rb_stride, int64_t quant_words,
                                                            int64_t meta_bytes, int64_t K) {
  using Fmt = KQuantFormat<F>;
  constexpr int kBits = Fmt::bits;
  const int64_t g = (int64_t)blockIdx.x * 256 + threadIdx.x;
  if (g >= N * SB) return;
  const int64_t z = blockIdx.y;
  const int64_t n = g / SB, s = g % SB;
  const int r = (int)(n % 32);
  const uint8_t* blk = src.row(z, n) + s * src.block_bytes;
  const int64_t left = (K - 256 * s) / 32;
  const int groups = left < 8 ? (int)left : 8;

  uint8_t* tile = meta + z * meta_bytes + (s * meta_rb_stride + n / 32) * Fmt::meta_tile_bytes;
  kq_write_meta<F>(blk, tile, r, groups);

  uint32_t* qz = quant + z * quant_words;
  auto put_group = [&](int gi) {
    uint32_t c[8], w[kBits];
    kq_group_codes<F>(blk, gi, c);
    kq_pack_codes<kBits>(c, w);
    store_words<kBits>(qz + ((s * 8 + gi) * quant_rb_stride + n / 32) * (32 * kBits) + r * kBits, w);
  };
  if constexpr (Fmt::gguf_block == 256) {
#pragma unroll
    for (int gi = 0; gi < 8; ++gi) put_group(gi);
  } else {
    for (int gi = 0; gi < groups; ++gi) put_group(gi);
  }
}

// Launch over `matrices` tensors of N x K from `src`; the host has checked the
// shape. Clears the 4 bytes past the last matrix's quant plane.
template <int F, class SRC>
inline void launch_kquant_shuffle(SRC src, void* quant, void* meta, int64_t N, int64_t K, int64_t matrices,
                                  hipStream_t s) {
  using Fmt = KQuantFormat<F>;
  const int64_t SB = (K + 255) / 256;
  const int64_t quant_words = N * K * Fmt::bits / 32;
  const int64_t meta_bytes = N / 32 * SB * Fmt::meta_tile_bytes;
  const int64_t threads = N * SB;
  if (threads > 0 && matrices > 0)
    launch(&kquant_shuffle_kernel<F, SRC>, dim3((unsigned)((threads + 255) / 256), (unsigned)matrices), dim3(256), 0,
           s, src, static_cast<uint32_t*>(quant), static_cast<uint8_t*>(meta), N, SB, N / 32, N / 32, quant_words,
           meta_bytes, K);
  QUILLON_HIP_CHECK(hipMemsetAsync(static_cast<uint32_t*>(quant) + matrices * quant_words, 0, 4, s));
}

// The shape every k-quant shuffle needs: 32-row blocks, K in 32-weight groups,
// and whole super-blocks but for the two formats whose GGUF block is 32.
inline void check_kquant_shape(const char* file, int line, int32_t id, int64_t N, int64_t K) {
  const bool block32 = id == kq::Q8_0 || id == kq::IQ4_NL;
  if (N % 32 != 0 || K % 32 != 0 || (!block32 && K % 256 != 0))
    fatal_at(file, line,
             "k-quant shuffle needs [%lld, %lld] to divide into 32-column blocks, and K into 256-weight "
             "super-blocks at every format but the two whose GGUF block is 32",
             (long long)N, (long long)K);
}

// ---- Dequantisation ----------------------------------------------------------------
// Every format expands to bf16 the same way: a = f32(d) * f32(scale), b the
// offset term, w = fma(level, a, b) in fp32, and the bf16 is the top half of
// bits(w) + 0x8000. The level is the code, or the IQ4 table entry of the code.
struct KqAffine {
  float a, b;
};

// (a, b) of weight kk (0..255) of a super-block, from row r's entry of `tile`.
template <int F>
QDEV KqAffine kq_affine(const uint8_t* tile, int r, int kk) {
  const uint8_t* e = tile + r * 16;
  if constexpr (F == kq::Q2_K || F == kq::Q4_K || F == kq::Q5_K) {
    uint32_t sc, mn;
    if constexpr (F == kq::Q2_K) {
      const uint32_t x = e[kk / 16];
      sc = x & 15u;
      mn = x >> 4;
    } else {
      sc = e[2 * (kk / 32)];
      mn = e[2 * (kk / 32) + 1];
    }
    const uint32_t dd = *reinterpret_cast<const uint32_t*>(tile + 512 + r * 4);
    const float a = num::f16_to_float((uint16_t)dd) * (float)sc;
    const float b = -num::f16_to_float((uint16_t)(dd >> 16)) * (float)mn;
    return {a, b};
  } else if constexpr (F == kq::Q3_K || F == kq::Q6_K) {
    const int sc = (int8_t)e[kk / 16];
    const float a = num::f16_to_float(*reinterpret_cast<const uint16_t*>(tile + 512 + r * 2)) * (float)sc;
    return {a, (F == kq::Q3_K ? -4.0f : -32.0f) * a};
  } else if constexpr (F == kq::Q8_0) {
    const float a = num::f16_to_float(reinterpret_cast<const uint16_t*>(e)[kk / 32]);
    return {a, -128.0f * a};
  } else if constexpr (F == kq::IQ4_NL) {
    return {num::f16_to_float(reinterpret_cast<const uint16_t*>(e)[kk / 32]), 0.0f};
  } else {
    const int sc = (int16_t)reinterpret_cast<const uint16_t*>(e)[kk / 32];
    return {num::f16_to_float(*reinterpret_cast<const uint16_t*>(tile + 512 + r * 2)) * (float)sc, 0.0f};
  }
}

// The IQ4 level of a 4-bit code, by byte permutes over the 16-byte table.
QDEV float iq4_level(uint32_t code) {
  using kquant_tables::kIq4Words;
  const uint32_t sel = code & 7u;
  const uint32_t lo = dev::perm(kIq4Words[1], kIq4Words[0], sel);
  const uint32_t hi = dev::perm(kIq4Words[3], kIq4Words[2], sel);
  return (float)(int8_t)((code & 8u) ? hi : lo);
}

template <int F>
QDEV float kq_level(uint32_t code) {
  if constexpr (KQuantFormat<F>::iq4) return iq4_level(code);
  else return (float)code;
}

template <int F>
QDEV uint16_t kq_weight(uint32_t code, KqAffine ab) {
  return num::bf16_round_dequant(__builtin_fmaf(kq_level<F>(code), ab.a, ab.b));
}

// Codes c0 .. c0 + 7 (c0 a multiple of 8) of one quant row, code i at bits
// i * bits of the result. The 64-bit window may run past the row (and, at the
// plane's last row, into the 4 zero bytes).
template <int F>
QDEV uint64_t kq_codes8(const uint8_t* row, int c0) {
  constexpr int kBits = KQuantFormat<F>::bits;
  const uint32_t* w = reinterpret_cast<const uint32_t*>(row) + (c0 * kBits) / 32;
  const uint64_t x = (uint64_t)w[0] | ((uint64_t)w[1] << 32);
  return x >> ((c0 * kBits) % 32);
}

// The pair of one k-quant weight operand: quant and meta planes.
struct alignas(16) KQuantPlanes {
  const uint32_t* quant;
  const uint8_t* meta;
};
static_assert(sizeof(KQuantPlanes) == 16, "a k-quant operand travels as one 16-byte pair");

// Weights k .. k + 7 (k a multiple of 8) of row n of an N-row k-quant tensor,
// as eight bf16 packed low first.
template <int F>
QDEV dev::u32x4 kq_dequant8(KQuantPlanes p, int64_t N, int64_t n, int64_t k) {
  constexpr int kBits = KQuantFormat<F>::bits;
  const uint8_t* row = reinterpret_cast<const uint8_t*>(p.quant) + kq_quant_row_offset<F>(N, n, k / 32);
  const uint64_t codes = kq_codes8<F>(row, (int)(k % 32));
  const KqAffine ab = kq_affine<F>(p.meta + kq_meta_tile_offset<F>(N, n, k / 256), (int)(n % 32), (int)(k % 256));
  constexpr uint32_t kMask = (1u << kBits) - 1u;
  dev::u32x4 out;
  for (int i = 0; i < 4; ++i) {
    const uint32_t lo = kq_weight<F>((uint32_t)(codes >> (2 * i * kBits)) & kMask, ab);
    const uint32_t hi = kq_weight<F>((uint32_t)(codes >> ((2 * i + 1) * kBits)) & kMask, ab);
    out[i] = lo | (hi << 16);
  }
  return out;
}

// ---- fp8 ---------------------------------------------------------------------------
// Eight e4m3 bytes to eight bf16, low first.
QDEV dev::u32x4 fp8x8_to_bf16x8(dev::u32x2 b) {
  dev::u32x4 out;
  for (int i = 0; i < 4; ++i) {
    const uint32_t w = b[i / 2] >> (16 * (i % 2));
    out[i] = (uint32_t)num::fp8_e4m3_to_bf16(w & 0xffu) | ((uint32_t)num::fp8_e4m3_to_bf16((w >> 8) & 0xffu) << 16);
  }
  return out;
}
// The same with a block scale folded in: fp32 product, round to nearest even.
QDEV dev::u32x4 fp8x8_scaled_bf16x8(dev::u32x2 b, float s) {
  const dev::u32x4 w = fp8x8_to_bf16x8(b);
  dev::u32x4 out;
  for (int i = 0; i < 4; ++i) {
    const uint32_t lo = num::bf16_rne(num::bf16_to_float((uint16_t)w[i]) * s);
    const uint32_t hi = num::bf16_rne(num::bf16_to_float((uint16_t)(w[i] >> 16)) * s);
    out[i] = lo | (hi << 16);
  }
  return out;
}
// The block-scale table after its shuffle: entry (kb, nb) at kb * (N / 128) + nb.
QHD int64_t fp8_scale_index(int64_t N, int64_t n, int64_t k) { return (k / 128) * (N / 128) + n / 128; }

// ---- B-operand descriptors ---------------------------------------------------------
// A descriptor names how a Config's weight operand is stored: its by-value
// Operand and load8, the eight bf16 weights at (n, k .. k + 7) of an N-row
// operand (k a multiple of 8). Fp8 weights come unscaled; the Config applies
// the block scale.
struct WDenseBf16 {
  using Operand = const uint16_t*;
  static constexpr bool kquant = false;
  static QDEV dev::u32x4 load8(Operand w, int64_t N, int64_t n, int64_t k) {
    return *reinterpret_cast<const dev::u32x4*>(reinterpret_cast<const uint8_t*>(w) + blk32_b_offset(n, k, N));
  }
};

struct Fp8Operand {
  const uint8_t* bytes;    // fp8 blk32
  const uint16_t* scales;  // bf16, one per 128 x 128 block, K-block-major
};
struct WDenseFp8 {
  using Operand = Fp8Operand;
  static constexpr bool kquant = false;
  static QDEV dev::u32x4 load8(Operand w, int64_t N, int64_t n, int64_t k) {
    return fp8x8_to_bf16x8(*reinterpret_cast<const dev::u32x2*>(w.bytes + blk32_fp8_offset(n, k, N)));
  }
  static QDEV float scale(Operand w, int64_t N, int64_t n, int64_t k) {
    return num::bf16_to_float(w.scales[fp8_scale_index(N, n, k)]);
  }
};

template <int F>
struct WDenseKQuant {
  static_assert(kq::DenseProjection::contains(F), "WDenseKQuant is instantiated for the dense-projection set only");
  using Format = KQuantFormat<F>;
  using Operand = KQuantPlanes;
  static constexpr int format = F;
  static constexpr bool kquant = true;
  static constexpr bool shifted = false;
  static QDEV dev::u32x4 load8(Operand w, int64_t N, int64_t n, int64_t k) { return kq_dequant8<F>(w, N, n, k); }
};
// The arm of a pair whose column tiles start at a seam: the Params carry the
// arm's first column tile.
template <int F>
struct WDenseKQuantShifted : WDenseKQuant<F> {
  static constexpr bool shifted = true;
};
// The split arm of a pair: T column tiles.
template <int F, int T>
struct WDenseKQuantPairSplit : WDenseKQuant<F> {
  static constexpr int split_tiles = T;
};
template <int T>
struct WDenseBf16PairSplit : WDenseBf16 {
  static constexpr int split_tiles = T;
};

}  // namespace quillon::gemm_core
