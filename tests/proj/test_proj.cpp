// Named projections through their internal entries: each path (prefill from
// row-major A, pre-shuffled A, decode at both row tiles, the split decode) on
// model-sized weights, of which only two column tiles (the first and the last)
// carry data and run, by block sampling.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "../gemm/gemm_test_util.h"
#include "device/device_config.h"
#include "gemm_core/gemm_entry_proj.h"
#include "platform/cpu/qcpu.h"

namespace {

namespace gc = quillon::gemm_core;
namespace pj = quillon::proj;

// The split table as this library states it: column tiles T = N / 128, at
// most 8 splits and K / S a multiple of 128; N from 8704 never splits.
int want_splits(int64_t N, int64_t K, int64_t p2) {
  if (N >= 8704) return 1;
  const int64_t T = N / 128;
  int s = 1;
  while (s < 8 && p2 >= 2 * s * T) s *= 2;
  while (K % (s * 128) != 0) s /= 2;
  return s;
}

TEST(ProjRule, SplitCounts) {
  struct Row {
    int64_t N, K;
    int s;
  };
  // At p2 = 64.
  const Row rows[] = {{128, 2048, 8}, {128, 2560, 4}, {128, 16384, 8}, {512, 2560, 4}, {640, 2560, 4},
                      {1024, 5120, 8}, {1280, 5120, 4}, {1536, 4096, 4}, {2048, 6144, 4}, {2560, 6144, 2},
                      {3072, 4096, 2}, {4096, 8192, 2}, {5120, 25600, 1}, {6144, 2048, 1}, {8192, 1024, 1},
                      {8704, 2048, 1}, {34816, 2048, 1}};
  for (const Row& r : rows) EXPECT_EQ(pj::split_count(r.N, r.K, 64), r.s) << "N=" << r.N << " K=" << r.K;
  EXPECT_EQ(pj::split_count(5120, 4096, 128), 2);
  EXPECT_EQ(pj::split_count(128, 2560, 1024), 4);
  EXPECT_EQ(pj::split_count(8192, 2048, 1024), 8);
  EXPECT_EQ(pj::split_count(12288, 2048, 1 << 20), 1);
  for (int64_t N : {128, 2048, 8192}) EXPECT_EQ(pj::split_count(N, 2048, 1), 1);
  EXPECT_EQ(pj::proj_scratch_bytes(1, 2048), 256 * 2048 * 2);
  EXPECT_EQ(pj::proj_scratch_bytes(257, 4096), 512 * 4096 * 2);
}

// ---- weights with two live column tiles ------------------------------------------
// Rows 0..127 of the source are columns 0..127, rows 128..255 the last tile.
int64_t col_of(int64_t j, int64_t N) { return j < 128 ? j : N - 256 + j; }

struct Weight {
  int form = 0;  // 0 bf16, 1 fp8, 2 k-quant
  int format = 0;
  int64_t N = 0, K = 0;
  qt::DevBuf b0, b1;
  std::vector<float> decode_w, prefill_w;  // [256, K], the values each path multiplies by
  const uint16_t* bf16() const { return b0.as<uint16_t>(); }
  gc::Fp8Operand fp8() const { return {b0.as<uint8_t>(), b1.as<uint16_t>()}; }
  pj::FormKQuant::Weight kquant() const { return {format, {b0.as<uint32_t>(), b1.as<uint8_t>()}}; }
};

Weight bf16_weight(int64_t N, int64_t K, qt::Rng& rng) {
  Weight w;
  w.N = N, w.K = K;
  const auto src = gt::int_bf16(rng, (size_t)(256 * K), -3, 3);
  std::vector<uint16_t> big((size_t)(N * K), 0);
  for (int64_t j = 0; j < 256; ++j)
    for (int64_t k = 0; k < K; ++k) big[(size_t)(gc::blk32_b_offset(col_of(j, N), k, N) / 2)] = src[(size_t)(j * K + k)];
  w.b0 = qt::DevBuf::from(big);
  w.decode_w = w.prefill_w = gt::floats_of(src);
  return w;
}

// Exact: exponents 7..10 and scales 1..8 keep every sum of integer rows
// within fp32's 24 bits.
Weight fp8_weight(int64_t N, int64_t K, qt::Rng& rng) {
  Weight w;
  w.form = 1, w.N = N, w.K = K;
  std::vector<uint8_t> bytes((size_t)(N * K), 0);
  std::vector<uint16_t> scales((size_t)(K / 128 * (N / 128)), 0);
  for (auto& s : scales) s = (uint16_t)((127 + rng.integer(0, 3)) << 7);
  w.decode_w.resize((size_t)(256 * K));
  w.prefill_w.resize((size_t)(256 * K));
  for (int64_t j = 0; j < 256; ++j) {
    const int64_t n = col_of(j, N);
    for (int64_t k = 0; k < K; ++k) {
      const uint8_t x = (uint8_t)((rng.integer(0, 1) << 7) | (rng.integer(7, 10) << 3) | rng.integer(0, 7));
      bytes[(size_t)gc::blk32_fp8_offset(n, k, N)] = x;
      const float v = ref::fp8_weight(x) * ref::bf16_value(scales[(size_t)((k / 128) * (N / 128) + n / 128)]);
      w.decode_w[(size_t)(j * K + k)] = v;
      w.prefill_w[(size_t)(j * K + k)] = ref::bf16_value(ref::bf16_rne_plain(v));
    }
  }
  w.b0 = qt::DevBuf::from(bytes);
  w.b1 = qt::DevBuf::from(scales);
  return w;
}

// The planes of a 256-row tensor, moved to the rows of the two tiles of an
// N-row tensor: quant rows at (group * N + n), meta tiles at (sb * N / 32 + n / 32).
Weight kquant_weight(int F, int64_t N, int64_t K, uint64_t seed) {
  Weight w;
  w.form = 2, w.format = F, w.N = N, w.K = K;
  const auto src = gt::gguf_tensor(F, 256, K, seed);
  w.decode_w = w.prefill_w = gt::floats_of(ref::kquant_dequant(F, src, 256, K));
  gt::Planes small = gt::shuffle_kquant(F, src, 256, K);
  const auto q = small.quant.download<uint8_t>(), m = small.meta.download<uint8_t>();
  const int64_t rb = 4 * quillon::kq::format_info(F).bits, mt = quillon::kq::format_info(F).meta_tile_bytes;
  std::vector<uint8_t> bq((size_t)quillon_kquant_quant_bytes(F, N, K), 0), bm((size_t)quillon_kquant_meta_bytes(F, N, K), 0);
  for (int64_t g = 0; g < K / 32; ++g)
    for (int64_t j = 0; j < 256; ++j)
      std::memcpy(&bq[(size_t)((g * N + col_of(j, N)) * rb)], &q[(size_t)((g * 256 + j) * rb)], (size_t)rb);
  for (int64_t sb = 0; sb < (K + 255) / 256; ++sb)
    for (int64_t t = 0; t < 8; ++t)
      std::memcpy(&bm[(size_t)((sb * (N / 32) + col_of(t * 32, N) / 32) * mt)], &m[(size_t)((sb * 8 + t) * mt)], (size_t)mt);
  w.b0 = qt::DevBuf::from(bq);
  w.b1 = qt::DevBuf::from(bm);
  return w;
}

// ---- running a named entry -------------------------------------------------------
using Entry = std::function<void(const pj::ProjCall&, const Weight&)>;

// Sampled workgroups: the two live tiles of every row tile and split.
void sample_decode(int64_t N, int64_t M, int MT, int S) {
  std::vector<int64_t> ids;
  const int64_t nt = N / 128, mt = (M + MT - 1) / MT;
  for (int64_t z = 0; z < S; ++z)
    for (int64_t y = 0; y < mt; ++y)
      for (int64_t x : {int64_t(0), nt - 1}) ids.push_back(x + nt * (y + mt * z));
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  qcpu_sample_next_launch(ids.data(), (int)ids.size());
}
// Up to 256 rows the prefill grid is the column tiles in order.
void sample_prefill(int64_t N) {
  const int64_t ids[] = {0, N / 128 - 1};
  qcpu_sample_next_launch(ids, N > 128 ? 2 : 1);
}

// The live columns of C.
std::vector<uint16_t> live(const std::vector<uint16_t>& C, int64_t M, int64_t N) {
  std::vector<uint16_t> r((size_t)(M * 256));
  for (int64_t m = 0; m < M; ++m)
    for (int64_t j = 0; j < 256; ++j) r[(size_t)(m * 256 + j)] = C[(size_t)(m * N + col_of(j, N))];
  return r;
}

// One call at (mode, M): compares the live columns exactly (integer A) or
// within the summation bound (random A).
void check(const Entry& entry, const Weight& w, int mode, int64_t M, bool exact, qt::Rng& rng) {
  const int64_t N = w.N, K = w.K;
  SCOPED_TRACE(testing::Message() << "mode " << mode << " M=" << M << (exact ? " exact" : " random"));
  const auto A = exact ? gt::int_bf16(rng, (size_t)(M * K), -3, 3) : rng.bf16s((size_t)(M * K));
  qt::DevBuf a = qt::DevBuf::from(A), c((size_t)(M * N * 2));
  const int64_t R = (M + 255) / 256 * 256;
  qt::DevBuf shuffled((size_t)(R * K * 2)), scratch((size_t)pj::proj_scratch_bytes(M, K));
  const int S = want_splits(N, K, quillon::num_cus_p2());
  qt::DevBuf ws((size_t)(S * M * N * 4 + 4));
  pj::ProjCall call{a.get(), c.get(), M, mode, scratch.get(), ws.as<float>(), nullptr};
  if (mode == pj::PrefillShuffledA) {
    quillon::shuffle_a_blk32(a.get(), K, shuffled.get(), R, K, nullptr, M);
    call.A = shuffled.get();
  }
  if (mode == pj::Decode) sample_decode(N, M, M > 16 ? 32 : 16, S);
  else if (mode == pj::PrefillShuffledA) sample_prefill(N);
  entry(call, w);
  ASSERT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  EXPECT_TRUE(c.guards_intact() && ws.guards_intact() && scratch.guards_intact());
  const auto& W = mode == pj::Decode ? w.decode_w : w.prefill_w;
  const auto fa = gt::floats_of(A);
  const auto got = live(c.download<uint16_t>(), M, N);
  const auto want = ref::gemm(fa, W, M, 256, K);
  // Dequantised k-quant weights carry too many bits for an exact sum.
  if (exact && w.form != 2) EXPECT_BITS_EQ(got, gt::expect_bf16(want));
  else EXPECT_EQ(gt::count_outside(gt::widen(got), want, ref::gemm_abs(fa, W, M, 256, K), K, true), 0);
}

// Every decode row count, at integer and random operands; the prefill paths
// where asked for.
void paths(const Entry& entry, const Weight& w, bool prefill, bool from_row_major, qt::Rng& rng) {
  for (int64_t M : {1, 16, 17, 32, 33}) check(entry, w, pj::Decode, M, true, rng);
  check(entry, w, pj::Decode, 9, false, rng);
  if (prefill) {
    check(entry, w, pj::PrefillShuffledA, 33, true, rng);
    check(entry, w, pj::PrefillShuffledA, 7, false, rng);
  }
  if (from_row_major) check(entry, w, pj::Prefill, 20, true, rng);
}

Entry bf16_entry(void (*f)(const pj::ProjCall&, const uint16_t* const&)) {
  return [f](const pj::ProjCall& c, const Weight& w) { f(c, w.bf16()); };
}
Entry fp8_entry(void (*f)(const pj::ProjCall&, const gc::Fp8Operand&)) {
  return [f](const pj::ProjCall& c, const Weight& w) { f(c, w.fp8()); };
}
Entry kquant_entry(void (*f)(const pj::ProjCall&, const pj::FormKQuant::Weight&)) {
  return [f](const pj::ProjCall& c, const Weight& w) { f(c, w.kquant()); };
}

class Proj : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(quillon_select_geometry(0), 0); }
};

