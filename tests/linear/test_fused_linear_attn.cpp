// The fused linear-attention layer through the exported ABI. Each stage is
// checked against its reference fed by the stage before, read back from the
// caller's workspace: projections in double within the summation bound, the
// convolution, delta rule and gated norm bit for bit in the float order the
// kernels promise, the states in every slot they must (and must not) touch.
#include <algorithm>
#include <cstring>

#include "common/device_ext.h"
#include "gemm/gemm_test_util.h"
#include "linear/gdr_test_util.h"
#include "reference/conv1d_ref.h"

namespace {

using u16v = std::vector<uint16_t>;

// An N x K weight shuffled by its exported entry, and the values it stands for.
struct Weight {
  qt::DevBuf b0, b1;
  std::vector<float> w;
  int64_t N = 0, off = 0;  // rows, and where its outputs start in the projection region (elements)
};
using Shuffle = hipError_t (*)(const void*, void*, hipStream_t);
using ShuffleK = hipError_t (*)(int32_t, const void*, void*, void*, hipStream_t);

// bf16 in [-0.05, 0.05], or e4m3 bytes of magnitude 2^-6 .. 2^-3 with block
// scales 1 or 2 (the scale table already in its [K/128][N/128] order).
Weight dense_w(qt::Rng& rng, int64_t N, int64_t K, Shuffle sh, bool fp8 = false) {
  Weight w{{}, {}, std::vector<float>((size_t)(N * K)), N};
  std::vector<uint8_t> src((size_t)(N * K * (fp8 ? 1 : 2)));
  std::vector<uint16_t> sc((size_t)(N / 128 * (K / 128)));
  for (auto& s : sc) s = (uint16_t)((127 + rng.integer(0, 1)) << 7);
  for (int64_t i = 0; i < N * K; ++i) {
    const int64_t n = i / K, k = i % K;
    const uint8_t x = (uint8_t)((rng.integer(0, 1) << 7) | (rng.integer(1, 4) << 3) | rng.integer(0, 7));
    const uint16_t h = qt::to_bf(rng.uniform(-0.05f, 0.05f));
    if (fp8) src[(size_t)i] = x;
    else std::memcpy(&src[(size_t)(2 * i)], &h, 2);
    w.w[(size_t)i] = fp8 ? ref::fp8_weight(x) * ref::bf16_value(sc[(size_t)((k / 128) * (N / 128) + n / 128)]) : qt::bf(h);
  }
  qt::DevBuf s = qt::DevBuf::from(src);
  w.b0 = qt::DevBuf(src.size()), w.b1 = qt::DevBuf::from(sc);
  EXPECT_EQ(sh(s.get(), w.b0.get(), nullptr), hipSuccess);
  return w;
}
Weight kquant_w(int F, int64_t N, int64_t K, ShuffleK sh, uint64_t seed) {
  const auto src = gt::gguf_tensor(F, N, K, seed);
  Weight w{qt::DevBuf((size_t)quillon_kquant_quant_bytes(F, N, K)), qt::DevBuf((size_t)quillon_kquant_meta_bytes(F, N, K)),
           gt::floats_of(ref::kquant_dequant(F, src, N, K)), N};
  qt::DevBuf s = qt::DevBuf::from(src);
  EXPECT_EQ(sh(F, s.get(), w.b0.get(), w.b1.get(), nullptr), hipSuccess);
  return w;
}

// in: 0 the bf16 row, 1 qz fp8 (and fp8 out), 2 qz k-quant, 3 qkv and z k-quant.
// out: 0 bf16, 2 k-quant (form 1 implies fp8).
struct Form {
  int in, out, f0, f1;
};

struct Layer {
  lt::Geo geo;
  int64_t H, CONV, VD, HV, QKVZ, ROW;
  Form form;
  std::vector<Weight> in;  // the arms of the in-projection, in output order
  Weight out;
  u16v conv_w, norm_w;
  std::vector<float> a_log, dt_bias;
  qt::DevBuf d_conv_w, d_norm_w, d_a_log, d_dt_bias;

