// CPU device implementation of the device layer: kernels are plain functions run
// by the CPU device runtime, one fiber per GPU thread.
#pragma once
#include <math.h>
#include "cpu/qcpu.h"

// The HIP API header defines some of these for host code; ours replace them.
#undef __global__
#undef __device__
#undef __host__
#undef __constant__
#undef __shared__
#undef __launch_bounds__
#undef __forceinline__
#define __global__
#define __device__
#define __host__
#define __constant__
// One workgroup runs on one worker thread at a time, so thread-local storage is
// exactly the workgroup's LDS.
#define __shared__ static thread_local
#define __launch_bounds__(n)
#define QUILLON_WAVES_PER_SIMD(lo, hi)
#define __forceinline__ inline __attribute__((always_inline))
#undef QDEV
#undef QHD
#define QDEV __forceinline__
#define QHD __forceinline__

#define threadIdx (qcpu_self()->tid)
#define blockIdx (qcpu_self()->bid)
#define blockDim (qcpu_self()->bdim)
#define gridDim (qcpu_self()->gdim)
#define __syncthreads() qcpu_barrier(__FILE__, __LINE__)

namespace quillon::dev {

QDEV void wave_sync() { qcpu_wave_sync(); }
QDEV uint32_t permlanex16(uint32_t v, uint32_t sel_lo, uint32_t sel_hi) { return qcpu_permlanex16(v, sel_lo, sel_hi); }
QDEV uint32_t bpermute(int src_lane, uint32_t v) { return qcpu_bpermute(src_lane, v); }
QDEV uint32_t shfl_xor(uint32_t v, int mask, int width = 32) { return qcpu_shfl_xor(v, mask, width); }
QDEV uint32_t readlane(uint32_t v, int lane) { return qcpu_readlane(v, lane); }
QDEV uint32_t ballot(bool p) { return qcpu_ballot(p ? 1 : 0); }
// v_perm_b32: selector byte k picks byte sel of {hi:lo} (0..7), 0x0c gives 0x00,
// 0x0d..0x0f 0xff, 8..11 replicate sign bits, as on hardware.
QDEV uint32_t perm(uint32_t hi, uint32_t lo, uint32_t sel) {
  uint64_t v = ((uint64_t)hi << 32) | lo;
  uint32_t r = 0;
  for (int k = 0; k < 4; ++k) {
    uint32_t s = (sel >> (8 * k)) & 0xff, b;
    if (s < 8) b = (uint32_t)(v >> (8 * s)) & 0xff;
    else if (s == 12) b = 0x00;
    else if (s > 12) b = 0xff;
    else { uint32_t src = (s - 8) * 2 + 1; b = ((v >> (8 * src + 7)) & 1) ? 0xff : 0x00; }
    r |= b << (8 * k);
  }
  return r;
}

typedef short wmma_bf16x16_t __attribute__((ext_vector_type(16)));
typedef float wmma_f32x8_t __attribute__((ext_vector_type(8)));
QDEV wmma_f32x8_t wmma_bf16_raw(wmma_bf16x16_t a, wmma_bf16x16_t b, wmma_f32x8_t c) {
  qcpu_wmma_bf16(reinterpret_cast<const uint16_t*>(&a), reinterpret_cast<const uint16_t*>(&b), reinterpret_cast<float*>(&c));
  return c;
}

struct BufferRes { const unsigned char* base; uint32_t bytes; };
QDEV BufferRes make_buffer(const void* base, uint32_t bytes) { return BufferRes{static_cast<const unsigned char*>(base), bytes}; }
typedef uint32_t bl_u32x4 __attribute__((ext_vector_type(4)));
typedef uint32_t bl_u32x2 __attribute__((ext_vector_type(2)));
// Hardware checks the whole access against the record count: a load that
// does not fit entirely reads zero.
QDEV bl_u32x4 buffer_load16(BufferRes b, uint32_t off) {
  bl_u32x4 r = {0, 0, 0, 0};
  if ((uint64_t)off + 16 <= b.bytes) memcpy(&r, b.base + off, 16);
  return r;
}
QDEV bl_u32x2 buffer_load8(BufferRes b, uint32_t off) {
  bl_u32x2 r = {0, 0};
  if ((uint64_t)off + 8 <= b.bytes) memcpy(&r, b.base + off, 8);
  return r;
}
QDEV uint32_t buffer_load4(BufferRes b, uint32_t off) {
  uint32_t r = 0;
  if ((uint64_t)off + 4 <= b.bytes) memcpy(&r, b.base + off, 4);
  return r;
}

template <class T> QDEV T atomic_add_global(T* p, T v) { return __atomic_fetch_add(p, v, __ATOMIC_RELAXED); }
template <class T> QDEV T atomic_add_lds(T* p, T v) { return __atomic_fetch_add(p, v, __ATOMIC_RELAXED); }
template <class T> QDEV T atomic_max_global(T* p, T v) {
  T cur = __atomic_load_n(p, __ATOMIC_RELAXED);
  while (cur < v && !__atomic_compare_exchange_n(p, &cur, v, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {}
  return cur;
}
template <class T> QDEV T atomic_max_lds(T* p, T v) { return atomic_max_global(p, v); }
template <class T> QDEV T atomic_min_lds(T* p, T v) {
  T cur = __atomic_load_n(p, __ATOMIC_RELAXED);
  while (cur > v && !__atomic_compare_exchange_n(p, &cur, v, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {}
  return cur;
}
template <class T> QDEV T atomic_cas_global(T* p, T expected, T desired) {
  __atomic_compare_exchange_n(p, &expected, desired, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED);
  return expected;
}
template <class T> QDEV T atomic_load_global(const T* p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }
template <class T> QDEV void atomic_store_global(T* p, T v) { __atomic_store_n(p, v, __ATOMIC_RELEASE); }
QDEV void sleep() { qcpu_sleep(); }
QDEV void* dynamic_lds() { return qcpu_dynamic_lds(); }

QDEV float exp2(float x) { return exp2f(x); }
QDEV float rcp(float x) { return 1.0f / x; }
QDEV float rsq(float x) { return 1.0f / sqrtf(x); }
QDEV float sqrt(float x) { return sqrtf(x); }
}  // namespace quillon::dev
