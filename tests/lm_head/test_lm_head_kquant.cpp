// The k-quant LM head: the plane shuffle of the head's tensor on sampled
// tiles, every general-GEMM format on both paths, the other geometries, and
// the format checks.
#include <algorithm>

#include "lm_head_util.h"
#include "reference/gguf_ref.h"

namespace {

using lh::Geo;
using lh::Lazy;
using lh::Logits;

const char kNotAFormat[] = "7 is not a k-quant format id (see kquant_sets's FORMATS list)";

// One geometry's head in format `id`: GGUF rows of the sampled tiles, shuffled
// by the entry with those tiles' workgroups; the planes are checked against
// their stated layout.
struct KQuantHead {
  Geo g;
  int id;
  ref::KFormat f;
  std::vector<int64_t> tiles;
  Lazy src, quant, meta;
  std::vector<std::vector<float>> B;
  KQuantHead(const Geo& geo, int id_, uint64_t seed)
      : g(geo),
        id(id_),
        f(ref::kformat(id_)),
        tiles(lh::sampled_tiles(geo)),
        src((size_t)(select(geo), quillon_lm_head_kquant_gguf_bytes(id_))),
        quant((size_t)quillon_lm_head_kquant_quant_bytes(id_)),
        meta((size_t)quillon_lm_head_kquant_meta_bytes(id_)) {
    const int64_t row_bytes = g.K / f.block_weights * f.block_bytes;
    std::vector<std::vector<uint8_t>> rows;
    for (size_t t = 0; t < tiles.size(); ++t) {
      rows.push_back(gt::gguf_tensor(id, 128, g.K, seed + t));
      lh::put(src.at(tiles[t] * 128 * row_bytes), rows.back().data(), rows.back().size());
      B.push_back(gt::floats_of(ref::kquant_dequant(id, rows.back(), 128, g.K)));
    }
    lh::sample(ref::kquant_shuffle_blocks(tiles, g.K));
    EXPECT_EQ(quillon_lm_head_kquant_shuffle_weight(id, src.as(), quant.as(), meta.as(), nullptr), hipSuccess);
    EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
    for (size_t t = 0; t < tiles.size(); ++t) check_planes(tiles[t], ref::kquant_planes(id, rows[t], 128, g.K));
  }
  static void select(const Geo& geo) { EXPECT_EQ(quillon_select_geometry(geo.id), 0); }

