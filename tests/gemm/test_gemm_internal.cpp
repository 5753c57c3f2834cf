// Internal entries of the general GEMM: the split rule, the workgroup order,
// the reductions and the output rounding, the blk32 destination, the
// segmented pair, and every message.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <tuple>

#include "device/device_config.h"
#include "gemm/gemm_general.h"
#include "gemm_core/gemm_kernel.h"
#include "gemm_core/gemm_shuffle.h"
#include "gemm_test_util.h"
#include "common/device_ext.h"
#include "reference/shuffle_ref.h"

namespace {

using quillon::gemm_core::bf16;

// A row-major bf16 [M, K] shuffled to blk32 with rows padded to 256.
qt::DevBuf shuffled_a(const std::vector<uint16_t>& A, int64_t M, int64_t K) {
  const int64_t R = (M + 255) / 256 * 256;
  qt::DevBuf s = qt::DevBuf::from(A), d((size_t)(R * K * 2));
  quillon::shuffle_a_blk32(s.get(), K, d.get(), R, K, nullptr, M);
  EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  return d;
}

TEST(GemmInternal, SplitRule) {
  const int cus = quillon::num_cus();
  for (int64_t M : {1, 256, 257, 1024, 5000})
    for (int64_t N : {128, 1024, 4096})
      for (int64_t K : {32, 64, 96, 160, 2048, 4096, 4128})
        for (bool p : {false, true}) {
          const int S = ref::split_count(M, N, K, p, cus);
          EXPECT_EQ(quillon::gemm_split_count(M, N, K, p), S) << M << " " << N << " " << K << " " << p;
          if (p) EXPECT_EQ(quillon::gemm_splitk_bytes(M, N, K), S >= 2 ? M * N * S * 4 : 0);
        }
  if (cus == 40) {
    EXPECT_EQ(quillon::gemm_split_count(1, 128, 32, true), 1);        // K 32: no split
    EXPECT_EQ(quillon::gemm_split_count(1, 128, 64, true), 2);        // the smallest K that splits
    EXPECT_EQ(quillon::gemm_split_count(1, 13 * 128, 96, true), 3);   // 39 fits
    EXPECT_EQ(quillon::gemm_split_count(1, 14 * 128, 96, true), 1);   // 42 does not, and 2 does not divide 3
    EXPECT_EQ(quillon::gemm_split_count(1, 128, 4096, true), 16);     // not a power of two bound: 16 divides 128
    EXPECT_EQ(quillon::gemm_split_count(1, 8 * 128, 4096, true), 4);  // 5 fits but does not divide 128
    EXPECT_EQ(quillon::gemm_split_count(1, 128, 4096, false), 1);     // no partials, no split
  }
}

TEST(GemmInternal, WorkgroupOrderCoversEveryTileOnce) {
  QT_NEEDS_CPU_DEVICE("which workgroup wrote which tile");
  // Only the sampled workgroups run; each must write exactly the tile the
  // 4-row-tile walk assigns it and nothing else. Mt = 5 leaves a last group of
  // height 1, Mt = 3 one of height 3.
  for (int64_t M : {1100, 600}) {
    const int64_t N = 4096, K = 64, Nt = N / 128, Mt = (M + 255) / 256;
    SCOPED_TRACE(testing::Message() << "M=" << M);
    qt::Rng rng(M);
    const auto A = gt::int_bf16(rng, M * K, -2, 2), B = gt::int_bf16(rng, N * K, -2, 2);
    const auto want = gt::expect_bf16(ref::gemm(gt::floats_of(A), gt::floats_of(B), M, N, K));
    qt::DevBuf a = shuffled_a(A, M, K), b = gt::shuffle_bf16(B, N, K), c((size_t)(M * N * 2));
    const int64_t total = Nt * Mt;
    std::vector<int64_t> sample = {0, 1, 2, total / 2, total - 2, total - 1};
    if (4 * Nt < total) sample.push_back(4 * Nt);  // first block of the short last group
    qt::sample_next_launch(sample);
    quillon::gemm_bf16_shuffled(a.get(), b.get(), c.as<bf16>(), M, N, K, nullptr, nullptr);
    QT_HIP(hipStreamSynchronize(nullptr));
    QT_HIP(hipGetLastError());
    const auto got = c.download<uint16_t>();
    std::set<std::pair<int64_t, int64_t>> tiles;
    for (int64_t blk : sample) {
      int64_t m, n;
      ref::prefill_tile(blk, Nt, Mt, m, n);
      tiles.insert({m, n});
    }
    EXPECT_EQ(tiles.size(), sample.size());
    int64_t bad = 0;
    for (int64_t r = 0; r < M; ++r)
      for (int64_t col = 0; col < N; ++col) {
        const bool in = tiles.count({r / 256, col / 128}) != 0;
        const size_t i = (size_t)(r * N + col);
        bad += in ? got[i] != want[i] : got[i] != 0xFFFF;
      }
    EXPECT_EQ(bad, 0);
  }
}

TEST(GemmInternal, ReductionsSumInSplitOrder) {
  // S = 1 is a plain conversion, given special values too: NaNs stay NaN
  // (quieted), 0x7f7fffff rounds to infinity, ties go to even.
  const uint32_t special[] = {0x7f800001u, 0xff812345u, 0x7fc00000u, 0x7f7fffffu, 0xff7fffffu, 0x7f7f7fffu,
                              0x3f808000u, 0x3f818000u, 0x3f80ffffu, 0x80000000u, 0x00000001u, 0x7f800000u};
  EXPECT_EQ(ref::bf16_out(ref::from_bits(special[0])), 0x7fc0);
  EXPECT_EQ(ref::bf16_out(ref::from_bits(special[3])), 0x7f80);
  qt::Rng rng(9);
  const int64_t count = 1000;
  for (int S : {1, 3, 16}) {
    SCOPED_TRACE(testing::Message() << "S=" << S);
    std::vector<float> part(S * count);
    for (auto& x : part) x = rng.uniform(-1e3f, 1e3f) * (rng.integer(0, 1) ? 1e-6f : 1.0f);
    if (S == 1)
      for (size_t i = 0; i < std::size(special); ++i) part[i] = ref::from_bits(special[i]);
    std::vector<float> want32(count);
    std::vector<uint16_t> want16(count);
    for (int64_t i = 0; i < count; ++i) {
      float v = part[i];
      for (int s = 1; s < S; ++s) v += part[s * count + i];
      want32[i] = v;
      want16[i] = ref::bf16_out(v);
    }
    qt::DevBuf p = qt::DevBuf::from(part), o32(count * 4), o16(count * 2);
    quillon::splitk_reduce(p.as<float>(), o32.as<float>(), count, S, nullptr);
    quillon::splitk_reduce(p.as<float>(), o16.as<bf16>(), count, S, nullptr);
    QT_HIP(hipStreamSynchronize(nullptr));
    EXPECT_BITS_EQ(o32.download<float>(), want32);
    EXPECT_BITS_EQ(o16.download<uint16_t>(), want16);
    EXPECT_TRUE(o32.guards_intact() && o16.guards_intact());
  }
  // Two arms, one launch: the second arm's values follow the first's.
  const int64_t c1 = 300, c2 = 77;
  std::vector<float> p1(2 * c1), p2(3 * c2);
  for (auto& x : p1) x = rng.uniform(-4, 4);
  for (auto& x : p2) x = rng.uniform(-4, 4);
  std::vector<uint16_t> want((size_t)(c1 + c2));
  for (int64_t i = 0; i < c1; ++i) want[i] = ref::bf16_out(p1[i] + p1[c1 + i]);
  for (int64_t j = 0; j < c2; ++j) want[c1 + j] = ref::bf16_out(p2[j] + p2[c2 + j] + p2[2 * c2 + j]);
  qt::DevBuf d1 = qt::DevBuf::from(p1), d2 = qt::DevBuf::from(p2), out((c1 + c2) * 2);
  quillon::proj_splitk_reduce2(d1.as<float>(), d2.as<float>(), out.get(), c1, c2, 2, 3, nullptr);
  QT_HIP(hipStreamSynchronize(nullptr));
  EXPECT_BITS_EQ(out.download<uint16_t>(), want);
  EXPECT_TRUE(out.guards_intact());
}

TEST(GemmInternal, EpilogueRoundsNaNAndOverflow) {
  // Row 0 sums exactly to 0x7f7fffff (three bf16 terms of eight bits each),
  // row 1 to its negative, row 2 to 1 + 2^-8 (a tie to even), row 3 to
  // 1 + 3 * 2^-8 (a tie rounding up), row 4 carries a NaN.
  const int64_t M = 5, N = 128, K = 32;
  std::vector<uint16_t> A(M * K, 0), B(N * K, 0);
  const uint16_t big[3] = {0x7f7f, 0x7b7f, 0x777f};
  for (int k = 0; k < 3; ++k) {
    A[k] = big[k];
    A[K + k] = (uint16_t)(big[k] | 0x8000);
  }
  A[2 * K] = 0x3f80;
  A[2 * K + 1] = 0x3b80;  // 2^-8
  A[3 * K] = 0x3f80;
  A[3 * K + 1] = 0x3b80;
  A[3 * K + 2] = 0x3c00;  // 2^-7
  A[4 * K + 5] = 0x7f81;  // a signalling NaN
  for (int64_t n = 0; n < N; ++n)
    for (int k = 0; k < 3; ++k) B[n * K + k] = 0x3f80;
  qt::DevBuf a = shuffled_a(A, M, K), b = gt::shuffle_bf16(B, N, K), c16(M * N * 2), c32(M * N * 4);
  quillon::gemm_bf16_shuffled(a.get(), b.get(), c16.as<bf16>(), M, N, K, nullptr, nullptr);
  quillon::gemm_bf16_shuffled(a.get(), b.get(), c32.as<float>(), M, N, K, nullptr, nullptr);
  QT_HIP(hipStreamSynchronize(nullptr));
  const auto h = c16.download<uint16_t>();
  const auto f = c32.download<float>();
  for (int64_t n = 0; n < N; ++n) {
    EXPECT_EQ(ref::to_bits(f[n]), 0x7f7fffffu);
    EXPECT_EQ(h[n], 0x7f80);
    EXPECT_EQ(h[N + n], 0xff80);
    EXPECT_EQ(h[2 * N + n], 0x3f80);
    EXPECT_EQ(h[3 * N + n], 0x3f82);
    // Any NaN may come out of the sum; it must leave the epilogue a quiet NaN.
    EXPECT_EQ(h[4 * N + n] & 0x7fc0, 0x7fc0) << n;
    EXPECT_TRUE(std::isnan(f[4 * N + n]));
  }
}

// The k-quant product through the internal entries; one-hot rows keep every
// sum exact. With partials it splits too (S 16 at K 1024), into fp32 and bf16.
// Into blk32 it writes a column slice of a blk32 activation buffer: all 256
// rows of the tile (pad rows of A copy row 0, so they hold row 0's result),
// and columns outside the slice keep their poison.
TEST(GemmInternal, KQuantSplitAndIntoBlk32) {
  struct Case {
    int id;
    int64_t M, N, K, col;  // col < 0: the split product
  };
  const Case cases[] = {{6, 1, 128, 1024, -1}, {3, 257, 128, 512, -1}, {20, 40, 128, 96, -1},
                        {4, 33, 256, 256, 128}, {4, 33, 256, 256, 256}, {8, 33, 256, 256, 128},
                        {8, 33, 256, 256, 256}, {2, 33, 256, 256, 128}, {2, 33, 256, 256, 256}};
  for (const auto& [id, M, N, K, col] : cases) {
    SCOPED_TRACE(testing::Message() << "format " << id << " M=" << M << " K=" << K << " col=" << col
                                    << " S=" << quillon::gemm_split_count(M, N, K, true));
    const gt::KWeight w = gt::kquant_weight(id, N, K, 40 + id + col);
    const auto A = gt::one_hot(M, K, [&](int64_t m) { return (m * 37 + 5) % K; });
    const auto want = ref::gemm(gt::floats_of(A), w.W, M, N, K);
    const void *q = w.pl.quant.get(), *mt = w.pl.meta.get();
    qt::DevBuf a = shuffled_a(A, M, K);
    if (col < 0) {
      qt::DevBuf part((size_t)std::max<int64_t>(quillon::gemm_splitk_bytes(M, N, K), 4));
      qt::DevBuf c32((size_t)(M * N * 4)), c16((size_t)(M * N * 2));
      quillon::gemm_kquant_shuffled(id, a.get(), q, mt, c32.as<float>(), M, N, K, nullptr, part.get());
      quillon::gemm_kquant_shuffled(id, a.get(), q, mt, c16.as<bf16>(), M, N, K, nullptr, part.get());
      QT_HIP(hipStreamSynchronize(nullptr));
      EXPECT_BITS_EQ(c32.download<float>(), gt::expect_f32(want));
      EXPECT_BITS_EQ(c16.download<uint16_t>(), gt::expect_bf16(want));
      EXPECT_TRUE(part.guards_intact() && c32.guards_intact() && c16.guards_intact());
      continue;
    }
    const int64_t W = 512, R = 256;
    const auto C = gt::expect_bf16(want);
    std::vector<uint16_t> full((size_t)(R * W), 0xFFFF);
    for (int64_t r = 0; r < R; ++r)
      for (int64_t n = 0; n < N; ++n) full[(size_t)(r * W + col + n)] = C[(size_t)((r < M ? r : 0) * N + n)];
    qt::DevBuf dst((size_t)(R * W * 2));
    quillon::gemm_kquant_to_blk32(id, a.get(), q, mt, dst.get(), M, N, K, W, col, nullptr);
    QT_HIP(hipStreamSynchronize(nullptr));
    EXPECT_BITS_EQ(dst.download<uint16_t>(), ref::blk32(full, W, R, W, R, false));
    EXPECT_TRUE(dst.guards_intact());
  }
}

TEST(GemmInternal, SegmentedPairEveryOrderedFormatPair) {
  // Arm 0 writes fp32, arm 1 bf16, each with its own N; one-hot rows make
  // both exact. All 64 ordered pairs, equal formats included.
  const int64_t M = 33, K = 256, N0 = 128, N1 = 256;
  const auto A = gt::one_hot(M, K, [&](int64_t m) { return (m * 7 + 3) % K; });
  qt::DevBuf a = shuffled_a(A, M, K);
  std::vector<gt::KWeight> arm0, arm1;
  for (int id : ref::kKquantIds) {
    arm0.push_back(gt::kquant_weight(id, N0, K, 60 + id));
    arm1.push_back(gt::kquant_weight(id, N1, K, 160 + id));
  }
  for (size_t i = 0; i < ref::kKquantIds.size(); ++i)
    for (size_t j = 0; j < ref::kKquantIds.size(); ++j) {
      const int f0 = ref::kKquantIds[i], f1 = ref::kKquantIds[j];
      SCOPED_TRACE(testing::Message() << "pair " << f0 << ", " << f1);
      qt::DevBuf c0(M * N0 * 4), c1(M * N1 * 2);
      quillon::GemmSeg2Arms arms{{{f0, arm0[i].pl.quant.get(), arm0[i].pl.meta.get(), c0.get(), N0},
                                  {f1, arm1[j].pl.quant.get(), arm1[j].pl.meta.get(), c1.get(), N1}}};
      quillon::gemm_seg2(a.get(), arms, M, K, nullptr);
      QT_HIP(hipStreamSynchronize(nullptr));
      QT_HIP(hipGetLastError());
      EXPECT_BITS_EQ(c0.download<float>(), gt::expect_f32(ref::gemm(gt::floats_of(A), arm0[i].W, M, N0, K)));
      EXPECT_BITS_EQ(c1.download<uint16_t>(), gt::expect_bf16(ref::gemm(gt::floats_of(A), arm1[j].W, M, N1, K)));
      EXPECT_TRUE(c0.guards_intact() && c1.guards_intact());
    }
}

// Two row tiles: the seam counts arm 0's tiles over both. An arm of no
// tiles has a null C, and without fp32 tiles its format field is ignored.
TEST(GemmInternal, SegmentedPairTwoRowTilesAndAnEmptyArm) {
  const int64_t M = 300, K = 256, N = 128;
  const auto A = gt::one_hot(M, K, [&](int64_t m) { return (m * 11) % K; });
  qt::DevBuf a = shuffled_a(A, M, K);
  const gt::KWeight w = gt::kquant_weight(5, N, K, 71);
  const auto want = ref::gemm(gt::floats_of(A), w.W, M, N, K);
  const void *q = w.pl.quant.get(), *mt = w.pl.meta.get();
  for (auto [f0, n0, n1] : {std::tuple{5, N, N}, std::tuple{5, N, int64_t(0)}, std::tuple{7, int64_t(0), N}}) {
    SCOPED_TRACE(testing::Message() << "N0=" << n0 << " N1=" << n1);
    qt::DevBuf c0(M * N * 4), c1(M * N * 2);
    quillon::GemmSeg2Arms arms{{{f0, n0 ? q : nullptr, n0 ? mt : nullptr, n0 ? c0.get() : nullptr, n0},
                                {5, n1 ? q : nullptr, n1 ? mt : nullptr, n1 ? c1.get() : nullptr, n1}}};
    quillon::gemm_seg2(a.get(), arms, M, K, nullptr);
    QT_HIP(hipStreamSynchronize(nullptr));
    if (n0) EXPECT_BITS_EQ(c0.download<float>(), gt::expect_f32(want));
    if (n1) EXPECT_BITS_EQ(c1.download<uint16_t>(), gt::expect_bf16(want));
    EXPECT_TRUE(c0.guards_intact() && c1.guards_intact());
  }
  // Neither arm has tiles: nothing runs, even with M = 0.
  quillon::GemmSeg2Arms none{{{7, nullptr, nullptr, nullptr, 0}, {7, nullptr, nullptr, nullptr, 0}}};
  quillon::gemm_seg2(a.get(), none, 0, K, nullptr);
  QT_HIP(hipStreamSynchronize(nullptr));
  QT_HIP(hipGetLastError());
}

TEST(GemmMessages, EveryContract) {
  qt::DevBuf buf(1 << 16);
  void* p = buf.get();
  EXPECT_QUILLON_FATAL(quillon_gemm_bf16_shuffle_b(p, p, 48, 64, nullptr),
                       "blk32 shuffle needs [48, 64] to divide into whole blocks");
  EXPECT_QUILLON_FATAL(quillon_gemm_bf16_a(p, p, p, 3, 128, 48, 1, p, nullptr),
                       "blk32 shuffle needs [256, 48] to divide into whole blocks");
  EXPECT_QUILLON_FATAL(quillon_gemm_kquant_a(7, p, p, p, p, 1, 128, 256, 1, p, nullptr),
                       "7 is not a k-quant format id (see kquant_sets's FORMATS list)");
  EXPECT_QUILLON_FATAL(quillon_gemm_kquant_shuffle_b(4, p, p, p, 32, 288, nullptr),
                       "k-quant shuffle needs [32, 288] to divide into 32-column blocks, and K into 256-weight "
                       "super-blocks at every format but the two whose GGUF block is 32");
  EXPECT_QUILLON_FATAL(quillon::gemm_kquant_shuffled(7, p, p, p, static_cast<float*>(p), 1, 128, 256, nullptr, p),
                       "k-quant format 7 is not in this build's general-GEMM set (kquant_sets)");
  EXPECT_QUILLON_FATAL(quillon::gemm_kquant_to_blk32(4, p, p, p, p, 1, 128, 256, 512, 16, nullptr),
                       "gemm_kquant_to_blk32: [128 columns at 16] does not sit on 32-column blocks inside a "
                       "512-wide destination");
  EXPECT_QUILLON_FATAL(quillon::gemm_kquant_to_blk32(4, p, p, p, p, 1, 256, 256, 512, 288, nullptr),
                       "gemm_kquant_to_blk32: [256 columns at 288] does not sit on 32-column blocks inside a "
                       "512-wide destination");
  EXPECT_QUILLON_FATAL(quillon::gemm_kquant_to_blk32(4, p, p, p, p, 1, 128, 256, 500, 0, nullptr),
                       "gemm_kquant_to_blk32: [128 columns at 0] does not sit on 32-column blocks inside a "
                       "500-wide destination");
  const quillon::GemmSeg2Arms ok{{{4, p, p, p, 128}, {4, p, p, p, 128}}};
  EXPECT_QUILLON_FATAL(quillon::gemm_seg2(p, ok, 1, 288, nullptr), "gemm_seg2: K=288 must be a multiple of 256");
  const quillon::GemmSeg2Arms narrow{{{4, p, p, p, 64}, {4, p, p, p, 128}}};
  EXPECT_QUILLON_FATAL(quillon::gemm_seg2(p, narrow, 1, 256, nullptr),
                       "gemm_seg2: arm f32 has N=64; every arm's N must be a multiple of 128, because the seam is a "
                       "count of whole column tiles");
  const quillon::GemmSeg2Arms no_c{{{4, p, p, p, 128}, {4, p, p, nullptr, 256}}};
  EXPECT_QUILLON_FATAL(quillon::gemm_seg2(p, no_c, 1, 256, nullptr),
                       "gemm_seg2: arm bf16 is 256 columns wide and has no C");
  const quillon::GemmSeg2Arms bad_f1{{{4, p, p, p, 128}, {9, p, p, p, 128}}};
  EXPECT_QUILLON_FATAL(quillon::gemm_seg2(p, bad_f1, 1, 256, nullptr),
                       "k-quant format 9 is not in this build's general-GEMM set (kquant_sets)");
}

// Runs in the default process and again in fresh ones with QUILLON_NUM_CUS
// 1, 7 and 1024: the split follows the CU count, the result does not.
TEST(GemmCus, SplitFollowsTheCuCount) {
  const int cus = quillon::num_cus();
  struct Shape {
    int64_t M, N, K;
  };
  for (Shape s : {Shape{1, 128, 4096}, Shape{33, 256, 96}, Shape{300, 256, 2048}}) {
    const int S = quillon::gemm_split_count(s.M, s.N, s.K, true);
    EXPECT_EQ(S, ref::split_count(s.M, s.N, s.K, true, cus));
    SCOPED_TRACE(testing::Message() << "CUs=" << cus << " M=" << s.M << " K=" << s.K << " S=" << S);
    qt::Rng rng(s.K);
    const auto A = gt::int_bf16(rng, s.M * s.K, -3, 3), B = gt::int_bf16(rng, s.N * s.K, -3, 3);
    qt::DevBuf a = qt::DevBuf::from(A), b = gt::shuffle_bf16(B, s.N, s.K), c(s.M * s.N * 4);
    qt::DevBuf ws((size_t)quillon_gemm_bf16_a_ws_bytes(s.M, s.K));
    EXPECT_EQ(ws.bytes(), (size_t)(cus * 131072 + (s.M + 255) / 256 * s.K * 512));
    ASSERT_EQ(quillon_gemm_bf16_a(a.get(), b.get(), c.get(), s.M, s.N, s.K, 0, ws.get(), nullptr), hipSuccess);
    QT_HIP(hipStreamSynchronize(nullptr));
    EXPECT_BITS_EQ(c.download<float>(), gt::expect_f32(ref::gemm(gt::floats_of(A), gt::floats_of(B), s.M, s.N, s.K)));
    EXPECT_TRUE(ws.guards_intact());
  }
  if (cus == 1) EXPECT_EQ(quillon::gemm_split_count(1, 128, 4096, true), 1);
  if (cus == 7) EXPECT_EQ(quillon::gemm_split_count(1, 128, 4096, true), 4);
  if (cus == 1024) EXPECT_EQ(quillon::gemm_split_count(1, 128, 96, true), 3);
}

}  // namespace
