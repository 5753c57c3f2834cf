// The fused linear-attention layer through the exported ABI. Each stage is
// checked against its reference fed by the stage before, read back from the
// caller's workspace: projections in double within the summation bound, the
// convolution, delta rule and gated norm bit for bit in the float order the
// kernels promise, the states in every slot they must (and must not) touch.
#include <algorithm>
#include <cstring>

#include "gemm/gemm_test_util.h"
#include "linear/gdr_test_util.h"
#include "reference/conv1d_ref.h"

namespace {

using u16v = std::vector<uint16_t>;
void sync_ok() { ASSERT_EQ(hipDeviceSynchronize(), hipSuccess); }

// An N x K weight shuffled by its exported entry, and the values it stands for.
struct Weight {
  qt::DevBuf b0, b1;
  std::vector<float> w;
  int64_t N = 0, off = 0;  // rows, and where its outputs start in the projection region (elements)
};
using Shuffle = hipError_t (*)(const void*, void*, hipStream_t);
using ShuffleK = hipError_t (*)(int32_t, const void*, void*, void*, hipStream_t);

Weight bf16_w(qt::Rng& rng, int64_t N, int64_t K, Shuffle sh, float r) {
  const u16v src = rng.bf16s((size_t)(N * K), -r, r);
  Weight w{qt::DevBuf::from(src), {}, gt::floats_of(src), N};
  qt::DevBuf d(src.size() * 2);
  EXPECT_EQ(sh(w.b0.get(), d.get(), nullptr), hipSuccess);
  w.b0 = std::move(d);
  return w;
}
// e4m3 bytes of magnitude 2^-6 .. 2^-3 with block scales 1 or 2, the scale
// table already in its [K/128][N/128] order.
Weight fp8_w(qt::Rng& rng, int64_t N, int64_t K, Shuffle sh) {
  std::vector<uint8_t> src((size_t)(N * K));
  std::vector<uint16_t> sc((size_t)(N / 128 * (K / 128)));
  for (auto& s : sc) s = (uint16_t)((127 + rng.integer(0, 1)) << 7);
  Weight w{qt::DevBuf::from(src), qt::DevBuf::from(sc), std::vector<float>(src.size()), N};
  for (int64_t n = 0; n < N; ++n)
    for (int64_t k = 0; k < K; ++k) {
      const uint8_t x = src[(size_t)(n * K + k)] = (uint8_t)((rng.integer(0, 1) << 7) | (rng.integer(1, 4) << 3) | rng.integer(0, 7));
      w.w[(size_t)(n * K + k)] = ref::fp8_weight(x) * ref::bf16_value(sc[(size_t)((k / 128) * (N / 128) + n / 128)]);
    }
  w.b0.upload(src);
  qt::DevBuf d(src.size());
  EXPECT_EQ(sh(w.b0.get(), d.get(), nullptr), hipSuccess);
  w.b0 = std::move(d);
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
    if (f.in == 0) in.push_back(bf16_w(rng, ROW, H, quillon_linear_in_proj_shuffle_w, 0.05f));
    if (f.in == 1) in.push_back(fp8_w(rng, QKVZ, H, quillon_linear_in_proj_qz_shuffle_w_fp8));
    if (f.in == 2) in.push_back(kquant_w(f.f0, QKVZ, H, quillon_linear_in_proj_qz_shuffle_w_kquant, seed));
    if (f.in == 3) {
      in.push_back(kquant_w(f.f0, CONV, H, quillon_linear_in_proj_qkv_shuffle_w_kquant, seed));
      in.push_back(kquant_w(f.f1, VD, H, quillon_linear_in_proj_z_shuffle_w_kquant, seed + 1));
    }
    if (f.in != 0) in.push_back(bf16_w(rng, 128, H, quillon_linear_in_proj_ba_shuffle_w, 0.05f));
    for (size_t i = 1; i < in.size(); ++i) in[i].off = in[i - 1].off + in[i - 1].N;  // times M at use
    if (f.in == 1) out = fp8_w(rng, H, VD, quillon_linear_out_proj_shuffle_w_fp8);
    else if (f.out == 2) out = kquant_w(f.f1, H, VD, quillon_linear_out_proj_shuffle_w_kquant, seed + 2);
    else out = bf16_w(rng, H, VD, quillon_linear_out_proj_shuffle_w, 0.05f);
    conv_w = rng.bf16s((size_t)(CONV * 4), -1.f, 1.f);
    norm_w = rng.bf16s((size_t)128, 0.5f, 1.5f);
    a_log = rng.floats((size_t)HV, -2.f, 1.f);
    dt_bias = rng.floats((size_t)HV, -1.f, 1.f);
    d_conv_w = qt::DevBuf::from(conv_w), d_norm_w = qt::DevBuf::from(norm_w);
    d_a_log = qt::DevBuf::from(a_log), d_dt_bias = qt::DevBuf::from(dt_bias);
  }

