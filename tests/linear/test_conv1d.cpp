// Causal convolution: prefill chunks and its final state, checkpoints, per-row
// decode, read-only decode and roll-forward, against the window reference.
#include <cstring>
#include <numeric>

#include "attention/linear/linear_attn.h"
#include "common/test_util.h"
#include "quillon/quillon.h"
#include "reference/conv1d_ref.h"

namespace {

int64_t conv_dim(int g) { return g == 0 ? 8192 : 10240; }

// Input rows of `stride` with NaN past DIM: the gap must never be read.
std::vector<uint16_t> strided_rows(qt::Rng& rng, int64_t rows, int64_t dim, int64_t stride) {
  std::vector<uint16_t> x = rng.bf16s((size_t)(rows * stride), -3.f, 3.f);
  for (int64_t r = 0; r < rows; ++r)
    for (int64_t c = dim; c < stride; ++c) x[(size_t)(r * stride + c)] = 0x7FC0;
  return x;
}

// Sequences of 1, 1, 33, 70 and 2 tokens (chunk boundaries at 32 and 64), two
// continuing and three fresh over slots full of garbage; checkpoints at the
// start, inside and at the end, one skipped by a negative entry. The
// checkpoint launch runs first, so it reads the state before the prompt.
TEST(Conv1d, PrefillStateAndCheckpoints) {
  for (int g : {0, 1}) {
    if (!quillon::geometry_built(g)) continue;
    ASSERT_EQ(quillon_select_geometry(g), 0);
    SCOPED_TRACE(testing::Message() << "geometry " << g);
    qt::Rng rng(100 + g);
    const int64_t dim = conv_dim(g), stride = dim + 64, kSlots = 6, kCkptMax = 3;
    const std::vector<int32_t> lens = {1, 1, 33, 70, 2}, has = {1, 0, 1, 0, 0}, slots = {5, 2, 0, 3, 1};
    const std::vector<int32_t> at = {0, 1, -1, 1, -1, -1, 2, 32, 33, 3, -1, 70, 0, 2, -1};
    const std::vector<int32_t> ckpt_slots = {7, 6, 8, 0, 9, 10, 1, 2, 3, 4, 11, 5, 12, 13, 14};
    std::vector<int32_t> cu = {0};
    for (int32_t l : lens) cu.push_back(cu.back() + l);
    const int64_t tokens = cu.back();
    const auto x = strided_rows(rng, tokens, dim, stride);
    const auto w = rng.bf16s((size_t)(dim * 4), -1.f, 1.f);
    const auto pool = rng.bf16s((size_t)(kSlots * 3 * dim), -3.f, 3.f);

    auto dx = qt::DevBuf::from(x), dw = qt::DevBuf::from(w), dpool = qt::DevBuf::from(pool);
    auto dcu = qt::DevBuf::from(cu), dhas = qt::DevBuf::from(has), dslots = qt::DevBuf::from(slots);
    auto dat = qt::DevBuf::from(at), dck_slots = qt::DevBuf::from(ckpt_slots);
    qt::DevBuf dout((size_t)(tokens * dim * 2)), dckpt((size_t)(15 * 3 * dim * 2));
    quillon::conv1d_state_ckpt(dx.get(), stride, dcu.as<int32_t>(), dhas.as<int32_t>(), dslots.as<int32_t>(),
                               dpool.get(), dat.as<int32_t>(), dck_slots.as<int32_t>(), kCkptMax, dckpt.get(), 5,
                               nullptr);
    quillon::conv1d_prefill(dx.get(), stride, dw.get(), dcu.as<int32_t>(), dhas.as<int32_t>(), dslots.as<int32_t>(),
                            dpool.get(), dout.get(), 5, 70, nullptr);
    qt::sync_ok();

    std::vector<uint16_t> want_out((size_t)(tokens * dim)), want_pool = pool;
    std::vector<uint16_t> want_ckpt((size_t)(15 * 3 * dim), 0xFFFF);
    for (int b = 0; b < 5; ++b) {
      ref::ConvSeq seq = has[b] ? ref::ConvSeq(dim, &pool[(size_t)(slots[b] * 3 * dim)]) : ref::ConvSeq(dim);
      for (int64_t t = 0; t <= lens[b]; ++t) {
        for (int k = 0; k < kCkptMax; ++k)
          if (at[b * kCkptMax + k] == t)
            std::copy(seq.hist.begin(), seq.hist.end(), want_ckpt.begin() + ckpt_slots[b * kCkptMax + k] * 3 * dim);
        if (t == lens[b]) break;
        seq.step(&x[(size_t)((cu[b] + t) * stride)], w.data(), &want_out[(size_t)((cu[b] + t) * dim)]);
      }
      std::copy(seq.hist.begin(), seq.hist.end(), want_pool.begin() + slots[b] * 3 * dim);
    }
    EXPECT_BITS_EQ(dout.download<uint16_t>(), want_out);
    EXPECT_BITS_EQ(dpool.download<uint16_t>(), want_pool);
    EXPECT_BITS_EQ(dckpt.download<uint16_t>(), want_ckpt);
    EXPECT_TRUE(dout.guards_intact() && dpool.guards_intact() && dckpt.guards_intact());
  }
}

// Three sequences of 4 rows over a permuted slot table. Read-only first: its
// outputs, and a pool that keeps every byte. Then the per-row decode from the
// slot of the last accepted row (1, 4 and 2 of the previous step), leaving the
// state after row r in row r's slot. Then roll-forward over 0, 1 and 4 rows.
// Null lists: the per-row decode of sequence b starts from slot b*rows and
// writes b*rows + r; the read-only decode and the advance (all rows) use slot b.
TEST(Conv1d, DecodeReadOnlyAndAdvance) {
  QT_SELECT_GEOMETRY(3);
  const int64_t dim = 10240, stride = dim + 128, rows = 4, kSlots = 13;
  for (bool null_lists : {false, true}) {
    SCOPED_TRACE(null_lists ? "null lists" : "slot lists");
    qt::Rng rng(110);
    std::vector<int32_t> table = {12, 3, 7, 1, 0, 9, 4, 11, 2, 8, 6, 5}, accepted = {1, 4, 2}, advance_n = {0, 1, 4};
    if (null_lists) {
      std::iota(table.begin(), table.end(), 0);
      accepted = {1, 1, 1};
      advance_n = {4, 4, 4};
    }
    const auto x = strided_rows(rng, 3 * rows, dim, stride);
    const auto w = rng.bf16s((size_t)(dim * 4), -1.f, 1.f);
    const auto pool = rng.bf16s((size_t)(kSlots * 3 * dim), -3.f, 3.f);
    std::vector<int32_t> start(3), committed(3);
    for (int b = 0; b < 3; ++b) {
      start[b] = table[b * rows + accepted[b] - 1];
      committed[b] = null_lists ? b : start[b];
    }

    auto dx = qt::DevBuf::from(x), dw = qt::DevBuf::from(w), dtable = qt::DevBuf::from(table);
    auto dacc = qt::DevBuf::from(accepted), dcommitted = qt::DevBuf::from(committed), dn = qt::DevBuf::from(advance_n);
    auto dro_pool = qt::DevBuf::from(pool), drow_pool = qt::DevBuf::from(pool), dadv_pool = qt::DevBuf::from(pool);
    qt::DevBuf dro_out((size_t)(3 * rows * dim * 2)), drow_out((size_t)(3 * rows * dim * 2));
    auto list = [&](const qt::DevBuf& d) { return null_lists ? nullptr : d.as<int32_t>(); };
    quillon::conv1d_decode_readonly(dx.get(), stride, dw.get(), list(dcommitted), dro_pool.get(), dro_out.get(), 3,
                                    rows, nullptr);
    quillon::conv1d_decode(dx.get(), stride, dw.get(), list(dtable), list(dacc), drow_pool.get(), drow_out.get(), 3,
                           rows, nullptr);
    quillon::conv1d_advance(dx.get(), stride, list(dcommitted), list(dn), dadv_pool.get(), 3, rows, nullptr);
    qt::sync_ok();

    std::vector<uint16_t> want_ro((size_t)(3 * rows * dim)), want_out = want_ro, want_rows = pool, want_adv = pool;
    for (int b = 0; b < 3; ++b) {
      ref::ConvSeq ro(dim, &pool[(size_t)(committed[b] * 3 * dim)]), seq(dim, &pool[(size_t)(start[b] * 3 * dim)]);
      for (int64_t r = 0; r <= rows; ++r) {
        if (advance_n[b] == r) std::copy(ro.hist.begin(), ro.hist.end(), want_adv.begin() + committed[b] * 3 * dim);
        if (r == rows) break;
        const int64_t t = b * rows + r;
        ro.step(&x[(size_t)(t * stride)], w.data(), &want_ro[(size_t)(t * dim)]);
        seq.step(&x[(size_t)(t * stride)], w.data(), &want_out[(size_t)(t * dim)]);
        std::copy(seq.hist.begin(), seq.hist.end(), want_rows.begin() + table[t] * 3 * dim);
      }
    }
    EXPECT_BITS_EQ(dro_out.download<uint16_t>(), want_ro);
    EXPECT_EQ(std::memcmp(dro_pool.download<uint8_t>().data(), pool.data(), pool.size() * 2), 0)
        << "the read-only decode wrote to the pool";
    EXPECT_BITS_EQ(drow_out.download<uint16_t>(), want_out);
    EXPECT_BITS_EQ(drow_pool.download<uint16_t>(), want_rows);
    EXPECT_BITS_EQ(dadv_pool.download<uint16_t>(), want_adv);
    EXPECT_TRUE(dro_pool.guards_intact() && drow_pool.guards_intact() && dadv_pool.guards_intact());
  }
}

TEST(Conv1dDeathTest, Contracts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  QT_SELECT_GEOMETRY(1);
  int32_t one = 1;
  EXPECT_QUILLON_FATAL(quillon::conv1d_decode(nullptr, 10239, nullptr, nullptr, nullptr, nullptr, nullptr, 1, 1,
                                              nullptr),
                       "qkv_stride must span the conv axis (got 10239, need >= 10240)");
  EXPECT_QUILLON_FATAL(quillon::conv1d_state_ckpt(nullptr, 10240, nullptr, nullptr, nullptr, nullptr, &one, &one, 2,
                                                  nullptr, 1, nullptr),
                       "ckpt_max=2 needs ckpt_at, ckpt_slots and ckpt");
  // No checkpoints: nothing is checked.
  quillon::conv1d_state_ckpt(nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr, 1, nullptr);
  if (quillon::geometry_built(2)) {
    ASSERT_EQ(quillon_select_geometry(2), 0);
    EXPECT_QUILLON_FATAL(quillon::conv1d_advance(nullptr, 10240, nullptr, nullptr, nullptr, 1, 1, nullptr),
                         qt::kGeometryTwo);
  }
}

}  // namespace
