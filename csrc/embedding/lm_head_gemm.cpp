// LM head entries: path choice, the prefill panel, sizing and the weight
// shuffles; the launches themselves are compiled in the instantiation units.
#include "lm_head_gemm.h"

#include "../device/geometry.h"
#include "../gemm/kquant_shuffle.h"
#include "../gemm_core/gemm_shuffle.h"
#include "../platform/fatal.h"
#include "lm_head_config.h"
#include "quillon/kquant_sets.h"

namespace quillon {

using gemm_core::KQuantPlanes;
using gemm_core::LmHeadKQuantParams;
using gemm_core::LmHeadParams;
using gemm_core::PrefillTile;

namespace {

// Up to this many rows the activation is read in place.
constexpr int64_t kDecodeMaxRows = 32;

template <class F>
void on_lm_head_geometry(F&& f) {
  on_geometry<Qwen36MoeA3B, Qwen3627B, DeepSeekV4Flash, Qwen38FlashNext>(QUILLON_HERE, f);
}

// A size of the active geometry's head: size(vocab, hidden).
template <class F>
int64_t head_size(F&& size) {
  int64_t bytes = 0;
  on_lm_head_geometry([&](auto g) { bytes = size(decltype(g)::vocab_size, decltype(g)::hidden_size); });
  return bytes;
}

void check_decode_rows(int64_t M) {
  if (M < 1) QUILLON_FATAL("lm_head decode takes at least one row, got %lld", (long long)M);
}

// The panel of M rows, padded to whole 256-row tiles with copies of row 0.
template <class G>
void shuffle_panel(const void* x, void* scratch, int64_t M, hipStream_t s) {
  shuffle_a_blk32(x, G::hidden_size, scratch, PrefillTile::padded_rows(M), G::hidden_size, s, M);
}

template <class G>
void dense_decode(const void* x, const void* w, float* logits, int64_t M, hipStream_t s) {
  check_decode_rows(M);
  const LmHeadParams p{static_cast<const uint16_t*>(x), static_cast<const uint16_t*>(w), logits, M, G::vocab_size};
  if (M <= 16) lm_head_launch<G, 16>(p, s);
  else lm_head_launch<G, 32>(p, s);
}

template <class G>
void dense_prefill(const void* x, const void* w, void* scratch, float* logits, int64_t M, hipStream_t s) {
  shuffle_panel<G>(x, scratch, M, s);
  const LmHeadParams p{static_cast<const uint16_t*>(scratch), static_cast<const uint16_t*>(w), logits, M,
                       G::vocab_size};
  lm_head_launch<G, 256>(p, s);
}

}  // namespace

void lm_head_shuffle_weight(const void* src, void* w, hipStream_t s) {
  on_lm_head_geometry([&](auto g) {
    using G = decltype(g);
    shuffle_b_blk32(src, G::hidden_size, w, G::vocab_size, G::hidden_size, s);
  });
}

void lm_head(const void* x, const void* w, float* logits, int64_t M, void* scratch, hipStream_t s) {
  on_lm_head_geometry([&](auto g) {
    using G = decltype(g);
    if (M <= kDecodeMaxRows) dense_decode<G>(x, w, logits, M, s);
    else dense_prefill<G>(x, w, scratch, logits, M, s);
  });
}

void lm_head_gemm_decode(const void* x, const void* w, float* logits, int64_t M, hipStream_t s) {
  on_lm_head_geometry([&](auto g) { dense_decode<decltype(g)>(x, w, logits, M, s); });
}

void lm_head_gemm_prefill(const void* x, const void* w, void* scratch, float* logits, int64_t M, hipStream_t s) {
  on_lm_head_geometry([&](auto g) { dense_prefill<decltype(g)>(x, w, scratch, logits, M, s); });
}

int64_t lm_head_prefill_scratch_bytes(int64_t M) {
  return head_size([&](int64_t, int64_t H) { return M > 0 ? PrefillTile::padded_rows(M) * H * 2 : 0; });
}

int64_t lm_head_scratch_bytes(int64_t M) {
  const int64_t panel = lm_head_prefill_scratch_bytes(M);
  return M > kDecodeMaxRows ? panel : 0;
}

void lm_head_kquant_shuffle_weight(int32_t format, const void* gguf_src, void* quant, void* meta, hipStream_t s) {
  kq::require_format_id(QUILLON_HERE, format);
  on_lm_head_geometry([&](auto g) {
    using G = decltype(g);
    gemm_kquant_shuffle_b(format, gguf_src, quant, meta, G::vocab_size, G::hidden_size, s);
  });
}

// The sizing queries read the geometry before the format.
int64_t lm_head_kquant_quant_bytes(int32_t format) {
  return head_size([&](int64_t V, int64_t H) { return kquant_quant_bytes(format, V, H); });
}
int64_t lm_head_kquant_meta_bytes(int32_t format) {
  return head_size([&](int64_t V, int64_t H) { return kquant_meta_bytes(format, V, H); });
}
int64_t lm_head_kquant_gguf_bytes(int32_t format) {
  return head_size([&](int64_t V, int64_t H) { return kquant_gguf_bytes(format, V, H); });
}

void lm_head_kquant(int32_t format, const void* x, const void* quant, const void* meta, float* logits, int64_t M,
                    void* scratch, hipStream_t s) {
  kq::require_format_id(QUILLON_HERE, format);
  on_lm_head_geometry([&](auto g) {
    using G = decltype(g);
    const bool decode = M <= kDecodeMaxRows;
    if (decode) check_decode_rows(M);
    kq::on_kquant<kq::GeneralGemm>(QUILLON_HERE, format, [&](auto f) {
      constexpr int F = decltype(f)::value;
      const KQuantPlanes planes{static_cast<const uint32_t*>(quant), static_cast<const uint8_t*>(meta)};
      if (decode) {
        const LmHeadKQuantParams p{static_cast<const uint16_t*>(x), planes, logits, M, G::vocab_size, G::hidden_size};
        if (M <= 16) lm_head_kquant_launch<G, 16, F>(p, s);
        else lm_head_kquant_launch<G, 32, F>(p, s);
      } else {
        shuffle_panel<G>(x, scratch, M, s);
        const LmHeadKQuantParams p{static_cast<const uint16_t*>(scratch), planes, logits, M, G::vocab_size,
                                   G::hidden_size};
        lm_head_kquant_launch<G, 256, F>(p, s);
      }
    });
  });
}

}  // namespace quillon
