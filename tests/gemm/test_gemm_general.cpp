// The general GEMM through its exported entries: bf16 and every k-quant
// format, both output types, split and unsplit at the process's CU count.
#include <gtest/gtest.h>

#include "device/device_config.h"
#include "gemm/gemm_entries.h"
#include "gemm_test_util.h"

namespace {

struct Shape {
  int64_t M, N, K;
};

// Integer operands make every product exact, so each output is compared bit
// for bit, whatever the split.
void run_bf16_exact(Shape s, bool bf16_out, uint64_t seed) {
  SCOPED_TRACE(testing::Message() << "M=" << s.M << " N=" << s.N << " K=" << s.K << " bf16=" << bf16_out
                                  << " S=" << quillon::gemm_split_count(s.M, s.N, s.K, true));
  qt::Rng rng(seed);
  const auto A = gt::int_bf16(rng, (size_t)(s.M * s.K), -3, 3), B = gt::int_bf16(rng, (size_t)(s.N * s.K), -3, 3);
  const auto want = ref::gemm(gt::floats_of(A), gt::floats_of(B), s.M, s.N, s.K);
  qt::DevBuf a = qt::DevBuf::from(A), b = gt::shuffle_bf16(B, s.N, s.K);
  qt::DevBuf ws((size_t)quillon_gemm_bf16_a_ws_bytes(s.M, s.K));
  qt::DevBuf c((size_t)(s.M * s.N * (bf16_out ? 2 : 4)));
  ASSERT_EQ(quillon_gemm_bf16_a(a.get(), b.get(), c.get(), s.M, s.N, s.K, bf16_out ? 1 : 0, ws.get(), nullptr),
            hipSuccess);
  QT_HIP(hipStreamSynchronize(nullptr));
  if (bf16_out) EXPECT_BITS_EQ(c.download<uint16_t>(), gt::expect_bf16(want));
  else EXPECT_BITS_EQ(c.download<float>(), gt::expect_f32(want));
  EXPECT_TRUE(c.guards_intact());
  EXPECT_TRUE(ws.guards_intact());
}

TEST(GemmBf16, ExactAcrossShapesAndSplits) {
  // At 40 CUs: K 32 never splits; 64 splits by 2; 96 by 3; 300 x 1024 x 96
  // has 16 tiles and stays whole; K 4096 splits by 16 at one tile and by 8 at
  // four; 257 x 384 x 256 by 4.
  const Shape shapes[] = {{1, 128, 32},   {17, 256, 64},   {33, 128, 96},    {257, 384, 256},
                          {300, 1024, 96}, {1, 128, 4096}, {300, 256, 4096}, {300, 1024, 256}};
  uint64_t seed = 1;
  for (const Shape& s : shapes)
    for (bool bf : {false, true}) run_bf16_exact(s, bf, seed++);
}

TEST(GemmBf16, RandomOperandsWithinTolerance) {
  // Random bf16 operands: only the order of the fp32 sum differs from the
  // reference, split (K 2048 at one tile) or not (K 160 at 16 tiles).
  for (Shape s : {Shape{33, 128, 2048}, Shape{300, 1024, 160}}) {
    for (bool bf : {false, true}) {
      SCOPED_TRACE(testing::Message() << "M=" << s.M << " N=" << s.N << " K=" << s.K << " bf16=" << bf);
      qt::Rng rng(77 + s.K);
      const auto A = rng.bf16s((size_t)(s.M * s.K)), B = rng.bf16s((size_t)(s.N * s.K));
      const auto fa = gt::floats_of(A), fb = gt::floats_of(B);
      const auto want = ref::gemm(fa, fb, s.M, s.N, s.K), mag = ref::gemm_abs(fa, fb, s.M, s.N, s.K);
      qt::DevBuf a = qt::DevBuf::from(A), b = gt::shuffle_bf16(B, s.N, s.K);
      qt::DevBuf ws((size_t)quillon_gemm_bf16_a_ws_bytes(s.M, s.K)), c((size_t)(s.M * s.N * (bf ? 2 : 4)));
      ASSERT_EQ(quillon_gemm_bf16_a(a.get(), b.get(), c.get(), s.M, s.N, s.K, bf, ws.get(), nullptr), hipSuccess);
      QT_HIP(hipStreamSynchronize(nullptr));
      const auto got = bf ? gt::widen(c.download<uint16_t>()) : c.download<float>();
      EXPECT_EQ(gt::count_outside(got, want, mag, s.K, bf), 0);
    }
  }
}

TEST(GemmBf16, TwoProductsShareAAndPartials) {
  // Both products split (one tile each at K 512), so the second reuses the
  // partial region the first used.
  const int64_t M = 40, N1 = 128, N2 = 256, K = 512;
  qt::Rng rng(5);
  const auto A = gt::int_bf16(rng, M * K, -2, 2), B1 = gt::int_bf16(rng, N1 * K, -2, 2),
             B2 = gt::int_bf16(rng, N2 * K, -2, 2);
  qt::DevBuf a = qt::DevBuf::from(A), b1 = gt::shuffle_bf16(B1, N1, K), b2 = gt::shuffle_bf16(B2, N2, K);
  qt::DevBuf ws((size_t)quillon_gemm_bf16_a_ws_bytes(M, K)), c1(M * N1 * 2), c2(M * N2 * 2);
  ASSERT_EQ(quillon_gemm_bf16_a2(a.get(), b1.get(), b2.get(), c1.get(), c2.get(), M, N1, N2, K, 1, ws.get(), nullptr),
            hipSuccess);
  QT_HIP(hipStreamSynchronize(nullptr));
  EXPECT_BITS_EQ(c1.download<uint16_t>(), gt::expect_bf16(ref::gemm(gt::floats_of(A), gt::floats_of(B1), M, N1, K)));
  EXPECT_BITS_EQ(c2.download<uint16_t>(), gt::expect_bf16(ref::gemm(gt::floats_of(A), gt::floats_of(B2), M, N2, K)));
  EXPECT_TRUE(c1.guards_intact() && c2.guards_intact() && ws.guards_intact());
}

TEST(GemmBf16, WorkspaceSizes) {
  const int64_t cus = quillon::num_cus();
  EXPECT_EQ(quillon_gemm_bf16_a_ws_bytes(1, 32), cus * 131072 + 32 * 512);
  EXPECT_EQ(quillon_gemm_bf16_a_ws_bytes(300, 4096), cus * 131072 + 2 * 4096 * 512);
  EXPECT_EQ(quillon_gemm_kquant_a_ws_bytes(300, 4096), 2 * 4096 * 512);
  EXPECT_EQ(quillon_gemm_kquant_a_ws_bytes(256, 64), 64 * 512);
  // M = 0 launches nothing and touches nothing.
  qt::DevBuf c(64);
  EXPECT_EQ(quillon_gemm_bf16_a(nullptr, nullptr, c.get(), 0, 128, 64, 1, nullptr, nullptr), hipSuccess);
  EXPECT_EQ(quillon_gemm_kquant_a(4, nullptr, nullptr, nullptr, c.get(), 0, 128, 256, 1, nullptr, nullptr),
            hipSuccess);
  QT_HIP(hipStreamSynchronize(nullptr));
  EXPECT_BITS_EQ(c.download<uint8_t>(), std::vector<uint8_t>(64, 0xFF));
}

TEST(GemmBf16, RaggedNComputesWholeTilesOnly) {
  // N = 224 at M = 512: a split would want more partials than the workspace
  // holds; the whole tile is computed, the columns past it are left alone.
  const int64_t M = 512, N = 224, K = 4096, Nc = 128;
  qt::Rng rng(12);
  const auto A = gt::int_bf16(rng, M * K, -1, 1), B = gt::int_bf16(rng, N * K, -1, 1);
  qt::DevBuf a = qt::DevBuf::from(A), b = gt::shuffle_bf16(B, N, K);
  qt::DevBuf ws((size_t)quillon_gemm_bf16_a_ws_bytes(M, K)), c((size_t)(M * N * 4));
  ASSERT_EQ(quillon_gemm_bf16_a(a.get(), b.get(), c.get(), M, N, K, 0, ws.get(), nullptr), hipSuccess);
  QT_HIP(hipStreamSynchronize(nullptr));
  const auto got = c.download<float>();
  const auto want = ref::gemm(gt::floats_of(A), gt::floats_of(B), M, N, K);
  int64_t bad = 0;
  for (int64_t m = 0; m < M; ++m)
    for (int64_t n = 0; n < N; ++n) {
      const float g = got[(size_t)(m * N + n)];
      bad += n < Nc ? g != (float)want[(size_t)(m * N + n)] : ref::to_bits(g) != 0xFFFFFFFFu;
    }
  EXPECT_EQ(bad, 0);
  EXPECT_TRUE(ws.guards_intact() && c.guards_intact());
}

// ---- k-quant ---------------------------------------------------------------------------
struct KCase {
  int id;
  int64_t K;
};
std::vector<KCase> kquant_cases() {
  std::vector<KCase> v;
  for (int id : ref::kKquantIds) v.push_back({id, 256});
  // Ragged K: the two formats with 32-weight blocks stop inside a super-block.
  v.push_back({8, 288});
  v.push_back({20, 352});
  return v;
}

TEST(GemmKQuant, OneHotRowsReadEveryWeightExactly) {
  // Row m of A picks column m % K, so with M > K every dequantised weight
  // lands in C once: C must equal the reference dequantisation bit for bit.
  const int64_t N = 256;
  for (KCase kc : kquant_cases()) {
    const int64_t M = kc.K + 1, K = kc.K;
    const auto src = gt::gguf_tensor(kc.id, N, K, 1000 + kc.id);
    const auto W = ref::kquant_dequant(kc.id, src, N, K);
    gt::Planes pl = gt::shuffle_kquant(kc.id, src, N, K);
    const auto A = gt::one_hot(M, K, [&](int64_t m) { return m % K; });
    const auto want = ref::gemm(gt::floats_of(A), gt::floats_of(W), M, N, K);
    qt::DevBuf a = qt::DevBuf::from(A), ws((size_t)quillon_gemm_kquant_a_ws_bytes(M, K));
    for (bool bf : {false, true}) {
      SCOPED_TRACE(testing::Message() << "format " << kc.id << " K=" << K << " bf16=" << bf);
      qt::DevBuf c((size_t)(M * N * (bf ? 2 : 4)));
      ASSERT_EQ(quillon_gemm_kquant_a(kc.id, a.get(), pl.quant.get(), pl.meta.get(), c.get(), M, N, K, bf, ws.get(),
                                      nullptr),
                hipSuccess);
      QT_HIP(hipStreamSynchronize(nullptr));
      if (bf) EXPECT_BITS_EQ(c.download<uint16_t>(), gt::expect_bf16(want));
      else EXPECT_BITS_EQ(c.download<float>(), gt::expect_f32(want));
      EXPECT_TRUE(c.guards_intact());
    }
    EXPECT_TRUE(ws.guards_intact());
  }
}

TEST(GemmKQuant, RandomActivationsWithinTolerance) {
  // Accumulation over many groups and super-blocks, odd row counts; the
  // exported entry never splits.
  const Shape shapes[] = {{1, 128, 512}, {17, 256, 256}, {33, 128, 1024}, {300, 128, 256}};
  int i = 0;
  for (int id : ref::kKquantIds) {
    const Shape s = shapes[i++ % 4];
    const auto src = gt::gguf_tensor(id, s.N, s.K, 2000 + id);
    const auto W = gt::floats_of(ref::kquant_dequant(id, src, s.N, s.K));
    gt::Planes pl = gt::shuffle_kquant(id, src, s.N, s.K);
    qt::Rng rng(3000 + id);
    const auto A = rng.bf16s((size_t)(s.M * s.K));
    const auto fa = gt::floats_of(A);
    const auto want = ref::gemm(fa, W, s.M, s.N, s.K), mag = ref::gemm_abs(fa, W, s.M, s.N, s.K);
    qt::DevBuf a = qt::DevBuf::from(A), ws((size_t)quillon_gemm_kquant_a_ws_bytes(s.M, s.K));
    for (bool bf : {false, true}) {
      SCOPED_TRACE(testing::Message() << "format " << id << " M=" << s.M << " K=" << s.K << " bf16=" << bf);
      qt::DevBuf c((size_t)(s.M * s.N * (bf ? 2 : 4)));
      ASSERT_EQ(quillon_gemm_kquant_a(id, a.get(), pl.quant.get(), pl.meta.get(), c.get(), s.M, s.N, s.K, bf,
                                      ws.get(), nullptr),
                hipSuccess);
      QT_HIP(hipStreamSynchronize(nullptr));
      const auto got = bf ? gt::widen(c.download<uint16_t>()) : c.download<float>();
      EXPECT_EQ(gt::count_outside(got, want, mag, s.K, bf), 0);
      EXPECT_TRUE(c.guards_intact());
    }
  }
}

}  // namespace
