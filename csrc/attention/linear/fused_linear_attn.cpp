// One linear-attention layer as a fixed sequence of launches: input norm,
// in-projection (one of four weight forms), convolution, delta rule, gated
// norm, out-projection, all intermediates in the caller's workspace. Around it
// the slot bookkeeping of the two state pools and the roll-forward commit.
#include "../../gemm_core/gemm_proj_ops.h"
#include "../../norm/rmsnorm.h"
#include "linear_attn.h"

namespace quillon {

namespace {

using proj::ProjCall;

template <class F>
void on_linear_geometry(F&& f) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, f);
}

constexpr int64_t round_up(int64_t v, int64_t m) { return (v + m - 1) / m * m; }
int64_t max2(int64_t a, int64_t b) { return a > b ? a : b; }

// The layer's widths at geometry G.
template <class G>
struct Dims {
  static constexpr int64_t H = G::hidden_size, CONV = G::conv_width, VD = G::linear_value_width,
                           HV = G::linear_v_heads, QKVZ = CONV + VD, ROW = G::in_proj_stride;
};

unsigned char* at(void* p, int64_t bytes) { return static_cast<unsigned char*>(p) + bytes; }

// Where the projection put qkv, z and the logits, and their row strides: one
// row of ROW in the fused form, rows of QKVZ with a logit block behind in the
// qz forms, three blocks (CONV, VD, 128) in the two-block form.
struct InRows {
  const uint16_t *qkv, *z, *b;
  int64_t qkv_stride, z_stride, ba_stride;
};

template <class G>
InRows run_in_proj(const LinearAttnWeights& w, const ProjCall& c) {
  using D = Dims<G>;
  auto* out = static_cast<uint16_t*>(c.C);
  const int64_t M = c.M;
  if (w.in_proj_qkv_kquant != nullptr) {
    proj::linear_in_proj_triple_kquant(c, proj::kquant_w(w.qkv_format, w.in_proj_qkv_kquant, w.in_proj_qkv_meta),
                                       proj::kquant_w(w.z_format, w.in_proj_z_kquant, w.in_proj_z_meta),
                                       proj::bf16_w(w.in_proj_ba));
    return {out, out + M * D::CONV, out + M * D::QKVZ, D::CONV, D::VD, 128};
  }
  if (w.in_proj_qz_fp8 != nullptr || w.in_proj_qz_kquant != nullptr) {
    if (w.in_proj_qz_fp8 != nullptr) proj::linear_in_proj_qz_fp8(c, proj::fp8_w(w.in_proj_qz_fp8, w.in_proj_qz_scale));
    else proj::linear_in_proj_qz_kquant(c, proj::kquant_w(w.qz_format, w.in_proj_qz_kquant, w.in_proj_qz_meta));
    ProjCall cb = c;
    cb.C = out + M * D::QKVZ;
    proj::linear_in_proj_ba(cb, proj::bf16_w(w.in_proj_ba));
    return {out, out + D::CONV, out + M * D::QKVZ, D::QKVZ, D::QKVZ, 128};
  }
  proj::linear_in_proj(c, proj::bf16_w(w.in_proj));
  return {out, out + D::CONV, out + D::QKVZ, D::ROW, D::ROW, D::ROW};
}

void run_out_proj(const LinearAttnWeights& w, const ProjCall& c) {
  if (w.in_proj_qz_fp8 != nullptr) proj::linear_out_proj_fp8(c, proj::fp8_w(w.out_proj, w.out_proj_scale));
  else if (w.out_proj_kquant != nullptr)
    proj::linear_out_proj_kquant(c, proj::kquant_w(w.out_format, w.out_proj_kquant, w.out_proj_meta));
  else proj::linear_out_proj(c, proj::bf16_w(w.out_proj));
}

void check_call(const LinearAttnCall& c) {
  if (c.workspace == nullptr) QUILLON_FATAL("fused_linear_attn needs fused_linear_attn_workspace_bytes(M, path)");
  const bool retain = c.retain.rows[0] != nullptr;
  if (retain && c.path != proj::Decode) QUILLON_FATAL("roll-forward is a decode scheme; a prefill has no block");
  if (retain && (c.retain.rows[1] == nullptr || c.retain.rows[2] == nullptr))
    QUILLON_FATAL("LinearAttnRetain needs all three row-blocks (see linear_attn_retain_bytes)");
  if (c.path == proj::Decode && (c.B < 1 || c.M % c.B != 0))
    QUILLON_FATAL("decode needs M a multiple of B (M=%lld, B=%lld)", (long long)c.M, (long long)c.B);
}