TEST_F(Proj, Bf16Projections) {
  qt::Rng rng(1);
  // No split: N from 8704.
  paths(bf16_entry(pj::qkv_proj), bf16_weight(9216, 2048, rng), true, false, rng);
  // Split at N 2048, whose no-split decode runs the plain loop.
  paths(bf16_entry(pj::attn_out_scale_oproj), bf16_weight(2048, 4096, rng), true, false, rng);
}

TEST_F(Proj, Bf16SingleTileWithPrefillFromRowMajorA) {
  // N = 128: both live tiles are tile 0, so the source's second half wins.
  qt::Rng rng(2);
  Weight w = bf16_weight(128, 2048, rng);
  std::vector<float> last(w.decode_w.begin() + 128 * 2048, w.decode_w.end());
  w.decode_w.resize(256 * 2048);
  std::copy(last.begin(), last.end(), w.decode_w.begin());
  w.prefill_w = w.decode_w;
  paths(bf16_entry(pj::linear_in_proj_ba), w, true, true, rng);
}

TEST_F(Proj, Fp8Projections) {
  qt::Rng rng(3);
  paths(fp8_entry(pj::qkv_proj_fp8), fp8_weight(9216, 2048, rng), true, false, rng);
  paths(fp8_entry(pj::linear_out_proj_fp8), fp8_weight(2048, 4096, rng), false, false, rng);
}

