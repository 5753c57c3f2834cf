// General GEMM: products whose M, N and K are runtime values. A is always the
// row-block-major blk32 form with rows padded to 256, B always pre-shuffled;
// only the prefill tile runs here. C is row-major with row stride N; columns
// past the last whole 128-column tile are not computed.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

#include "../gemm_core/gemm_config.h"
#include "quillon/kquant_sets.h"
#include "gemm_entries.h"
#include "quillon_gen/gemm_formats.h"

namespace quillon::gemm_core {

template <class T>
struct GemmBf16Config
    : PrefillConfig<BBlk32DenseLdsRT<PrefillTile>, GemmParams<const uint16_t*>, EpilogueRowMajor<T>> {};
template <class T>
struct GemmBf16SplitKConfig
    : PrefillConfig<BBlk32DenseLdsRT<PrefillTile>, GemmSplitParams<const uint16_t*>, EpilogueRowMajor<T>> {};
template <int F, class T>
struct GemmKQuantConfig : PrefillConfig<BKQuantBlk32Lds<PrefillTile, F>, GemmParams<KQuantPlanes>, EpilogueRowMajor<T>> {};
template <int F, class T>
struct GemmKQuantSplitKConfig
    : PrefillConfig<BKQuantBlk32Lds<PrefillTile, F>, GemmSplitParams<KQuantPlanes>, EpilogueRowMajor<T>> {};
template <int F>
struct GemmKQuantBlk32Config : PrefillConfig<BKQuantBlk32Lds<PrefillTile, F>, GemmBlk32Params<KQuantPlanes>, EpilogueBlk32> {};

// The k-quant arm of a segmented launch (any general-GEMM format).
template <int F>
struct SegWKQuant {
  static_assert(kq::GeneralGemm::contains(F), "general-GEMM set");
  static constexpr int format = F;
};
template <class W, class T>
struct GemmSegConfig : PrefillConfig<BKQuantBlk32Lds<PrefillTile, W::format>, GemmSegParams<KQuantPlanes>, EpilogueRowMajor<T>> {};

}  // namespace quillon::gemm_core

namespace quillon {

// ---- Compiled k-quant variants -------------------------------------------------------
// One instantiation unit per (format, output type) and per first-arm format,
// generated from the general-GEMM list (gemm_general_inst.h holds the bodies).
// S = 1 runs GemmKQuantConfig, S >= 2 GemmKQuantSplitKConfig and the reduction.
// The split kernel writes fp32 partials and never C, so its fp32 instance
// (compiled in the fp32 unit) serves both output types.
template <int F, class T>
void gemm_kquant_run(const gemm_core::GemmSplitParams<gemm_core::KQuantPlanes>& p, int S, hipStream_t s);
template <int F>
void gemm_kquant_splitk_launch(const gemm_core::GemmSplitParams<gemm_core::KQuantPlanes>& p, int S, hipStream_t s);
template <int F>
void gemm_kquant_blk32_run(const gemm_core::GemmBlk32Params<gemm_core::KQuantPlanes>& p, hipStream_t s);
// Arm 1's format is dispatched inside the unit of arm 0's.
template <int F0>
void gemm_seg2_run(int32_t f1, const gemm_core::GemmSegParams<gemm_core::KQuantPlanes>& p0,
                   const gemm_core::GemmSegParams<gemm_core::KQuantPlanes>& p1, int64_t blocks, hipStream_t s);

#define QUILLON_GEMM_KQUANT_EXTERN(F)                                                                             \
  extern template void gemm_kquant_run<F, float>(const gemm_core::GemmSplitParams<gemm_core::KQuantPlanes>&, int, \
                                                 hipStream_t);                                                    \
  extern template void gemm_kquant_run<F, gemm_core::bf16>(                                                       \
      const gemm_core::GemmSplitParams<gemm_core::KQuantPlanes>&, int, hipStream_t);                              \
  extern template void gemm_kquant_blk32_run<F>(const gemm_core::GemmBlk32Params<gemm_core::KQuantPlanes>&,       \
                                                hipStream_t);                                                     \
  extern template void gemm_kquant_splitk_launch<F>(const gemm_core::GemmSplitParams<gemm_core::KQuantPlanes>&,   \
                                                    int, hipStream_t);                                            \
  extern template void gemm_seg2_run<F>(int32_t, const gemm_core::GemmSegParams<gemm_core::KQuantPlanes>&,        \
                                        const gemm_core::GemmSegParams<gemm_core::KQuantPlanes>&, int64_t,        \
                                        hipStream_t);
QUILLON_GENERAL_GEMM_FORMATS(QUILLON_GEMM_KQUANT_EXTERN)
#undef QUILLON_GEMM_KQUANT_EXTERN

// The generated list is kquant_sets' general-GEMM set, entry for entry.
#define QUILLON_GEMM_COUNT(F) +1
#define QUILLON_GEMM_IN_SET(F) &&kq::GeneralGemm::contains(F)
static_assert((0 QUILLON_GENERAL_GEMM_FORMATS(QUILLON_GEMM_COUNT)) == kq::GeneralGemm::size &&
                  (true QUILLON_GENERAL_GEMM_FORMATS(QUILLON_GEMM_IN_SET)),
              "the generated format list drifted from kquant_sets");
#undef QUILLON_GEMM_COUNT
#undef QUILLON_GEMM_IN_SET

}  // namespace quillon