  const void* w(int in_form, int i, bool meta = false) const {
    if (form.in != in_form || (int)in.size() <= i) return nullptr;
    return meta ? in[(size_t)i].b1.get() : in[(size_t)i].b0.get();
  }
  const void* ba() const { return form.in == 0 ? nullptr : in.back().b0.get(); }
};

// Everything of a call but the weights.
struct Call {
  const void *x = nullptr, *input_norm = nullptr;
  void* residual = nullptr;
  const int32_t *cu = nullptr, *has = nullptr, *slots = nullptr, *accepted = nullptr;
  void* conv_state = nullptr;
  float* delta_state = nullptr;
  const int32_t *ckpt_at = nullptr, *ckpt_slots = nullptr;
  int64_t ckpt_max = 0;
  void* ws = nullptr;
  void* out = nullptr;
  int64_t B = 1, M = 0;
  int32_t path = 2;
  LinearAttnRetain retain{{nullptr, nullptr, nullptr}};
};

hipError_t run(const Layer& L, const Call& c) {
  const bool fp8 = L.form.in == 1, kq_out = L.form.out == 2 && !fp8;
  return quillon_fused_linear_attn(
      c.x, c.residual, c.input_norm, L.w(0, 0), L.d_conv_w.get(), L.d_a_log.as<float>(), L.d_dt_bias.as<float>(),
      L.d_norm_w.get(), kq_out ? nullptr : L.out.b0.get(), fp8 ? L.in[0].b1.get() : nullptr, L.w(1, 0), L.ba(),
      fp8 ? L.out.b1.get() : nullptr, L.w(2, 0), L.w(2, 0, true), L.form.f0, L.w(3, 0), L.w(3, 0, true), L.form.f0,
      L.w(3, 1), L.w(3, 1, true), L.form.f1, kq_out ? L.out.b0.get() : nullptr, kq_out ? L.out.b1.get() : nullptr,
      L.form.f1, c.cu, c.has, c.slots, c.accepted, c.conv_state, c.delta_state, c.ckpt_at, c.ckpt_slots, c.ckpt_max,
      nullptr, nullptr, c.ws, c.out, c.B, c.M, c.path, nullptr, c.retain, 1e-5f);
}

// C = A W^T against the device's bf16 rows, within the summation bound.
void expect_gemm(const std::vector<float>& A, const Weight& W, const u16v& C, int64_t M, int64_t K) {
  EXPECT_EQ(gt::count_outside(gt::widen(C), ref::gemm(A, W.w, M, W.N, K), ref::gemm_abs(A, W.w, M, W.N, K), K, true), 0);
}

