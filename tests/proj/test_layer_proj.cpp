// The attention projections and the dense MLP through the exported functions:
// every weight form and road at Decode and Prefill. The gated and SwiGLU
// activations are compared bit for bit where they are written (the scratch),
// the products over the two live column tiles of each weight, by block
// sampling, exactly for integer operands and within the summation bound else.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "attention/full/attn_proj.h"
#include "quillon/quillon.h"
#include "common/device_math.h"
#include "gemm_core/gemm_fused_layout.h"
#include "proj_test_util.h"
#include "reference/attn_mlp_ref.h"
#include "reference/rmsnorm_ref.h"
#include "reference/shuffle_ref.h"

namespace {

using namespace pt;
constexpr int Pre = 0, Dec = 2;  // modes as the exported functions take them

// ---- the launches a call makes, and which of their blocks run ------------------------
// A fused pair: arm 0's tiles to the seam, then arm 1's t1 tiles by s1.
std::vector<int64_t> pair_ids(const pj::FusedLayout& L, const Weight& w1, int64_t M) {
  std::vector<int64_t> ids;
  const int64_t mt = M > 16 ? (M + 31) / 32 : 1;
  for (int64_t y = 0; y < mt; ++y) {
    for (int64_t x : {int64_t(0), L.seam - 1}) ids.push_back(x + L.grid_x * y);
    for (int64_t s = 0; s < L.s1; ++s)
      for (int64_t x : live_tiles(w1)) ids.push_back(L.seam + s * L.t1 + x + L.grid_x * y);
  }
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return ids;
}
// Two arms over one A: the fused pair at Decode up to 32 rows, else in turn.
int sample_pair(int n, const pj::FusedLayout& L, const Weight& w0, const Weight& w1, int64_t M, bool decode) {
  if (decode && M <= 32) {
    qt::sample_launch(n, pair_ids(L, w1, M));
    return L.s1 > 1 ? 2 : 1;
  }
  const int a = sample_proj(n, w0, M, decode);
  return a + sample_proj(n + a, w1, M, decode);
}

Weight make(int form, int F, int64_t N, int64_t K, qt::Rng& rng, int64_t first = 0) {
  if (form == 0) return bf16_weight(N, K, rng, first);
  if (form == 1) return fp8_weight(N, K, rng, first);
  return kquant_weight(F, N, K, 1000 + 31 * F + N % 997, first);
}

std::vector<float> device_exp2(const std::vector<float>& args) { return qt::device_fn(qt::DevFn::Exp2, args); }

// ---- QKV ------------------------------------------------------------------------------
struct GeoShape {
  int g;
  int64_t K, N, qk, v, q, kv;
  int rows_per_block, threads;  // the prefill norm's mapping
};
const GeoShape kShapes[] = {{0, 2048, 9216, 8704, 512, 8192, 1024, 8, 512},
                            {1, 5120, 14336, 13312, 1024, 12288, 2048, 4, 640},
                            {3, 2560, 13312, 12800, 512, 12288, 1024, 8, 640}};
const GeoShape& shape_of(int g) { return *std::find_if(std::begin(kShapes), std::end(kShapes), [&](auto& s) { return s.g == g; }); }

enum Road { Bf16, Fp8, KQuant, Pair, QKv };
struct QkvCase {
  int g;
  Road road;
  int f0, f1;
  int mode;
  int64_t M;
  bool norm, residual, index;
};

void run_qkv(const QkvCase& k) {
  const GeoShape& s = shape_of(k.g);
  const int64_t M = k.M, K = s.K;
  const bool decode = k.mode == Dec;
  SCOPED_TRACE(testing::Message() << "geometry " << k.g << " road " << k.road << " mode " << k.mode << " M=" << M
                                  << " norm " << k.norm << " residual " << k.residual);
  ASSERT_EQ(quillon_select_geometry(k.g), 0);
  qt::Rng rng(100 + k.road * 7 + M);
  std::vector<Weight> arms;
  switch (k.road) {
    case Pair: arms.push_back(make(2, k.f0, s.qk, K, rng)), arms.push_back(make(2, k.f1, s.v, K, rng)); break;
    case QKv: arms.push_back(make(2, k.f0, s.q, K, rng)), arms.push_back(make(0, 0, s.kv, K, rng)); break;
    default: arms.push_back(make((int)k.road, k.f0, s.N, K, rng));
  }
  const Weight index = k.index ? make(0, 0, 640, K, rng) : Weight{};
  // Integer rows without the norm; with it, random rows through the reference norm.
  const auto x = k.norm ? rng.bf16s((size_t)(M * K)) : gt::int_bf16(rng, (size_t)(M * K), -3, 3);
  const auto res = rng.bf16s((size_t)(M * K)), norm_w = rng.bf16s((size_t)K, 0.5f, 1.5f);
  std::vector<float> A = gt::floats_of(x);
  if (k.residual)
    for (size_t i = 0; i < A.size(); ++i) A[i] = ref::through_bf16(ref::widen(res[i]) + A[i]);
  if (k.norm) {
    const ref::Mapping mp = decode ? ref::Mapping{ref::Map::Fast, 1, 0}
                                   : ref::Mapping{ref::Map::Shuffled, s.rows_per_block, s.threads};
    A = gt::floats_of(ref::norm_rows(A, (int)K, M, norm_w.data(), 1e-6f, mp));
  }
  int64_t width = 0;
  for (const Weight& w : arms) width += w.N;
  qt::DevBuf dx = qt::DevBuf::from(x), dres = qt::DevBuf::from(res), dn = qt::DevBuf::from(norm_w),
             out((size_t)(M * width * 2)), iout((size_t)(M * 640 * 2 + 2)),
             scratch((size_t)std::max<int64_t>(quillon_qkv_proj_scratch_bytes(M), 2));
  // The launches: the norm or shuffle, the projections, the indexer.
  int n = decode && !k.norm ? 0 : 1;
  if (k.road == Pair) n += sample_pair(n, pj::qkv_pair_layout(k.g), arms[0], arms[1], M, decode);
  else if (k.road == QKv) n += sample_pair(n, pj::q_kv_layout(k.g), arms[0], arms[1], M, decode);
  else n += sample_proj(n, arms[0], M, decode);
  if (k.index) sample_proj(n, index, M, decode);
  void* r = k.residual ? dres.get() : nullptr;
  const void* nw = k.norm ? dn.get() : nullptr;
  const void* iw = k.index ? index.b0.get() : nullptr;
  void* io = k.index ? iout.get() : nullptr;
  const Weight& w0 = arms[0];
  hipError_t e = hipSuccess;
  switch (k.road) {
    case Bf16: e = quillon_qkv_proj(dx.get(), r, nw, w0.b0.get(), scratch.get(), out.get(), M, k.mode, iw, io, nullptr, 1e-6f); break;
    case Fp8:
      e = quillon_qkv_proj_fp8(dx.get(), r, nw, w0.b0.get(), w0.b1.get(), scratch.get(), out.get(), M, k.mode, iw, io,
                               nullptr, 1e-6f);
      break;
    case KQuant:
      e = quillon_qkv_proj_kquant(k.f0, dx.get(), r, nw, w0.b0.get(), w0.b1.get(), scratch.get(), out.get(), M, k.mode,
                                  iw, io, nullptr, 1e-6f);
      break;
    case Pair:
      e = quillon_qkv_proj_pair_kquant(k.f0, k.f1, dx.get(), r, nw, w0.b0.get(), w0.b1.get(), arms[1].b0.get(),
                                       arms[1].b1.get(), scratch.get(), out.get(), M, k.mode, iw, io, nullptr, 1e-6f);
      break;
    case QKv:
      e = quillon_qkv_proj_q_kv_kquant(k.f0, dx.get(), r, nw, w0.b0.get(), w0.b1.get(), arms[1].b0.get(),
                                       scratch.get(), out.get(), M, k.mode, iw, io, nullptr, 1e-6f);
      break;
  }
  ASSERT_EQ(e, hipSuccess);
  ASSERT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  EXPECT_TRUE(out.guards_intact() && scratch.guards_intact() && iout.guards_intact());
  const auto C = out.download<uint16_t>();
  int64_t off = 0;
  for (const Weight& w : arms) {
    expect_arm({C.begin() + off, C.begin() + off + M * w.N}, A, w, decode, M, !k.norm);
    off += M * w.N;
  }
  if (k.index) expect_arm(iout.download<uint16_t>(), A, index, decode, M, !k.norm);
  if (k.residual) {
    const auto got = dres.download<uint16_t>();
    for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], ref::round_bf16(ref::through_bf16(ref::widen(res[i]) + ref::widen(x[i])))) << i;
  }
}