TEST_F(Proj, KQuantProjectionsEveryFormat) {
  qt::Rng rng(4);
  for (int F : {3, 4, 5, 6, 8, 20, 23}) {
    SCOPED_TRACE(testing::Message() << "format " << F);
    const Weight w = kquant_weight(F, 2048, 4096, 100 + F);
    for (int64_t M : {1, 17, 33}) check(kquant_entry(pj::attn_out_scale_oproj_kquant), w, pj::Decode, M, false, rng);
  }
  // Both row tiles, the split at N 4096 and 8192, and the prefill path.
  paths(kquant_entry(pj::linear_in_proj_z_kquant), kquant_weight(4, 4096, 2048, 7), true, false, rng);
  paths(kquant_entry(pj::linear_in_proj_qkv_kquant), kquant_weight(6, 8192, 2048, 8), false, false, rng);
  paths(kquant_entry(pj::qkv_proj_kquant), kquant_weight(8, 9216, 2048, 9), true, false, rng);
}

TEST_F(Proj, NothingHappensAtMZero) {
  qt::DevBuf c(64);
  const pj::ProjCall call{nullptr, c.get(), 0, pj::Prefill, nullptr, nullptr, nullptr};
  pj::qkv_proj(call, nullptr);
  pj::attn_out_scale_oproj_kquant(call, {2, {nullptr, nullptr}});
  pj::ProjCall dec = call;
  dec.mode = pj::Decode;
  pj::linear_out_proj(dec, nullptr);
  ASSERT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  for (uint8_t b : c.download<uint8_t>()) ASSERT_EQ(b, 0xFF);
  EXPECT_EQ(pj::attn_out_scale_oproj_scratch_bytes(0), 0);
}

