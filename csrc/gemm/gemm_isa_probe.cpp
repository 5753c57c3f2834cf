// Projection Configs of the GEMM family ahead of the entries that will launch
// them: decode row tiles 16 and 32 in both loops, fp8, every dense-projection
// k-quant format, the decode split and the prefill shape at compile-time K.
// Compiled in the hip flavour only, so the resource report and the
// disassembly check cover them; nothing calls these.
#include "../gemm_core/gemm_kernel.h"
#include "quillon/kquant_sets.h"

namespace quillon::gemm_core {
namespace {

template <class Cfg>
const void* kernel_of() {
  return reinterpret_cast<const void*>(&gemm_kernel<Cfg>);
}
template <class Cfg>
const void* split_kernel_of() {
  return reinterpret_cast<const void*>(&proj_decode_splitk_kernel<Cfg>);
}

template <int F>
void add_kquant(const void** out) {
  out[0] = kernel_of<ProjConfigFor<WDenseKQuant<F>, 0, 2048, ProjDecodeStream<16>, true>>();
  out[1] = kernel_of<ProjConfigFor<WDenseKQuant<F>, 0, 2048, ProjDecodeStream<32>, true>>();
  out[2] = kernel_of<ProjConfigFor<WDenseKQuant<F>, 0, 2048, ProjPrefillLds, false>>();
  out[3] = split_kernel_of<ProjSplitKConfigFor<WDenseKQuant<F>, 0, 4096, 4, 16>>();
}
template <int... F>
void add_kquant_set(kq::FormatSet<F...>, const void** out) {
  int i = 0;
  ((add_kquant<F>(out + 4 * i++)), ...);
}

}  // namespace

// Referenced so that every kernel above is emitted.
const void* gemm_isa_probe_kernels[13 + 4 * kq::DenseProjection::size];
void gemm_isa_probe_collect() {
  const void** p = gemm_isa_probe_kernels;
  *p++ = kernel_of<ProjConfigFor<WDenseBf16, 0, 2048, ProjDecodeStream<16>, true>>();
  *p++ = kernel_of<ProjConfigFor<WDenseBf16, 0, 2048, ProjDecodeStream<32>, true>>();
  *p++ = kernel_of<ProjConfigFor<WDenseBf16, 0, 2048, ProjDecodeStream<16>, false>>();
  *p++ = kernel_of<ProjConfigFor<WDenseBf16, 0, 2048, ProjDecodeStream<32>, false>>();
  *p++ = kernel_of<ProjConfigFor<WDenseBf16, 0, 2048, ProjPrefillLds, false>>();
  *p++ = split_kernel_of<ProjSplitKConfigFor<WDenseBf16, 0, 2048, 8, 16>>();
  *p++ = split_kernel_of<ProjSplitKConfigFor<WDenseBf16, 0, 2048, 8, 32>>();
  *p++ = kernel_of<ProjConfigFor<WDenseFp8, 9216, 2048, ProjDecodeStream<16>, false>>();
  *p++ = kernel_of<ProjConfigFor<WDenseFp8, 9216, 2048, ProjDecodeStream<32>, false>>();
  *p++ = kernel_of<ProjConfigFor<WDenseFp8, 9216, 2048, ProjPrefillLds, false>>();
  *p++ = split_kernel_of<ProjSplitKConfigFor<WDenseFp8, 2048, 4096, 4, 16>>();
  *p++ = split_kernel_of<ProjSplitKConfigFor<WDenseFp8, 2048, 4096, 4, 32>>();
  *p++ = split_kernel_of<ProjSplitKConfigFor<WDenseBf16, 0, 2560, 4, 16>>();
  add_kquant_set(kq::DenseProjection{}, p);
}

}  // namespace quillon::gemm_core