class AttnProj : public testing::Test {};

// Every weight form and road; the norm at both modes, with and without the
// residual; decode row counts 1, 16, 17, 32, 33 and two prefill row tiles.
TEST_F(AttnProj, QkvEveryRoad) {
  const QkvCase cases[] = {
      {0, Bf16, 0, 0, Dec, 1, false, false, false},  {0, Bf16, 0, 0, Dec, 33, false, false, false},
      {0, Bf16, 0, 0, Pre, 300, false, false, false}, {0, Bf16, 0, 0, Dec, 17, true, true, false},
      {0, Bf16, 0, 0, Pre, 20, true, false, false},   {0, Fp8, 0, 0, Dec, 16, false, false, false},
      {0, Fp8, 0, 0, Pre, 3, false, false, false},    {0, KQuant, 4, 0, Dec, 32, false, false, false},
      {0, KQuant, 23, 0, Pre, 5, true, true, false},  {0, Pair, 4, 6, Dec, 17, false, false, false},
      {0, Pair, 6, 5, Dec, 33, false, false, false},  {0, Pair, 5, 5, Pre, 9, false, false, false},
      {0, QKv, 8, 0, Dec, 1, true, false, false},     {0, QKv, 3, 0, Dec, 40, false, false, false},
      {1, Pair, 3, 8, Dec, 16, false, false, false},  {1, QKv, 20, 0, Pre, 4, false, false, false},
      {1, QKv, 5, 0, Dec, 32, false, false, false},   {3, QKv, 5, 0, Dec, 3, false, false, false},
      {3, Bf16, 0, 0, Dec, 16, false, false, true},   {3, KQuant, 6, 0, Pre, 7, false, false, true},
      {3, Pair, 8, 4, Dec, 32, true, false, true},
  };
  for (const QkvCase& k : cases)
    if (quillon::geometry_built(k.g)) run_qkv(k);
}

