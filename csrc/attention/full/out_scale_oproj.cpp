// The output projection of a gated attention layer: the sigmoid gate applied
// while A is written (row-major at Decode, blk32 at Prefill), then the
// projection back to the hidden width.
#include "attn_proj.h"

#include "../../gemm_core/gemm_a_loaders.h"
#include "../../gemm_core/gemm_proj_ops.h"

namespace quillon {

namespace gemm_core {
// The gated [M, K] matrix row-major: one 16-byte chunk per thread, linear.
template <class G>
__global__ __launch_bounds__(256) void out_scale_kernel(const uint16_t* attn, const uint16_t* gate,
                                                        int64_t gate_stride, uint16_t* dst, int64_t M) {
  constexpr int64_t K = ScaledALoader<G>::K;
  static_assert(K % 2048 == 0, "the grid covers whole rows");
  const int64_t i = ((int64_t)blockIdx.x * 256 + threadIdx.x) * 8;
  const ScaledALoader<G> ld{attn, gate, gate_stride};
  *reinterpret_cast<dev::u32x4*>(dst + i) = ld.load((uint32_t)(i / K), (uint32_t)(i % K));
  (void)M;
}
}  // namespace gemm_core

namespace {

using proj::ProjCall;

template <class F>
void on_attn_geometry(F&& f) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, Qwen38FlashNext>(QUILLON_HERE, f);
}

const char* oproj_name(int form) {
  return form == 0 ? "attn_out_scale_oproj" : form == 1 ? "attn_out_scale_oproj_fp8" : "attn_out_scale_oproj_kquant";
}

void run_oproj(const OprojWeight& w, const ProjCall& c) {
  if (w.form == 0) proj::attn_out_scale_oproj(c, proj::bf16_w(w.w));
  else if (w.form == 1) proj::attn_out_scale_oproj_fp8(c, proj::fp8_w(w.w, w.w_scale));
  else proj::attn_out_scale_oproj_kquant(c, proj::kquant_w(w.format, w.w, w.w_scale));
}

}  // namespace

void attn_out_scale_oproj(const OprojWeight& w, const void* attn, const void* gate, int64_t gate_stride,
                          void* scratch, void* out, int64_t M, int32_t mode, hipStream_t s) {
  on_attn_geometry([&](auto g) {
    using G = decltype(g);
    constexpr int64_t K = gemm_core::ScaledALoader<G>::K;
    if (M <= 0) return;
    const char* name = oproj_name(w.form);
    if (mode == proj::PrefillShuffledA) QUILLON_FATAL("%s takes no pre-shuffled A; pass Prefill or Decode", name);
    if (scratch == nullptr)
      QUILLON_FATAL("%s needs scratch of attn_out_scale_oproj_scratch_bytes(M) on both paths (got null)", name);
    const gemm_core::ScaledALoader<G> ld{static_cast<const uint16_t*>(attn), static_cast<const uint16_t*>(gate),
                                         gate_stride};
    if (mode == proj::Decode) {
      launch(&gemm_core::out_scale_kernel<G>, dim3((unsigned)(M * K / 2048)), dim3(256), 0, s, ld.attn, ld.gate,
             gate_stride, static_cast<uint16_t*>(scratch), M);
      float* ws = reinterpret_cast<float*>(static_cast<unsigned char*>(scratch) + M * K * 2);
      return run_oproj(w, {scratch, out, M, proj::Decode, nullptr, ws, s});
    }
    shuffle_blk32<false>(ld, scratch, (M + 255) / 256 * 256, K, M, s);
    run_oproj(w, {scratch, out, M, proj::PrefillShuffledA, nullptr, nullptr, s});
  });
}

void attn_oproj_shuffled_a(const OprojWeight& w, const void* a, void* out, int64_t M, hipStream_t s) {
  on_attn_geometry([&](auto) { run_oproj(w, {a, out, M, proj::PrefillShuffledA, nullptr, nullptr, s}); });
}

// The larger of the two paths: shuffled A at Prefill; the gated A and the
// split's partials at Decode.
int64_t attn_out_scale_oproj_scratch_bytes(int64_t M) {
  int64_t r = 0;
  on_attn_geometry([&](auto g) {
    if (M <= 0) return;
    constexpr proj::KN kn = proj::attn_out_scale_oproj_shape(decltype(g)::id);
    const int64_t pre = proj::proj_scratch_bytes(M, kn.K), dec = M * kn.K * 2 + proj::split_scratch_bytes(M, kn.N, kn.K);
    r = pre > dec ? pre : dec;
  });
  return r;
}

void attn_out_scale_oproj_shuffle_w(int form, int32_t format, const void* src, void* dst, void* meta,
                                    hipStream_t s) {
  on_attn_geometry([&](auto g) {
    proj::shuffle_weight(form, format, proj::attn_out_scale_oproj_shape(decltype(g)::id), src, dst, meta, s);
  });
}

}  // namespace quillon