// The projection region read back: each arm's rows, then per token the conv
// input row, z row and logits (b then a, stride 2*HV) as the rest of the layer
// reads them.
struct InRows {
  u16v qkv, z, ba;
};
InRows check_in_proj(const Layer& L, const std::vector<float>& A, const u16v& P, int64_t M) {
  InRows r{u16v((size_t)(M * L.CONV)), u16v((size_t)(M * L.VD)), u16v((size_t)(M * 2 * L.HV))};
  std::vector<u16v> arm;
  for (const Weight& w : L.in) {
    arm.emplace_back(P.begin() + M * w.off, P.begin() + M * (w.off + w.N));
    expect_gemm(A, w, arm.back(), M, L.H);
  }
  const int64_t qs = L.in[0].N, zs = L.form.in == 3 ? L.VD : qs;  // row strides
  const u16v& zarm = arm[L.form.in == 3 ? 1 : 0];
  const u16v& barm = arm.back();
  const int64_t bs = barm.size() / M, b0 = L.form.in == 0 ? L.QKVZ : 0, z0 = L.form.in == 3 ? 0 : L.CONV;
  for (int64_t t = 0; t < M; ++t) {
    std::copy_n(&arm[0][(size_t)(t * qs)], L.CONV, &r.qkv[(size_t)(t * L.CONV)]);
    std::copy_n(&zarm[(size_t)(t * zs + z0)], L.VD, &r.z[(size_t)(t * L.VD)]);
    std::copy_n(&barm[(size_t)(t * bs + b0)], 2 * L.HV, &r.ba[(size_t)(t * 2 * L.HV)]);
  }
  return r;
}

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
  u16v conv, gated;
};
Ref decode_ref(const Layer& L, const InRows& in, int64_t B, int64_t rows, const std::vector<int32_t>& start,
               const std::vector<int32_t>* targets, Pools& p) {
  const int64_t M = B * rows;
  Ref r{u16v((size_t)(M * L.CONV)), {}};
  for (int64_t b = 0; b < B; ++b) {
    ref::ConvSeq cs(L.CONV, &p.conv[(size_t)(start[b] * 3 * L.CONV)]);
    for (int64_t i = 0; i < rows; ++i) {
      cs.step(&in.qkv[(size_t)((b * rows + i) * L.CONV)], L.conv_w.data(), &r.conv[(size_t)((b * rows + i) * L.CONV)]);
      if (targets) std::copy(cs.hist.begin(), cs.hist.end(), p.conv.begin() + (*targets)[b * rows + i] * 3 * L.CONV);
    }
  }
  lt::Inputs gi{L.geo, M, r.conv, in.ba, L.a_log, L.dt_bias, {}, {}};
  gi.derive();
  u16v o((size_t)(M * L.VD));
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

// Workspace regions, as elements of the downloaded buffer.
struct Ws {
  u16v all;
  int64_t M;
  const Layer* L;
  u16v region(int i, int64_t width) const {
    const int64_t w[3] = {L->ROW, L->CONV, L->VD};
    int64_t at = 0;
    for (int k = 0; k < i; ++k) at += M * w[k];
    return u16v(all.begin() + at, all.begin() + at + M * width);
  }
};

// Per-row decode of two sequences (accepted 1 and 2 in the step before, a
// permuted slot table) in every weight form, one with the input norm and its
// residual; then the same step retained: same outputs, pools untouched
// byte for byte, and the advance over 0, 1 and 2 rows gives what the per-row
// decode left after those rows.
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
    sync_ok();

    std::vector<float> A = gt::floats_of(x);
    if (tc.norm) {
      u16v sum(A.size());
      for (size_t i = 0; i < A.size(); ++i) sum[i] = ref::round_bf16(A[i] + ref::widen(res[i]));
      EXPECT_BITS_EQ(dres.download<uint16_t>(), sum);
      A = gt::floats_of(ref::norm_rows(gt::floats_of(sum), (int)L.H, M, nw.data(), 1e-5f, {}));
    }
    const Ws w{ws.download<uint16_t>(), M, &L};
    const InRows in = check_in_proj(L, A, w.region(0, L.ROW), M);
    Pools want = pools;
    const Ref r = decode_ref(L, in, B, rows, committed, &table, want);
    EXPECT_BITS_EQ(w.region(1, L.CONV), r.conv);
    EXPECT_BITS_EQ(w.region(2, L.VD), r.gated);
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
    sync_ok();
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

}  // namespace
