// Projections over one A: the fused triple at Decode up to 32 rows, the
// projections in turn otherwise, the grouped launch, and the failures of all
// fused kinds (the pairs run through the layer entries, test_layer_proj).
// Each arm's weight has two live column tiles; in a fused launch only their
// workgroups run, by block sampling, and every arm's output is checked.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "device/device_config.h"
#include "proj_test_util.h"

namespace {

using namespace pt;

// An arm's blocks along x in a launch: from `first`, `tiles` column tiles
// per split.
struct ArmBlocks {
  int64_t first, tiles;
  int splits;
};

// Samples the live tiles of every arm and split, over all row tiles.
void sample(const std::vector<ArmBlocks>& arms, int64_t gx, int64_t row_tiles) {
  std::vector<int64_t> ids;
  for (int64_t y = 0; y < row_tiles; ++y)
    for (const ArmBlocks& a : arms)
      for (int64_t s = 0; s < a.splits; ++s)
        for (int64_t t : {int64_t(0), a.tiles - 1}) ids.push_back(a.first + s * a.tiles + t + gx * y);
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  qt::sample_next_launch(ids);
}
int64_t decode_row_tiles(int64_t M) { return M > 16 ? (M + 31) / 32 : 1; }
// Partials of a projection that runs on its own, at this device's split.
int64_t split_ws(int64_t M, int64_t N, int64_t K) { return want_splits(N, K, quillon::num_cus_p2()) * M * N * 4; }

struct Case {
  int mode;
  int64_t M;
  std::vector<ArmBlocks> blocks;  // the first launch's sampled blocks; empty: all run
  int64_t gx = 0, row_tiles = 1;
  int64_t ws_bytes = 0;  // the workspace, exactly: an overrun hits its guard
  bool fused = true;      // one launch (and a reduction): `blocks` are all that run
};

// Matrix instructions of the sampled blocks of a fused launch: 8 waves per
// 16 rows of the row tile, one instruction per 16 of K in the block's split.
uint64_t fused_wmma(const Case& k, int64_t K) {
  const int64_t MT = k.M > 16 ? 32 : 16;
  uint64_t n = 0;
  for (const ArmBlocks& a : k.blocks) n += (a.tiles > 1 ? 2 : 1) * a.splits * 8 * (MT / 16) * (K / a.splits / 16);
  return n * k.row_tiles;
}

// One run of the arms on integer A: the sampled blocks of the first launch,
// and in a fused launch its matrix instructions.
void check(const std::function<void(const pj::ProjCall&)>& run, const std::vector<const Weight*>& arms, const Case& k,
           qt::Rng& rng) {
  auto counted = [&](const pj::ProjCall& c) {
    if (!k.blocks.empty()) sample(k.blocks, k.gx, k.row_tiles);
    const auto wmma0 = qt::wmma_count();
    run(c);
    ASSERT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
    if (k.fused && wmma0)
      EXPECT_EQ(*qt::wmma_count() - *wmma0, fused_wmma(k, arms[0]->K)) << "not the one fused launch";
  };
  run_arms(counted, arms, k.mode, k.M, true, k.ws_bytes, rng);
}

class ProjFused : public testing::Test {};

// The linear-attention input: qkv, then the one-tile bf16 arm in S2 splits,
// then z in T1 tiles by S1 (at most 256 blocks); its partials after z's.
TEST_F(ProjFused, LinearInTriple) {
  struct Row {
    int g;
    int64_t K, Nqkv, Nz;
    int f0, f1, s1, s2;
  };
  const Row rows[] = {{0, 2048, 8192, 4096, 4, 6, 8, 4}, {0, 2048, 8192, 4096, 8, 5, 8, 2},
                      {0, 2048, 8192, 4096, 3, 4, 8, 4}, {1, 5120, 10240, 6144, 3, 6, 4, 8},
                      {1, 5120, 10240, 6144, 8, 4, 4, 2}, {3, 2560, 10240, 6144, 3, 5, 4, 4},
                      {3, 2560, 10240, 6144, 8, 23, 4, 2}};
  for (const Row& r : rows) {
    if (!quillon::geometry_built(r.g)) continue;
    SCOPED_TRACE(testing::Message() << "geometry " << r.g << " formats " << r.f0 << ", " << r.f1);
    ASSERT_EQ(quillon_select_geometry(r.g), 0);
    qt::Rng rng(24);
    const Weight ba = one_tile_bf16(r.K, rng), qkv = kquant_weight(r.f0, r.Nqkv, r.K, 80 + r.f0),
                 z = kquant_weight(r.f1, r.Nz, r.K, 90 + r.f1);
    auto run = [&](const pj::ProjCall& c) { pj::linear_in_proj_triple_kquant(c, qkv.kquant(), z.kquant(), ba.bf16()); };
    const int64_t seam = r.Nqkv / 128, T1 = r.Nz / 128;
    for (int64_t M : {1, 17, 32}) {
      const std::vector<ArmBlocks> blocks{{0, seam, 1}, {seam, 1, r.s2}, {seam + r.s2, T1, r.s1}};
      check(run, {&qkv, &z, &ba},
            {pj::Decode, M, blocks, seam + r.s2 + T1 * r.s1, decode_row_tiles(M), M * (r.s1 * r.Nz + r.s2 * 128) * 4},
            rng);
    }
  }
}

// Equal formats and M past 32 run the three in turn (at p2 = 64 z splits by 2
// and ba by 8; qkv splits from p2 = 128, and then runs whole).
TEST_F(ProjFused, LinearInTripleInTurn) {
  QT_SELECT_GEOMETRY(0);
  qt::Rng rng(25);
  const Weight ba = one_tile_bf16(2048, rng);
  const int64_t p2 = quillon::num_cus_p2();
  const std::vector<ArmBlocks> first = want_splits(8192, 2048, p2) > 1 ? std::vector<ArmBlocks>{}
                                                                        : std::vector<ArmBlocks>{{0, 64, 1}};
  auto in_turn_ws = [](int64_t M) {
    return std::max({split_ws(M, 8192, 2048), split_ws(M, 4096, 2048), split_ws(M, 128, 2048)});
  };
  const Weight qkv = kquant_weight(6, 8192, 2048, 99), z = kquant_weight(6, 4096, 2048, 98);
  auto run = [&](const pj::ProjCall& c) { pj::linear_in_proj_triple_kquant(c, qkv.kquant(), z.kquant(), ba.bf16()); };
  check(run, {&qkv, &z, &ba}, {pj::Decode, 5, first, 64, 1, in_turn_ws(5), false}, rng);
  const Weight z4 = kquant_weight(4, 4096, 2048, 97);
  auto run4 = [&](const pj::ProjCall& c) { pj::linear_in_proj_triple_kquant(c, qkv.kquant(), z4.kquant(), ba.bf16()); };
  check(run4, {&qkv, &z4, &ba}, {pj::Decode, 33, first, 64, 2, in_turn_ws(33), false}, rng);
}

// Eight records: group g reads its own [M, 4096] block of A and writes
// columns g * 1024 of [M, 8192].
TEST_F(ProjFused, GroupedEightRecords) {
  qt::Rng rng(25);
  for (int F : {4, 23}) {
    std::vector<Weight> w;
    gc::KQuantPlanes planes[8];
    for (int g = 0; g < 8; ++g) {
      w.push_back(kquant_weight(F, 1024, 4096, 200 + 8 * F + g));
      planes[g] = w.back().kquant().planes;
    }
    for (int64_t M : {1, 16, 33}) {
      SCOPED_TRACE(testing::Message() << "format " << F << " M=" << M);
      const auto A = gt::int_bf16(rng, (size_t)(8 * M * 4096), -3, 3);
      qt::DevBuf a = qt::DevBuf::from(A), c((size_t)(M * 8192 * 2));
      const int64_t rt = M > 16 ? (M + 31) / 32 : 1;
      std::vector<ArmBlocks> blocks;
      for (int g = 0; g < 8; ++g) blocks.push_back({8 * g, 8, 1});
      sample(blocks, 64, rt);
      pj::grouped_kquant(F, a.get(), planes, c.get(), M, nullptr);
      ASSERT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
      EXPECT_TRUE(c.guards_intact());
      const auto C = c.download<uint16_t>();
      for (int g = 0; g < 8; ++g) {
        std::vector<uint16_t> out((size_t)(M * 1024));
        for (int64_t m = 0; m < M; ++m)
          std::copy_n(C.begin() + m * 8192 + g * 1024, 1024, out.begin() + m * 1024);
        const std::vector<float> fa = gt::floats_of({A.begin() + g * M * 4096, A.begin() + (g + 1) * M * 4096});
        expect_arm(out, fa, w[(size_t)g], true, M, true);
      }
    }
  }
}

TEST_F(ProjFused, Failures) {
  QT_SELECT_GEOMETRY(0);
  qt::DevBuf a(64 * 2048 * 2), c(64 * 9216 * 2);
  const pj::FormKQuant::Weight q4{4, {nullptr, nullptr}}, q5{5, {nullptr, nullptr}}, q2{2, {nullptr, nullptr}};
  pj::ProjCall call{a.get(), c.get(), 32, pj::Decode, nullptr, nullptr, nullptr};
  EXPECT_QUILLON_FATAL(pj::qkv_proj_pair_kquant(call, q4, q5),
                       "the segmented pair's split arm needs its fp32 partials (got null)");
  EXPECT_QUILLON_FATAL(pj::qkv_proj_q_kv_kquant(call, q4, nullptr),
                       "the segmented pair's split arm needs its fp32 partials (got null)");
  EXPECT_QUILLON_FATAL(pj::linear_in_proj_triple_kquant(call, q4, q5, nullptr),
                       "the triple's two split arms need their fp32 partials (got null)");
  EXPECT_QUILLON_FATAL(pj::qkv_proj_pair_kquant(call, q4, q2),
                       "k-quant format 2 is not in this build's dense-projection set (kquant_sets)");
  EXPECT_QUILLON_FATAL(pj::grouped_kquant(2, nullptr, {}, nullptr, 1, nullptr),
                       "k-quant format 2 is not in this build's dense-projection set (kquant_sets)");
  EXPECT_QUILLON_FATAL(pj::mlp_gate_up_pair_kquant(call, q4, q5),
                       "geometry 0 does not carry this op; it belongs to a model family this build instantiates "
                       "for other ids (see quillon_geometry_name)");
  // Past 32 rows, or at Prefill, the arms run in turn by name with no format test.
  call.mode = pj::Prefill;
  EXPECT_QUILLON_FATAL(pj::qkv_proj_pair_kquant(call, q5, q5),
                       "qkv_proj_qk_kquant prefill needs a_scratch of proj_scratch_bytes(M) (got null)");
  EXPECT_QUILLON_FATAL(pj::qkv_proj_q_kv_kquant(call, q5, nullptr),
                       "qkv_proj_q_kquant prefill needs a_scratch of proj_scratch_bytes(M) (got null)");
  EXPECT_QUILLON_FATAL(pj::linear_in_proj_triple_kquant(call, q4, q5, nullptr),
                       "linear_in_proj_qkv_kquant prefill needs a_scratch of proj_scratch_bytes(M) (got null)");
  QT_SELECT_GEOMETRY(1);
  EXPECT_QUILLON_FATAL(pj::mlp_gate_up_pair_kquant(call, q4, q4),
                       "mlp_gate_kquant prefill needs a_scratch of proj_scratch_bytes(M) (got null)");
  call.mode = pj::Decode;
  EXPECT_QUILLON_FATAL(pj::mlp_gate_up_pair_kquant(call, q4, q4),
                       "the segmented pair is for halves stored at DIFFERENT widths; both arrived at k-quant 4, which "
                       "is the fused weight's job");
  EXPECT_QUILLON_FATAL(pj::mlp_gate_up_pair_kquant(call, q4, q5),
                       "the segmented pair's split arm needs its fp32 partials (got null)");
}

// Nothing runs at M = 0, whatever the formats or mode.
TEST_F(ProjFused, NothingAtMZero) {
  QT_SELECT_GEOMETRY(0);
  qt::DevBuf c(64);
  const pj::FormKQuant::Weight q5{5, {nullptr, nullptr}};
  const pj::ProjCall call{nullptr, c.get(), 0, pj::Decode, nullptr, nullptr, nullptr};
  pj::qkv_proj_pair_kquant(call, q5, q5);
  pj::linear_in_proj_triple_kquant(call, q5, q5, nullptr);
  pj::grouped_kquant(2, nullptr, {}, nullptr, 0, nullptr);
  pj::linear_out_proj(call, nullptr);
  pj::ProjCall pre = call;
  pre.mode = pj::Prefill;
  pj::qkv_proj(pre, nullptr);
  pj::attn_out_scale_oproj_kquant(pre, {2, {nullptr, nullptr}});
  ASSERT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  for (uint8_t b : c.download<uint8_t>()) ASSERT_EQ(b, 0xFF);
  EXPECT_EQ(pj::attn_out_scale_oproj_scratch_bytes(0), 0);
}

}  // namespace