TEST_F(Proj, Failures) {
  qt::DevBuf a(33 * 4096 * 2), c(33 * 9216 * 2);
  pj::ProjCall call{a.get(), c.get(), 3, pj::Prefill, nullptr, nullptr, nullptr};
  EXPECT_QUILLON_FATAL(pj::qkv_proj(call, nullptr), "qkv_proj prefill needs a_scratch of proj_scratch_bytes(M) (got null)");
  EXPECT_QUILLON_FATAL(pj::linear_in_proj_qz_kquant(call, {5, {nullptr, nullptr}}),
                       "linear_in_proj_qz_kquant prefill needs a_scratch of proj_scratch_bytes(M) (got null)");
  call.mode = pj::Decode;
  EXPECT_QUILLON_FATAL(pj::attn_out_scale_oproj(call, nullptr), "proj_gemm_decode decode needs splitk_ws at N=2048 (got null)");
  EXPECT_QUILLON_FATAL(pj::attn_out_scale_oproj_kquant(call, {2, {nullptr, nullptr}}),
                       "k-quant format 2 is not in this build's dense-projection set (kquant_sets)");
  EXPECT_QUILLON_FATAL(pj::on_draft_projection(3, [](auto) {}),
                       "k-quant format 3 is not in this build's draft-projection set (kquant_sets)");
  int seen = 0;
  pj::on_draft_projection(6, [&](auto f) { seen = decltype(f)::value; });
  EXPECT_EQ(seen, 6);
}