void check_forms(const LinearAttnWeights& w) {
  const int forms = (w.in_proj_qz_fp8 != nullptr) + (w.in_proj_qz_kquant != nullptr) + (w.in_proj_qkv_kquant != nullptr);
  if (forms > 1) QUILLON_FATAL("fused_linear_attn takes one quantized in_proj form, not several");
}

}  // namespace

void check_linear_formats(const LinearAttnWeights& w) {
  if (w.in_proj_qz_kquant != nullptr) kq::require_format_id(QUILLON_HERE, w.qz_format);
  if (w.in_proj_qkv_kquant != nullptr) kq::require_format_id(QUILLON_HERE, w.qkv_format);
  if (w.in_proj_z_kquant != nullptr) kq::require_format_id(QUILLON_HERE, w.z_format);
  if (w.out_proj_kquant != nullptr) kq::require_format_id(QUILLON_HERE, w.out_format);
}

void fused_linear_attn(const LinearAttnWeights& w, const LinearAttnCall& c) {
  if (c.M <= 0) return;
  check_linear_formats(w);
  check_call(c);
  check_forms(w);
  on_linear_geometry([&](auto g) {
    using G = decltype(g);
    using D = Dims<G>;
    const int64_t M = c.M;
    const bool decode = c.path == proj::Decode, retain = c.retain.rows[0] != nullptr;
    const int64_t rows = decode ? M / c.B : 0, padded = round_up(M, 256);
    auto* proj_out = static_cast<uint16_t*>(c.workspace);
    auto* conv_out = reinterpret_cast<uint16_t*>(at(c.workspace, 2 * M * D::ROW));
    auto* gdr_out = reinterpret_cast<uint16_t*>(at(c.workspace, 2 * M * (D::ROW + D::CONV)));
    void* scratch = at(c.workspace, 2 * M * (D::ROW + D::CONV + D::VD));

    // Input stage: the projection's A, and where its partials may go.
    ProjCall pc{c.x, proj_out, M, decode ? proj::Decode : proj::PrefillShuffledA, nullptr,
                static_cast<float*>(scratch), c.stream};
    if (decode) {
      if (c.input_norm != nullptr) {
        rmsnorm(c.x, c.residual, c.input_norm, scratch, M, c.eps, c.stream);
        pc.A = scratch;
        pc.splitk_ws = reinterpret_cast<float*>(at(scratch, 2 * M * D::H));
      }
    } else if (c.input_norm != nullptr) {
      rmsnorm_shuffled(c.x, c.residual, c.input_norm, scratch, M, c.eps, c.stream);
      pc.A = scratch;
    } else if (c.path != proj::PrefillShuffledA) {
      shuffle_a_blk32(c.x, D::H, scratch, padded, D::H, c.stream, M);
      pc.A = scratch;
    }
    const InRows in = run_in_proj<G>(w, pc);
    const uint16_t* b = in.b;
    const uint16_t* a = in.b + D::HV;

    if (retain) {
      QUILLON_HIP_CHECK(hipMemcpy2DAsync(c.retain.rows[0], D::CONV * 2, in.qkv, in.qkv_stride * 2, D::CONV * 2, M,
                                         hipMemcpyDeviceToDevice, c.stream));
      QUILLON_HIP_CHECK(hipMemcpy2DAsync(c.retain.rows[2], D::HV * 4, in.b, in.ba_stride * 2, D::HV * 4, M,
                                         hipMemcpyDeviceToDevice, c.stream));
      conv1d_decode_readonly(in.qkv, in.qkv_stride, w.conv_weight, c.slots, c.conv_state, c.retain.rows[1], c.B, rows,
                             c.stream);
      gated_delta_rule_decode_readonly(c.retain.rows[1], b, a, in.ba_stride, w.a_log, w.dt_bias, c.slots,
                                       c.delta_state, gdr_out, c.B, rows, c.stream);
    } else if (decode) {
      conv1d_decode(in.qkv, in.qkv_stride, w.conv_weight, c.slots, c.accepted, c.conv_state, conv_out, c.B, rows,
                    c.stream);
      gated_delta_rule_decode(conv_out, b, a, in.ba_stride, w.a_log, w.dt_bias, c.slots, c.accepted, c.delta_state,
                              gdr_out, c.B, rows, c.stream);
    } else {
      conv1d_prefill(in.qkv, in.qkv_stride, w.conv_weight, c.cu_seqlens, c.has_state, c.slots, c.conv_state, conv_out,
                     c.B, M, c.stream);
      if (c.ckpt_max != 0)
        conv1d_state_ckpt(in.qkv, in.qkv_stride, c.cu_seqlens, c.has_state, c.slots, c.conv_state, c.ckpt_at,
                          c.ckpt_slots, c.ckpt_max, c.ckpt_conv, c.B, c.stream);
      gated_delta_rule_prefill(conv_out, b, a, in.ba_stride, w.a_log, w.dt_bias, c.cu_seqlens, c.has_state, c.slots,
                               c.delta_state, c.ckpt_at, c.ckpt_slots, c.ckpt_max, c.ckpt_delta, gdr_out, c.B, M,
                               c.stream);
    }

    // The gated norm writes the out-projection's A: in place at Decode, a
    // blk32 panel at Prefill.
    constexpr float kGatedEps = 1e-6f;
    if (decode) {
      rmsnorm_gated(gdr_out, in.z, in.z_stride, w.norm_weight, gdr_out, M, kGatedEps, c.stream);
      return run_out_proj(w, {gdr_out, c.out, M, proj::Decode, nullptr, static_cast<float*>(scratch), c.stream});
    }
    rmsnorm_gated_shuffled(gdr_out, in.z, in.z_stride, w.norm_weight, scratch, M, padded, kGatedEps, c.stream);
    run_out_proj(w, {scratch, c.out, M, proj::PrefillShuffledA, nullptr, nullptr, c.stream});
  });
}

