// Gathered-A tiles: a hand-made tile map (padding rows, an id past the source
// end, pass bounds, shared-tile skip), the ungathered form and its gate.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>

// The device layer first: it defines the host-device marker numerics.h uses.
#include "gemm_core/gemm_shuffle.h"
#include "common/test_util.h"
#include "reference/shuffle_ref.h"

namespace {

using quillon::gemm_core::GroupedGemmTiles;

struct TileMap {
  int64_t M, T, max_tiles;
  std::vector<int32_t> sorted_ids, tile_expert, tile_counts;
};

int32_t packed(int64_t token, int slot) { return (int32_t)(((uint32_t)slot << 24) | ((uint32_t)token & 0xffffffu)); }

// Tiles 0..2 routed (40, 64 and 5 live rows, padding after), tile 3 the shared
// expert, tile 4 surplus past tile_counts[0] with ids that must never be read.
TileMap hand_made_map(int64_t M, int64_t T) {
  TileMap m{M, T, 5, std::vector<int32_t>((size_t)(5 * T), packed(M, 0)), {3, 7, 12, 256, 0}, {4, 3}};
  qt::Rng rng(5);
  std::vector<int64_t> perm((size_t)M);
  std::iota(perm.begin(), perm.end(), 0);
  std::shuffle(perm.begin(), perm.end(), rng.g);
  const int live[3] = {40, (int)T, 5};
  size_t next = 0;
  for (int t = 0; t < 3; ++t)
    for (int r = 0; r < live[t]; ++r) m.sorted_ids[(size_t)(t * T + r)] = packed(perm[next++ % M], (int)rng.integer(0, 8));
  m.sorted_ids[(size_t)(1 * T + 10)] = packed(0xffffff, 2);  // past the end: a zero row
  m.sorted_ids[(size_t)(2 * T + 3)] = packed(M - 1, 8);      // the last source row
  for (int r = 0; r < T; ++r) m.sorted_ids[(size_t)(3 * T + r)] = packed(r, 8);
  for (int r = 0; r < T; ++r) m.sorted_ids[(size_t)(4 * T + r)] = packed(0x7fffff, 0);
  return m;
}

void run_gathered(const TileMap& m, int64_t H, int pass, int32_t shared_id, const void* hidden_shuffled,
                  const std::function<bool(int64_t)>& runs, uint64_t seed) {
  SCOPED_TRACE(testing::Message() << "H=" << H << " T=" << m.T << " pass=" << pass << " shared=" << shared_id);
  qt::Rng rng(seed);
  std::vector<uint16_t> src((size_t)(m.M * H));
  for (auto& x : src) x = (uint16_t)(rng.bits() | 1u);  // never zero, so a zero row is the bound at work
  qt::DevBuf s = qt::DevBuf::from(src), d((size_t)(m.max_tiles * m.T * H * 2));
  qt::DevBuf ids = qt::DevBuf::from(m.sorted_ids), experts = qt::DevBuf::from(m.tile_expert),
             counts = qt::DevBuf::from(m.tile_counts);
  GroupedGemmTiles t{};
  t.sorted_ids = ids.as<int32_t>();
  t.tile_expert = experts.as<int32_t>();
  t.tile_counts = counts.as<int32_t>();
  t.max_tiles = m.max_tiles;
  t.M = m.M;
  t.shared_expert_id = shared_id;
  t.hidden_shuffled = hidden_shuffled;
  t.pass = pass;
  quillon::shuffle_gathered_a(s.get(), d.get(), t, H, (int)m.T, nullptr);
  QT_HIP(hipStreamSynchronize(nullptr));
  QT_HIP(hipGetLastError());
  auto want = ref::gathered_a(
      src, m.M, H, m.T, m.max_tiles,
      [&](int64_t t, int64_t r) { return (int64_t)(m.sorted_ids[(size_t)(t * m.T + r)] & 0xffffff); }, runs);
  EXPECT_BITS_EQ(d.download<uint16_t>(), want);
  EXPECT_TRUE(d.guards_intact());
}

TEST(GatheredA, HandMadeMapAllPasses) {
  const TileMap m = hand_made_map(100, 64);
  int dummy = 0;
  run_gathered(m, 2048, 0, -1, nullptr, [](int64_t t) { return t < 4; }, 1);
  // The shared tile is skipped only when a shuffled hidden stands in for it.
  run_gathered(m, 2048, 0, 256, &dummy, [](int64_t t) { return t < 3; }, 2);
  run_gathered(m, 2048, 0, 256, nullptr, [](int64_t t) { return t < 4; }, 3);
  run_gathered(m, 2048, 1, -1, nullptr, [](int64_t t) { return t < 3; }, 4);
  run_gathered(m, 2048, 2, -1, nullptr, [](int64_t t) { return t == 3; }, 5);
  run_gathered(m, 2560, 0, -1, nullptr, [](int64_t t) { return t < 4; }, 7);
  // Tiles of 128 at H 4096.
  TileMap w = hand_made_map(300, 128);
  w.max_tiles = 2;
  w.tile_counts = {2, 2};
  w.sorted_ids.resize(2 * 128);
  run_gathered(w, 4096, 0, -1, nullptr, [](int64_t) { return true; }, 6);
}

// Ungathered form: tile y holds rows y * T .. y * T + T - 1 of the source,
// rows at or past M zero; with a gate row, the gate of each real row lands at
// gate_out[row * S] and nothing else of gate_out is touched.
void run_hidden(int64_t M, int64_t H, int T, bool gated, uint64_t seed) {
  SCOPED_TRACE(testing::Message() << "M=" << M << " H=" << H << " T=" << T << " gated=" << gated);
  constexpr int S = 9;
  qt::Rng rng(seed);
  auto src = rng.bf16s((size_t)(M * H), -1.0f, 1.0f);
  auto gate = rng.bf16s((size_t)H, -0.05f, 0.05f);
  const int64_t tiles = (M + T - 1) / T;
  qt::DevBuf s = qt::DevBuf::from(src), g = qt::DevBuf::from(gate), d((size_t)(tiles * T * H * 2)),
             out((size_t)(M * S * 4));
  quillon::shuffle_hidden_tiles(s.get(), d.get(), M, H, T, gated ? g.get() : nullptr, out.as<float>(), S, nullptr);
  QT_HIP(hipStreamSynchronize(nullptr));
  QT_HIP(hipGetLastError());
  auto want = ref::gathered_a(src, M, H, T, tiles, [&](int64_t t, int64_t r) { return t * T + r; },
                              [](int64_t) { return true; });
  EXPECT_BITS_EQ(d.download<uint16_t>(), want);
  EXPECT_TRUE(d.guards_intact());
  EXPECT_TRUE(out.guards_intact());
  auto got = out.download<uint32_t>();
  for (int64_t r = 0; r < M; ++r) {
    for (int j = 1; j < S; ++j) ASSERT_EQ(got[(size_t)(r * S + j)], 0xFFFFFFFFu) << "row " << r << " slot " << j;
    if (!gated) {
      ASSERT_EQ(got[(size_t)(r * S)], 0xFFFFFFFFu) << "row " << r;
      continue;
    }
    double dot = 0.0;
    for (int64_t c = 0; c < H; ++c) dot += (double)qt::bf(src[(size_t)(r * H + c)]) * qt::bf(gate[(size_t)c]);
    const double sig = 1.0 / (1.0 + std::exp(-dot));
    ASSERT_NEAR(quillon::num::bits_to_float(got[(size_t)(r * S)]), sig, 1e-5) << "row " << r;
  }
}

TEST(HiddenTiles, UngatheredAndGated) {
  run_hidden(70, 2048, 64, true, 11);
  run_hidden(200, 2560, 128, true, 12);
  run_hidden(70, 4096, 64, false, 13);
  run_hidden(64, 2560, 64, false, 14);
}

TEST(GatheredADeathTest, UncompiledShapes) {
  qt::DevBuf s(4096), d(4096);
  float gate_out = 0.0f;
  EXPECT_QUILLON_FATAL(quillon::shuffle_hidden_tiles(s.get(), d.get(), 1, 1024, 64, nullptr, nullptr, 1, nullptr),
                       "no compiled variant for 1024");
  EXPECT_QUILLON_FATAL(quillon::shuffle_hidden_tiles(s.get(), d.get(), 1, 2048, 32, nullptr, nullptr, 1, nullptr),
                       "no compiled variant for 32");
  EXPECT_QUILLON_FATAL(quillon::shuffle_hidden_tiles(s.get(), d.get(), 1, 4096, 64, s.get(), &gate_out, 1, nullptr),
                       "no compiled variant for 4096");
  GroupedGemmTiles t{};
  t.max_tiles = 1;
  EXPECT_QUILLON_FATAL(quillon::shuffle_gathered_a(s.get(), d.get(), t, 3072, 64, nullptr), "no compiled variant for 3072");
}

}  // namespace