// Scratch: the largest path at M, and the linear-attention tables.
int64_t split_bytes(int64_t M, int64_t N, int64_t K) {
  const int S = want_splits(N, K, quillon::num_cus_p2());
  return S > 1 ? S * M * N * 4 : 0;
}
void check_scratch() {
  const int64_t Ms[] = {1, 16, 32, 33, 255, 256, 257, 1000};
  ASSERT_EQ(quillon_select_geometry(0), 0);
  for (int64_t M : Ms) {
    SCOPED_TRACE(testing::Message() << "M=" << M);
    const int64_t Mt = (M + 255) / 256, c = M < 32 ? M : 32;
    EXPECT_EQ(pj::attn_out_scale_oproj_scratch_bytes(M), std::max(Mt * 256 * 4096 * 2, split_bytes(M, 2048, 4096)));
    EXPECT_EQ(pj::qkv_proj_scratch_bytes(M), Mt * 256 * 2048 * 2);
    EXPECT_EQ(pj::linear_in_proj_ba_scratch_bytes(M), std::max(Mt * 1048576, split_bytes(M, 128, 2048)));
    EXPECT_EQ(pj::linear_in_scratch_bytes(M),
              std::max({Mt * 1048576, split_bytes(M, 128, 2048), split_bytes(M, 4096, 2048), split_bytes(M, 8192, 2048),
                        c * 135168}));
    EXPECT_EQ(pj::linear_out_scratch_bytes(M), std::max(Mt * 256 * 4096 * 2, split_bytes(M, 2048, 4096)));
  }
  ASSERT_EQ(quillon_select_geometry(1), 0);
  for (int64_t M : Ms) {
    const int64_t Mt = (M + 255) / 256, c = M < 32 ? M : 32;
    EXPECT_EQ(pj::linear_in_scratch_bytes(M),
              std::max({Mt * 2621440, split_bytes(M, 128, 5120), split_bytes(M, 6144, 5120), c * 200704}));
    EXPECT_EQ(pj::linear_out_scratch_bytes(M), std::max(Mt * 256 * 6144 * 2, split_bytes(M, 5120, 6144)));
  }
  ASSERT_EQ(quillon_select_geometry(3), 0);
  for (int64_t M : Ms) {
    const int64_t Mt = (M + 255) / 256, c = M < 32 ? M : 32;
    EXPECT_EQ(pj::linear_in_scratch_bytes(M),
              std::max({Mt * 1310720, split_bytes(M, 128, 2560), split_bytes(M, 6144, 2560), c * 100352}));
    EXPECT_EQ(pj::linear_out_scratch_bytes(M), std::max(Mt * 256 * 6144 * 2, split_bytes(M, 2560, 6144)));
  }
  EXPECT_EQ(pj::linear_in_scratch_bytes(0), 0);
}

TEST(ProjScratch, LargestPathAtM) {
  check_scratch();
}

// Run with QUILLON_NUM_CUS set: the split rule, its kernels and scratch at
// that device size.
TEST(ProjAtCus, SplitsScratchAndKernels) {
  if (std::getenv("QUILLON_NUM_CUS") == nullptr) GTEST_SKIP() << "run with QUILLON_NUM_CUS set";
  const int p2 = quillon::num_cus_p2();
  EXPECT_TRUE(p2 == 8 || p2 == 128 || p2 == 1024) << p2;
  check_scratch();
  ASSERT_EQ(quillon_select_geometry(0), 0);
  qt::Rng rng(5);
  const Weight b = bf16_weight(2048, 4096, rng);
  for (int64_t M : {1, 33}) check(bf16_entry(pj::attn_out_scale_oproj), b, pj::Decode, M, true, rng);
  const Weight f = fp8_weight(2048, 4096, rng);
  check(fp8_entry(pj::attn_out_scale_oproj_fp8), f, pj::Decode, 17, true, rng);
  const Weight k = kquant_weight(23, 8192, 2048, 11);
  for (int64_t M : {16, 32}) check(kquant_entry(pj::linear_in_proj_qkv_kquant), k, pj::Decode, M, false, rng);
  const Weight q = kquant_weight(5, 4096, 2048, 12);
  check(kquant_entry(pj::linear_in_proj_z_kquant), q, pj::Decode, 5, false, rng);
  // Without a split a null workspace is fine.
  if (want_splits(2048, 4096, p2) == 1) {
    qt::DevBuf a(4096 * 2), c(2048 * 2);
    pj::linear_out_proj({a.get(), c.get(), 1, pj::Decode, nullptr, nullptr, nullptr}, b.bf16());
    EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  }
}

}  // namespace
