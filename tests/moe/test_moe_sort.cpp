// MoE token sort (both forms) and scatter-reduce against the reference layout.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <numeric>

#include "common/test_util.h"
#include "device/device_config.h"
#include "moe/moe_sort.h"
#include "moe/moe_variant.h"
#include "quillon/quillon.h"
#include "reference/moe_ref.h"

namespace {

using qt::DevBuf;

struct Geo {
  int id;
  int64_t E, K, S, H;
};
constexpr Geo kGeos[] = {{0, 256, 8, 9, 2048}, {2, 256, 6, 7, 4096}, {3, 512, 10, 11, 2560}};

enum class Ids { Random, OneExpert, ExactTile, LowExperts };

// Routing ids [M, S]: K distinct routed experts and the shared id E in slot K.
std::vector<int32_t> make_ids(const Geo& g, int64_t M, Ids kind, int64_t T, qt::Rng& rng) {
  std::vector<int32_t> ids((size_t)(M * g.S));
  std::vector<int32_t> pool((size_t)g.E);
  std::iota(pool.begin(), pool.end(), 0);
  for (int64_t t = 0; t < M; ++t) {
    for (int64_t k = 0; k < g.K; ++k) {
      int32_t e;
      switch (kind) {
        case Ids::OneExpert: e = 7; break;  // every routed slot on one expert
        case Ids::ExactTile: e = (int32_t)(t < T ? k : (k == 0 ? 1 : k + 1)); break;  // expert 0: T rows, 1: M - T
        case Ids::LowExperts: e = (int32_t)((t + k) % (g.K + 1)); break;  // a few hot experts, the rest empty
        default:
          std::swap(pool[(size_t)k], pool[(size_t)rng.integer(k, g.E - 1)]);
          e = pool[(size_t)k];
      }
      ids[(size_t)(t * g.S + k)] = e;
    }
    ids[(size_t)(t * g.S + g.K)] = (int32_t)g.E;
  }
  return ids;
}

struct SortRun {
  std::vector<int32_t> sorted_ids, tile_expert, tile_counts, inverse;
  std::vector<float> sorted_w;
  int64_t rows = 0;
};

SortRun run_sort(const Geo& g, const std::vector<int32_t>& ids, const std::vector<float>& w, int64_t M, int64_t T) {
  const int64_t tiles = ref::moe_max_tiles(M, g.S, T, g.E + 1), rows = tiles * T;
  DevBuf d_ids = DevBuf::from(ids), d_w = DevBuf::from(w);
  DevBuf sid(rows * 4), te(tiles * 4), tc(8), sw(rows * 4), inv(M * g.S * 4);
  DevBuf counters(quillon::moe_sort_counter_bytes(g.E + 1, quillon::num_cus()));
  const quillon::MoeSortOut o{sid.as<int32_t>(), te.as<int32_t>(), tc.as<int32_t>(), sw.as<float>(),
                              inv.as<int32_t>()};
  quillon::moe_sort(d_ids.as<int32_t>(), d_w.as<float>(), o, counters.as<int32_t>(), M, nullptr);
  EXPECT_EQ(hipDeviceSynchronize(), hipSuccess);
  EXPECT_TRUE(sid.guards_intact() && te.guards_intact() && tc.guards_intact() && sw.guards_intact() &&
              inv.guards_intact() && counters.guards_intact());
  return {sid.download<int32_t>(), te.download<int32_t>(), tc.download<int32_t>(), inv.download<int32_t>(),
          sw.download<float>(), rows};
}

struct SortCase {
  const char* name;
  int64_t M;
  int32_t T;  // 0: the table's variant at M
  bool shuffled;
  Ids ids;
};

class MoeSort : public ::testing::Test {
 protected:
  void TearDown() override { quillon::moe_variant_force(3); }
};

TEST_F(MoeSort, LayoutMatchesReference) {
  const SortCase cases[] = {
      {"one token, table", 1, 0, false, Ids::Random},
      {"one-stage", 37, 16, false, Ids::Random},
      {"one-stage T 32", 50, 32, false, Ids::Random},
      {"one-stage, one expert", 40, 16, false, Ids::OneExpert},
      {"one-stage, exact tile", 17, 16, false, Ids::ExactTile},
      {"one-stage, empty experts", 30, 16, false, Ids::LowExperts},
      {"three-stage 64, one token", 1, 64, true, Ids::Random},
      {"three-stage 64", 61, 64, true, Ids::Random},
      {"three-stage 128", 45, 128, true, Ids::Random},
      {"three-stage, one expert", 150, 64, true, Ids::OneExpert},
      {"three-stage, exact tile", 65, 64, true, Ids::ExactTile},
      {"three-stage, empty experts", 90, 128, true, Ids::LowExperts},
      {"table at 769", 769, 0, false, Ids::Random},
      {"table at 2049", 2049, 0, false, Ids::Random},
  };
  for (const Geo& g : kGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    for (const SortCase& c : cases) {
      SCOPED_TRACE(std::string(c.name) + ", geometry " + std::to_string(g.id));
      if (c.T) quillon::moe_dispatch_force(c.T, c.shuffled);
      else quillon::moe_variant_force(3);
      const quillon::MoeVariant v = quillon::moe_variant_at(c.M);
      const int64_t T = v.T;
      qt::Rng rng(1000 + c.M + g.id);
      const std::vector<int32_t> ids = make_ids(g, c.M, c.ids, T, rng);
      const std::vector<float> w = rng.floats(ids.size(), 0.0f, 1.0f);
      const SortRun r = run_sort(g, ids, w, c.M, T);
      const ref::MoeSortRef want = ref::moe_sort_layout(ids, g.E + 1, T);

      ASSERT_EQ(r.tile_counts[0], want.tiles);
      ASSERT_EQ(r.tile_counts[1], want.routed_tiles);
      ASSERT_LE(want.tiles, ref::moe_max_tiles(c.M, g.S, T, g.E + 1));
      for (int64_t t = 0; t < (int64_t)r.tile_expert.size(); ++t)
        ASSERT_EQ(r.tile_expert[(size_t)t], t < want.tiles ? want.tile_expert[(size_t)t] : -1) << "tile " << t;
      // Every (token, slot) lands once inside its expert's real rows.
      for (int64_t i = 0; i < (int64_t)ids.size(); ++i) {
        const int64_t p = r.inverse[(size_t)i], e = ids[(size_t)i];
        ASSERT_GE(p, want.offset[(size_t)e]) << "pair " << i;
        ASSERT_LT(p, want.offset[(size_t)e] + want.count[(size_t)e]) << "pair " << i;
        ASSERT_EQ(r.sorted_ids[(size_t)p], (int32_t)(((i % g.S) << 24) | (i / g.S))) << "pair " << i;
        ASSERT_EQ(r.sorted_w[(size_t)p], w[(size_t)i]) << "pair " << i;
        if (v.shuffled && i % g.S == g.K) ASSERT_EQ(p, want.offset[(size_t)g.E] + i / g.S) << "shared in token order";
      }
      // Padding rows: identity M, weight +0.0; rows past the live tiles untouched.
      for (int64_t e = 0; e <= g.E; ++e)
        for (int64_t p = want.offset[(size_t)e] + want.count[(size_t)e]; p < want.offset[(size_t)e + 1]; ++p) {
          ASSERT_EQ(r.sorted_ids[(size_t)p], (int32_t)c.M) << "row " << p;
          ASSERT_EQ(std::bit_cast<uint32_t>(r.sorted_w[(size_t)p]), 0u) << "row " << p;
        }
      for (int64_t p = want.offset[(size_t)g.E + 1]; p < r.rows; ++p) ASSERT_EQ(r.sorted_ids[(size_t)p], -1);
    }
  }
}

TEST_F(MoeSort, ShuffledRowBlockOutsideTheListIsFatal) {
  QT_SELECT_GEOMETRY(0);
  quillon::moe_dispatch_force(32, true);
  EXPECT_QUILLON_FATAL(quillon::moe_sort(nullptr, nullptr, {}, nullptr, 4, nullptr), "no compiled variant for 32");
  ASSERT_EQ(quillon_select_geometry(1), 0);
  EXPECT_QUILLON_FATAL(quillon::moe_sort(nullptr, nullptr, {}, nullptr, 4, nullptr),
                       "geometry 1 does not carry this op; it belongs to a model family this build instantiates for "
                       "other ids (see quillon_geometry_name)");
}

// The reduce reads positions through inverse; every split of the grid.
TEST_F(MoeSort, ScatterReduceIsTheSlotOrderedSum) {
  const int64_t G = quillon::num_cus();
  for (const Geo& g : kGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    for (int64_t M : {int64_t(1), G / 4, G / 2 - 1, G - 1, G}) {
      if (M < 1) continue;
      SCOPED_TRACE("M " + std::to_string(M) + ", geometry " + std::to_string(g.id));
      qt::Rng rng(77 + M);
      const std::vector<int32_t> ids = make_ids(g, M, Ids::Random, 16, rng);
      const SortRun r = run_sort(g, ids, rng.floats(ids.size(), 0.0f, 1.0f), M, 16);
      const std::vector<uint16_t> rows = rng.bf16s((size_t)(r.rows * g.H), -2.f, 2.f);
      DevBuf d_rows = DevBuf::from(rows), d_sw = DevBuf::from(r.sorted_w), d_inv = DevBuf::from(r.inverse);
      DevBuf out(M * g.H * 2);
      quillon::moe_scatter_reduce(d_rows.get(), d_sw.as<float>(), d_inv.as<int32_t>(), out.get(), M, nullptr);
      ASSERT_EQ(hipDeviceSynchronize(), hipSuccess);
      EXPECT_BITS_EQ(out.download<uint16_t>(), ref::moe_scatter_reduce(rows, r.sorted_w, r.inverse, M, g.S, g.H));
      EXPECT_TRUE(out.guards_intact());
    }
  }
}

}  // namespace