// ---- output projection ----------------------------------------------------------------
struct OCase {
  int g, form, F, mode;
  int64_t M;
  bool exact;  // even attention values and gates of 0 or +-100: an integer A
};
struct OShape {
  int g;
  int64_t K, N, gate_stride;
};
const OShape kOShapes[] = {{0, 4096, 2048, 9216}, {1, 6144, 5120, 14336}, {3, 6144, 2560, 13312}};

void run_oproj(const OCase& k) {
  const OShape& s = *std::find_if(std::begin(kOShapes), std::end(kOShapes), [&](auto& o) { return o.g == k.g; });
  const int64_t M = k.M, K = s.K, R = (M + 255) / 256 * 256;
  const bool decode = k.mode != Pre;
  SCOPED_TRACE(testing::Message() << "geometry " << k.g << " form " << k.form << " mode " << k.mode << " M=" << M);
  ASSERT_EQ(quillon_select_geometry(k.g), 0);
  qt::Rng rng(200 + M);
  const Weight w = make(k.form, k.F, s.N, K, rng);
  auto attn = rng.bf16s((size_t)(M * K), -4, 4), gate = rng.bf16s((size_t)(M * s.gate_stride), -8, 8);
  if (k.exact) {
    for (auto& a : attn) a = ref::round_bf16(2.0f * (float)rng.integer(-2, 2));
    for (auto& g : gate) g = ref::round_bf16(100.0f * (float)rng.integer(-1, 1));
  }
  // The gated A, row-major.
  std::vector<float> args((size_t)(M * K));
  for (int64_t m = 0; m < M; ++m)
    for (int64_t c = 0; c < K; ++c) args[(size_t)(m * K + c)] = ref::exp2_arg(gate[(size_t)(m * s.gate_stride + ref::gate_col(c))]);
  const auto e2 = device_exp2(args);
  std::vector<uint16_t> A((size_t)(M * K));
  for (size_t i = 0; i < A.size(); ++i) A[i] = ref::gated(attn[i], e2[i]);
  qt::DevBuf da = qt::DevBuf::from(attn), dg = qt::DevBuf::from(gate), out((size_t)(M * s.N * 2)),
             scratch((size_t)quillon_attn_out_scale_oproj_scratch_bytes(M));
  sample_proj(1, w, M, decode);
  hipError_t e;
  if (k.form == 0)
    e = quillon_attn_out_scale_oproj(da.get(), dg.get(), s.gate_stride, w.b0.get(), scratch.get(), out.get(), M, k.mode, nullptr);
  else if (k.form == 1)
    e = quillon_attn_out_scale_oproj_fp8(da.get(), dg.get(), s.gate_stride, w.b0.get(), w.b1.get(), scratch.get(),
                                         out.get(), M, k.mode, nullptr);
  else
    e = quillon_attn_out_scale_oproj_kquant(k.F, da.get(), dg.get(), s.gate_stride, w.b0.get(), w.b1.get(),
                                            scratch.get(), out.get(), M, k.mode, nullptr);
  ASSERT_EQ(e, hipSuccess);
  ASSERT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  EXPECT_TRUE(out.guards_intact() && scratch.guards_intact());
  const auto sc = scratch.download<uint16_t>();
  const auto want = decode ? A : ref::blk32(A, K, R, K, M, false);
  EXPECT_BITS_EQ(std::vector<uint16_t>(sc.begin(), sc.begin() + (int64_t)want.size()), want);
  expect_arm(out.download<uint16_t>(), gt::floats_of(A), w, decode, M, k.exact);
}

TEST_F(AttnProj, GatedOutputProjection) {
  const OCase cases[] = {{0, 0, 0, Dec, 1, true},  {0, 0, 0, 7, 17, false}, {0, 0, 0, Pre, 300, true},
                         {0, 1, 0, Dec, 33, true}, {0, 2, 5, Pre, 16, false}, {0, 2, 20, Dec, 32, false},
                         {1, 0, 0, Dec, 3, false}, {1, 2, 8, Pre, 2, true},  {3, 1, 0, Pre, 9, true},
                         {3, 2, 4, Dec, 5, false}};
  for (const OCase& k : cases)
    if (quillon::geometry_built(k.g)) run_oproj(k);
}

