// The LM head's members of the GEMM family: fp32 logits over the whole
// vocabulary, K the geometry's hidden width at compile time. Decode streams
// row-major x through 16- or 32-row tiles; prefill runs the 256 x 128 LDS tile
// over the shuffled panel.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

#include "../gemm_core/gemm_config.h"

namespace quillon::gemm_core {

// Dense record: K is the Config's constant, so it carries none.
struct LmHeadParams {
  using Operand = const uint16_t*;
  const uint16_t* A;
  const uint16_t* B;
  void* C;
  int64_t M;
  int64_t N;
};
using LmHeadKQuantParams = GemmParams<KQuantPlanes>;

template <class G>
inline constexpr bool kLmHeadShape = G::vocab_size % 128 == 0 && G::hidden_size % 128 == 0;

// Both loops suit the LM head's K; the deep one keeps two units of weight in
// flight, which is what a pure weight stream wants.
template <class G, int MT>
struct LmHeadDecodeConfig
    : DecodeConfig<MT, BStreamBf16<G::vocab_size>, LmHeadParams, EpilogueRowMajor<float>, G::hidden_size, true> {
  static_assert(kLmHeadShape<G>, "whole column tiles and deep trips");
};
template <class G>
struct LmHeadPrefillConfig
    : PrefillConfig<BBlk32DenseLdsRT<PrefillTile>, LmHeadParams, EpilogueRowMajor<float>, G::hidden_size> {
  static_assert(kLmHeadShape<G>, "whole column tiles");
};
template <class G, int MT, int F>
struct LmHeadKQuantDecodeConfig
    : DecodeConfig<MT, BStreamKQuant<F>, LmHeadKQuantParams, EpilogueRowMajor<float>, G::hidden_size, true> {
  static_assert(kLmHeadShape<G>, "whole column tiles and deep trips");
};
template <class G, int F>
struct LmHeadKQuantPrefillConfig
    : PrefillConfig<BKQuantBlk32Lds<PrefillTile, F>, LmHeadKQuantParams, EpilogueRowMajor<float>, G::hidden_size> {
  static_assert(kLmHeadShape<G>, "whole column tiles");
};

}  // namespace quillon::gemm_core

namespace quillon {

// The compiled launches, one instantiation unit per geometry (dense) and per
// geometry and format (k-quant); MT is 16, 32 or 256 (prefill).
template <class G, int MT>
void lm_head_launch(const gemm_core::LmHeadParams& p, hipStream_t s);
template <class G, int MT, int F>
void lm_head_kquant_launch(const gemm_core::LmHeadKQuantParams& p, hipStream_t s);

}  // namespace quillon
