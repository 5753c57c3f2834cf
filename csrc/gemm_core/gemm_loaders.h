// Operand loaders of the GEMM family.
//
// Prefill (LDS-staged) loaders serve thread t of a 512-thread workgroup: it owns
// chunk (row t / 4, columns (t % 4) * 8 .. + 7) of the 128 x 32 B step and the
// same chunk of rows t / 4 and t / 4 + 128 of the 256 x 32 A step. A loader is
// an iterator over K steps: fetch() issues the global loads of the next step
// into a Raw, chunk() turns a Raw into the eight bf16 that are staged, so the
// work of chunk() can sit after the matrix instructions of the previous step.
//
// Decode (register-streamed) loaders serve one lane: one column of B (a row
// of the weight) and one row of A, in units of 32 K values, which is one blk32
// block column and one k-quant group.
#pragma once
#include <stdint.h>

#include <utility>

#include "../platform/device.h"
#include "../platform/numerics.h"
#include "gemm_shuffle.h"
#include "gemm_w_kquant.h"

namespace quillon::gemm_core {

typedef uint32_t u32x8 __attribute__((ext_vector_type(8)));
// Word vectors that only promise 4-byte alignment (quant rows of 12, 20, 24 bytes).
typedef uint32_t u32x2_w __attribute__((ext_vector_type(2), aligned(4)));
typedef uint32_t u32x3_w __attribute__((ext_vector_type(3), aligned(4)));
typedef uint32_t u32x4_w __attribute__((ext_vector_type(4), aligned(4)));

QDEV dev::u32x4 ld16(const unsigned char* p) { return *reinterpret_cast<const dev::u32x4*>(p); }
QDEV void st16(unsigned char* p, dev::u32x4 v) { *reinterpret_cast<dev::u32x4*>(p) = v; }
QDEV uint32_t ld4(const unsigned char* p) { return *reinterpret_cast<const uint32_t*>(p); }
QDEV uint32_t ld2(const unsigned char* p) { return *reinterpret_cast<const uint16_t*>(p); }

// A matrix operand: 16 bf16 of one row (or column) from two 16-byte chunks.
QDEV dev::bf16x16 bf16x16_of(dev::u32x4 lo, dev::u32x4 hi) {
  const u32x8 v = __builtin_shufflevector(lo, hi, 0, 1, 2, 3, 4, 5, 6, 7);
  return __builtin_bit_cast(dev::bf16x16, v);
}

// ---- Prefill LDS ---------------------------------------------------------------------
// Two A buffers of 256 x 32 bf16, then two B buffers of 128 x 32 bf16. Chunk c
// of a 64-byte row r sits at chunk position c ^ ((r / 2) % 4), for stores and
// matrix reads alike.
inline constexpr uint32_t kLdsABytes = 16384;
inline constexpr uint32_t kLdsBBytes = 8192;
inline constexpr uint32_t kPrefillLdsBytes = 2 * kLdsABytes + 2 * kLdsBBytes;
static_assert(kPrefillLdsBytes == 49152, "double-buffered prefill tile");

QDEV uint32_t lds_chunk(uint32_t row, uint32_t chunk) { return row * 64u + ((chunk ^ ((row >> 1) & 3u)) << 4); }

// Stage this thread's B chunk (row t / 4 of the step).
QDEV void stage_b(unsigned char* lds_b, dev::u32x4 v) {
  const uint32_t t = threadIdx.x;
  st16(lds_b + lds_chunk(t >> 2, t & 3u), v);
}

// A: row-block-major blk32 with rows padded to whole 256-row tiles. The 32
// rows of a block row walk K by adding 2048 bytes.
template <class Tile>
struct ABlk32Lds {
  static_assert(Tile::BM == 256 && Tile::BK == 32 && Tile::kThreads == 512, "the prefill tile");
  struct Raw {
    dev::u32x4 lo, hi;
  };
  const unsigned char* p;  // rows t / 4 at the next step
  uint64_t half;           // bytes down to row t / 4 + 128: four block rows
  QDEV ABlk32Lds(const void* A, int64_t K, uint32_t mt, uint32_t step0) {
    const uint32_t t = threadIdx.x;
    const uint64_t kb = (uint64_t)K / 32;
    p = static_cast<const unsigned char*>(A) + (((uint64_t)mt * 8 + t / 128) * kb + step0) * 2048 + (t % 128) * 16;
    half = 4 * kb * 2048;
  }
  QDEV Raw fetch() {
    Raw r{ld16(p), ld16(p + half)};
    p += 2048;
    return r;
  }
  static QDEV void stage(unsigned char* lds_a, const Raw& r) {
    const uint32_t t = threadIdx.x, off = lds_chunk(t >> 2, t & 3u);
    st16(lds_a + off, r.lo);
    st16(lds_a + off + 128 * 64, r.hi);
  }
};

// B bf16, column-block-major blk32, N at run time: one N tile of one K step is
// 8192 contiguous bytes, the next K step (N / 32) * 2048 bytes on.
template <class Tile>
struct BBlk32DenseLdsRT {
  static_assert(Tile::BN == 128 && Tile::BK == 32 && Tile::kThreads == 512, "the prefill tile");
  using Operand = const uint16_t*;
  using Raw = dev::u32x4;
  const unsigned char* p;
  uint64_t step;
  template <class P>
  QDEV BBlk32DenseLdsRT(const P& prm, uint32_t nt, uint32_t step0) {
    step = (uint64_t)(prm.N / 32) * 2048;
    p = reinterpret_cast<const unsigned char*>(prm.B) + (uint64_t)nt * 8192 + threadIdx.x * 16u + step0 * step;
  }
  QDEV Raw fetch() {
    const Raw r = ld16(p);
    p += step;
    return r;
  }
  QDEV dev::u32x4 chunk(const Raw& r) const { return r; }
};

// B fp8 with 128 x 128 block scales. The scale is folded into the weight before
// staging: fp32 product, then round to nearest even with no NaN case. N_FIXED
// (non-zero) makes the K step a constant.
template <class Tile, int64_t N_FIXED>
struct BFp8Blk32Lds {
  static_assert(Tile::BN == 128 && Tile::BK == 32 && Tile::kThreads == 512, "the prefill tile");
  using Operand = Fp8Operand;
  struct Raw {
    dev::u32x2 bytes;
    uint32_t scale;
  };
  const unsigned char* p;
  const uint16_t* sc;  // this N tile's scale of K block 0
  uint64_t step, sc_row;
  uint32_t g;          // K step of the next fetch
  template <class P>
  QDEV BFp8Blk32Lds(const P& prm, uint32_t nt, uint32_t step0) {
    const int64_t N = N_FIXED ? N_FIXED : prm.N;
    step = (uint64_t)(N / 32) * 1024;
    sc_row = (uint64_t)(N / 128);
    p = prm.B.bytes + (uint64_t)nt * 4096 + threadIdx.x * 8u + step0 * step;
    sc = prm.B.scales + nt;
    g = step0;
  }
  QDEV Raw fetch() {
    Raw r{*reinterpret_cast<const dev::u32x2*>(p), sc[(g >> 2) * sc_row]};
    p += step;
    ++g;
    return r;
  }
  QDEV dev::u32x4 chunk(const Raw& r) const {
    return fp8x8_scaled_bf16x8(r.bytes, num::bf16_to_float((uint16_t)r.scale));
  }
};

// ---- K-quant, register form --------------------------------------------------------
// The per-group meta of every format is two bytes at row r * 16 + 2 * (group %
// 8) of the tile (a pair, an f16, an i16, or two 16-weight scales), plus the
// row's tail. The affine pair (a, b) of a weight follows from those alone, so
// a loader can fetch them early and expand later.
template <int F>
QDEV KqAffine kq_affine_of(uint32_t sel, uint32_t tail) {
  if constexpr (F == kq::Q2_K || F == kq::Q4_K || F == kq::Q5_K) {
    // Q2_K: sel is one byte, scale low nibble, min high nibble; Q4/Q5: (scale, min) bytes.
    const uint32_t sc = F == kq::Q2_K ? (sel & 15u) : (sel & 0xffu);
    const uint32_t mn = F == kq::Q2_K ? ((sel >> 4) & 15u) : ((sel >> 8) & 0xffu);
    const float a = num::f16_to_float((uint16_t)tail) * (float)sc;
    const float b = -num::f16_to_float((uint16_t)(tail >> 16)) * (float)mn;
    return {a, b};
  } else if constexpr (F == kq::Q3_K || F == kq::Q6_K) {
    const float a = num::f16_to_float((uint16_t)tail) * (float)(int8_t)(uint8_t)sel;
    return {a, (F == kq::Q3_K ? -4.0f : -32.0f) * a};
  } else if constexpr (F == kq::Q8_0) {
    const float a = num::f16_to_float((uint16_t)sel);
    return {a, -128.0f * a};
  } else if constexpr (F == kq::IQ4_NL) {
    return {num::f16_to_float((uint16_t)sel), 0.0f};
  } else {
    static_assert(F == kq::IQ4_XS, "a k-quant format");
    return {num::f16_to_float((uint16_t)tail) * (float)(int16_t)(uint16_t)sel, 0.0f};
  }
}

// Two weights packed low first.
template <int F>
QDEV uint32_t kq_pair(uint32_t c0, uint32_t c1, KqAffine ab) {
  return (uint32_t)kq_weight<F>(c0, ab) | ((uint32_t)kq_weight<F>(c1, ab) << 16);
}

// Eight codes, code i at bits i * bits of `codes`, to eight bf16.
template <int F, class W>
QDEV dev::u32x4 kq_expand8(W codes, KqAffine ab) {
  constexpr int kBits = KQuantFormat<F>::bits;
  constexpr uint32_t kMask = (1u << kBits) - 1u;
  dev::u32x4 out;
  for (int i = 0; i < 4; ++i)
    out[i] = kq_pair<F>((uint32_t)(codes >> (2 * i * kBits)) & kMask, (uint32_t)(codes >> ((2 * i + 1) * kBits)) & kMask,
                        ab);
  return out;
}

// Bits S .. S + 31 of a little-endian word array (zero past its end).
template <int S, int W>
QDEV uint32_t bits_at(const uint32_t (&w)[W]) {
  constexpr int i = S / 32, sh = S % 32;
  uint32_t lo = 0, hi = 0;
  if constexpr (i < W) lo = w[i];
  if constexpr (sh != 0 && i + 1 < W) hi = w[i + 1];
  if constexpr (sh == 0) return lo;
  else return (lo >> sh) | (hi << (32 - sh));
}

// B k-quant planes. The quant rows of one group and N tile are contiguous,
// 4 * bits bytes each; thread t's eight codes start at byte (t % 4) * bits of
// its row, inside one 64-bit window of two aligned words.
template <class Tile, int F>
struct BKQuantBlk32Lds {
  static_assert(Tile::BN == 128 && Tile::BK == 32 && Tile::kThreads == 512, "the prefill tile is one group deep");
  using Fmt = KQuantFormat<F>;
  using Operand = KQuantPlanes;
  static constexpr int kBits = Fmt::bits;
  static constexpr bool kWide = kBits != 2 && kBits != 4;  // two words in the window
  static constexpr int kTail = Fmt::meta_tail_width;
  static constexpr bool kHalfScale = Fmt::scale_span == 16;
  struct Raw {
    uint32_t w0, w1, sel, tail;
  };
  const unsigned char* q;   // code window of the next group
  const unsigned char* m;   // row entry (plus the half's byte) in super-block 0
  const unsigned char* mt;  // row tail in super-block 0
  uint64_t q_step, m_sb;
  uint32_t g, shift;
  template <class P>
  QDEV BKQuantBlk32Lds(const P& prm, uint32_t nt, uint32_t step0) {
    const uint32_t t = threadIdx.x, c = t & 3u;
    const uint64_t N = (uint64_t)prm.N, n = (uint64_t)nt * 128 + (t >> 2), r = n % 32;
    const uint32_t byte = c * kBits;
    q_step = N * 4 * kBits;
    q = reinterpret_cast<const unsigned char*>(prm.B.quant) + ((uint64_t)step0 * N + n) * 4 * kBits + (byte & ~3u);
    shift = (byte & 3u) * 8;
    const unsigned char* tile = prm.B.meta + (n / 32) * Fmt::meta_tile_bytes;
    m = tile + r * 16 + (kHalfScale ? c / 2 : 0);
    mt = tile + 512 + r * kTail;
    m_sb = (N / 32) * Fmt::meta_tile_bytes;
    g = step0;
  }
  QDEV Raw fetch() {
    Raw r;
    r.w0 = ld4(q);
    r.w1 = kWide ? ld4(q + 4) : 0u;
    const uint64_t off = (uint64_t)(g >> 3) * m_sb;
    const unsigned char* e = m + off + 2 * (g & 7u);
    r.sel = kHalfScale ? (uint32_t)*e : ld2(e);
    r.tail = kTail == 4 ? ld4(mt + off) : kTail == 2 ? ld2(mt + off) : 0u;
    q += q_step;
    ++g;
    return r;
  }
  QDEV dev::u32x4 chunk(const Raw& r) const {
    const KqAffine ab = kq_affine_of<F>(r.sel, r.tail);
    if constexpr (kWide) return kq_expand8<F>((((uint64_t)r.w1 << 32) | r.w0) >> shift, ab);
    else return kq_expand8<F>(r.w0 >> shift, ab);
  }
};

// ---- Decode streams ----------------------------------------------------------------
// A row-major with the row stride fixed: the lane's row from k0 on. Unit u is
// 64 bytes; chunk i of it is K values u * 32 + i * 8 .. + 7.
struct ARowStream {
  const unsigned char* p;
  QDEV dev::u32x4 chunk(uint32_t u, int i) const { return ld16(p + (uint64_t)u * 64 + i * 16); }
};

// B bf16 blk32: the lane's column is 64 contiguous bytes per block column.
// Raw words are the matrix operand itself, refilled half by half.
template <int64_t N_FIXED>
struct BStreamBf16 {
  using Operand = const uint16_t*;
  static constexpr bool kRawIsOperand = true;
  static constexpr int kScaleBlock = 0;
  struct Raw {
    dev::u32x4 c[4];
  };
  const unsigned char* p;
  uint64_t step;
  template <class P>
  QDEV BStreamBf16(const P& prm, int64_t col, uint32_t nt, int64_t k0) {
    const int64_t N = N_FIXED ? N_FIXED : prm.N;
    step = (uint64_t)(N / 32) * 2048;
    p = reinterpret_cast<const unsigned char*>(prm.B) + blk32_b_offset(col, k0, N);
  }
  QDEV void fetch_half(Raw& r, uint32_t u, int h) const {
    const unsigned char* q = p + (uint64_t)u * step + h * 32;
    r.c[2 * h] = ld16(q);
    r.c[2 * h + 1] = ld16(q + 16);
  }
  QDEV void fetch(Raw& r, uint32_t u) const {
    fetch_half(r, u, 0);
    fetch_half(r, u, 1);
  }
  template <int H>
  QDEV dev::bf16x16 decode(const Raw& r) const {
    return bf16x16_of(r.c[2 * H], r.c[2 * H + 1]);
  }
};

// B fp8 blk32: 32 bytes of the lane's column per block column, unscaled; the
// loop applies the block scale once per 128 K.
template <int64_t N_FIXED>
struct BStreamFp8 {
  using Operand = Fp8Operand;
  static constexpr bool kRawIsOperand = false;
  static constexpr int kScaleBlock = 128;
  struct Raw {
    dev::u32x4 c[2];
  };
  const unsigned char* p;
  const uint16_t* sc;
  uint64_t step, sc_row;
  template <class P>
  QDEV BStreamFp8(const P& prm, int64_t col, uint32_t nt, int64_t k0) {
    const int64_t N = N_FIXED ? N_FIXED : prm.N;
    step = (uint64_t)(N / 32) * 1024;
    sc_row = (uint64_t)(N / 128);
    p = prm.B.bytes + blk32_fp8_offset(col, k0, N);
    sc = prm.B.scales + (uint64_t)(k0 / 128) * sc_row + nt;
  }
  QDEV void fetch(Raw& r, uint32_t u) const {
    const unsigned char* q = p + (uint64_t)u * step;
    r.c[0] = ld16(q);
    r.c[1] = ld16(q + 16);
  }
  // The scale of 128-K block j from k0.
  QDEV float scale(uint32_t j) const { return num::bf16_to_float(sc[j * sc_row]); }
  template <int H>
  QDEV dev::bf16x16 decode(const Raw& r) const {
    return bf16x16_of(fp8x8_to_bf16x8(dev::u32x2{r.c[H][0], r.c[H][1]}),
                      fp8x8_to_bf16x8(dev::u32x2{r.c[H][2], r.c[H][3]}));
  }
};

// B k-quant planes, one group per unit: the lane reads its column's whole
// quant row, the group's two meta bytes and the row's tail. Formats 3 and 4
// split the expansion between the lane halves: half h expands weights 8h ..
// 8h + 7 and 16 + 8h .. 16 + 8h + 7, and permlanex16 hands each half the
// other's eight, so both end up with the full group.
template <int F>
struct BStreamKQuant {
  using Fmt = KQuantFormat<F>;
  using Operand = KQuantPlanes;
  static constexpr bool kRawIsOperand = false;
  static constexpr int kScaleBlock = 0;
  static constexpr int kBits = Fmt::bits;
  static constexpr int kTail = Fmt::meta_tail_width;
  static constexpr bool kHalfScale = Fmt::scale_span == 16;
  static constexpr bool kSplitHalves = F == kq::Q3_K || F == kq::Q4_K;
  struct Raw {
    uint32_t w[kBits];
    uint32_t sel, tail;
  };
  const unsigned char* q;   // the lane's quant row of group g0
  const unsigned char* m;   // the lane's meta entry in super-block 0
  const unsigned char* mt;  // the lane's tail in super-block 0
  uint64_t q_step, m_sb;
  uint32_t g0;
  template <class P>
  QDEV BStreamKQuant(const P& prm, int64_t col, uint32_t nt, int64_t k0) {
    const uint64_t N = (uint64_t)prm.N, n = (uint64_t)col, r = n % 32;
    g0 = (uint32_t)(k0 / 32);
    q_step = N * 4 * kBits;
    q = reinterpret_cast<const unsigned char*>(prm.B.quant) + ((uint64_t)g0 * N + n) * 4 * kBits;
    const unsigned char* tile = prm.B.meta + (n / 32) * Fmt::meta_tile_bytes;
    m = tile + r * 16;
    mt = tile + 512 + r * kTail;
    m_sb = (N / 32) * Fmt::meta_tile_bytes;
  }
  QDEV void fetch(Raw& r, uint32_t u) const {
    // Rows of 4 * bits bytes are only 4-byte aligned at 3, 5 and 6 bits.
    const unsigned char* row = q + (uint64_t)u * q_step;
    constexpr int kWhole = kBits / 4 * 4;
    for (int i = 0; i < kWhole; i += 4) {
      const u32x4_w v = *reinterpret_cast<const u32x4_w*>(row + 4 * i);
      for (int j = 0; j < 4; ++j) r.w[i + j] = v[j];
    }
    if constexpr (kBits - kWhole == 3) {
      const u32x3_w v = *reinterpret_cast<const u32x3_w*>(row + 4 * kWhole);
      for (int j = 0; j < 3; ++j) r.w[kWhole + j] = v[j];
    } else if constexpr (kBits - kWhole == 2) {
      const u32x2_w v = *reinterpret_cast<const u32x2_w*>(row + 4 * kWhole);
      for (int j = 0; j < 2; ++j) r.w[kWhole + j] = v[j];
    } else if constexpr (kBits - kWhole == 1) {
      r.w[kWhole] = ld4(row + 4 * kWhole);
    }
    const uint32_t g = g0 + u;
    const uint64_t off = (uint64_t)(g >> 3) * m_sb;
    r.sel = ld2(m + off + 2 * (g & 7u));
    r.tail = kTail == 4 ? ld4(mt + off) : kTail == 2 ? ld2(mt + off) : 0u;
  }
  template <int C>
  static QDEV uint32_t code(const Raw& r) {
    constexpr uint32_t kMask = (1u << kBits) - 1u;
    return bits_at<C * kBits>(r.w) & kMask;
  }
  // K values 16H .. 16H + 15 of the group. Half H of a 16-weight-scale
  // format uses the group's H-th scale byte.
  template <int H>
  QDEV dev::bf16x16 decode(const Raw& r) const {
    const KqAffine ab = kq_affine_of<F>(kHalfScale ? (r.sel >> (8 * H)) & 0xffu : r.sel, r.tail);
    if constexpr (kSplitHalves) {
      // Eight codes of this lane half's run, from a 32-bit window.
      const bool upper = (threadIdx.x & 16u) != 0;
      const uint32_t run = upper ? bits_at<(16 * H + 8) * kBits>(r.w) : bits_at<16 * H * kBits>(r.w);
      const dev::u32x4 own = kq_expand8<F>(run, ab);
      dev::u32x4 oth;
      for (int i = 0; i < 4; ++i) oth[i] = dev::permlanex16(own[i], 0x76543210u, 0xfedcba98u);
      return upper ? bf16x16_of(oth, own) : bf16x16_of(own, oth);
    } else {
      u32x8 v;
      expand_run<16 * H>(r, ab, v);
      return __builtin_bit_cast(dev::bf16x16, v);
    }
  }
  template <int C0>
  static QDEV void expand_run(const Raw& r, KqAffine ab, u32x8& v) {
    expand_pairs<C0>(r, ab, v, std::make_integer_sequence<int, 8>{});
  }
  template <int C0, int... I>
  static QDEV void expand_pairs(const Raw& r, KqAffine ab, u32x8& v, std::integer_sequence<int, I...>) {
    ((v[I] = kq_pair<F>(code<C0 + 2 * I>(r), code<C0 + 2 * I + 1>(r), ab)), ...);
  }
};

}  // namespace quillon::gemm_core