// The ready blk32 A of the prefill attention, in every form.
TEST_F(AttnProj, OprojShuffledA) {
  QT_SELECT_GEOMETRY(0);
  qt::Rng rng(7);
  for (int form : {0, 1, 2}) {
    const Weight w = make(form, 6, 2048, 4096, rng);
    const int64_t M = 40, R = 256;
    const auto A = gt::int_bf16(rng, (size_t)(M * 4096), -3, 3);
    qt::DevBuf a = qt::DevBuf::from(ref::blk32(A, 4096, R, 4096, M, false)), out((size_t)(M * 2048 * 2));
    sample_proj(0, w, M, false);
    const hipError_t e = form == 0   ? quillon_attn_oproj_shuffled_a(a.get(), w.b0.get(), out.get(), M, nullptr)
                         : form == 1 ? quillon_attn_oproj_shuffled_a_fp8(a.get(), w.b0.get(), w.b1.get(), out.get(), M, nullptr)
                                     : quillon_attn_oproj_shuffled_a_kquant(6, a.get(), w.b0.get(), w.b1.get(), out.get(), M, nullptr);
    ASSERT_EQ(e, hipSuccess);
    ASSERT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
    expect_arm(out.download<uint16_t>(), gt::floats_of(A), w, false, M, true);
  }
}

// ---- dense MLP ------------------------------------------------------------------------
enum MlpForm { MBf16, MFp8, MKq, MKqBf16Down, MSplit, MSplitBf16Down };
struct MCase {
  MlpForm form;
  int fg, fu, fd;
  int mode;
  int64_t M;
};
constexpr int64_t kH = 5120, kI = 17408;

void run_mlp(const MCase& k) {
  const int64_t M = k.M, R = (M + 255) / 256 * 256;
  const bool decode = k.mode != Pre, split = k.form >= MSplit;
  SCOPED_TRACE(testing::Message() << "form " << k.form << " mode " << k.mode << " M=" << M);
  qt::Rng rng(300 + M);
  const int gform = k.form == MBf16 ? 0 : k.form == MFp8 ? 1 : 2;
  const int dform = k.form == MBf16 || k.form == MKqBf16Down || k.form == MSplitBf16Down ? 0 : k.form == MFp8 ? 1 : 2;
  // Fused: the live tiles are the last of the gate rows and the last of the
  // up rows, so that SwiGLU has both halves of columns 17280..17407.
  std::vector<Weight> gu;
  if (split) gu.push_back(make(2, k.fg, kI, kH, rng)), gu.push_back(make(2, k.fu, kI, kH, rng));
  else gu.push_back(make(gform, k.fg, 2 * kI, kH, rng, kI - 128));
  const Weight down = make(dform, k.fd, kH, kI, rng);
  const auto x = gt::int_bf16(rng, (size_t)(M * kH), -3, 3);
  const int64_t ws_bytes = quillon_fused_mlp_workspace_bytes(M);
  qt::DevBuf dx = qt::DevBuf::from(x), out((size_t)(M * kH * 2)),
             ws = qt::DevBuf::from(std::vector<uint8_t>((size_t)ws_bytes, 0));
  // At Prefill each of the split halves shuffles x for itself.
  int n = decode ? 0 : 1;
  if (split && !decode) sample_proj(1, gu[0], M, false), sample_proj(3, gu[1], M, false), n = 4;
  else if (split) n = sample_pair(0, pj::mlp_pair_layout(1, k.fg, k.fu), gu[0], gu[1], M, true);
  else n += sample_proj(n, gu[0], M, decode);
  sample_proj(n + 1, down, M, decode);
  const Weight &g0 = gu[0], &g1 = gu.back();
  const void *dq = down.b0.get(), *dm = down.b1.get();
  hipError_t e;
  switch (k.form) {
    case MBf16: e = quillon_fused_mlp(dx.get(), g0.b0.get(), dq, out.get(), ws.get(), M, k.mode, nullptr); break;
    case MFp8:
      e = quillon_fused_mlp_fp8(dx.get(), g0.b0.get(), g0.b1.get(), dq, dm, out.get(), ws.get(), M, k.mode, nullptr);
      break;
    case MKq:
      e = quillon_fused_mlp_kquant(k.fg, k.fd, dx.get(), g0.b0.get(), g0.b1.get(), dq, dm, out.get(), ws.get(), M,
                                   k.mode, nullptr);
      break;
    case MKqBf16Down:
      e = quillon_fused_mlp_kquant_bf16_down(k.fg, dx.get(), g0.b0.get(), g0.b1.get(), dq, out.get(), ws.get(), M, k.mode,
                                             nullptr);
      break;
    case MSplit:
      e = quillon_fused_mlp_kquant_split(k.fg, k.fu, k.fd, dx.get(), g0.b0.get(), g0.b1.get(), g1.b0.get(), g1.b1.get(),
                                         dq, dm, out.get(), ws.get(), M, k.mode, nullptr);
      break;
    default:
      e = quillon_fused_mlp_kquant_split_bf16_down(k.fg, k.fu, dx.get(), g0.b0.get(), g0.b1.get(), g1.b0.get(),
                                                   g1.b1.get(), dq, out.get(), ws.get(), M, k.mode, nullptr);
  }
  ASSERT_EQ(e, hipSuccess);
  ASSERT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  EXPECT_TRUE(out.guards_intact() && ws.guards_intact());
  const auto W = ws.download<uint16_t>();
  const auto fx = gt::floats_of(x);
  // Gate and up: one [M, 34816] result, or two [M, 17408] one after the other.
  if (split) {
    expect_arm({W.begin(), W.begin() + M * kI}, fx, gu[0], decode, M, true);
    expect_arm({W.begin() + M * kI, W.begin() + 2 * M * kI}, fx, gu[1], decode, M, true);
  } else {
    expect_arm({W.begin(), W.begin() + 2 * M * kI}, fx, gu[0], decode, M, true);
  }
  // SwiGLU of what the gate-up step left, where the down step reads it.
  auto at = [&](int64_t m, int64_t c, bool up_half) {
    return W[(size_t)(split ? (up_half ? M * kI : 0) + m * kI + c : m * 2 * kI + (up_half ? kI : 0) + c)];
  };
  std::vector<float> args((size_t)(M * kI));
  for (int64_t m = 0; m < M; ++m)
    for (int64_t c = 0; c < kI; ++c) args[(size_t)(m * kI + c)] = ref::exp2_arg(at(m, c, false));
  const auto e2 = device_exp2(args);
  std::vector<uint16_t> S((size_t)(M * kI));
  for (int64_t m = 0; m < M; ++m)
    for (int64_t c = 0; c < kI; ++c) S[(size_t)(m * kI + c)] = ref::swiglu(at(m, c, false), at(m, c, true), e2[(size_t)(m * kI + c)]);
  const auto want = decode ? S : ref::blk32(S, kI, R, kI, M, false);
  const int64_t stage = M * 2 * kI;
  EXPECT_BITS_EQ(std::vector<uint16_t>(W.begin() + stage, W.begin() + stage + (int64_t)want.size()), want);
  expect_arm(out.download<uint16_t>(), gt::floats_of(S), down, decode, M, false);
}

