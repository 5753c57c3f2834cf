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
// for bit, whatever the split; random ones differ from the reference only in
// the order of the fp32 sum.
TEST(GemmBf16, ShapesSplitsAndBothOutputs) {
  // At 40 CUs: K 32 never splits; 64 splits by 2; 96 by 3; 300 x 1024 x 96
  // has 16 tiles and stays whole; K 4096 splits by 16 at one tile and by 8 at
  // four; 257 x 384 x 256 by 4. Random: K 2048 splits at one tile, K 160 at
  // 16 tiles does not.
  struct Case {
    Shape s;
    bool exact;
  };
  const Case cases[] = {{{1, 128, 32}, true},     {{17, 256, 64}, true},    {{33, 128, 96}, true},
                        {{257, 384, 256}, true},  {{300, 1024, 96}, true},  {{1, 128, 4096}, true},
                        {{300, 256, 4096}, true}, {{300, 1024, 256}, true}, {{33, 128, 2048}, false},
                        {{300, 1024, 160}, false}};
  uint64_t seed = 1;
  for (const auto& [s, exact] : cases)
    for (bool bf : {false, true}) {
      SCOPED_TRACE(testing::Message() << "M=" << s.M << " N=" << s.N << " K=" << s.K << " bf16=" << bf << " exact="
                                      << exact << " S=" << quillon::gemm_split_count(s.M, s.N, s.K, true));
      qt::Rng rng(seed++);
      const auto A = exact ? gt::int_bf16(rng, (size_t)(s.M * s.K), -3, 3) : rng.bf16s((size_t)(s.M * s.K));
      const auto B = exact ? gt::int_bf16(rng, (size_t)(s.N * s.K), -3, 3) : rng.bf16s((size_t)(s.N * s.K));
      const auto fa = gt::floats_of(A), fb = gt::floats_of(B);
      const auto want = ref::gemm(fa, fb, s.M, s.N, s.K);
      qt::DevBuf a = qt::DevBuf::from(A), b = gt::shuffle_bf16(B, s.N, s.K);
      qt::DevBuf ws((size_t)quillon_gemm_bf16_a_ws_bytes(s.M, s.K)), c((size_t)(s.M * s.N * (bf ? 2 : 4)));
      ASSERT_EQ(quillon_gemm_bf16_a(a.get(), b.get(), c.get(), s.M, s.N, s.K, bf, ws.get(), nullptr), hipSuccess);
      QT_HIP(hipStreamSynchronize(nullptr));
      if (exact) EXPECT_BITS_EQ(gt::result(c, bf), gt::expect(want, bf));
      else EXPECT_EQ(gt::count_outside(gt::result(c, bf), want, ref::gemm_abs(fa, fb, s.M, s.N, s.K), s.K, bf), 0);
      EXPECT_TRUE(c.guards_intact() && ws.guards_intact());
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
  // The bf16 sizes are checked at several CU counts by GemmCus.
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

TEST(GemmKQuant, EveryFormatOneHotAndRandom) {
  // One-hot rows: row m of A picks column m % K, so with M > K every
  // dequantised weight lands in C once, bit for bit. Ragged K: the two formats
  // with 32-weight blocks stop inside a super-block. Random activations
  // accumulate over many groups and super-blocks at odd row counts; the
  // exported entry never splits.
  struct Case {
    int id;
    bool one_hot;
    Shape s;
  };
  const Shape random_shapes[] = {{1, 128, 512}, {17, 256, 256}, {33, 128, 1024}, {300, 128, 256}};
  std::vector<Case> cases = {{8, true, {289, 256, 288}}, {20, true, {353, 256, 352}}};
  for (size_t i = 0; i < ref::kKquantIds.size(); ++i) {
    cases.push_back({ref::kKquantIds[i], true, {257, 256, 256}});
    cases.push_back({ref::kKquantIds[i], false, random_shapes[i % 4]});
  }
  for (const auto& [id, one_hot, s] : cases) {
    const gt::KWeight w = gt::kquant_weight(id, s.N, s.K, (one_hot ? 1000 : 2000) + id + s.K);
    qt::Rng rng(3000 + id);
    const auto A = one_hot ? gt::one_hot(s.M, s.K, [&](int64_t m) { return m % s.K; }) : rng.bf16s((size_t)(s.M * s.K));
    const auto fa = gt::floats_of(A);
    const auto want = ref::gemm(fa, w.W, s.M, s.N, s.K);
    qt::DevBuf a = qt::DevBuf::from(A), ws((size_t)quillon_gemm_kquant_a_ws_bytes(s.M, s.K));
    for (bool bf : {false, true}) {
      SCOPED_TRACE(testing::Message() << "format " << id << " M=" << s.M << " K=" << s.K << " bf16=" << bf);
      qt::DevBuf c((size_t)(s.M * s.N * (bf ? 2 : 4)));
      ASSERT_EQ(quillon_gemm_kquant_a(id, a.get(), w.pl.quant.get(), w.pl.meta.get(), c.get(), s.M, s.N, s.K, bf,
                                      ws.get(), nullptr),
                hipSuccess);
      QT_HIP(hipStreamSynchronize(nullptr));
      if (one_hot) EXPECT_BITS_EQ(gt::result(c, bf), gt::expect(want, bf));
      else EXPECT_EQ(gt::count_outside(gt::result(c, bf), want, ref::gemm_abs(fa, w.W, s.M, s.N, s.K), s.K, bf), 0);
      EXPECT_TRUE(c.guards_intact());
    }
    EXPECT_TRUE(ws.guards_intact());
  }
}

}  // namespace
