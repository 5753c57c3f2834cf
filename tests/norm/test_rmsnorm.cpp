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

// Row-major and the prefill panel (ceil(rows/256)*256 rows against the blk32
// address formula, pad rows zero), each with and without the residual, which
// is updated on real rows only.
TEST(RmsNorm, EveryGeometryFormAndRowCount) {
  qt::Rng rng(11);
  const float eps = 1e-6f;
  for (const Geo& g : kGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    std::vector<std::pair<bool, int64_t>> cases = {{false, 1}, {false, 3}, {false, 17}, {true, 1}, {true, 33}};
    if (g.id == 0) cases.push_back({true, 257});
    for (auto [panel, rows] : cases)
      for (bool residual : {false, true}) {
        SCOPED_TRACE(testing::Message() << "geometry " << g.id << " rows " << rows << " panel " << panel
                                        << " residual " << residual);
        auto x = nt::mixed_bf16_rows(rng, rows, g.H, g.H);
        auto res = nt::spread_bf16s(rng, (size_t)(rows * g.H));
        // Row 0: large residual, small x, so every sum rounds in bf16 (with ties).
        for (int i = 0; residual && i < g.H; ++i) {
          res[i] = qt::to_bf(i % 2 ? -1.0f - (float)(i % 7) / 8 : 1.0f + (float)(i % 5) / 4);
          x[i] = qt::to_bf((i % 3 ? 0.00390625f : 0.0029296875f) * (i % 4 ? 1.f : -1.f));
        }
        const std::vector<float> in = residual ? rounded_sums(res, x) : nt::widen_all(x);
        const ref::Mapping mp = panel ? shuffled_map(g) : kFast;
        const auto w = nt::sensitive_weight(in, g.H, rows, eps, mp, rng);
        const int64_t out_rows = panel ? (rows + 255) / 256 * 256 : rows;
        auto dx = qt::DevBuf::from(x), dres = qt::DevBuf::from(res), dw = qt::DevBuf::from(w);
        qt::DevBuf dout((size_t)(out_rows * g.H) * 2);
        if (panel)
          quillon::rmsnorm_shuffled(dx.get(), residual ? dres.get() : nullptr, dw.get(), dout.get(), rows, eps, nullptr);
        else if (residual)
          ASSERT_EQ(quillon_rmsnorm_residual(dx.get(), dres.get(), dw.get(), dout.get(), rows, eps, nullptr), hipSuccess);
        else
          ASSERT_EQ(quillon_rmsnorm(dx.get(), dw.get(), dout.get(), rows, eps, nullptr), hipSuccess);
        nt::sync_ok();
        const auto want = ref::norm_rows(in, g.H, rows, w.data(), eps, mp);
        EXPECT_BITS_EQ(dout.download<uint16_t>(), panel ? ref::to_blk32(want, rows, out_rows, g.H) : want);
        EXPECT_BITS_EQ(dres.download<uint16_t>(), residual ? nt::round_all(in) : res);
        EXPECT_TRUE(dout.guards_intact() && dres.guards_intact() && dx.guards_intact());
        if (residual) {
          // The crafted row is one where normalising the exact sum would differ.
          std::vector<float> exact(g.H);
          for (int i = 0; i < g.H; ++i) exact[i] = ref::widen(res[i]) + ref::widen(x[i]);
          EXPECT_NE(qt::first_mismatch(ref::norm_rows(exact, g.H, 1, w.data(), eps, mp),
                                       std::vector<uint16_t>(want.begin(), want.begin() + g.H)),
                    -1);
        }
      }
  }
}

// No rows: no form launches anything.
TEST(RmsNorm, NoRowsWritesNothing) {
  QT_SELECT_GEOMETRY(1);
  qt::DevBuf dout(64 * 6144 * 2);
  quillon::rmsnorm_shuffled(nullptr, nullptr, nullptr, dout.get(), 0, 1e-6f, nullptr);
  quillon::rmsnorm_gated(nullptr, nullptr, 6144, nullptr, dout.get(), 0, 1e-6f, nullptr);
  quillon::rmsnorm_gated_shuffled(nullptr, nullptr, 6144, nullptr, dout.get(), 0, 64, 1e-6f, nullptr);
  ASSERT_EQ(quillon_dsv4_rmsnorm(nullptr, nullptr, dout.get(), 1001, 0, 1003, 0, 1e-6f, nullptr), hipSuccess);
  quillon::dsv4_rmsnorm_shuffled(nullptr, nullptr, dout.get(), 4096, 0, 0, 1e-6f, nullptr);
  quillon::dsv4_rmsnorm_shuffled(nullptr, nullptr, dout.get(), 1536, 0, 0, 1e-6f, nullptr);
  nt::sync_ok();
  for (uint16_t v : dout.download<uint16_t>()) ASSERT_EQ(v, 0xFFFF);
}

using qt::kGeometryTwo;

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
  EXPECT_QUILLON_FATAL((void)quillon_rmsnorm(nullptr, nullptr, nullptr, 1, 1e-6f, nullptr), qt::kNoGeometry);
}

}  // namespace