class Mlp : public testing::Test {
 protected:
  void SetUp() override { QT_SELECT_GEOMETRY(1); }
};

TEST_F(Mlp, EveryFormAndRoad) {
  const MCase cases[] = {
      {MBf16, 0, 0, 0, Dec, 1},       {MBf16, 0, 0, 0, Pre, 20},       {MFp8, 0, 0, 0, Dec, 17},
      {MFp8, 0, 0, 0, Pre, 3},        {MKq, 4, 0, 6, Dec, 16},         {MKq, 23, 0, 8, Pre, 257},
      {MKqBf16Down, 5, 0, 0, Dec, 33}, {MSplit, 6, 4, 3, Dec, 32},     {MSplit, 4, 6, 20, Dec, 2},
      {MSplit, 3, 8, 4, Dec, 33},     {MSplit, 3, 8, 4, Dec, 17},      {MSplit, 23, 20, 6, Dec, 1},
      {MSplitBf16Down, 8, 5, 0, Pre, 9}, {MSplitBf16Down, 20, 23, 0, 1, 17},
  };
  for (const MCase& k : cases) run_mlp(k);
}

// ---- sizes ----------------------------------------------------------------------------
// The formulas as the tables state them, at this process's p2.
TEST(LayerProjSizes, Formulas) {
  const int64_t p2 = quillon::num_cus_p2();
  for (int64_t M : {0, 1, 16, 32, 33, 255, 256, 257, 1000}) {
    SCOPED_TRACE(testing::Message() << "M=" << M << " p2=" << p2);
    const int64_t Mt = (M + 255) / 256, c = std::min<int64_t>(M, 32);
    auto split = [&](int64_t N, int64_t K) {
      const int S = want_splits(N, K, p2);
      return S > 1 ? S * M * N * 4 : 0;
    };
    // Past 32 rows the projections in turn split into the same region.
    auto in_turn = [&](const GeoShape& s) {
      return M > 32 ? std::max({split(s.kv, s.K), split(s.v, s.K), split(s.q, s.K)}) : 0;
    };
    const int64_t qkv[] = {Mt * 1048576 + std::max(c * 32768, in_turn(kShapes[0])),
                           Mt * 2621440 + std::max(c * 65536, in_turn(kShapes[1])),
                           Mt * 1310720 + std::max({c * 16384, M * 2560 * (p2 < 10 ? 0 : p2 < 20 ? 2 : 4), in_turn(kShapes[2])})};
    auto S = [&](int64_t N, int64_t K) { return (int64_t)want_splits(N, K, p2); };
    const int64_t oproj[] = {std::max(Mt * 2097152, M * 8192 + (p2 < 32 ? 0 : S(2048, 4096) * M * 8192)),
                             std::max(Mt * 3145728, M * 12288 + (p2 < 80 ? 0 : S(5120, 6144) * M * 20480)),
                             std::max(Mt * 3145728, M * 12288 + (p2 < 40 ? 0 : S(2560, 6144) * M * 10240))};
    const int ids[] = {0, 1, 3};
    for (int i = 0; i < 3; ++i) {
      if (!quillon::geometry_built(ids[i])) continue;
      ASSERT_EQ(quillon_select_geometry(ids[i]), 0);
      EXPECT_EQ(quillon_qkv_proj_scratch_bytes(M), M ? qkv[i] : 0) << "geometry " << ids[i];
      EXPECT_EQ(quillon_attn_out_scale_oproj_scratch_bytes(M), oproj[i]) << "geometry " << ids[i];
    }
    if (!quillon::geometry_built(1)) continue;
    ASSERT_EQ(quillon_select_geometry(1), 0);
    const int64_t D = p2 < 80 ? 0 : S(5120, 17408) * M * 20480;
    const int64_t stage = std::max({c * 557056, Mt * 2621440, Mt * 8912896, M * 34816 + D});
    EXPECT_EQ(quillon_fused_mlp_workspace_bytes(M), M * 69632 + (stage + 255) / 256 * 256);
  }
  if (p2 == 64 && quillon::geometry_built(1)) EXPECT_EQ(quillon_fused_mlp_workspace_bytes(1), 69632 + 8912896);
}