int64_t fused_linear_attn_workspace_bytes(int64_t M, int32_t path) {
  int64_t r = 0;
  on_linear_geometry([&](auto g) {
    using D = Dims<decltype(g)>;
    if (M <= 0) return;
    const int64_t P = proj::linear_in_scratch_bytes(M), O = proj::linear_out_scratch_bytes(M);
    const int64_t R = 2 * M * (D::CONV + D::ROW + D::VD);
    const int64_t s = path == proj::Decode ? max2(max2(P, O), P + 2 * M * D::H) : max2(P, O);
    r = round_up(s, 256) + R;
  });
  return r;
}

int64_t linear_attn_retain_bytes(int64_t M, int32_t which) {
  int64_t r = -1;
  on_linear_geometry([&](auto g) {
    using D = Dims<decltype(g)>;
    if (which == 0 || which == 1) r = M * D::CONV * 2;
    else if (which == 2) r = M * D::HV * 4;
  });
  return r;
}

void linear_attn_advance(const RetainRows& rt, const float* a_log, const float* dt_bias, const int32_t* slots,
                         const int32_t* accepted, void* conv_state, float* delta_state, int64_t num_seqs, int64_t rows,
                         hipStream_t stream) {
  if (rt.rows[0] == nullptr || rt.rows[1] == nullptr || rt.rows[2] == nullptr)
    QUILLON_FATAL("linear_attn_advance needs the rows the roll-forward decode retained");
  on_linear_geometry([&](auto g) {
    using D = Dims<decltype(g)>;
    conv1d_advance(rt.rows[0], D::CONV, slots, accepted, conv_state, num_seqs, rows, stream);
    const auto* ba = static_cast<const uint16_t*>(rt.rows[2]);
    gated_delta_rule_advance(rt.rows[1], ba, ba + D::HV, 2 * D::HV, a_log, dt_bias, slots, accepted, delta_state,
                             num_seqs, rows, stream);
  });
}

void linear_state_pool(int64_t max_seqs, int64_t rows, int64_t* total_slots, int64_t* spare_slot) {
  if (total_slots != nullptr) *total_slots = max_seqs * rows + 1;
  if (spare_slot != nullptr) *spare_slot = max_seqs * rows;
}

int64_t linear_state_slots(int32_t seq, int32_t committed, int64_t capacity, int64_t rows, int32_t* out) {
  const int64_t base = (int64_t)seq * rows, first = committed < 0 ? base : committed;
  int64_t n = 0;
  if (capacity > 0) out[n++] = (int32_t)first;
  for (int64_t s = base; s < base + rows && n < capacity; ++s)
    if (s != first) out[n++] = (int32_t)s;
  return n;
}

void linear_proj_shuffle_w(LinearPart part, int form, int32_t format, const void* src, void* dst, void* meta,
                           hipStream_t s) {
  on_linear_geometry([&](auto g) {
    constexpr int32_t id = decltype(g)::id;
    proj::KN kn{};
    switch (part) {
      case LinearPart::In: kn = proj::linear_in_proj_shape(id); break;
      case LinearPart::Ba: kn = proj::linear_in_proj_ba_shape(id); break;
      case LinearPart::Qz: kn = proj::linear_in_proj_qz_kquant_shape(id); break;
      case LinearPart::Qkv: kn = proj::linear_in_proj_qkv_kquant_shape(id); break;
      case LinearPart::Z: kn = proj::linear_in_proj_z_kquant_shape(id); break;
      case LinearPart::Out: kn = proj::linear_out_proj_shape(id); break;
    }
    proj::shuffle_weight(form, format, kn, src, dst, meta, s);
  });
}

}  // namespace quillon