  // Quant rows of a group sit together across the vocabulary; meta tiles of
  // a super-block likewise. The tile's share of each equals the planes of its
  // 128 rows alone.
  void check_planes(int64_t nt, const ref::KPlanes& want) const {
    const int64_t qrun = 128 * 4 * f.bits, SB = (g.K + 255) / 256;
    std::vector<uint8_t> got((size_t)qrun);
    int64_t bad = 0;
    for (int64_t grp = 0; grp < g.K / 32; ++grp) {
      (void)hipMemcpy(got.data(), quant.at((grp * g.N + nt * 128) * 4 * f.bits), (size_t)qrun, hipMemcpyDeviceToHost);
      bad += std::memcmp(got.data(), want.quant.data() + grp * qrun, (size_t)qrun) != 0;
    }
    EXPECT_EQ(bad, 0) << "quant groups differ in tile " << nt;
    const int64_t mrun = 4 * f.meta_tile;
    got.resize((size_t)mrun);
    bad = 0;
    for (int64_t sb = 0; sb < SB; ++sb) {
      (void)hipMemcpy(got.data(), meta.at((sb * (g.N / 32) + nt * 4) * f.meta_tile), (size_t)mrun,
                      hipMemcpyDeviceToHost);
      for (int64_t i = 0; i < mrun; ++i) {
        const size_t j = (size_t)(sb * mrun + i);
        bad += want.meta_written[j] && got[(size_t)i] != want.meta[j];
      }
    }
    EXPECT_EQ(bad, 0) << "meta bytes differ in tile " << nt;
  }
};

// Both paths through quillon_lm_head_kquant, only the sampled tiles'
// workgroups in the product: the first launch at decode, the second (after
// the panel shuffle) at prefill.
void run(const KQuantHead& h, const std::vector<uint16_t>& A, const Logits& out, int64_t M) {
  const qt::DevBuf x = qt::DevBuf::from(A);
  qt::DevBuf scratch((size_t)std::max<int64_t>(quillon_lm_head_scratch_bytes(M), 1));
  if (M <= 32) lh::sample(ref::decode_blocks(h.tiles, h.g.tiles(), M, M <= 16 ? 16 : 32));
  else lh::sample(ref::prefill_blocks(h.tiles, h.g.tiles(), M), 1);
  EXPECT_EQ(quillon_lm_head_kquant(h.id, x.get(), h.quant.as(), h.meta.as(), out.get(), M,
                                   M <= 32 ? nullptr : scratch.get(), nullptr),
            hipSuccess);
  EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  EXPECT_TRUE(scratch.guards_intact());
}

// One-hot rows read single dequantised weights, so the logits are exact;
// random rows stay within the summation bound.
void one_hot_and_random(const KQuantHead& h, int64_t M, bool one_hot, uint64_t seed) {
  SCOPED_TRACE(testing::Message() << "geometry " << h.g.id << " format " << h.id << " M=" << M);
  qt::Rng rng(seed);
  const auto A = one_hot ? gt::one_hot(M, h.g.K, [&](int64_t m) { return (m * 53 + 7) % h.g.K; })
                         : rng.bf16s((size_t)(M * h.g.K), -1.0f, 1.0f);
  Logits out(h.g.N, M);
  run(h, A, out, M);
  lh::check_logits(h.g, out, M, h.tiles, gt::floats_of(A), h.B, one_hot);
}

TEST(LmHeadKQuant, EveryFormatOnBothPaths) {
  // Each format runs one decode row count in turn and the prefill path,
  // exact on one of them and within the bound on the other.
  const int64_t decode_rows[] = {1, 17, 32};
  QT_REQUIRE_GEOMETRY(0);
  int i = 0;
  for (int id : ref::kKquantIds) {
    const KQuantHead h(lh::kGeos[0], id, 100 + id);
    one_hot_and_random(h, decode_rows[i % 3], i % 2 == 0, 1);
    one_hot_and_random(h, 33, i % 2 != 0, 3);
    ++i;
  }
}

TEST(LmHeadKQuant, OtherGeometries) {
  struct Case {
    int geo, id;
    int64_t decode_M, prefill_M;
  };
  const Case cases[] = {{1, 4, 16, 33}, {2, 6, 32, 33}, {3, 23, 17, 300}};
  for (const Case& c : cases) {
    if (!quillon::geometry_built(c.geo)) continue;
    const KQuantHead h(lh::kGeos[c.geo], c.id, 200 + c.geo);
    one_hot_and_random(h, c.decode_M, true, 4);
    one_hot_and_random(h, c.prefill_M, false, 6);
  }
}

// The head's planes are those of its [N, K] tensor.
TEST(LmHeadKQuant, PlaneSizesAtTheHeadShape) {
  for (const Geo& g : lh::kGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    for (int id : ref::kKquantIds) {
      SCOPED_TRACE(testing::Message() << "geometry " << g.id << " format " << id);
      EXPECT_EQ(quillon_lm_head_kquant_gguf_bytes(id), quillon_kquant_gguf_bytes(id, g.N, g.K));
      EXPECT_EQ(quillon_lm_head_kquant_quant_bytes(id), quillon_kquant_quant_bytes(id, g.N, g.K));
      EXPECT_EQ(quillon_lm_head_kquant_meta_bytes(id), quillon_kquant_meta_bytes(id, g.N, g.K));
    }
  }
}

TEST(LmHeadKQuantDeathTest, FormatAndRowChecks) {
  QT_SELECT_GEOMETRY(2);
  EXPECT_QUILLON_FATAL(quillon_lm_head_kquant(7, nullptr, nullptr, nullptr, nullptr, 0, nullptr, nullptr),
                       kNotAFormat);
  EXPECT_QUILLON_FATAL(quillon_lm_head_kquant_quant_bytes(7), kNotAFormat);
  EXPECT_QUILLON_FATAL(quillon_lm_head_kquant_meta_bytes(7), kNotAFormat);
  EXPECT_QUILLON_FATAL(quillon_lm_head_kquant_shuffle_weight(7, nullptr, nullptr, nullptr, nullptr), kNotAFormat);
  EXPECT_QUILLON_FATAL(quillon_lm_head_kquant(4, nullptr, nullptr, nullptr, nullptr, 0, nullptr, nullptr),
                       "lm_head decode takes at least one row, got 0");
  EXPECT_QUILLON_FATAL(quillon_lm_head(nullptr, nullptr, nullptr, 0, nullptr, nullptr),
                       "lm_head decode takes at least one row, got 0");
  EXPECT_QUILLON_FATAL(quillon_lm_head_gemm_decode(nullptr, nullptr, nullptr, -3, nullptr),
                       "lm_head decode takes at least one row, got -3");
}

}  // namespace