// Run with QUILLON_NUM_CUS set: the split roads of the down and output
// projections at that device size (at p2 1 nothing splits).
TEST(LayerProjAtCus, SplitRoads) {
  if (std::getenv("QUILLON_NUM_CUS") == nullptr) GTEST_SKIP() << "run with QUILLON_NUM_CUS set";
  if (quillon::geometry_built(0)) run_oproj({0, 2, 4, Dec, 33, false});
  if (quillon::geometry_built(3)) run_qkv({3, Pair, 5, 3, Dec, 40, false, false, true});
  if (quillon::geometry_built(1)) {
    ASSERT_EQ(quillon_select_geometry(1), 0);
    run_mlp({MKq, 6, 0, 4, Dec, 17});
  }
}

// ---- weight shuffles ------------------------------------------------------------------
// Each shuffler at its fixed shape: bf16 and fp8 rows against the blk32
// reference, k-quant planes (format 2, the smallest; the general set includes
// it) against the general shuffle at the same N and K.
TEST(LayerProjShuffles, FixedShapes) {
  using Fn = hipError_t (*)(const void*, void*, hipStream_t);
  using KFn = hipError_t (*)(int32_t, const void*, void*, void*, hipStream_t);
  struct Row {
    int g, form;  // form 0 bf16, 1 fp8, 2 k-quant
    Fn fn;
    KFn kfn;
    int64_t N, K;
  };
  const Row rows[] = {{0, 0, quillon_qkv_proj_shuffle_w, nullptr, 9216, 2048},
                      {1, 1, quillon_qkv_proj_shuffle_w_fp8, nullptr, 14336, 5120},
                      {3, 0, quillon_qkv_proj_kv_shuffle_w, nullptr, 1024, 2560},
                      {3, 0, quillon_qkv_proj_index_shuffle_w, nullptr, 640, 2560},
                      {0, 0, quillon_attn_out_scale_oproj_shuffle_w, nullptr, 2048, 4096},
                      {3, 1, quillon_attn_out_scale_oproj_shuffle_w_fp8, nullptr, 2560, 6144},
                      {1, 1, quillon_mlp_gate_up_shuffle_w_fp8, nullptr, 34816, 5120},
                      {1, 0, quillon_mlp_gate_up_shuffle_w, nullptr, 34816, 5120},
                      {1, 1, quillon_mlp_down_shuffle_w_fp8, nullptr, 5120, 17408},
                      {1, 0, quillon_mlp_down_shuffle_w, nullptr, 5120, 17408},
                      {0, 2, nullptr, quillon_qkv_proj_v_shuffle_w_kquant, 512, 2048},
                      {3, 2, nullptr, quillon_qkv_proj_q_shuffle_w_kquant, 12288, 2560},
                      {1, 2, nullptr, quillon_qkv_proj_qk_shuffle_w_kquant, 13312, 5120},
                      {0, 2, nullptr, quillon_qkv_proj_shuffle_w_kquant, 9216, 2048},
                      {0, 2, nullptr, quillon_attn_out_scale_oproj_shuffle_w_kquant, 2048, 4096},
                      {1, 2, nullptr, quillon_mlp_gate_shuffle_w_kquant, 17408, 5120},
                      {1, 2, nullptr, quillon_mlp_up_shuffle_w_kquant, 17408, 5120},
                      {1, 2, nullptr, quillon_mlp_gate_up_shuffle_w_kquant, 34816, 5120},
                      {1, 2, nullptr, quillon_mlp_down_shuffle_w_kquant, 5120, 17408}};
  qt::Rng rng(9);
  const int F = 2;
  for (const Row& r : rows) {
    if (!quillon::geometry_built(r.g)) continue;
    SCOPED_TRACE(testing::Message() << "form " << r.form << " N=" << r.N << " K=" << r.K);
    ASSERT_EQ(quillon_select_geometry(r.g), 0);
    const bool kq = r.form == 2;
    std::vector<uint8_t> src((size_t)(kq ? quillon_kquant_gguf_bytes(F, r.N, r.K) : r.N * r.K * (2 - r.form)));
    for (size_t i = 0; i < src.size(); i += 997) src[i] = (uint8_t)rng.integer(1, 255);
    const size_t qb = kq ? (size_t)quillon_kquant_quant_bytes(F, r.N, r.K) : src.size(),
                 mb = kq ? (size_t)quillon_kquant_meta_bytes(F, r.N, r.K) : 1;
    qt::DevBuf s = qt::DevBuf::from(src), q0(qb), m0(mb), q1(kq ? qb : 1), m1(mb);
    std::vector<uint8_t> want(qb);
    if (kq) {
      ASSERT_EQ(r.kfn(F, s.get(), q0.get(), m0.get(), nullptr), hipSuccess);
      ASSERT_EQ(quillon_gemm_kquant_shuffle_b(F, s.get(), q1.get(), m1.get(), r.N, r.K, nullptr), hipSuccess);
      ASSERT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
      want = q1.download<uint8_t>();
      EXPECT_BITS_EQ(m0.download<uint8_t>(), m1.download<uint8_t>());
    } else if (r.form == 1) {
      ASSERT_EQ(r.fn(s.get(), q0.get(), nullptr), hipSuccess);
      want = ref::blk32_fp8(src, r.K, r.N, r.K);
    } else {
      ASSERT_EQ(r.fn(s.get(), q0.get(), nullptr), hipSuccess);
      std::vector<uint16_t> rows16(src.size() / 2);
      std::memcpy(rows16.data(), src.data(), src.size());
      std::memcpy(want.data(), ref::blk32(rows16, r.K, r.N, r.K, r.N, true).data(), want.size());
    }
    ASSERT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
    EXPECT_BITS_EQ(q0.download<uint8_t>(), want);
  }
}

