// Bodies of the compiled k-quant variants of the general GEMM, and the
// segmented kernel. Included only by the generated instantiation units, so
// each kernel is compiled once.
#pragma once
#include "../gemm_core/gemm_kernel.h"
#include "gemm_general.h"

namespace quillon::gemm_core {

// Two arms over one shuffled A: blocks from arm 1's seam on run arm 1 with
// t = b - seam, the others arm 0 with t = b; each arm walks its own tiles.
template <class Cfg0, class Cfg1>
__global__ __launch_bounds__(512) QUILLON_WAVES_PER_SIMD(Cfg0::kWavesPerSimd, Cfg0::kWavesPerSimd) void gemm_seg2_kernel(typename Cfg0::Params p0, typename Cfg1::Params p1) {
  static_assert(Cfg0::kPrefill && Cfg1::kPrefill && Cfg0::kThreads == 512 && Cfg1::kThreads == 512, "prefill arms");
  unsigned char* const lds = prefill_lds();
  const uint32_t b = blockIdx.x;
  if (b >= (uint32_t)p1.seam) {
    prefill_tile<Cfg1>(p1, lds, b - (uint32_t)p1.seam, 0, (uint32_t)(p1.K / 32), [&](int64_t row, int64_t col, float v) {
      if (row < p1.M) Cfg1::Epilogue::store(p1, row, col, v);
    });
  } else {
    prefill_tile<Cfg0>(p0, lds, b, 0, (uint32_t)(p0.K / 32), [&](int64_t row, int64_t col, float v) {
      if (row < p0.M) Cfg0::Epilogue::store(p0, row, col, v);
    });
  }
}

}  // namespace quillon::gemm_core

namespace quillon {

template <int F>
void gemm_kquant_splitk_launch(const gemm_core::GemmSplitParams<gemm_core::KQuantPlanes>& p, int S, hipStream_t s) {
  launch_gemm_splitk<gemm_core::GemmKQuantSplitKConfig<F, float>>(p, S, s);
}

template <int F, class T>
void gemm_kquant_run(const gemm_core::GemmSplitParams<gemm_core::KQuantPlanes>& p, int S, hipStream_t s) {
  using namespace gemm_core;
  if (S <= 1) {
    launch_gemm<GemmKQuantConfig<F, T>>(static_cast<const GemmParams<KQuantPlanes>&>(p), s);
  } else {
    gemm_kquant_splitk_launch<F>(p, S, s);
    splitk_reduce(p.workspace, static_cast<T*>(p.C), p.M * p.N, S, s);
  }
}

template <int F>
void gemm_kquant_blk32_run(const gemm_core::GemmBlk32Params<gemm_core::KQuantPlanes>& p, hipStream_t s) {
  launch_gemm<gemm_core::GemmKQuantBlk32Config<F>>(p, s);
}

template <int F0>
void gemm_seg2_run(int32_t f1, const gemm_core::GemmSegParams<gemm_core::KQuantPlanes>& p0,
                   const gemm_core::GemmSegParams<gemm_core::KQuantPlanes>& p1, int64_t blocks, hipStream_t s) {
  using namespace gemm_core;
  kq::on_kquant<kq::GeneralGemm>(QUILLON_HERE, f1, [&](auto f) {
    using C0 = GemmSegConfig<SegWKQuant<F0>, float>;
    using C1 = GemmSegConfig<SegWKQuant<decltype(f)::value>, bf16>;
    launch(&gemm_seg2_kernel<C0, C1>, dim3((unsigned)blocks), dim3(512), kPrefillLdsBytes, s, p0, p1);
  });
}

}  // namespace quillon
