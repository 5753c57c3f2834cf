// The split reductions, compiled once for every family that splits K.
#include "gemm_kernel.h"

namespace quillon {

namespace {
template <class T>
void reduce(const float* partials, T* out, int64_t count, int S, hipStream_t s) {
  if (count <= 0) return;
  launch(&gemm_core::splitk_reduce_kernel<T>, dim3((unsigned)((count + 255) / 256)), dim3(256), 0, s, partials, out,
         count, (int32_t)S);
}
}  // namespace

void splitk_reduce(const float* partials, float* out, int64_t count, int S, hipStream_t s) {
  reduce(partials, out, count, S, s);
}
void splitk_reduce(const float* partials, gemm_core::bf16* out, int64_t count, int S, hipStream_t s) {
  reduce(partials, out, count, S, s);
}

void proj_splitk_reduce2(const float* partials1, const float* partials2, void* out, int64_t count1, int64_t count2,
                         int S1, int S2, hipStream_t s) {
  const int64_t count = count1 + count2;
  if (count <= 0) return;
  launch(&gemm_core::proj_splitk_reduce2_kernel<0>, dim3((unsigned)((count + 255) / 256)), dim3(256), 0, s, partials1,
         partials2, static_cast<gemm_core::bf16*>(out), count1, count2, (int32_t)S1, (int32_t)S2);
}

}  // namespace quillon
