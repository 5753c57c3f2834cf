// Bodies of the LM head launches; included only by the generated
// instantiation units so each kernel is compiled once.
#pragma once
#include "../gemm_core/gemm_kernel.h"
#include "lm_head_config.h"

namespace quillon {

template <class G, int MT>
void lm_head_launch(const gemm_core::LmHeadParams& p, hipStream_t s) {
  if constexpr (MT == 256) launch_gemm<gemm_core::LmHeadPrefillConfig<G>>(p, s);
  else launch_gemm<gemm_core::LmHeadDecodeConfig<G, MT>>(p, s);
}

template <class G, int MT, int F>
void lm_head_kquant_launch(const gemm_core::LmHeadKQuantParams& p, hipStream_t s) {
  if constexpr (MT == 256) launch_gemm<gemm_core::LmHeadKQuantPrefillConfig<G, F>>(p, s);
  else launch_gemm<gemm_core::LmHeadKQuantDecodeConfig<G, MT, F>>(p, s);
}

}  // namespace quillon
