// Paged decode attention: the device plan against the plan reference, and
// plan + partition + reduce through the exported entries against the
// fixed-order reference (bit-exact) and a double softmax (bounded), over
// lengths at page and tile edges, Q 1..8, scattered pages and int8 pools.
#include <cmath>

#include "attention/full/paged_attn.h"
#include "attention/paged_case.h"
#include "device/device_config.h"
#include "quillon/quillon.h"

namespace {

using pa::Geo;
using pa::kGeos;
using pa::kPoison;
using pa::make_case;

struct Result {
  std::vector<uint16_t> out;
  std::vector<int32_t> plan;
  std::vector<float> ws;
};

// Plan and attention through the ABI (the draft's entries where every row
// sees all); the workspace starts as NaN. With row_offset, q and out start
// that many tokens earlier, and those rows must stay untouched.
Result run(const ref::DecodeCase& c, int64_t num_slots, int64_t part, bool even, int64_t row_offset = 0) {
  const int64_t ns = (int64_t)c.seq_lens.size(), tok = c.nq * c.hd;
  std::vector<uint16_t> qv((size_t)(row_offset * tok), 0x3F80);
  qv.insert(qv.end(), c.q.begin(), c.q.end());
  auto lens = qt::DevBuf::from(c.seq_lens), table = qt::DevBuf::from(c.table), q = qt::DevBuf::from(qv);
  // Sized by the library (the guards catch a short size); the draft has no size entry.
  const int64_t plan_elems =
      c.all_see ? 4 * num_slots + 2 * ns * c.nkv : quillon_paged_decode_plan_elems(ns, num_slots);
  qt::DevBuf plan((size_t)plan_elems * 4);
  qt::DevBuf out(qv.size() * 2);
  qt::DevBuf ws((size_t)(c.all_see ? quillon::draft_paged_decode_workspace_size(num_slots, c.q_rows)
                                   : quillon_paged_decode_workspace_size(num_slots, c.q_rows)));
  const int32_t *dl = lens.as<int32_t>(), *dt = table.as<int32_t>();
  int32_t* dp = plan.as<int32_t>();
  if (c.all_see) {
    auto k = qt::DevBuf::from(c.k16), v = qt::DevBuf::from(c.v16);
    quillon::draft_paged_attn_decode_plan(dl, dp, ns, num_slots, part, even, nullptr);
    quillon::draft_paged_attn_decode(q.get(), k.get(), v.get(), out.get(), dt, dp, ns, c.row_stride, num_slots,
                                     ws.get(), c.q_rows, 16, c.q_stride, row_offset, c.scale, nullptr);
    qt::sync_ok();
  } else if (c.int8) {
    auto k = qt::DevBuf::from(c.k8), v = qt::DevBuf::from(c.v8), ks = qt::DevBuf::from(c.ks),
         vs = qt::DevBuf::from(c.vs);
    EXPECT_EQ(quillon_paged_attn_decode_plan(dl, dp, ns, num_slots, part, even, nullptr), hipSuccess);
    EXPECT_EQ(quillon_paged_attn_decode_int8(q.get(), dl, k.get(), v.get(), ks.get(), vs.get(), out.get(), dt, dp, ns,
                                             c.row_stride, num_slots, ws.get(), c.q_rows, 16, c.q_stride, row_offset,
                                             nullptr, c.scale),
              hipSuccess);
    qt::sync_ok();
  } else {
    auto k = qt::DevBuf::from(c.k16), v = qt::DevBuf::from(c.v16);
    EXPECT_EQ(quillon_paged_attn_decode_plan(dl, dp, ns, num_slots, part, even, nullptr), hipSuccess);
    EXPECT_EQ(quillon_paged_attn_decode(q.get(), dl, k.get(), v.get(), out.get(), dt, dp, ns, c.row_stride, num_slots,
                                        ws.get(), c.q_rows, 16, c.q_stride, row_offset, nullptr, c.scale),
              hipSuccess);
    qt::sync_ok();
  }
  EXPECT_TRUE(out.guards_intact() && ws.guards_intact() && plan.guards_intact());
  const auto o = out.download<uint16_t>();
  for (size_t i = 0; i < (size_t)(row_offset * tok); ++i) EXPECT_EQ(o[i], kPoison) << "before the offset: " << i;
  return {std::vector<uint16_t>(o.begin() + row_offset * tok, o.end()), plan.download<int32_t>(), ws.download<float>()};
}

// Bit-exact against the fixed order, and within the method's bound of the double softmax.
void check(const ref::DecodeCase& c, const Result& r, int64_t num_slots, int64_t part, bool even) {
  const ref::Plan plan = ref::decode_plan(c.seq_lens, c.nkv, num_slots, part, even);
  ASSERT_EQ(r.plan, plan.flat());
  EXPECT_BITS_EQ(r.out, ref::decode_exact(c, plan, kPoison));
  std::vector<double> want, vmax;
  ref::decode_double(c, want, vmax);
  int bad = 0;
  for (size_t i = 0; i < want.size() && bad < 5; ++i) {
    if (r.out[i] == kPoison) continue;
    const double got = qt::bf(r.out[i]), tol = 1.0 / 64 * vmax[i / c.hd] + 1e-6;
    if (!(std::fabs(got - want[i]) <= tol)) ++bad, ADD_FAILURE() << "element " << i << ": " << got << " vs " << want[i];
  }
}

TEST(PagedDecode, SizesAndSlots) {
  for (const Geo& g : kGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    EXPECT_EQ(quillon_paged_decode_num_slots(0), std::max<int64_t>(quillon::num_cus(), 1));
    EXPECT_EQ(quillon_paged_decode_num_slots(1000), 1000 * g.nkv);
  }
  EXPECT_EQ(quillon_paged_decode_max_q_tokens(), 8);
}

// Plans over lengths, slot counts, granularities and both modes.
TEST(PagedDecode, PlanMatchesReference) {
  QT_SELECT_GEOMETRY(1);
  struct P {
    std::vector<int32_t> lens;
    int64_t slots, part;
    bool even;
  } cases[] = {
      {{0}, 4, 128, false},                   // empty: one slot, the rest unused
      {{1000, 10, 300}, 12, 128, false},      // one slot an item: cap = max_chunks
      {{1000, 10, 300}, 40, 128, false},      // spare slots to the longest
      {{100, 130}, 64, 16, false},            // more slots than chunks
      {{5000, 1}, 11, 128, true},             // even split with a remainder
      {{5000, 1, 77}, 25, 37, true},          // start >= end possible
      {{257, 0, 4096, 33}, 40, 100, false},
  };
  for (const P& p : cases) {
    const int64_t ns = (int64_t)p.lens.size();
    auto lens = qt::DevBuf::from(p.lens);
    qt::DevBuf plan((size_t)quillon_paged_decode_plan_elems(ns, p.slots) * 4);
    ASSERT_EQ(quillon_paged_attn_decode_plan(lens.as<int32_t>(), plan.as<int32_t>(), ns, p.slots, p.part, p.even,
                                             nullptr),
              hipSuccess);
    qt::sync_ok();
    EXPECT_EQ(plan.download<int32_t>(), ref::decode_plan(p.lens, 4, p.slots, p.part, p.even).flat())
        << "slots " << p.slots << " part " << p.part;
    EXPECT_TRUE(plan.guards_intact());
  }
}

// Lengths at page and tile edges in one batch, every geometry and Q; a
// request shorter than Q leaves its first rows with nothing to see (zeros).
TEST(PagedDecode, Bf16EveryGeometryAndQ) {
  qt::Rng rng(1601);
  for (const Geo& g : kGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    for (int64_t q = 1; q <= 8; ++q) {
      SCOPED_TRACE(testing::Message() << "geometry " << g.id << " Q " << q);
      const std::vector<int32_t> lens = q == 1 ? std::vector<int32_t>{0, 1, 15, 16, 17, 127, 128, 129}
                                               : std::vector<int32_t>{(int32_t)(q / 2), 17, 129, (int32_t)(120 + q)};
      const auto c = make_case(rng, g, q, lens, false);
      const int64_t slots = (int64_t)lens.size() * g.nkv + 3;
      check(c, run(c, slots, 128, false), slots, 128, false);
    }
  }
}

// Q 8 at lengths 128 and 256: tiles that end on a 128 boundary still need the
// row mask; a long sequence over many partitions; odd granularities, even
// split. Each is held to the double softmax, so granularities agree.
TEST(PagedDecode, RowMaskLongAndGranularity) {
  qt::Rng rng(1602);
  const Geo g = kGeos[0];
  QT_SELECT_GEOMETRY(g.id);
  {
    const auto c = make_case(rng, g, 8, {128, 256}, false);
    for (int64_t part : {128, 256}) check(c, run(c, 4, part, false), 4, part, false);
  }
  const auto c = make_case(rng, g, 2, {1500, 3}, false);
  for (auto [part, even] : {std::pair<int64_t, bool>{128, false}, {37, false}, {200, true}, {100000, false}}) {
    SCOPED_TRACE(testing::Message() << "part " << part << " even " << even);
    check(c, run(c, 24, part, even), 24, part, even);
  }
}

// int8 pools with tiny and huge scales; the double softmax takes byte times
// scale on its own, so a misplaced scale shows there too.
TEST(PagedDecode, Int8Pools) {
  qt::Rng rng(1603);
  for (const Geo& g : kGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    for (int64_t q : {1, 3, 8}) {
      SCOPED_TRACE(testing::Message() << "geometry " << g.id << " Q " << q);
      const auto c = make_case(rng, g, q, {0, 16, 130, 300}, true, 0, q == 3 ? 1e-30f : 0.01f, q == 3 ? 4e-30f : 1e30f);
      const int64_t slots = 4 * g.nkv + 5;
      check(c, run(c, slots, 64, false), slots, 64, false);
    }
  }
}

// Unused slots leave their workspace unread and unwritten; q_stride leaves the
// rows between requests untouched; row_offset moves q and out.
TEST(PagedDecode, UnusedSlotsStridesAndOffset) {
  qt::Rng rng(1604);
  const Geo g = kGeos[2];
  QT_SELECT_GEOMETRY(g.id);
  const auto c = make_case(rng, g, 2, {20, 40}, false, 5);
  const int64_t slots = 64;
  const Result r = run(c, slots, 128, false);
  check(c, r, slots, 128, false);
  const int64_t R = 2 * (g.nq / g.nkv);
  for (int64_t j = 0; j < slots; ++j)
    if (r.plan[j] < 0)
      for (int64_t e = 0; e < R; ++e) ASSERT_TRUE(std::isnan(r.ws[j * R + e])) << "slot " << j;

  // The same batch behind two tokens of something else.
  EXPECT_BITS_EQ(run(c, slots, 128, false, 2).out, r.out);
}

// The draft shape: every row sees the whole history, Q up to 16.
TEST(PagedDecode, DraftAllRowsSeeAll) {
  qt::Rng rng(1605);
  const Geo g{-1, 32, 8, 128, 0};
  for (int64_t q : {1, 4, 8, 16}) {
    SCOPED_TRACE(testing::Message() << "Q " << q);
    auto c = make_case(rng, g, q, {1, 33, 130}, false);
    c.all_see = true;
    const int64_t slots = 3 * 8 + 2;
    check(c, run(c, slots, 64, false), slots, 64, false);
  }
}

TEST(PagedDecodeDeathTest, MessagesInOrder) {
  QT_SELECT_GEOMETRY(1);
  int32_t* p = nullptr;
  const char* page = "KV page 32: this build has no paged instantiation for it (see quillon_kv_block_sizes)";
  EXPECT_QUILLON_FATAL(quillon_paged_attn_decode(p, p, p, p, p, p, p, 1, 1, 1, p, 9, 32, 0, 0, nullptr, 1.0f), page);
  EXPECT_QUILLON_FATAL(quillon_paged_attn_decode_int8(p, p, p, p, p, p, p, p, p, 1, 1, 1, p, 0, 16, 0, 0, nullptr,
                                                      1.0f),
                       "paged decode takes 1..8 query rows (got 0)");
  EXPECT_QUILLON_FATAL(quillon_paged_attn_decode(p, p, p, p, p, p, p, 1, 1, 1, p, 9, 16, 0, 0, nullptr, 1.0f),
                       "paged decode takes 1..8 query rows (got 9)");
  // The slot count is checked before the request limit.
  EXPECT_QUILLON_FATAL(quillon_paged_attn_decode_plan(p, p, 2000, 10, 128, 0, nullptr),
                       "decode plan needs num_slots >= 8000 for 2000 requests (got 10); size it with "
                       "paged_decode_num_slots()");
  EXPECT_QUILLON_FATAL(quillon_paged_attn_decode_plan(p, p, 1025, 1 << 20, 128, 0, nullptr),
                       "decode plan takes at most 1024 requests in one call (got 1025)");
  if (quillon::geometry_built(0)) {
    ASSERT_EQ(quillon_select_geometry(0), 0);
    EXPECT_QUILLON_FATAL(quillon_paged_attn_decode_plan(p, p, 2049, 1 << 20, 128, 0, nullptr),
                         "decode plan takes at most 2048 requests in one call (got 2049)");
  }
  QT_SELECT_GEOMETRY(2);
  const char* g2 = qt::kGeometryTwo;
  EXPECT_QUILLON_FATAL(quillon_paged_attn_decode(p, p, p, p, p, p, p, 1, 1, 1, p, 1, 16, 0, 0, nullptr, 1.0f), g2);
  EXPECT_QUILLON_FATAL(quillon_paged_attn_decode_plan(p, p, 1, 1, 128, 0, nullptr), g2);
  EXPECT_QUILLON_FATAL((void)quillon_paged_decode_num_slots(1), g2);
}

TEST(PagedDecodeDeathTest, NoGeometrySelected) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const char* none = qt::kNoGeometry;
  int32_t* p = nullptr;
  EXPECT_QUILLON_FATAL((void)quillon_paged_decode_workspace_size(1, 1), none);
  EXPECT_QUILLON_FATAL((void)quillon_paged_attn_decode_plan(p, p, 1, 4, 128, 0, nullptr), none);
  EXPECT_QUILLON_FATAL((void)quillon_prefill_q_blocks(p, 0), none);
  EXPECT_QUILLON_FATAL((void)quillon_paged_prefill_max_tokens(), none);
}

}  // namespace
