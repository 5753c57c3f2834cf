// Geometry norms: row-major with and without residual, and the prefill norm
// that writes the blk32 A panel.
#include "norm/norm_util.h"
#include "norm/rmsnorm.h"
#include "quillon/quillon.h"

namespace {

struct Geo {
  int id, H, rows_per_block, threads;
};
const Geo kGeos[] = {{0, 2048, 8, 512}, {1, 5120, 4, 640}, {3, 2560, 8, 640}};

const ref::Mapping kFast{ref::Map::Fast, 1, 0};
ref::Mapping shuffled_map(const Geo& g) { return {ref::Map::Shuffled, g.rows_per_block, g.threads}; }

TEST(RmsNorm, RowMajorEveryGeometry) {
  qt::Rng rng(11);
  for (const Geo& g : kGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    for (int64_t rows : {1, 3, 17}) {
      SCOPED_TRACE(testing::Message() << "geometry " << g.id << " rows " << rows);
      const auto x = nt::mixed_bf16_rows(rng, rows, g.H, g.H);
      const auto w = nt::sensitive_weight(nt::widen_all(x), g.H, rows, 1e-6f, kFast, rng);
      auto dx = qt::DevBuf::from(x), dw = qt::DevBuf::from(w);
      qt::DevBuf dout((size_t)(rows * g.H) * 2);
      ASSERT_EQ(quillon_rmsnorm(dx.get(), dw.get(), dout.get(), rows, 1e-6f, nullptr), hipSuccess);
      nt::sync_ok();
      EXPECT_BITS_EQ(dout.download<uint16_t>(), ref::norm_rows(nt::widen_all(x), g.H, rows, w.data(), 1e-6f, kFast));
      EXPECT_TRUE(dout.guards_intact());
      EXPECT_TRUE(dx.guards_intact());
    }
  }
}

TEST(RmsNorm, InPlaceAndZeroRows) {
  qt::Rng rng(12);
  QT_SELECT_GEOMETRY(1);
  const int H = 5120;
  // In place: a block reads its chunk before writing it.
  auto x = rng.bf16s(3 * H);
  const auto w = rng.bf16s(H);
  auto dx = qt::DevBuf::from(x), dw = qt::DevBuf::from(w);
  ASSERT_EQ(quillon_rmsnorm(dx.get(), dw.get(), dx.get(), 3, 1e-5f, nullptr), hipSuccess);
  nt::sync_ok();
  EXPECT_BITS_EQ(dx.download<uint16_t>(), ref::norm_rows(nt::widen_all(x), H, 3, w.data(), 1e-5f, kFast));

  // A zero row gives zeros with eps > 0, and NaN with eps 0 (0 times an infinite r).
  std::vector<uint16_t> zero(H, 0);
  auto dz = qt::DevBuf::from(zero);
  qt::DevBuf dout(H * 2);
  ASSERT_EQ(quillon_rmsnorm(dz.get(), dw.get(), dout.get(), 1, 1e-6f, nullptr), hipSuccess);
  nt::sync_ok();
  for (uint16_t v : dout.download<uint16_t>()) ASSERT_EQ(ref::widen(v), 0.0f);
  ASSERT_EQ(quillon_rmsnorm(dz.get(), dw.get(), dout.get(), 1, 0.0f, nullptr), hipSuccess);
  nt::sync_ok();
  for (uint16_t v : dout.download<uint16_t>()) ASSERT_TRUE(std::isnan(ref::widen(v)));
}

// residual <- bf16(residual + x); out = norm(new residual).
std::vector<float> rounded_sums(const std::vector<uint16_t>& res, const std::vector<uint16_t>& x) {
  std::vector<float> s(x.size());
  for (size_t i = 0; i < x.size(); ++i) s[i] = ref::through_bf16(ref::widen(res[i]) + ref::widen(x[i]));
  return s;
}

TEST(RmsNorm, ResidualNormalisesTheRoundedSum) {
  qt::Rng rng(13);
  for (const Geo& g : kGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    for (int64_t rows : {1, 17}) {
      SCOPED_TRACE(testing::Message() << "geometry " << g.id << " rows " << rows);
      auto x = nt::spread_bf16s(rng, (size_t)(rows * g.H));
      auto res = rng.bf16s((size_t)(rows * g.H), -8.f, 8.f);
      // Row 0: large residual, small x, so every sum rounds in bf16 (with ties).
      for (int i = 0; i < g.H; ++i) {
        res[i] = qt::to_bf(i % 2 ? -1.0f - (float)(i % 7) / 8 : 1.0f + (float)(i % 5) / 4);
        x[i] = qt::to_bf((i % 3 ? 0.00390625f : 0.0029296875f) * (i % 4 ? 1.f : -1.f));
      }
      const auto sums = rounded_sums(res, x);
      const auto w = nt::sensitive_weight(sums, g.H, rows, 1e-6f, kFast, rng);
      auto dx = qt::DevBuf::from(x), dres = qt::DevBuf::from(res), dw = qt::DevBuf::from(w);
      qt::DevBuf dout((size_t)(rows * g.H) * 2);
      ASSERT_EQ(quillon_rmsnorm_residual(dx.get(), dres.get(), dw.get(), dout.get(), rows, 1e-6f, nullptr),
                hipSuccess);
      nt::sync_ok();
      std::vector<uint16_t> want_res(sums.size());
      for (size_t i = 0; i < sums.size(); ++i) want_res[i] = ref::round_bf16(sums[i]);
      EXPECT_BITS_EQ(dres.download<uint16_t>(), want_res);
      const auto want = ref::norm_rows(sums, g.H, rows, w.data(), 1e-6f, kFast);
      EXPECT_BITS_EQ(dout.download<uint16_t>(), want);
      EXPECT_TRUE(dout.guards_intact());
      EXPECT_TRUE(dres.guards_intact());
      // The crafted row is one where normalising the exact sum would differ.
      std::vector<float> exact(g.H);
      for (int i = 0; i < g.H; ++i) exact[i] = ref::widen(res[i]) + ref::widen(x[i]);
      const auto want_exact = ref::norm_rows(exact, g.H, 1, w.data(), 1e-6f, kFast);
      EXPECT_NE(qt::first_mismatch(want_exact, std::vector<uint16_t>(want.begin(), want.begin() + g.H)), -1);
    }
  }
}

// The prefill norm: the whole panel of ceil(rows/256)*256 rows against the
// blk32 address formula, pad rows zero; the residual form updates real rows only.
TEST(RmsNormShuffled, PanelEveryGeometry) {
  qt::Rng rng(14);
  for (const Geo& g : kGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    std::vector<int64_t> row_counts = {1, 33};
    if (g.id == 0) row_counts.push_back(257);
    for (int64_t rows : row_counts)
      for (bool with_residual : {false, true}) {
        SCOPED_TRACE(testing::Message() << "geometry " << g.id << " rows " << rows << " residual " << with_residual);
        const int64_t padded = (rows + 255) / 256 * 256;
        const auto x = nt::mixed_bf16_rows(rng, rows, g.H, g.H);
        const auto res = nt::spread_bf16s(rng, (size_t)(rows * g.H));
        const std::vector<float> in = with_residual ? rounded_sums(res, x) : nt::widen_all(x);
        const auto w = nt::sensitive_weight(in, g.H, rows, 1e-6f, shuffled_map(g), rng);
        auto dx = qt::DevBuf::from(x), dres = qt::DevBuf::from(res), dw = qt::DevBuf::from(w);
        qt::DevBuf dout((size_t)(padded * g.H) * 2);
        quillon::rmsnorm_shuffled(dx.get(), with_residual ? dres.get() : nullptr, dw.get(), dout.get(), rows, 1e-6f,
                                  nullptr);
        nt::sync_ok();
        const auto rowmajor = ref::norm_rows(in, g.H, rows, w.data(), 1e-6f, shuffled_map(g));
        EXPECT_BITS_EQ(dout.download<uint16_t>(), ref::to_blk32(rowmajor, rows, padded, g.H));
        EXPECT_TRUE(dout.guards_intact());
        if (with_residual) {
          std::vector<uint16_t> want_res(in.size());
          for (size_t i = 0; i < in.size(); ++i) want_res[i] = ref::round_bf16(in[i]);
          EXPECT_BITS_EQ(dres.download<uint16_t>(), want_res);
          EXPECT_TRUE(dres.guards_intact());
        } else {
          EXPECT_BITS_EQ(dres.download<uint16_t>(), res);
        }
      }
  }
}

TEST(RmsNormShuffled, NoRowsWritesNothing) {
  QT_SELECT_GEOMETRY(3);
  qt::DevBuf dout(256 * 2560 * 2);
  quillon::rmsnorm_shuffled(nullptr, nullptr, nullptr, dout.get(), 0, 1e-6f, nullptr);
  nt::sync_ok();
  for (uint16_t v : dout.download<uint16_t>()) ASSERT_EQ(v, 0xFFFF);
}

const char* kGeometryTwo =
    "geometry 2 does not carry this op; it belongs to a model family this build instantiates for other ids "
    "(see quillon_geometry_name)";

TEST(RmsNormDeathTest, GeometryTwoCarriesNone) {
  QT_SELECT_GEOMETRY(2);
  EXPECT_QUILLON_FATAL((void)quillon_rmsnorm(nullptr, nullptr, nullptr, 1, 1e-6f, nullptr), kGeometryTwo);
  EXPECT_QUILLON_FATAL((void)quillon_rmsnorm_residual(nullptr, nullptr, nullptr, nullptr, 1, 1e-6f, nullptr),
                       kGeometryTwo);
  EXPECT_QUILLON_FATAL(quillon::rmsnorm_shuffled(nullptr, nullptr, nullptr, nullptr, 1, 1e-6f, nullptr), kGeometryTwo);
}

TEST(RmsNormDeathTest, NoGeometrySelected) {
  // The child re-runs this case from the start, so no selection made elsewhere
  // in this process reaches it.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_QUILLON_FATAL((void)quillon_rmsnorm(nullptr, nullptr, nullptr, 1, 1e-6f, nullptr),
                       "no model geometry is selected; call quillon_select_geometry(id) once before any other entry "
                       "point");
}

}  // namespace
