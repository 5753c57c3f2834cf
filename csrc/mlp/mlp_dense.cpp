// The dense MLP: gate and up in one projection (or a pair of differing
// widths), SwiGLU written once as the down projection's A (row-major at
// Decode, blk32 at Prefill), then the down projection. The workspace holds the
// gate-up result and, after it, a stage scratch that each step reuses in turn.
#include "mlp_dense.h"

#include "../gemm_core/gemm_a_loaders.h"
#include "../gemm_core/gemm_proj_ops.h"

namespace quillon {

namespace gemm_core {
// SwiGLU of [M, intermediate] row-major: one 16-byte chunk per thread.
template <class G>
__global__ __launch_bounds__(256) void swiglu_kernel(GateUp gu, uint16_t* dst, int64_t M) {
  constexpr int64_t kChunks = G::mlp_intermediate / 8;
  const int64_t i = (int64_t)blockIdx.x * 256 + threadIdx.x;
  if (i >= M * kChunks) return;
  const SwigluALoader ld{gu};
  *reinterpret_cast<dev::u32x4*>(dst + i * 8) = ld.load((uint32_t)(i / kChunks), (uint32_t)(i % kChunks * 8));
}
}  // namespace gemm_core

namespace {

using G = Qwen3627B;
using proj::ProjCall;
constexpr int64_t kI = G::mlp_intermediate;         // 17408
constexpr int64_t kGateUpRowBytes = 2 * kI * 2;     // 69632
static_assert(G::mlp_gate_up_rows == 2 * kI, "gate rows, then up rows");

template <class F>
void on_mlp_geometry(F&& f) {
  on_geometry<G>(QUILLON_HERE, f);
}

int64_t max2(int64_t a, int64_t b) { return a > b ? a : b; }

int64_t down_scratch(int64_t M) {
  constexpr proj::KN d = proj::mlp_swiglu_down_shape(G::id);
  return max2(M * kI * 2 + proj::split_scratch_bytes(M, d.N, d.K), proj::proj_scratch_bytes(M, d.K));
}

void run_gate_up(const MlpWeight& w, const ProjCall& c) {
  if (w.form == 0) proj::mlp_gate_up(c, proj::bf16_w(w.w));
  else if (w.form == 1) proj::mlp_gate_up_fp8(c, proj::fp8_w(w.w, w.scale));
  else proj::mlp_gate_up_kquant(c, proj::kquant_w(w.format, w.w, w.scale));
}

// The down step over the gate-up result `gu`, with its own stage scratch.
void swiglu_down(const MlpWeight& w, gemm_core::GateUp gu, void* scratch, void* out, int64_t M, int32_t mode,
                 hipStream_t s) {
  const char* name = w.form == 0 ? "mlp_swiglu_down" : w.form == 1 ? "mlp_swiglu_down_fp8" : "mlp_swiglu_down_kquant";
  if (scratch == nullptr) QUILLON_FATAL("%s needs scratch of mlp_down_scratch_bytes(M) on both paths (got null)", name);
  if (mode == proj::PrefillShuffledA) QUILLON_FATAL("%s takes no pre-shuffled A; pass Prefill or Decode", name);
  ProjCall c{scratch, out, M, proj::PrefillShuffledA, nullptr, nullptr, s};
  if (mode == proj::Decode) {
    launch(&gemm_core::swiglu_kernel<G>, dim3((unsigned)((M * (kI / 8) + 255) / 256)), dim3(256), 0, s, gu,
           static_cast<uint16_t*>(scratch), M);
    c.mode = proj::Decode;
    c.splitk_ws = reinterpret_cast<float*>(static_cast<unsigned char*>(scratch) + M * kI * 2);
  } else {
    shuffle_blk32<false>(gemm_core::SwigluALoader{gu}, scratch, (M + 255) / 256 * 256, kI, M, s);
  }
  if (w.form == 0) proj::mlp_swiglu_down(c, proj::bf16_w(w.w));
  else if (w.form == 1) proj::mlp_swiglu_down_fp8(c, proj::fp8_w(w.w, w.scale));
  else proj::mlp_swiglu_down_kquant(c, proj::kquant_w(w.format, w.w, w.scale));
}

}  // namespace

int64_t mlp_down_scratch_bytes(int64_t M) {
  int64_t r = 0;
  on_mlp_geometry([&](auto) { r = M > 0 ? down_scratch(M) : 0; });
  return r;
}

// The gate-up result, then the stage scratch at its largest use: shuffled x,
// the pair's partials (up to 32 rows, the most splits K allows), the down step.
int64_t fused_mlp_workspace_bytes(int64_t M) {
  int64_t r = 0;
  on_mlp_geometry([&](auto) {
    if (M <= 0) return;
    constexpr proj::KN gu = proj::mlp_gate_kquant_shape(G::id);
    const int64_t c = M < 32 ? M : 32;
    int64_t stage = max2(c * gu.N * proj::max_splits(gu.K) * 4, proj::proj_scratch_bytes(M, gu.K));
    stage = max2(stage, down_scratch(M));
    r = M * kGateUpRowBytes + (stage + 255) / 256 * 256;
  });
  return r;
}

void fused_mlp(const char* name, const MlpWeight& gate_up, const MlpWeight* up, const MlpWeight& down, const void* x,
               void* out, void* ws, int64_t M, int32_t mode, hipStream_t s) {
  on_mlp_geometry([&](auto) {
    if (M <= 0) return;
    if (ws == nullptr) QUILLON_FATAL("%s needs fused_mlp_workspace_bytes(M)", name);
    if (up != nullptr && up->format == gate_up.format)
      QUILLON_FATAL("the gate|up cut is for halves stored at DIFFERENT widths; both arrived at k-quant %d, which is "
                    "mlp_gate_up_shuffle_w_kquant's job",
                    up->format);
    auto* base = static_cast<unsigned char*>(ws);
    unsigned char* stage = base + M * kGateUpRowBytes;
    const ProjCall c{x, base, M, mode, stage, reinterpret_cast<float*>(stage), s};
    const auto* g = reinterpret_cast<const uint16_t*>(base);
    if (up == nullptr) {
      run_gate_up(gate_up, c);
      swiglu_down(down, {g, g + kI, 2 * kI}, stage, out, M, mode, s);
    } else {
      proj::mlp_gate_up_pair_kquant(c, proj::kquant_w(gate_up.format, gate_up.w, gate_up.scale),
                                    proj::kquant_w(up->format, up->w, up->scale));
      swiglu_down(down, {g, g + M * kI, kI}, stage, out, M, mode, s);
    }
  });
}

void mlp_shuffle_w(MlpPart part, int form, int32_t format, const void* src, void* dst, void* meta, hipStream_t s) {
  on_mlp_geometry([&](auto) {
    const proj::KN kn = part == MlpPart::GateUp ? proj::mlp_gate_up_shape(G::id)
                        : part == MlpPart::Down ? proj::mlp_swiglu_down_shape(G::id)
                                                : proj::mlp_gate_kquant_shape(G::id);
    proj::shuffle_weight(form, format, kn, src, dst, meta, s);
  });
}

}  // namespace quillon
