// Paged KV pool: sizes per geometry, the bf16 and int8 writers against the
// pool layout (skipped slots untouched), slot resolution and the window view.
#include <cmath>

#include "cache/kv_cache.h"
#include "common/test_util.h"
#include "quillon/quillon.h"
#include "reference/kv_cache_ref.h"

namespace {

using qt::sync_ok;

const ref::KvShape kShapes[] = {{2, 256}, {4, 256}, {1, 512}, {2, 256}};

TEST(KvPool, SizesPerGeometry) {
  // Page elements 2^13 but 2^14 in geometry 1; scales 2^9 / 2^6 bytes a page, twice that in geometry 1.
  const int shift[] = {13, 14, 13, 13};
  for (int g = 0; g < 4; ++g) {
    if (!quillon::geometry_built(g)) continue;
    ASSERT_EQ(quillon_select_geometry(g), 0);
    for (int64_t blocks : {0, 1, 37}) {
      int64_t k = -1, v = -1;
      quillon_kv_pool_bytes(blocks, 16, 0, &k, &v);
      EXPECT_EQ(k, blocks << shift[g] << 1);
      EXPECT_EQ(v, k);
      quillon_kv_pool_bytes(blocks, 16, 7, &k, &v);
      EXPECT_EQ(k, blocks << shift[g]);
      EXPECT_EQ(v, k);
      if (g == 2) continue;
      quillon_kv_scale_bytes(blocks, 16, &k, &v);
      EXPECT_EQ(k, blocks << (shift[g] - 4));
      EXPECT_EQ(v, blocks << (shift[g] - 7));
    }
  }
  EXPECT_EQ(quillon_kv_blocks_for(0, 16), 0);
  EXPECT_EQ(quillon_kv_blocks_for(16, 16), 1);
  EXPECT_EQ(quillon_kv_blocks_for(17, 16), 2);
  EXPECT_EQ(quillon_kv_blocks_for(7, 3), 3);
  EXPECT_EQ(quillon_paged_window_blocks(17, 32, 16), 4);
  EXPECT_EQ(quillon_paged_window_blocks(0, 1, 5), 1);
}

// Slots over three pages, out of order, with skipped tokens.
const std::vector<int32_t> kSlots = {17, -1, 0, 47, 15, -5, 32, 33};
constexpr int64_t kPages = 3;

// Geometries 0..3, then the draft's shape through its own entry.
TEST(KvPool, Bf16WriterEveryShapeAndKeyOnly) {
  qt::Rng rng(51);
  const int64_t n = (int64_t)kSlots.size();
  auto dslots = qt::DevBuf::from(kSlots);
  for (int g = 0; g < 5; ++g)
    for (bool key_only : {false, true}) {
      SCOPED_TRACE(testing::Message() << "geometry " << g << " key only " << key_only);
      const ref::KvShape s = g < 4 ? kShapes[g] : ref::KvShape{8, 128};
      const int64_t row = s.nkv * s.hd, ks = row + 8, vs = row + 24;
      const auto k = rng.bf16s((size_t)(n * ks)), v = rng.bf16s((size_t)(n * vs));
      auto kp = rng.bf16s((size_t)(kPages * row * 16)), vp = rng.bf16s(kp.size());
      auto dk = qt::DevBuf::from(k), dv = qt::DevBuf::from(v), dkp = qt::DevBuf::from(kp), dvp = qt::DevBuf::from(vp);
      // Key only: v and its stride are ignored, even an unaligned stride.
      void* vin = key_only ? nullptr : dv.get();
      void* vpool = key_only ? nullptr : dvp.get();
      const int64_t vstride = key_only ? 3 : vs;
      if (g < 4) {
        if (!quillon::geometry_built(g)) continue;
        ASSERT_EQ(quillon_select_geometry(g), 0);
        ASSERT_EQ(quillon_reshape_and_cache(dk.get(), vin, ks, vstride, dkp.get(), vpool, dslots.as<int32_t>(), n, 16,
                                            nullptr),
                  hipSuccess);
      } else {
        quillon::draft_reshape_and_cache(dk.get(), vin, ks, vstride, dkp.get(), vpool, dslots.as<int32_t>(), n, 16,
                                         nullptr);
      }
      sync_ok();
      ref::kv_write_bf16(s, k, v, ks, vs, kSlots, kp, key_only ? nullptr : &vp);
      EXPECT_BITS_EQ(dkp.download<uint16_t>(), kp);
      EXPECT_BITS_EQ(dvp.download<uint16_t>(), vp);
      EXPECT_TRUE(dkp.guards_intact() && dvp.guards_intact());
    }
}

// Token rows with the scale's edge cases: an all-zero row (scale 1, bytes 0),
// one huge value in a group, a negative maximum.
std::vector<uint16_t> int8_rows(qt::Rng& rng, int64_t n, int64_t stride, int64_t width) {
  auto x = rng.bf16s((size_t)(n * stride), -3.f, 3.f);
  for (int64_t i = 0; i < width; ++i) x[(size_t)(2 * stride + i)] = 0;  // token 2 (slot 0)
  x[(size_t)(3 * stride + 5)] = qt::to_bf(3.0e38f);
  x[(size_t)(4 * stride + 40)] = qt::to_bf(-100.f);
  return x;
}

TEST(KvPool, Int8WriterEveryGeometry) {
  qt::Rng rng(53);
  const int64_t n = (int64_t)kSlots.size();
  auto dslots = qt::DevBuf::from(kSlots);
  for (int g = 0; g < 4; ++g) {
    SCOPED_TRACE(testing::Message() << "geometry " << g);
    if (!quillon::geometry_built(g)) continue;
    ASSERT_EQ(quillon_select_geometry(g), 0);
    const ref::KvShape s = kShapes[g];
    const int64_t row = s.nkv * s.hd, ks = row + 32, vs = row + 64;
    const auto k = int8_rows(rng, n, ks, row), v = int8_rows(rng, n, vs, row);
    std::vector<int8_t> kp((size_t)(kPages * row * 16)), vp(kp.size());
    for (size_t i = 0; i < kp.size(); ++i) kp[i] = (int8_t)rng.bits(), vp[i] = (int8_t)rng.bits();
    auto ksc = rng.bf16s((size_t)(kPages * 16 * s.nkv * s.hd / 32)), vsc = rng.bf16s((size_t)(kPages * s.nkv * 16));
    auto dk = qt::DevBuf::from(k), dv = qt::DevBuf::from(v), dkp = qt::DevBuf::from(kp), dvp = qt::DevBuf::from(vp);
    auto dksc = qt::DevBuf::from(ksc), dvsc = qt::DevBuf::from(vsc);
    ASSERT_EQ(quillon_reshape_and_cache_int8(dk.get(), dv.get(), ks, vs, dkp.get(), dvp.get(), dksc.get(), dvsc.get(),
                                             dslots.as<int32_t>(), n, 16, nullptr),
              hipSuccess);
    sync_ok();
    ref::kv_write_int8(s, k, v, ks, vs, kSlots, kp, vp, ksc, vsc);
    EXPECT_BITS_EQ(dkp.download<int8_t>(), kp);
    EXPECT_BITS_EQ(dvp.download<int8_t>(), vp);
    EXPECT_BITS_EQ(dksc.download<uint16_t>(), ksc);
    EXPECT_BITS_EQ(dvsc.download<uint16_t>(), vsc);
    EXPECT_TRUE(dkp.guards_intact() && dvp.guards_intact() && dksc.guards_intact() && dvsc.guards_intact());
    // The zero row (slot 0): scale 1.0 and zero bytes, not a NaN.
    EXPECT_EQ(vsc[0], 0x3f80);
    EXPECT_EQ(vp[(size_t)ref::kv_v_index(s, 0, 0, 7, 0)], 0);
    // The huge value alone quantises to 127, its neighbours to 0.
    const int64_t p3 = kSlots[3] / 16, o3 = kSlots[3] % 16;
    EXPECT_EQ(kp[(size_t)ref::kv_k_index(s, p3, 0, 5, o3)], 127);
    EXPECT_EQ(kp[(size_t)ref::kv_k_index(s, p3, 0, 6, o3)], 0);
    const int64_t p4 = kSlots[4] / 16, o4 = kSlots[4] % 16;
    EXPECT_EQ(kp[(size_t)ref::kv_k_index(s, p4, 40 / s.hd, 40 % s.hd, o4)], -127);
  }
}

TEST(KvPool, ResolveSlots) {
  const int64_t stride = 5;
  const std::vector<int32_t> table = {7, 2, 9, 0, 0, 4, 11, 3, 0, 0, 1, 5, 6, 8, 10};
  const std::vector<int32_t> seq = {0, 0, 1, 2, 2, -1, 1};
  auto dt = qt::DevBuf::from(table), ds = qt::DevBuf::from(seq);
  // Any positive page; the row of -1 has a position past every row.
  const std::pair<int64_t, std::vector<int32_t>> cases[] = {{16, {0, 31, 20, 63, 40, 12345, 47}},
                                                            {3, {0, 14, 5, 13, 7, 999, 2}}};
  for (const auto& [page, pos] : cases) {
    auto dp = qt::DevBuf::from(pos);
    qt::DevBuf out(seq.size() * 4);
    ASSERT_EQ(quillon_resolve_slots(dt.as<int32_t>(), stride, ds.as<int32_t>(), dp.as<int32_t>(), out.as<int32_t>(),
                                    (int64_t)seq.size(), page, nullptr),
              hipSuccess);
    sync_ok();
    std::vector<int32_t> want(seq.size(), -1);
    for (size_t i = 0; i < seq.size(); ++i)
      if (seq[i] >= 0) want[i] = (int32_t)(table[(size_t)(seq[i] * stride + pos[i] / page)] * page + pos[i] % page);
    EXPECT_EQ(out.download<int32_t>(), want) << "page " << page;
  }
}

TEST(KvPool, WindowViewBoundaries) {
  // head 20 tokens -> 2 pages, tail 33 -> 3 pages: 5 pages kept.
  const int64_t page = 16, stride = 12, vstride = 8, hb = 2, tb = 3;
  // Last positions: 3 pages used, exactly 5, one more (drops page 2), 12, and a single token.
  const std::vector<int32_t> last = {40, 79, 80, 191, 0};
  const int64_t n = (int64_t)last.size();
  std::vector<int32_t> table((size_t)(n * stride));
  for (size_t i = 0; i < table.size(); ++i) table[i] = (int32_t)(100 + i);
  auto dt = qt::DevBuf::from(table), dl = qt::DevBuf::from(last);
  qt::DevBuf view((size_t)(n * vstride) * 4), lens((size_t)n * 4);
  ASSERT_EQ(quillon_paged_window_view(dt.as<int32_t>(), stride, dl.as<int32_t>(), n, 20, 33, view.as<int32_t>(), vstride,
                                      lens.as<int32_t>(), page, nullptr),
            hipSuccess);
  sync_ok();
  const auto got = view.download<int32_t>();
  const auto got_lens = lens.download<int32_t>();
  for (int64_t s = 0; s < n; ++s) {
    // Past the kept width a long sequence leaves the row as it was (poison).
    std::vector<int32_t> want(vstride, -1);
    int32_t len = 0;
    ref::window_row(table.data() + s * stride, last[(size_t)s], page, hb, tb, want, len);
    EXPECT_EQ(std::vector<int32_t>(got.begin() + s * vstride, got.begin() + (s + 1) * vstride), want) << "seq " << s;
    EXPECT_EQ(got_lens[(size_t)s], len) << "seq " << s;
  }
  // The boundary cases by hand: exactly five pages stay whole; one more drops
  // the page after the head and 16 tokens of length.
  EXPECT_EQ(got_lens[1], 80);
  EXPECT_EQ(got[1 * vstride + 5], 0);
  EXPECT_EQ(got_lens[2], 81 - 16);
  EXPECT_EQ(got[2 * vstride + 2], 100 + 2 * stride + 3);
  EXPECT_EQ(got[2 * vstride + 5], -1);
}

TEST(KvPool, EmptyCallsCheckNoStride) {
  QT_SELECT_GEOMETRY(1);
  EXPECT_EQ(quillon_reshape_and_cache(nullptr, nullptr, 3, 5, nullptr, nullptr, nullptr, 0, 16, nullptr), hipSuccess);
  EXPECT_EQ(quillon_reshape_and_cache_int8(nullptr, nullptr, 8, 5, nullptr, nullptr, nullptr, nullptr, nullptr, 0, 16,
                                           nullptr),
            hipSuccess);
  EXPECT_EQ(quillon_resolve_slots(nullptr, 0, nullptr, nullptr, nullptr, 0, 16, nullptr), hipSuccess);
  EXPECT_EQ(quillon_paged_window_view(nullptr, 0, nullptr, 0, 1, 1, nullptr, 0, nullptr, 16, nullptr), hipSuccess);
}

const char* kPage = "KV page %lld: this build has no paged instantiation for it (see quillon_kv_block_sizes)";
std::string page_msg(long long p) {
  char b[160];
  std::snprintf(b, sizeof b, kPage, p);
  return b;
}

TEST(KvPoolDeathTest, MessagesInOrder) {
  QT_SELECT_GEOMETRY(0);
  int64_t a, b;
  EXPECT_QUILLON_FATAL(quillon_kv_pool_bytes(1, 32, 0, &a, &b), page_msg(32));
  EXPECT_QUILLON_FATAL(quillon_kv_scale_bytes(1, 8, &a, &b), page_msg(8));
  // The page is checked before the token count and the strides.
  EXPECT_QUILLON_FATAL((void)quillon_reshape_and_cache(nullptr, nullptr, 3, 3, nullptr, nullptr, nullptr, 0, 15, nullptr),
                       page_msg(15));
  EXPECT_QUILLON_FATAL((void)quillon_reshape_and_cache_int8(nullptr, nullptr, 3, 3, nullptr, nullptr, nullptr, nullptr,
                                                            nullptr, 0, 0, nullptr),
                       page_msg(0));
  EXPECT_QUILLON_FATAL((void)quillon_reshape_and_cache(nullptr, nullptr, 12, 512, nullptr, nullptr, nullptr, 1, 16,
                                                       nullptr),
                       "reshape_and_cache row strides must be multiples of 8; got 12 / 512");
  EXPECT_QUILLON_FATAL((void)quillon_reshape_and_cache(nullptr, nullptr, 512, 4, nullptr, (void*)16, nullptr, 1, 16,
                                                       nullptr),
                       "reshape_and_cache row strides must be multiples of 8; got 512 / 4");
  EXPECT_QUILLON_FATAL((void)quillon_reshape_and_cache_int8(nullptr, nullptr, 512, 48, nullptr, nullptr, nullptr,
                                                            nullptr, nullptr, 1, 16, nullptr),
                       "reshape_and_cache row strides must be multiples of 32; got 512 / 48");
  EXPECT_QUILLON_FATAL((void)quillon_resolve_slots(nullptr, 0, nullptr, nullptr, nullptr, 1, 0, nullptr),
                       "resolve_slots: a KV page is a positive number of slots (got 0)");
  EXPECT_QUILLON_FATAL((void)quillon_kv_blocks_for(5, -2), "kv_blocks_for: a KV page is a positive number of slots (got -2)");
  EXPECT_QUILLON_FATAL((void)quillon_paged_window_blocks(1, 1, 0),
                       "paged_window_blocks: a KV page is a positive number of slots (got 0)");
  EXPECT_QUILLON_FATAL((void)quillon_paged_window_view(nullptr, 0, nullptr, 0, 1, 1, nullptr, 0, nullptr, 0, nullptr),
                       "paged_window_view: a KV page is a positive number of slots (got 0)");
  QT_SELECT_GEOMETRY(2);
  EXPECT_QUILLON_FATAL(quillon_kv_scale_bytes(1, 16, &a, &b), qt::kGeometryTwo);
}

TEST(KvPoolDeathTest, NoGeometrySelected) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  int64_t a, b;
  EXPECT_QUILLON_FATAL(quillon_kv_pool_bytes(1, 16, 1, &a, &b), qt::kNoGeometry);
  EXPECT_QUILLON_FATAL((void)quillon_reshape_and_cache(nullptr, nullptr, 8, 8, nullptr, nullptr, nullptr, 0, 16, nullptr),
                       qt::kNoGeometry);
}

}  // namespace
