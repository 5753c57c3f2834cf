// The bf16 LM head at every geometry's real shape, run on sampled column
// tiles: the weight shuffle, both decode kernels and the prefill kernel over
// the shuffled panel, all through the entries, sizing and failures.
#include "lm_head_util.h"

namespace {

using lh::Geo;
using lh::Lazy;
using lh::Logits;

const char kNoGeometry[] =
    "no model geometry is selected; call quillon_select_geometry(id) once before any other entry point";

// The sampled rows of one geometry's head: source rows filled per tile, then
// shuffled by the entry with the workgroups of those tiles only.
struct DenseHead {
  Geo g;
  std::vector<int64_t> tiles;
  Lazy src, w;
  std::vector<std::vector<float>> B;  // per tile, 128 x K
  DenseHead(const Geo& geo, qt::Rng& rng, bool integers)
      : g(geo), tiles(lh::sampled_tiles(geo)), src((size_t)(geo.N * geo.K * 2)), w((size_t)(geo.N * geo.K * 2)) {
    EXPECT_EQ(quillon_select_geometry(g.id), 0);
    for (int64_t nt : tiles) {
      const auto b = integers ? gt::int_bf16(rng, (size_t)(128 * g.K), -3, 3) : rng.bf16s((size_t)(128 * g.K));
      lh::put(src.at(nt * 128 * g.K * 2), b.data(), b.size() * 2);
      B.push_back(gt::floats_of(b));
    }
    lh::sample(ref::weight_shuffle_blocks(tiles, g.N, g.K));
    EXPECT_EQ(quillon_lm_head_shuffle_weight(src.as(), w.as(), nullptr), hipSuccess);
    EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  }
};

std::vector<uint16_t> activations(qt::Rng& rng, int64_t M, int64_t K, bool integers) {
  return integers ? gt::int_bf16(rng, (size_t)(M * K), -3, 3) : rng.bf16s((size_t)(M * K));
}

// quillon_lm_head (or the decode entry) with the decode grid of M sampled.
void run_decode(const DenseHead& h, const qt::DevBuf& x, const Logits& out, int64_t M, bool entry_decode) {
  const int MT = M <= 16 ? 16 : 32;
  lh::sample(ref::decode_blocks(h.tiles, h.g.tiles(), M, MT));
  const hipError_t e = entry_decode ? quillon_lm_head_gemm_decode(x.get(), h.w.as(), out.get(), M, nullptr)
                                    : quillon_lm_head(x.get(), h.w.as(), out.get(), M, nullptr, nullptr);
  EXPECT_EQ(e, hipSuccess);
  EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
}

// A prefill entry: its second launch, the product after the panel shuffle,
// runs the sampled tiles only.
void run_prefill(const DenseHead& h, const qt::DevBuf& x, const Logits& out, int64_t M, bool entry_prefill) {
  qt::DevBuf scratch((size_t)(entry_prefill ? quillon_lm_head_prefill_scratch_bytes(M) : quillon_lm_head_scratch_bytes(M)));
  lh::sample(ref::prefill_blocks(h.tiles, h.g.tiles(), M), 1);
  const hipError_t e = entry_prefill ? quillon_lm_head_gemm_prefill(x.get(), h.w.as(), scratch.get(), out.get(), M, nullptr)
                                     : quillon_lm_head(x.get(), h.w.as(), out.get(), M, scratch.get(), nullptr);
  EXPECT_EQ(e, hipSuccess);
  EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  EXPECT_TRUE(scratch.guards_intact());
}

// Integer operands make every sum exact, so both paths are bit-exact; so do
// one-hot rows (row m reads column (m * 37) % K), which pick single random weights.
void exact_rows(const Geo& g, std::initializer_list<int64_t> rows, uint64_t seed, bool one_hot = false) {
  QT_REQUIRE_GEOMETRY(g.id);
  SCOPED_TRACE(testing::Message() << "geometry " << g.id << (one_hot ? " one-hot" : ""));
  qt::Rng rng(seed);
  DenseHead h(g, rng, !one_hot);
  for (int64_t M : rows) {
    SCOPED_TRACE(testing::Message() << "M=" << M);
    const auto A = one_hot ? gt::one_hot(M, g.K, [&](int64_t m) { return (m * 37) % g.K; })
                           : activations(rng, M, g.K, true);
    const qt::DevBuf x = qt::DevBuf::from(A);
    Logits out(g.N, M);
    if (M <= 32) run_decode(h, x, out, M, false);
    else run_prefill(h, x, out, M, false);
    lh::check_logits(g, out, M, h.tiles, gt::floats_of(A), h.B, true);
    EXPECT_TRUE(x.guards_intact());
  }
}

TEST(LmHead, Bf16ExactAtEveryDecodeRowCountAndPrefill) { exact_rows(lh::kGeos[0], {1, 16, 17, 32, 33, 300}, 11); }
TEST(LmHead, Bf16ExactOnTheOtherGeometries) {
  exact_rows(lh::kGeos[1], {17, 33}, 12);
  exact_rows(lh::kGeos[2], {1}, 13);
  exact_rows(lh::kGeos[3], {32}, 14);
  exact_rows(lh::kGeos[3], {16, 33}, 31, true);
}

// Random values: within the summation bound of the reference, and the decode
// entry beyond 32 rows (two row tiles here) agrees with the prefill kernel up to
// the order of additions.
TEST(LmHead, DecodeBeyond32RowsMatchesPrefill) {
  const Geo& g = lh::kGeos[2];
  QT_REQUIRE_GEOMETRY(g.id);
  qt::Rng rng(21);
  DenseHead h(g, rng, false);
  const int64_t M = 40;
  const auto A = activations(rng, M, g.K, false);
  const qt::DevBuf x = qt::DevBuf::from(A);
  Logits dec(g.N, M), pre(g.N, M);
  run_decode(h, x, dec, M, true);
  run_prefill(h, x, pre, M, true);
  lh::check_logits(g, dec, M, h.tiles, gt::floats_of(A), h.B, false);
  lh::check_logits(g, pre, M, h.tiles, gt::floats_of(A), h.B, false);
  const auto mag = ref::head_tile(gt::floats_of(A), h.B[1], M, 128, g.K).mag;
  const auto a = dec.tile(h.tiles[1]), b = pre.tile(h.tiles[1]);
  std::vector<double> bd(b.begin(), b.begin() + M * 128);
  EXPECT_EQ(gt::count_outside(std::vector<float>(a.begin(), a.begin() + M * 128), bd, mag, g.K, false), 0);
}

TEST(LmHeadSizing, ScratchOnlyPastThirtyTwoRows) {
  for (const Geo& g : lh::kGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    for (int64_t M : {1, 16, 32, 33, 256, 257, 300}) {
      SCOPED_TRACE(testing::Message() << "geometry " << g.id << " M=" << M);
      EXPECT_EQ(quillon_lm_head_prefill_scratch_bytes(M), ref::lm_head_prefill_scratch(M, g.K));
      EXPECT_EQ(quillon_lm_head_scratch_bytes(M), ref::lm_head_scratch(M, g.K));
    }
  }
  // One panel of 256 rows: 1, 2.5, 2 and 1.25 MiB.
  QT_SELECT_GEOMETRY(1);
  EXPECT_EQ(quillon_lm_head_scratch_bytes(33), 5 << 19);
}

TEST(LmHeadDeathTest, NeedsAGeometry) {
  if (quillon_active_geometry() >= 0) GTEST_SKIP() << "a geometry is already selected in this process";
  EXPECT_QUILLON_FATAL(quillon_lm_head(nullptr, nullptr, nullptr, 1, nullptr, nullptr), kNoGeometry);
  EXPECT_QUILLON_FATAL(quillon_lm_head_scratch_bytes(40), kNoGeometry);
  EXPECT_QUILLON_FATAL(quillon_lm_head_shuffle_weight(nullptr, nullptr, nullptr), kNoGeometry);
  // The sizing query reads the geometry before the format id.
  EXPECT_QUILLON_FATAL(quillon_lm_head_kquant_quant_bytes(7), kNoGeometry);
  EXPECT_QUILLON_FATAL(quillon_lm_head_kquant_gguf_bytes(7), kNoGeometry);
  // The product checks the format id at the door.
  EXPECT_QUILLON_FATAL(quillon_lm_head_kquant(7, nullptr, nullptr, nullptr, nullptr, 1, nullptr, nullptr),
                       "7 is not a k-quant format id (see kquant_sets's FORMATS list)");
  EXPECT_QUILLON_FATAL(quillon_lm_head_kquant_shuffle_weight(7, nullptr, nullptr, nullptr, nullptr),
                       "7 is not a k-quant format id (see kquant_sets's FORMATS list)");
}

}  // namespace