// ---- failures -------------------------------------------------------------------------
TEST(LayerProjFailures, MessagesInOrder) {
  // The indexer's message comes after a launch: a forked child would have no
  // device workers when the whole executable runs, so each case re-executes.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  QT_SELECT_GEOMETRY(0);
  qt::DevBuf x(33 * 2048 * 2), out(33 * 9216 * 2), w(9216 * 2048 * 2), sc(1 << 20);
  EXPECT_QUILLON_FATAL(quillon_qkv_proj(x.get(), nullptr, x.get(), w.get(), nullptr, out.get(), 1, 2, nullptr, nullptr, nullptr, 0),
                       "qkv_proj needs qkv_proj_scratch_bytes(M)");
  // Prefill with no norm still shuffles into the scratch.
  EXPECT_QUILLON_FATAL(quillon_qkv_proj(x.get(), nullptr, nullptr, w.get(), nullptr, out.get(), 1, 1, nullptr, nullptr, nullptr, 0),
                       "qkv_proj needs qkv_proj_scratch_bytes(M)");
  qt::sample_next_launch({0});
  EXPECT_QUILLON_FATAL(quillon_qkv_proj(x.get(), nullptr, nullptr, w.get(), nullptr, out.get(), 1, 2, w.get(), out.get(), nullptr, 0),
                       "qkv_proj: this geometry has no indexer projection to run");
  EXPECT_QUILLON_FATAL(quillon_qkv_proj_pair_kquant(5, 5, x.get(), nullptr, nullptr, w.get(), w.get(), w.get(), w.get(),
                                                    sc.get(), out.get(), 32, 2, nullptr, nullptr, nullptr, 0),
                       "the segmented pair is for halves stored at DIFFERENT widths; both arrived at k-quant 5, which "
                       "is the fused weight's job");
  EXPECT_QUILLON_FATAL(quillon_qkv_proj_kquant(7, x.get(), nullptr, nullptr, w.get(), w.get(), nullptr, out.get(), 0, 2,
                                               nullptr, nullptr, nullptr, 0),
                       "7 is not a k-quant format id (see kquant_sets's FORMATS list)");
  EXPECT_QUILLON_FATAL(quillon_qkv_proj_index_shuffle_w(w.get(), w.get(), nullptr),
                       "qkv_proj_index_shuffle_w: this geometry has no indexer");
  EXPECT_QUILLON_FATAL(quillon_attn_out_scale_oproj_fp8(x.get(), x.get(), 9216, w.get(), w.get(), nullptr, out.get(), 1, 0, nullptr),
                       "attn_out_scale_oproj_fp8 needs scratch of attn_out_scale_oproj_scratch_bytes(M) on both paths "
                       "(got null)");
  EXPECT_QUILLON_FATAL(quillon::attn_out_scale_oproj({2, 4, w.get(), w.get()}, x.get(), x.get(), 9216, sc.get(), out.get(), 1,
                                                     pj::PrefillShuffledA, nullptr),
                       "attn_out_scale_oproj_kquant takes no pre-shuffled A; pass Prefill or Decode");
  // A norm reads rows: a pre-shuffled x goes only where no norm is asked for.
  const quillon::QkvCall pre{x.get(), nullptr, x.get(), sc.get(), out.get(), 1, pj::PrefillShuffledA, nullptr, nullptr, nullptr, 0};
  EXPECT_QUILLON_FATAL(quillon::qkv_proj_fp8(pre, w.get(), w.get()), "qkv_proj_fp8 takes no pre-shuffled A; pass Prefill or Decode");
  // The MLP belongs to geometry 1, sizing included; the format test comes first.
  const char* geo = "geometry 0 does not carry this op; it belongs to a model family this build instantiates for other "
                    "ids (see quillon_geometry_name)";
  EXPECT_QUILLON_FATAL(quillon_fused_mlp_workspace_bytes(1), geo);
  EXPECT_QUILLON_FATAL(quillon_fused_mlp(x.get(), w.get(), w.get(), out.get(), sc.get(), 0, 2, nullptr), geo);
  EXPECT_QUILLON_FATAL(quillon_fused_mlp_kquant(4, 24, x.get(), w.get(), w.get(), w.get(), w.get(), out.get(), sc.get(), 1, 0, nullptr),
                       "24 is not a k-quant format id (see kquant_sets's FORMATS list)");
  if (quillon::geometry_built(2)) {
    ASSERT_EQ(quillon_select_geometry(2), 0);
    EXPECT_QUILLON_FATAL(quillon_attn_out_scale_oproj_scratch_bytes(1),
                         "geometry 2 does not carry this op; it belongs to a model family this build instantiates for "
                         "other ids (see quillon_geometry_name)");
  }
  if (!quillon::geometry_built(1)) return;
  ASSERT_EQ(quillon_select_geometry(1), 0);
  EXPECT_QUILLON_FATAL(quillon_fused_mlp_kquant_split(4, 6, 4, x.get(), w.get(), w.get(), w.get(), w.get(), w.get(), w.get(),
                                                      out.get(), nullptr, 1, 0, nullptr),
                       "fused_mlp_kquant_split needs fused_mlp_workspace_bytes(M)");
  for (int mode : {0, 2})
    EXPECT_QUILLON_FATAL(quillon_fused_mlp_kquant_split_bf16_down(4, 4, x.get(), w.get(), w.get(), w.get(), w.get(), w.get(),
                                                                  out.get(), sc.get(), 40, mode, nullptr),
                         "the gate|up cut is for halves stored at DIFFERENT widths; both arrived at k-quant 4, which is "
                         "mlp_gate_up_shuffle_w_kquant's job");
}

// M = 0: nothing runs and no scratch or workspace is asked for.
TEST(LayerProjFailures, NothingAtMZero) {
  QT_SELECT_GEOMETRY(0);
  qt::DevBuf out(64);
  EXPECT_EQ(quillon_qkv_proj_pair_kquant(5, 5, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                         out.get(), 0, 2, nullptr, nullptr, nullptr, 0),
            hipSuccess);
  EXPECT_EQ(quillon_attn_out_scale_oproj(nullptr, nullptr, 0, nullptr, nullptr, out.get(), 0, 0, nullptr), hipSuccess);
  EXPECT_EQ(quillon_qkv_proj_scratch_bytes(0), 0);
  if (quillon::geometry_built(1)) {
    ASSERT_EQ(quillon_select_geometry(1), 0);
    EXPECT_EQ(quillon_fused_mlp_kquant_split(4, 4, 4, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                             out.get(), nullptr, 0, 0, nullptr),
              hipSuccess);
  }
  ASSERT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  for (uint8_t b : out.download<uint8_t>()) ASSERT_EQ(b, 0xFF);
}

}  // namespace
