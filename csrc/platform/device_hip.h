// gfx1151 implementation of the device layer (clang-19, -nogpuinc).
#pragma once
// Kernel stubs are emitted as calls to hipLaunchKernel, so it must be declared.
#include <hip/hip_runtime_api.h>

#undef __global__
#undef __device__
#undef __host__
#undef __constant__
#undef __shared__
#undef __launch_bounds__
#undef __forceinline__
#define __global__ __attribute__((global))
#define __device__ __attribute__((device))
#define __host__ __attribute__((host))
#define __shared__ __attribute__((shared))
#define __constant__ __attribute__((constant))
#define __launch_bounds__(n) __attribute__((amdgpu_flat_work_group_size(1, n)))
// Register budget: the compiler plans for lo to hi waves of the kernel per SIMD.
#define QUILLON_WAVES_PER_SIMD(lo, hi) __attribute__((amdgpu_waves_per_eu(lo, hi)))
#define __forceinline__ inline __attribute__((always_inline))
#undef QDEV
#undef QHD
#define QDEV __device__ __forceinline__
#define QHD __host__ __device__ __forceinline__

namespace quillon::dev {
struct Idx3 { uint32_t x, y, z; };
}
#define threadIdx (::quillon::dev::Idx3{__builtin_amdgcn_workitem_id_x(), __builtin_amdgcn_workitem_id_y(), __builtin_amdgcn_workitem_id_z()})
#define blockIdx (::quillon::dev::Idx3{__builtin_amdgcn_workgroup_id_x(), __builtin_amdgcn_workgroup_id_y(), __builtin_amdgcn_workgroup_id_z()})
#define blockDim (::quillon::dev::Idx3{__builtin_amdgcn_workgroup_size_x(), __builtin_amdgcn_workgroup_size_y(), __builtin_amdgcn_workgroup_size_z()})
#define gridDim (::quillon::dev::Idx3{__builtin_amdgcn_grid_size_x() / __builtin_amdgcn_workgroup_size_x(), \
  __builtin_amdgcn_grid_size_y() / __builtin_amdgcn_workgroup_size_y(), __builtin_amdgcn_grid_size_z() / __builtin_amdgcn_workgroup_size_z()})

#define __syncthreads() ::quillon::dev::block_barrier()