  Layer(int gi, Form f, uint64_t seed) : geo(lt::kGeos[gi]), form(f) {
    qt::Rng rng(seed);
    H = geo.id == 0 ? 2048 : geo.id == 1 ? 5120 : 2560;
    CONV = geo.conv, HV = geo.hv, VD = HV * 128, QKVZ = CONV + VD, ROW = QKVZ + 128;
    if (f.in == 0) in.push_back(dense_w(rng, ROW, H, quillon_linear_in_proj_shuffle_w));
    if (f.in == 1) in.push_back(dense_w(rng, QKVZ, H, quillon_linear_in_proj_qz_shuffle_w_fp8, true));
    if (f.in == 2) in.push_back(kquant_w(f.f0, QKVZ, H, quillon_linear_in_proj_qz_shuffle_w_kquant, seed));
    if (f.in == 3) {
      in.push_back(kquant_w(f.f0, CONV, H, quillon_linear_in_proj_qkv_shuffle_w_kquant, seed));
      in.push_back(kquant_w(f.f1, VD, H, quillon_linear_in_proj_z_shuffle_w_kquant, seed + 1));
    }
    if (f.in != 0) in.push_back(dense_w(rng, 128, H, quillon_linear_in_proj_ba_shuffle_w));
    for (size_t i = 1; i < in.size(); ++i) in[i].off = in[i - 1].off + in[i - 1].N;  // times M at use
    if (f.in == 1) out = dense_w(rng, H, VD, quillon_linear_out_proj_shuffle_w_fp8, true);
    else if (f.out == 2) out = kquant_w(f.f1, H, VD, quillon_linear_out_proj_shuffle_w_kquant, seed + 2);
    else out = dense_w(rng, H, VD, quillon_linear_out_proj_shuffle_w);
    conv_w = rng.bf16s((size_t)(CONV * 4), -1.f, 1.f);
    norm_w = rng.bf16s((size_t)128, 0.5f, 1.5f);
    a_log = rng.floats((size_t)HV, -2.f, 1.f);
    dt_bias = rng.floats((size_t)HV, -1.f, 1.f);
    d_conv_w = qt::DevBuf::from(conv_w), d_norm_w = qt::DevBuf::from(norm_w);
    d_a_log = qt::DevBuf::from(a_log), d_dt_bias = qt::DevBuf::from(dt_bias);
  }
};

// Everything of a call but the weights.
struct Call {
  const void *x = nullptr, *input_norm = nullptr;
  const int32_t *cu = nullptr, *has = nullptr, *slots = nullptr, *accepted = nullptr, *ckpt_at = nullptr, *ckpt_slots = nullptr;
  void *residual = nullptr, *conv_state = nullptr, *ckpt_conv = nullptr, *ws = nullptr, *out = nullptr;
  float *delta_state = nullptr, *ckpt_delta = nullptr;
  int64_t ckpt_max = 0;
  int64_t B = 1, M = 0;
  int32_t path = 2;
  LinearAttnRetain retain{{nullptr, nullptr, nullptr}};
};

// The weight arguments in the entry's order.
struct Args {
  const void *in_proj = nullptr, *out_proj = nullptr, *qz_scale = nullptr, *qz_fp8 = nullptr, *ba = nullptr;
  const void *out_scale = nullptr, *qz_q = nullptr, *qz_m = nullptr, *qkv_q = nullptr, *qkv_m = nullptr;
  const void *z_q = nullptr, *z_m = nullptr, *out_q = nullptr, *out_m = nullptr;
  int32_t f0 = 8, f1 = 8;
};
Args args_of(const Layer& L) {
  Args a;
  const int in = L.form.in;
  const void* p0 = L.in[0].b0.get();
  (in == 0 ? a.in_proj : in == 1 ? a.qz_fp8 : in == 2 ? a.qz_q : a.qkv_q) = p0;
  if (in == 1) a.qz_scale = L.in[0].b1.get(), a.out_scale = L.out.b1.get();
  if (in == 2) a.qz_m = L.in[0].b1.get();
  if (in == 3) a.qkv_m = L.in[0].b1.get(), a.z_q = L.in[1].b0.get(), a.z_m = L.in[1].b1.get();
  if (in != 0) a.ba = L.in.back().b0.get();
  if (L.form.out == 2 && in != 1) a.out_q = L.out.b0.get(), a.out_m = L.out.b1.get();
  else a.out_proj = L.out.b0.get();
  a.f0 = L.form.f0, a.f1 = L.form.f1;
  return a;
}

hipError_t run(const Args& a, const Call& c, const Layer* L = nullptr) {
  return quillon_fused_linear_attn(
      c.x, c.residual, c.input_norm, a.in_proj, L ? L->d_conv_w.get() : nullptr, L ? L->d_a_log.as<float>() : nullptr,
      L ? L->d_dt_bias.as<float>() : nullptr, L ? L->d_norm_w.get() : nullptr, a.out_proj, a.qz_scale, a.qz_fp8, a.ba,
      a.out_scale, a.qz_q, a.qz_m, a.f0, a.qkv_q, a.qkv_m, a.f0, a.z_q, a.z_m, a.f1, a.out_q, a.out_m, a.f1, c.cu,
      c.has, c.slots, c.accepted, c.conv_state, c.delta_state, c.ckpt_at, c.ckpt_slots, c.ckpt_max, c.ckpt_conv,
      c.ckpt_delta, c.ws, c.out, c.B, c.M, c.path, nullptr, c.retain, 1e-5f);
}
hipError_t run(const Layer& L, const Call& c) { return run(args_of(L), c, &L); }

// C = A W^T against the device's bf16 rows, within the summation bound.
void expect_gemm(const std::vector<float>& A, const Weight& W, const u16v& C, int64_t M, int64_t K) {
  EXPECT_EQ(gt::count_outside(gt::widen(C), ref::gemm(A, W.w, M, W.N, K), ref::gemm_abs(A, W.w, M, W.N, K), K, true), 0);
}

// Per token the conv input row, z row and logits (b then a) where the
// layer's form put them in the projection region P of M rows.
struct InRows {
  u16v qkv, z, ba;
};
InRows split_rows(const Layer& L, const u16v& P, int64_t M, int form) {
  InRows r{u16v((size_t)(M * L.CONV)), u16v((size_t)(M * L.VD)), u16v((size_t)(M * 2 * L.HV))};
  const int64_t qs = form == 0 ? L.ROW : form == 3 ? L.CONV : L.QKVZ, bs = form == 0 ? L.ROW : 128;
  for (int64_t t = 0; t < M; ++t) {
    const int64_t z = form == 3 ? M * L.CONV + t * L.VD : t * qs + L.CONV, b = form == 0 ? t * L.ROW + L.QKVZ : M * L.QKVZ + t * bs;
    std::copy_n(&P[(size_t)(t * qs)], L.CONV, &r.qkv[(size_t)(t * L.CONV)]);
    std::copy_n(&P[(size_t)z], L.VD, &r.z[(size_t)(t * L.VD)]);
    std::copy_n(&P[(size_t)b], 2 * L.HV, &r.ba[(size_t)(t * 2 * L.HV)]);
  }
  return r;
}
// Each arm of the in-projection against A, then the rows.
InRows check_in_proj(const Layer& L, const std::vector<float>& A, const u16v& P, int64_t M) {
  for (const Weight& w : L.in) expect_gemm(A, w, u16v(P.begin() + M * w.off, P.begin() + M * (w.off + w.N)), M, L.H);
  return split_rows(L, P, M, L.form.in);
}
InRows fused_rows(const Layer& L, const u16v& P, int64_t M) { return split_rows(L, P, M, 0); }

// Pools of conv windows and delta states as the references keep them.
struct Pools {
  u16v conv;
  std::vector<float> delta;
};
Pools random_pools(qt::Rng& rng, const Layer& L, int64_t slots) {
  return {rng.bf16s((size_t)(slots * 3 * L.CONV)), rng.floats((size_t)(slots * L.HV * 16384), -0.5f, 0.5f)};
}

// The decode of B sequences of `rows` rows from their start slots through the
// references; with `targets`, row r of sequence b leaves its state in
// targets[b*rows + r]. Gives the conv rows and the gated rows.
struct Ref {
  u16v conv, o, gated;
};
Ref decode_ref(const Layer& L, const InRows& in, int64_t B, int64_t rows, const std::vector<int32_t>& start,
               const std::vector<int32_t>* targets, Pools& p) {
  const int64_t M = B * rows;
  Ref r{u16v((size_t)(M * L.CONV)), u16v((size_t)(M * L.VD)), {}};
  for (int64_t b = 0; b < B; ++b) {
    ref::ConvSeq cs(L.CONV, &p.conv[(size_t)(start[b] * 3 * L.CONV)]);
    for (int64_t i = 0; i < rows; ++i) {
      cs.step(&in.qkv[(size_t)((b * rows + i) * L.CONV)], L.conv_w.data(), &r.conv[(size_t)((b * rows + i) * L.CONV)]);
      if (targets) std::copy(cs.hist.begin(), cs.hist.end(), p.conv.begin() + (*targets)[b * rows + i] * 3 * L.CONV);
    }
  }
  lt::Inputs gi{L.geo, M, r.conv, in.ba, L.a_log, L.dt_bias, {}, {}};
  gi.derive();
  u16v& o = r.o;
  for (int64_t b = 0; b < B; ++b) {
    lt::SlotState st = lt::slot_state(p.delta, start[b], (int)L.HV);
    for (int64_t i = 0; i < rows; ++i) {
      lt::ref_token(gi, b * rows + i, st, &o[(size_t)((b * rows + i) * L.VD)]);
      if (targets) lt::put_slot(p.delta, (*targets)[b * rows + i], st);
    }
  }
  r.gated = ref::gated_rows(o, in.z, L.VD, L.norm_w, M, (int)L.HV, L.geo.id == 3, 1e-6f);
  return r;
}

// Workspace region i (projection, conv, delta-rule rows) of M rows.
u16v region(const u16v& ws, const Layer& L, int64_t M, int i) {
  const int64_t at = i == 0 ? 0 : i == 1 ? M * L.ROW : M * (L.ROW + L.CONV), w = i == 0 ? L.ROW : i == 1 ? L.CONV : L.VD;
  return u16v(ws.begin() + at, ws.begin() + at + M * w);
}

// Per-row decode of two sequences (accepted 1 and 2 in the step before, a
// permuted slot table) in every weight form, one with the input norm and its
// residual; then the same step retained: same outputs, pools untouched
// byte for byte, and the advance over 0 rows and 1 row gives what the
// per-row decode left after that many rows.
TEST(FusedLinearAttn, DecodeFormsRetainAndAdvance) {
  const struct {
    int gi;
    Form form;
    bool norm;
  } cases[] = {{0, {0, 0, 8, 8}, true}, {0, {1, 1, 8, 8}, false}, {0, {2, 2, 8, 4}, false},
               {0, {3, 0, 4, 8}, false}, {2, {0, 0, 8, 8}, false}};
  for (const auto& tc : cases) {
    if (!quillon::geometry_built(lt::kGeos[tc.gi].id)) continue;
    ASSERT_EQ(quillon_select_geometry(lt::kGeos[tc.gi].id), 0);
    SCOPED_TRACE(testing::Message() << "geometry " << lt::kGeos[tc.gi].id << " form " << tc.form.in);
    const Layer L(tc.gi, tc.form, 500 + tc.form.in);
    qt::Rng rng(600 + tc.form.in);
    const int64_t B = 2, rows = 2, M = B * rows, nslots = 6;
    const std::vector<int32_t> table = {5, 1, 3, 0}, accepted = {1, 2}, committed = {5, 0}, adv = {0, 1};
    const u16v x = rng.bf16s((size_t)(M * L.H), -1.f, 1.f), res = rng.bf16s((size_t)(M * L.H), -1.f, 1.f);
    const u16v nw = rng.bf16s((size_t)L.H, 0.5f, 1.5f);
    Pools pools = random_pools(rng, L, nslots);
    auto dx = qt::DevBuf::from(x), dres = qt::DevBuf::from(res), dres2 = qt::DevBuf::from(res);
    auto dnw = qt::DevBuf::from(nw), dtable = qt::DevBuf::from(table), dacc = qt::DevBuf::from(accepted);
    auto dcom = qt::DevBuf::from(committed), dadv = qt::DevBuf::from(adv);
    auto dconv = qt::DevBuf::from(pools.conv), ddelta = qt::DevBuf::from(pools.delta);
    auto rconv = qt::DevBuf::from(pools.conv), rdelta = qt::DevBuf::from(pools.delta);
    qt::DevBuf ws((size_t)quillon_fused_linear_attn_workspace_bytes(M, 2)), out((size_t)(M * L.H * 2));
    qt::DevBuf rws(ws.bytes()), rout(out.bytes()), blk[3];
    for (int i = 0; i < 3; ++i) blk[i] = qt::DevBuf((size_t)quillon_linear_attn_retain_bytes(M, i));
    Call c;
    c.x = dx.get(), c.slots = dtable.as<int32_t>(), c.accepted = dacc.as<int32_t>(), c.conv_state = dconv.get();
    c.delta_state = ddelta.as<float>(), c.ws = ws.get(), c.out = out.get(), c.B = B, c.M = M;
    if (tc.norm) c.input_norm = dnw.get(), c.residual = dres.get();
    Call rc = c;
    rc.slots = dcom.as<int32_t>(), rc.accepted = nullptr, rc.conv_state = rconv.get(), rc.delta_state = rdelta.as<float>();
    rc.ws = rws.get(), rc.out = rout.get(), rc.residual = tc.norm ? dres2.get() : nullptr;
    rc.retain = {{blk[0].get(), blk[1].get(), blk[2].get()}};
    ASSERT_EQ(run(L, c), hipSuccess);
    ASSERT_EQ(run(L, rc), hipSuccess);
    qt::sync_ok();

    std::vector<float> A = gt::floats_of(x);
    if (tc.norm) {
      u16v sum(A.size());
      for (size_t i = 0; i < A.size(); ++i) sum[i] = ref::round_bf16(A[i] + ref::widen(res[i]));
      EXPECT_BITS_EQ(dres.download<uint16_t>(), sum);
      A = gt::floats_of(ref::norm_rows(gt::floats_of(sum), (int)L.H, M, nw.data(), 1e-5f, {}));
    }
    const u16v w = ws.download<uint16_t>();
    const InRows in = check_in_proj(L, A, region(w, L, M, 0), M);
    Pools want = pools;
    const Ref r = decode_ref(L, in, B, rows, committed, &table, want);
    EXPECT_BITS_EQ(region(w, L, M, 1), r.conv);
    EXPECT_BITS_EQ(region(w, L, M, 2), r.gated);
    expect_gemm(gt::floats_of(r.gated), L.out, out.download<uint16_t>(), M, L.VD);
    EXPECT_BITS_EQ(dconv.download<uint16_t>(), want.conv);
    EXPECT_BITS_EQ(ddelta.download<float>(), want.delta);

    // The retained step: the same rows out, the pools as they were, the blocks.
    EXPECT_BITS_EQ(rout.download<uint16_t>(), out.download<uint16_t>());
    EXPECT_EQ(std::memcmp(rconv.download<uint8_t>().data(), pools.conv.data(), pools.conv.size() * 2), 0);
    EXPECT_EQ(std::memcmp(rdelta.download<uint8_t>().data(), pools.delta.data(), pools.delta.size() * 4), 0);
    EXPECT_BITS_EQ(blk[0].download<uint16_t>(), in.qkv);
    EXPECT_BITS_EQ(blk[1].download<uint16_t>(), r.conv);
    EXPECT_BITS_EQ(blk[2].download<uint16_t>(), in.ba);
    ASSERT_EQ(quillon_linear_attn_advance(blk[0].get(), blk[1].get(), blk[2].get(), L.d_a_log.as<float>(),
                                          L.d_dt_bias.as<float>(), dcom.as<int32_t>(), dadv.as<int32_t>(), rconv.get(),
                                          rdelta.as<float>(), B, rows, nullptr),
              hipSuccess);
    qt::sync_ok();
    // Sequence 0 commits nothing; sequence 1 its first row (token 2) into slot 0.
    Pools adv_want = pools;
    const std::vector<int32_t> s1 = {committed[1]};
    const InRows row2{u16v(in.qkv.begin() + 2 * L.CONV, in.qkv.begin() + 3 * L.CONV),
                      u16v(in.z.begin() + 2 * L.VD, in.z.begin() + 3 * L.VD),
                      u16v(in.ba.begin() + 4 * L.HV, in.ba.begin() + 6 * L.HV)};
    decode_ref(L, row2, 1, 1, s1, &s1, adv_want);
    EXPECT_BITS_EQ(rconv.download<uint16_t>(), adv_want.conv);
    EXPECT_BITS_EQ(rdelta.download<float>(), adv_want.delta);
    EXPECT_TRUE(ws.guards_intact() && out.guards_intact() && blk[2].guards_intact() && dconv.guards_intact());
  }
}

// Largest |got - want| over the largest |want|: the chunked form against the
// token recurrence, whose own bound is derived and tested with the delta rule;
// here a wrong slot, history or stride would show as an error of order one.
template <class T>
double rel_err(const std::vector<T>& got, const std::vector<T>& want) {
  double e = 0, m = 1e-30;
  for (size_t i = 0; i < want.size(); ++i) {
    const double g = sizeof(T) == 2 ? ref::widen((uint16_t)got[i]) : (double)got[i];
    const double w = sizeof(T) == 2 ? ref::widen((uint16_t)want[i]) : (double)want[i];
    e = std::max(e, std::fabs(g - w)), m = std::max(m, std::fabs(w));
  }
  return e / m;
}

// Prefill of a fresh 66-token prompt (two chunks, a checkpoint at 64) beside a
// 3-token continuation, against decoding the same rows from their states.
// The projection launches are sampled down on the CPU device (the
// in-projection to nothing: its rows are the test's, written into the
// workspace; the out-projection to its first tile): what is checked is read
// back from the workspace, so a GPU that runs them whole checks the same.
TEST(FusedLinearAttn, PrefillAgainstDecode) {
  QT_SELECT_GEOMETRY(0);
  const Layer L(0, {0, 0, 8, 8}, 700);
  qt::Rng rng(701);
  const std::vector<int32_t> cu = {0, 66, 69}, has = {0, 1}, slots = {1, 0}, at = {64, -1}, ck_slots = {0, 0};
  const int64_t M = 69;
  const u16v proj = rng.bf16s((size_t)(M * L.ROW), -1.f, 1.f);  // the prompt's rows, then the continuation's
  const Pools pools = random_pools(rng, L, 3);
  auto dx = qt::DevBuf::from(rng.bf16s((size_t)(M * L.H))), dcu = qt::DevBuf::from(cu), dhas = qt::DevBuf::from(has);
  auto dslots = qt::DevBuf::from(slots), dat = qt::DevBuf::from(at), dcks = qt::DevBuf::from(ck_slots);
  auto dconv = qt::DevBuf::from(pools.conv), ddelta = qt::DevBuf::from(pools.delta);
  qt::DevBuf ckc((size_t)(3 * L.CONV * 2)), ckd((size_t)(L.HV * 16384 * 4)), out((size_t)(M * L.H * 2));
  qt::DevBuf ws((size_t)quillon_fused_linear_attn_workspace_bytes(M, 0));
  ws.upload(proj);
  Call c;
  c.x = dx.get(), c.cu = dcu.as<int32_t>(), c.has = dhas.as<int32_t>(), c.slots = dslots.as<int32_t>();
  c.conv_state = dconv.get(), c.delta_state = ddelta.as<float>(), c.ckpt_at = dat.as<int32_t>();
  c.ckpt_slots = dcks.as<int32_t>(), c.ckpt_max = 1, c.ckpt_conv = ckc.get(), c.ckpt_delta = ckd.as<float>();
  c.ws = ws.get(), c.out = out.get(), c.B = 2, c.M = M, c.path = 7;
  // shuffle, in-projection, conv, conv state, checkpoint, delta rule, gated norm, out-projection
  qt::sample_launch(1, {});
  qt::sample_launch(7, {0});
  ASSERT_EQ(run(L, c), hipSuccess);
  qt::sync_ok();

  const u16v w = ws.download<uint16_t>();
  ASSERT_EQ(region(w, L, M, 0), proj);
  Pools want = pools;
  std::fill(want.conv.begin() + 3 * L.CONV, want.conv.begin() + 6 * L.CONV, 0);  // seq 0 starts fresh in slot 1
  std::fill(want.delta.begin() + L.HV * 16384, want.delta.begin() + 2 * L.HV * 16384, 0.f);
  auto part = [&](int64_t t0, int64_t n) {
    return fused_rows(L, u16v(proj.begin() + t0 * L.ROW, proj.begin() + (t0 + n) * L.ROW), n);
  };
  // Each sequence through the references, its state kept in its own slot,
  // the prompt split at the checkpoint.
  auto seq = [&](int64_t t0, int64_t n, int32_t slot) {
    const std::vector<int32_t> st = {slot}, tg((size_t)n, slot);
    return decode_ref(L, part(t0, n), 1, n, st, &tg, want);
  };
  Ref r = seq(0, 64, 1);
  const Pools at64 = want;
  for (const Ref& more : {seq(64, 2, 1), seq(66, 3, 0)})
    for (int i = 0; i < 3; ++i) {
      u16v& dst = i == 0 ? r.conv : i == 1 ? r.o : r.gated;
      const u16v& src = i == 0 ? more.conv : i == 1 ? more.o : more.gated;
      dst.insert(dst.end(), src.begin(), src.end());
    }
  EXPECT_BITS_EQ(region(w, L, M, 1), r.conv);
  EXPECT_BITS_EQ(dconv.download<uint16_t>(), want.conv);
  EXPECT_BITS_EQ(ckc.download<uint16_t>(), u16v(at64.conv.begin() + 3 * L.CONV, at64.conv.begin() + 6 * L.CONV));
  const u16v o = region(w, L, M, 2);
  const auto delta = ddelta.download<float>(), ck = ckd.download<float>();
  const double e_o = rel_err(o, r.o), e_s = rel_err(delta, want.delta);
  const double e_ck = rel_err(ck, std::vector<float>(at64.delta.begin() + L.HV * 16384, at64.delta.begin() + 2 * L.HV * 16384));
  RecordProperty("prefill_out_rel_err", std::to_string(e_o));
  RecordProperty("prefill_state_rel_err", std::to_string(e_s));
  EXPECT_LT(e_o, 1.0 / 64);
  EXPECT_LT(e_s, 1.0 / 64);
  EXPECT_LT(e_ck, 1.0 / 64);
  // The out-projection's first tile, from the gated rows of the device's delta-rule rows.
  const u16v g = ref::gated_rows(o, fused_rows(L, proj, M).z, L.VD, L.norm_w, M, (int)L.HV, false, 1e-6f);
  Weight tile;
  tile.N = 128, tile.w.assign(L.out.w.begin(), L.out.w.begin() + 128 * L.VD);
  const u16v got = out.download<uint16_t>();
  u16v got_tile((size_t)(M * 128));
  for (int64_t t = 0; t < M; ++t) std::copy_n(&got[(size_t)(t * L.H)], 128, &got_tile[(size_t)(t * 128)]);
  expect_gemm(gt::floats_of(g), tile, got_tile, M, L.VD);
}

TEST(FusedLinearAttn, SlotsPoolAndSizes) {
  const struct {
    int32_t seq, committed;
    int64_t capacity, rows;
    std::vector<int32_t> want;
  } cases[] = {{1, 5, 4, 4, {5, 4, 6, 7}}, {1, -1, 4, 4, {4, 5, 6, 7}}, {1, 6, 2, 4, {6, 4}}, {0, 2, 1, 4, {2}},
               {0, 2, 0, 4, {}},          {1, 8, 8, 4, {8, 4, 5, 6, 7}}};
  for (const auto& tc : cases) {
    std::vector<int32_t> got(8, -7);
    got.resize((size_t)quillon_linear_state_slots(tc.seq, tc.committed, tc.capacity, tc.rows, got.data()));
    EXPECT_EQ(got, tc.want) << "seq " << tc.seq << " committed " << tc.committed << " capacity " << tc.capacity;
  }
  int64_t total = 0, spare = 0;
  quillon_linear_state_pool(3, 4, &total, &spare);
  EXPECT_EQ(total, 13);
  EXPECT_EQ(spare, 12);
  quillon_linear_state_pool(3, 4, nullptr, &spare);
  quillon_linear_state_pool(3, 4, &total, nullptr);
  for (const lt::Geo& g : lt::kGeos) {
    if (!quillon::geometry_built(g.id)) continue;
    ASSERT_EQ(quillon_select_geometry(g.id), 0);
    EXPECT_EQ(quillon_linear_attn_retain_bytes(3, 1), 6 * g.conv);
    EXPECT_EQ(quillon_linear_attn_retain_bytes(3, 2), 12 * g.hv);
    EXPECT_EQ(quillon_linear_attn_retain_bytes(3, 3), -1);
    EXPECT_EQ(quillon_fused_linear_attn_workspace_bytes(300, 7), quillon_fused_linear_attn_workspace_bytes(300, 0));
  }
}

TEST(FusedLinearAttnDeathTest, Messages) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  QT_SELECT_GEOMETRY(0);
  int32_t one = 1;
  void* p = &one;
  const LinearAttnRetain none{{nullptr, nullptr, nullptr}}, all{{p, p, p}}, gap{{p, nullptr, p}};
  auto call = [&](void* ws, int32_t path, int64_t B, int64_t M, LinearAttnRetain rt, Args a = {}) {
    Call c;
    c.ws = ws, c.path = path, c.B = B, c.M = M, c.retain = rt;
    return run(a, c);
  };
  Args two, bad;
  two.qz_fp8 = two.qkv_q = p;
  bad.out_q = p, bad.f1 = 7;
  EXPECT_EQ(call(nullptr, 0, 0, 0, gap, two), hipSuccess);  // M = 0: no check at all
  const struct {
    void* ws;
    int32_t path;
    int64_t B, M;
    LinearAttnRetain rt;
    Args a;
    const char* msg;
  } cases[] = {
      {nullptr, 0, 1, 1, all, two, "fused_linear_attn needs fused_linear_attn_workspace_bytes(M, path)"},
      {p, 0, 1, 1, all, two, "roll-forward is a decode scheme; a prefill has no block"},
      {p, 2, 2, 3, gap, two, "LinearAttnRetain needs all three row-blocks (see linear_attn_retain_bytes)"},
      {p, 2, 2, 3, none, two, "decode needs M a multiple of B (M=3, B=2)"},
      {p, 2, 0, 3, none, two, "decode needs M a multiple of B (M=3, B=0)"},
      {p, 0, 0, 3, none, two, "fused_linear_attn takes one quantized in_proj form, not several"},
      {nullptr, 2, 1, 1, none, bad, "7 is not a k-quant format id (see kquant_sets's FORMATS list)"},
  };
  for (const auto& tc : cases) EXPECT_QUILLON_FATAL(call(tc.ws, tc.path, tc.B, tc.M, tc.rt, tc.a), tc.msg);
  EXPECT_QUILLON_FATAL(quillon_linear_attn_advance(p, nullptr, p, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                   1, 1, nullptr),
                       "linear_attn_advance needs the rows the roll-forward decode retained");
  if (quillon::geometry_built(2)) {
    ASSERT_EQ(quillon_select_geometry(2), 0);
    EXPECT_QUILLON_FATAL(call(p, 0, 1, 1, none),
                         qt::kGeometryTwo);
  }
}

}  // namespace
