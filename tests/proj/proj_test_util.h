// Projection tests' weights: model-sized tensors of which only two column
// tiles (the first and the last) carry data, so that block sampling can run
// just those; and what the live columns of an output must hold.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

#include "../gemm/gemm_test_util.h"
#include "gemm_core/gemm_entry_proj.h"
#include "common/device_ext.h"
#include "device/device_config.h"
#include "reference/lm_head_ref.h"

namespace pt {

namespace gc = quillon::gemm_core;
namespace pj = quillon::proj;

// The split table as this library states it: column tiles T = N / 128, at
// most 8 splits and K / S a multiple of 128; N from 8704 never splits.
inline int want_splits(int64_t N, int64_t K, int64_t p2) {
  if (N >= 8704) return 1;
  const int64_t T = N / 128;
  int s = 1;
  while (s < 8 && p2 >= 2 * s * T) s *= 2;
  while (K % (s * 128) != 0) s /= 2;
  return s;
}

// Rows 0..127 of the source are columns first..first + 127 (a whole tile,
// 0 by default), rows 128..255 the last tile.
inline int64_t col_of(int64_t j, int64_t N, int64_t first = 0) { return j < 128 ? first + j : N - 256 + j; }

struct Weight {
  int form = 0;  // 0 bf16, 1 fp8, 2 k-quant
  int format = 0;
  int64_t N = 0, K = 0, first = 0;
  qt::DevBuf b0, b1;
  std::vector<float> decode_w, prefill_w;  // [256, K], the values each path multiplies by
  const uint16_t* bf16() const { return b0.as<uint16_t>(); }
  gc::Fp8Operand fp8() const { return {b0.as<uint8_t>(), b1.as<uint16_t>()}; }
  pj::FormKQuant::Weight kquant() const { return {format, {b0.as<uint32_t>(), b1.as<uint8_t>()}}; }
};

inline Weight bf16_weight(int64_t N, int64_t K, qt::Rng& rng, int64_t first = 0) {
  Weight w;
  w.N = N, w.K = K, w.first = first;
  const auto src = gt::int_bf16(rng, (size_t)(256 * K), -3, 3);
  std::vector<uint16_t> big((size_t)(N * K), 0);
  for (int64_t j = 0; j < 256; ++j)
    for (int64_t k = 0; k < K; ++k) big[(size_t)(gc::blk32_b_offset(col_of(j, N, first), k, N) / 2)] = src[(size_t)(j * K + k)];
  w.b0 = qt::DevBuf::from(big);
  w.decode_w = w.prefill_w = gt::floats_of(src);
  return w;
}

// Exact: exponents 7..10 and scales 1..8 keep every sum of integer rows
// within fp32's 24 bits.
inline Weight fp8_weight(int64_t N, int64_t K, qt::Rng& rng, int64_t first = 0) {
  Weight w;
  w.form = 1, w.N = N, w.K = K, w.first = first;
  std::vector<uint8_t> bytes((size_t)(N * K), 0);
  std::vector<uint16_t> scales((size_t)(K / 128 * (N / 128)), 0);
  for (auto& s : scales) s = (uint16_t)((127 + rng.integer(0, 3)) << 7);
  w.decode_w.resize((size_t)(256 * K));
  w.prefill_w.resize((size_t)(256 * K));
  for (int64_t j = 0; j < 256; ++j) {
    const int64_t n = col_of(j, N, first);
    for (int64_t k = 0; k < K; ++k) {
      const uint8_t x = (uint8_t)((rng.integer(0, 1) << 7) | (rng.integer(7, 10) << 3) | rng.integer(0, 7));
      bytes[(size_t)gc::blk32_fp8_offset(n, k, N)] = x;
      const float v = ref::fp8_weight(x) * ref::bf16_value(scales[(size_t)((k / 128) * (N / 128) + n / 128)]);
      w.decode_w[(size_t)(j * K + k)] = v;
      w.prefill_w[(size_t)(j * K + k)] = ref::widen(ref::round_bf16(v));
    }
  }
  w.b0 = qt::DevBuf::from(bytes);
  w.b1 = qt::DevBuf::from(scales);
  return w;
}

// The planes of a 256-row tensor, moved to the rows of the two tiles of an
// N-row tensor: quant rows at (group * N + n), meta tiles at (sb * N / 32 + n / 32).
inline Weight kquant_weight(int F, int64_t N, int64_t K, uint64_t seed, int64_t first = 0) {
  Weight w;
  w.form = 2, w.format = F, w.N = N, w.K = K, w.first = first;
  const auto src = gt::gguf_tensor(F, 256, K, seed);
  w.decode_w = w.prefill_w = gt::floats_of(ref::kquant_dequant(F, src, 256, K));
  gt::Planes small = gt::shuffle_kquant(F, src, 256, K);
  const auto q = small.quant.download<uint8_t>(), m = small.meta.download<uint8_t>();
  const int64_t rb = 4 * quillon::kq::format_info(F).bits, mt = quillon::kq::format_info(F).meta_tile_bytes;
  std::vector<uint8_t> bq((size_t)quillon_kquant_quant_bytes(F, N, K), 0), bm((size_t)quillon_kquant_meta_bytes(F, N, K), 0);
  for (int64_t g = 0; g < K / 32; ++g)
    for (int64_t j = 0; j < 256; ++j)
      std::memcpy(&bq[(size_t)((g * N + col_of(j, N, first)) * rb)], &q[(size_t)((g * 256 + j) * rb)], (size_t)rb);
  for (int64_t sb = 0; sb < (K + 255) / 256; ++sb)
    for (int64_t t = 0; t < 8; ++t)
      std::memcpy(&bm[(size_t)((sb * (N / 32) + col_of(t * 32, N, first) / 32) * mt)], &m[(size_t)((sb * 8 + t) * mt)], (size_t)mt);
  w.b0 = qt::DevBuf::from(bq);
  w.b1 = qt::DevBuf::from(bm);
  return w;
}

// A one-tile bf16 weight (N = 128): both live tiles are tile 0, so the
// source's second half is what the product sees.
inline Weight one_tile_bf16(int64_t K, qt::Rng& rng) {
  Weight w = bf16_weight(128, K, rng);
  std::copy(w.decode_w.begin() + 128 * K, w.decode_w.end(), w.decode_w.begin());
  w.prefill_w = w.decode_w;
  return w;
}

// The live columns of C.
inline std::vector<uint16_t> live(const std::vector<uint16_t>& C, int64_t M, int64_t N, int64_t first = 0) {
  std::vector<uint16_t> r((size_t)(M * 256));
  for (int64_t m = 0; m < M; ++m)
    for (int64_t j = 0; j < 256; ++j) r[(size_t)(m * 256 + j)] = C[(size_t)(m * N + col_of(j, N, first))];
  return r;
}

// ---- the launches of one projection, and which of their blocks run --------------------
inline std::vector<int64_t> live_tiles(const Weight& w) {
  std::vector<int64_t> t{w.first / 128, w.N / 128 - 1};
  t.erase(std::unique(t.begin(), t.end()), t.end());
  return t;
}
// A decode grid (tiles, row tiles, splits) or the prefill's.
inline std::vector<int64_t> proj_ids(const Weight& w, int64_t M, bool decode, int S) {
  if (!decode) return ref::prefill_blocks(live_tiles(w), w.N / 128, M);
  std::vector<int64_t> ids;
  const int64_t nt = w.N / 128, mt = (M + (M > 16 ? 31 : 15)) / (M > 16 ? 32 : 16);
  for (int64_t z = 0; z < S; ++z)
    for (int64_t y = 0; y < mt; ++y)
      for (int64_t x : live_tiles(w)) ids.push_back(x + nt * (y + mt * z));
  return ids;
}
// Samples the product of one projection `n` launches from now; returns the
// launches it takes (a split adds its reduction).
inline int sample_proj(int n, const Weight& w, int64_t M, bool decode) {
  const int S = decode ? want_splits(w.N, w.K, quillon::num_cus_p2()) : 1;
  qt::sample_launch(n, proj_ids(w, M, decode, S));
  return S > 1 ? 2 : 1;
}

// The live columns of an [M, N] output against A times the weight as the
// path multiplies by it: bit-exact for integer operands, else within the
// summation bound. Dequantised k-quant weights carry too many bits for an
// exact sum.
inline void expect_arm(const std::vector<uint16_t>& C, const std::vector<float>& A, const Weight& w, bool decode,
                       int64_t M, bool exact) {
  const auto& W = decode ? w.decode_w : w.prefill_w;
  const auto got = live(C, M, w.N, w.first);
  const auto want = ref::gemm(A, W, M, 256, w.K);
  if (exact && w.form != 2) EXPECT_BITS_EQ(got, gt::expect_bf16(want));
  else EXPECT_EQ(gt::count_outside(gt::widen(got), want, ref::gemm_abs(A, W, M, 256, w.K), w.K, true), 0);
}

// Runs `run` on a fresh A (integers where `exact`, else random) with
// PrefillShuffledA's A shuffled into the scratch; the arms' outputs follow
// each other in C. ws_bytes is the workspace exactly: an overrun hits its guard.
inline void run_arms(const std::function<void(const pj::ProjCall&)>& run, const std::vector<const Weight*>& arms,
                     int mode, int64_t M, bool exact, int64_t ws_bytes, qt::Rng& rng) {
  const int64_t K = arms[0]->K;
  SCOPED_TRACE(testing::Message() << "mode " << mode << " M=" << M << (exact ? " exact" : " random"));
  int64_t width = 0;
  for (const Weight* w : arms) width += w->N;
  const auto A = exact ? gt::int_bf16(rng, (size_t)(M * K), -3, 3) : rng.bf16s((size_t)(M * K));
  qt::DevBuf a = qt::DevBuf::from(A), c((size_t)(M * width * 2)), ws((size_t)std::max<int64_t>(ws_bytes, 4)),
             scratch((size_t)pj::proj_scratch_bytes(M, K));
  pj::ProjCall call{a.get(), c.get(), M, mode, scratch.get(), ws_bytes > 0 ? ws.as<float>() : nullptr, nullptr};
  if (mode == pj::PrefillShuffledA) {
    quillon::shuffle_a_blk32(a.get(), K, scratch.get(), (M + 255) / 256 * 256, K, nullptr, M);
    call.A = scratch.get();
  }
  run(call);
  ASSERT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  EXPECT_TRUE(c.guards_intact() && ws.guards_intact() && scratch.guards_intact());
  const auto C = c.download<uint16_t>();
  const auto fa = gt::floats_of(A);
  int64_t off = 0;
  for (const Weight* w : arms) {
    SCOPED_TRACE(testing::Message() << "arm of N " << w->N);
    expect_arm({C.begin() + off, C.begin() + off + M * w->N}, fa, *w, mode == pj::Decode, M, exact);
    off += M * w->N;
  }
}

}  // namespace pt
