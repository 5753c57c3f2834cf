// Named projections through their internal entries: each path (prefill from
// row-major A, pre-shuffled A, decode at both row tiles, the split decode) on
// model-sized weights, of which only two column tiles (the first and the last)
// carry data and run, by block sampling.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <type_traits>

#include "proj_test_util.h"

namespace {

using namespace pt;

TEST(ProjRule, SplitCounts) {
  struct Row {
    int64_t N, K;
    int s;
  };
  // At p2 = 64.
  const Row rows[] = {{128, 2048, 8}, {128, 2560, 4}, {128, 16384, 8}, {512, 2560, 4}, {640, 2560, 4},
                      {1024, 5120, 8}, {1280, 5120, 4}, {1536, 4096, 4}, {2048, 6144, 4}, {2560, 6144, 2},
                      {3072, 4096, 2}, {4096, 8192, 2}, {5120, 25600, 1}, {6144, 2048, 1}, {8192, 1024, 1},
                      {8704, 2048, 1}, {34816, 2048, 1}};
  for (const Row& r : rows) EXPECT_EQ(pj::split_count(r.N, r.K, 64), r.s) << "N=" << r.N << " K=" << r.K;
  EXPECT_EQ(pj::split_count(5120, 4096, 128), 2);
  EXPECT_EQ(pj::split_count(128, 2560, 1024), 4);
  EXPECT_EQ(pj::split_count(8192, 2048, 1024), 8);
  EXPECT_EQ(pj::split_count(12288, 2048, 1 << 20), 1);
  for (int64_t N : {128, 2048, 8192}) EXPECT_EQ(pj::split_count(N, 2048, 1), 1);
  EXPECT_EQ(pj::proj_scratch_bytes(1, 2048), 256 * 2048 * 2);
  EXPECT_EQ(pj::proj_scratch_bytes(257, 4096), 512 * 4096 * 2);
}

// ---- running a named entry -------------------------------------------------------
using Entry = std::function<void(const pj::ProjCall&, const Weight&)>;

// One call at (mode, M): compares the live columns exactly (integer A) or
// within the summation bound (random A). Without a split the workspace is
// null: no launch may need it.
void check(const Entry& entry, const Weight& w, int mode, int64_t M, bool exact, qt::Rng& rng) {
  const int S = want_splits(w.N, w.K, quillon::num_cus_p2());
  auto run = [&](const pj::ProjCall& c) {
    // From row-major A the product is the second launch, after the shuffle.
    sample_proj(mode == pj::Prefill ? 1 : 0, w, M, mode == pj::Decode);
    entry(c, w);
  };
  run_arms(run, {&w}, mode, M, exact, S > 1 ? S * M * w.N * 4 : 0, rng);
}

// Every decode row count, at integer and random operands; the prefill paths
// where asked for, from row-major A also over two row tiles.
void paths(const Entry& entry, const Weight& w, bool prefill, qt::Rng& rng) {
  for (int64_t M : {1, 16, 17, 32, 33}) check(entry, w, pj::Decode, M, true, rng);
  check(entry, w, pj::Decode, 9, false, rng);
  if (prefill) {
    check(entry, w, pj::PrefillShuffledA, 33, true, rng);
    check(entry, w, pj::PrefillShuffledA, 7, false, rng);
    check(entry, w, pj::Prefill, 20, true, rng);
    check(entry, w, pj::Prefill, 300, true, rng);
  }
}

// An entry over the weight's operand, whichever form its second parameter takes.
template <class W>
Entry entry(void (*f)(const pj::ProjCall&, const W&)) {
  return [f](const pj::ProjCall& c, const Weight& w) {
    if constexpr (std::is_same_v<W, const uint16_t*>) f(c, w.bf16());
    else if constexpr (std::is_same_v<W, gc::Fp8Operand>) f(c, w.fp8());
    else f(c, w.kquant());
  };
}

class Proj : public testing::Test {
 protected:
  void SetUp() override { QT_SELECT_GEOMETRY(0); }
};

TEST_F(Proj, Bf16Projections) {
  qt::Rng rng(1);
  // No split: N from 8704.
  paths(entry(pj::qkv_proj), bf16_weight(9216, 2048, rng), true, rng);
  // Split at N 2048, whose no-split decode runs the plain loop.
  paths(entry(pj::attn_out_scale_oproj), bf16_weight(2048, 4096, rng), true, rng);
}

TEST_F(Proj, Bf16SingleTile) {
  qt::Rng rng(2);
  paths(entry(pj::linear_in_proj_ba), one_tile_bf16(2048, rng), true, rng);
}

TEST_F(Proj, Fp8Projections) {
  qt::Rng rng(3);
  paths(entry(pj::qkv_proj_fp8), fp8_weight(9216, 2048, rng), true, rng);
  paths(entry(pj::linear_out_proj_fp8), fp8_weight(2048, 4096, rng), true, rng);
}

TEST_F(Proj, KQuantProjectionsEveryFormat) {
  qt::Rng rng(4);
  for (int F : {3, 4, 5, 6, 8, 20, 23}) {
    SCOPED_TRACE(testing::Message() << "format " << F);
    const Weight w = kquant_weight(F, 2048, 4096, 100 + F);
    for (int64_t M : {1, 17, 33}) check(entry(pj::attn_out_scale_oproj_kquant), w, pj::Decode, M, false, rng);
  }
  // Both row tiles, the split at N 4096 and 8192, and the prefill path.
  paths(entry(pj::linear_in_proj_z_kquant), kquant_weight(4, 4096, 2048, 7), true, rng);
  paths(entry(pj::linear_in_proj_qkv_kquant), kquant_weight(6, 8192, 2048, 8), false, rng);
  paths(entry(pj::qkv_proj_kquant), kquant_weight(8, 9216, 2048, 9), true, rng);
}

TEST_F(Proj, Failures) {
  qt::DevBuf a(33 * 4096 * 2), c(33 * 9216 * 2);
  pj::ProjCall call{a.get(), c.get(), 3, pj::Prefill, nullptr, nullptr, nullptr};
  EXPECT_QUILLON_FATAL(pj::qkv_proj(call, nullptr), "qkv_proj prefill needs a_scratch of proj_scratch_bytes(M) (got null)");
  EXPECT_QUILLON_FATAL(pj::linear_in_proj_qz_kquant(call, {5, {nullptr, nullptr}}),
                       "linear_in_proj_qz_kquant prefill needs a_scratch of proj_scratch_bytes(M) (got null)");
  call.mode = pj::Decode;
  EXPECT_QUILLON_FATAL(pj::attn_out_scale_oproj(call, nullptr), "proj_gemm_decode decode needs splitk_ws at N=2048 (got null)");
  EXPECT_QUILLON_FATAL(pj::attn_out_scale_oproj_kquant(call, {2, {nullptr, nullptr}}),
                       "k-quant format 2 is not in this build's dense-projection set (kquant_sets)");
  EXPECT_QUILLON_FATAL(pj::on_draft_projection(3, [](auto) {}),
                       "k-quant format 3 is not in this build's draft-projection set (kquant_sets)");
  int seen = 0;
  pj::on_draft_projection(6, [&](auto f) { seen = decltype(f)::value; });
  EXPECT_EQ(seen, 6);
}

int64_t split_bytes(int64_t M, int64_t N, int64_t K) {
  const int S = want_splits(N, K, quillon::num_cus_p2());
  return S > 1 ? S * M * N * 4 : 0;
}
// The named scratch at geometry 0, and the linear-attention tables: A's panel
// per 256 rows, in_proj's qkv and z widths, out_proj's shape, and the conv
// table per row up to 32.
void check_scratch() {
  struct Geo {
    int g;
    int64_t panel, K, Nqkv, Nz, Nout, Kout, conv;
  };
  for (const Geo& g : {Geo{0, 1048576, 2048, 8192, 4096, 2048, 4096, 135168},
                       Geo{1, 2621440, 5120, 10240, 6144, 5120, 6144, 200704},
                       Geo{3, 1310720, 2560, 10240, 6144, 2560, 6144, 100352}}) {
    if (!quillon::geometry_built(g.g)) continue;
    ASSERT_EQ(quillon_select_geometry(g.g), 0);
    for (int64_t M : {1, 16, 32, 33, 255, 256, 257, 1000}) {
      SCOPED_TRACE(testing::Message() << "geometry " << g.g << " M=" << M);
      const int64_t Mt = (M + 255) / 256, c = M < 32 ? M : 32;
      EXPECT_EQ(pj::linear_in_scratch_bytes(M), std::max({Mt * g.panel, split_bytes(M, 128, g.K),
                                                          split_bytes(M, g.Nz, g.K), split_bytes(M, g.Nqkv, g.K),
                                                          c * g.conv}));
      EXPECT_EQ(pj::linear_out_scratch_bytes(M), std::max(Mt * 256 * g.Kout * 2, split_bytes(M, g.Nout, g.Kout)));
      if (g.g != 0) continue;
      EXPECT_EQ(pj::attn_out_scale_oproj_scratch_bytes(M), std::max(Mt * 256 * 4096 * 2, split_bytes(M, 2048, 4096)));
      EXPECT_EQ(pj::qkv_proj_scratch_bytes(M), Mt * 256 * 2048 * 2);
      EXPECT_EQ(pj::linear_in_proj_ba_scratch_bytes(M), std::max(Mt * 1048576, split_bytes(M, 128, 2048)));
    }
  }
  EXPECT_EQ(pj::linear_in_scratch_bytes(0), 0);
}

TEST(ProjScratch, LargestPathAtM) {
  check_scratch();
}

// Run with QUILLON_NUM_CUS set: the split rule, its kernels and scratch at
// that device size; at p2 1 nothing splits and every workspace is null.
TEST(ProjAtCus, SplitsScratchAndKernels) {
  if (std::getenv("QUILLON_NUM_CUS") == nullptr) GTEST_SKIP() << "run with QUILLON_NUM_CUS set";
  const int p2 = quillon::num_cus_p2();
  EXPECT_TRUE(p2 == 1 || p2 == 8 || p2 == 128 || p2 == 1024) << p2;
  check_scratch();
  QT_SELECT_GEOMETRY(0);
  qt::Rng rng(5);
  const Weight b = bf16_weight(2048, 4096, rng);
  for (int64_t M : {1, 33}) check(entry(pj::attn_out_scale_oproj), b, pj::Decode, M, true, rng);
  const Weight t = one_tile_bf16(2048, rng);
  check(entry(pj::linear_in_proj_ba), t, pj::Decode, 3, true, rng);
  const Weight f = fp8_weight(2048, 4096, rng);
  check(entry(pj::attn_out_scale_oproj_fp8), f, pj::Decode, 17, true, rng);
  const Weight k = kquant_weight(23, 8192, 2048, 11);
  for (int64_t M : {16, 32}) check(entry(pj::linear_in_proj_qkv_kquant), k, pj::Decode, M, false, rng);
  const Weight q = kquant_weight(5, 4096, 2048, 12);
  check(entry(pj::linear_in_proj_z_kquant), q, pj::Decode, 5, false, rng);
}

}  // namespace