namespace quillon::dev {

QDEV void block_barrier() {
  __builtin_amdgcn_fence(__ATOMIC_RELEASE, "workgroup");
  __builtin_amdgcn_s_barrier();
  __builtin_amdgcn_fence(__ATOMIC_ACQUIRE, "workgroup");
}
// Lanes of one wave run in lockstep; this only stops the compiler from moving
// memory accesses across the point.
QDEV void wave_sync() {
  __builtin_amdgcn_fence(__ATOMIC_RELEASE, "wavefront");
  __builtin_amdgcn_wave_barrier();
  __builtin_amdgcn_fence(__ATOMIC_ACQUIRE, "wavefront");
}

// clang-19 does not mark the permlane builtins convergent and may sink them into
// divergent code; inline asm is convergent, so emit the instruction by hand.
QDEV uint32_t permlanex16(uint32_t v, uint32_t sel_lo, uint32_t sel_hi) {
  uint32_t r;
  asm volatile("v_permlanex16_b32 %0, %1, %2, %3" : "=v"(r) : "v"(v), "s"(sel_lo), "s"(sel_hi));
  return r;
}
// Lane-index form: lane l reads lane src of its width-sized segment.
QDEV uint32_t bpermute(int src_lane, uint32_t v) {
  return (uint32_t)__builtin_amdgcn_ds_bpermute(src_lane << 2, (int)v);
}
QDEV uint32_t shfl_xor(uint32_t v, int mask, int width = 32) {
  // Masks below 16 stay in a row of 16: DPP row_xmask, no LDS traffic.
  // 16 crosses the rows: permlanex16 with the identity selects.
  if (mask == 16) return permlanex16(v, 0x76543210u, 0xfedcba98u);
  if (mask >= 1 && mask < 16) {
    switch (mask) {
#define QX(m) case m: return (uint32_t)__builtin_amdgcn_update_dpp(0, (int)v, 0x160 | m, 0xf, 0xf, false);
      QX(1) QX(2) QX(3) QX(4) QX(5) QX(6) QX(7) QX(8) QX(9) QX(10) QX(11) QX(12) QX(13) QX(14) QX(15)
#undef QX
    }
  }
  uint32_t l = __builtin_amdgcn_workitem_id_x() & 31;
  return bpermute((int)(l ^ (uint32_t)mask), v);
}
QDEV uint32_t readlane(uint32_t v, int lane) { return (uint32_t)__builtin_amdgcn_readlane((int)v, lane); }
QDEV uint32_t ballot(bool p) { return __builtin_amdgcn_ballot_w32(p); }
QDEV uint32_t perm(uint32_t hi, uint32_t lo, uint32_t sel) { return __builtin_amdgcn_perm(hi, lo, sel); }

typedef short wmma_bf16x16_t __attribute__((ext_vector_type(16)));
typedef float wmma_f32x8_t __attribute__((ext_vector_type(8)));
QDEV wmma_f32x8_t wmma_bf16_raw(wmma_bf16x16_t a, wmma_bf16x16_t b, wmma_f32x8_t c) {
  return __builtin_amdgcn_wmma_f32_16x16x16_bf16_w32(a, b, c);
}

// Bounded buffer loads: offsets are 32-bit bytes from base; a read at or past
// `bytes` returns zero in every lane that makes it.
struct BufferRes { __amdgpu_buffer_rsrc_t r; };
QDEV BufferRes make_buffer(const void* base, uint32_t bytes) {
  return BufferRes{__builtin_amdgcn_make_buffer_rsrc(const_cast<void*>(base), 0, (int)bytes, 0x31004000)};
}
typedef uint32_t bl_u32x4 __attribute__((ext_vector_type(4)));
typedef uint32_t bl_u32x2 __attribute__((ext_vector_type(2)));
QDEV bl_u32x4 buffer_load16(BufferRes b, uint32_t off) { return __builtin_amdgcn_raw_buffer_load_b128(b.r, off, 0, 0); }
QDEV bl_u32x2 buffer_load8(BufferRes b, uint32_t off) { return __builtin_amdgcn_raw_buffer_load_b64(b.r, off, 0, 0); }
QDEV uint32_t buffer_load4(BufferRes b, uint32_t off) { return __builtin_amdgcn_raw_buffer_load_b32(b.r, off, 0, 0); }

// Atomics: LDS ones are workgroup scope, global ones device scope.
template <class T> QDEV T atomic_add_global(T* p, T v) { return __hip_atomic_fetch_add(p, v, __ATOMIC_RELAXED, __HIP_MEMORY_SCOPE_AGENT); }
template <class T> QDEV T atomic_add_lds(T* p, T v) { return __hip_atomic_fetch_add(p, v, __ATOMIC_RELAXED, __HIP_MEMORY_SCOPE_WORKGROUP); }
template <class T> QDEV T atomic_max_global(T* p, T v) { return __hip_atomic_fetch_max(p, v, __ATOMIC_RELAXED, __HIP_MEMORY_SCOPE_AGENT); }
template <class T> QDEV T atomic_max_lds(T* p, T v) { return __hip_atomic_fetch_max(p, v, __ATOMIC_RELAXED, __HIP_MEMORY_SCOPE_WORKGROUP); }
template <class T> QDEV T atomic_min_lds(T* p, T v) { return __hip_atomic_fetch_min(p, v, __ATOMIC_RELAXED, __HIP_MEMORY_SCOPE_WORKGROUP); }
template <class T> QDEV T atomic_cas_global(T* p, T expected, T desired) {
  __hip_atomic_compare_exchange_strong(p, &expected, desired, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED, __HIP_MEMORY_SCOPE_AGENT);
  return expected;
}
template <class T> QDEV T atomic_load_global(const T* p) { return __hip_atomic_load(p, __ATOMIC_ACQUIRE, __HIP_MEMORY_SCOPE_AGENT); }
template <class T> QDEV void atomic_store_global(T* p, T v) { __hip_atomic_store(p, v, __ATOMIC_RELEASE, __HIP_MEMORY_SCOPE_AGENT); }
QDEV void sleep() { __builtin_amdgcn_s_sleep(2); }

// Dynamic LDS: the launch's byte count, 16-byte aligned.
QDEV void* dynamic_lds() {
  extern __shared__ __attribute__((aligned(16))) unsigned char quillon_dyn_lds[];
  return quillon_dyn_lds;
}

// Math, one definition per flavour.
QDEV float exp2(float x) { return __builtin_amdgcn_exp2f(x); }
QDEV float rcp(float x) { return __builtin_amdgcn_rcpf(x); }
QDEV float rsq(float x) { return __builtin_amdgcn_rsqf(x); }
QDEV float sqrt(float x) { return __builtin_sqrtf(x); }
}  // namespace quillon::dev
