// Small kernels that exercise the device layer on the CPU device.
#pragma once
#include "platform/device.h"
#include "platform/launch.h"

namespace rt {
using namespace quillon;

// Each thread adds its id into LDS slot (tid + step) % n after each barrier;
// without a working barrier the reads of the previous round would be stale.
template <int N>
__global__ void barrier_rounds_kernel(uint32_t* out, int rounds) {
  __shared__ uint32_t buf[N];
  const uint32_t t = threadIdx.x;
  buf[t] = t;
  __syncthreads();
  for (int r = 1; r <= rounds; ++r) {
    uint32_t v = buf[(t + 1) % N];
    __syncthreads();
    buf[t] = v + 1;
    __syncthreads();
  }
  out[blockIdx.x * N + t] = buf[t];
}

// One result word per lane for each wave operation.
__global__ void wave_ops_kernel(uint32_t* out, int n) {
  const uint32_t t = threadIdx.x, l = t % 32;
  const uint32_t v = t * 7 + 3;
  uint32_t* o = out + t * 10;
  o[0] = dev::shfl_xor(v, 1);
  o[1] = dev::shfl_xor(v, 16);
  o[2] = dev::shfl_xor(v, 5, 8);
  o[3] = dev::bpermute((int)((l * 3) % 32), v);
  o[4] = dev::permlanex16(v, 0x01234567u, 0x89abcdefu);
  o[5] = dev::readlane(v, 5);
  o[6] = dev::ballot(t % 3 == 0);
  o[7] = dev::perm(0x11223344u, v, 0x0c050400u);
  o[8] = dev::f2u(dev::shfl_xor_f((float)t, 2));
  dev::wave_sync();
  o[9] = l;
}

// D = A * B^T + C for one 16x16x16 tile held in the gfx11 fragment layout.
__global__ void wmma_kernel(const uint16_t* a, const uint16_t* b, const float* c, float* d) {
  const uint32_t l = threadIdx.x;
  dev::bf16x16 fa, fb;
  for (int k = 0; k < 16; ++k) {
    fa[k] = (short)a[(l % 16) * 16 + k];
    fb[k] = (short)b[(l % 16) * 16 + k];
  }
  dev::f32x8 acc;
  for (int i = 0; i < 8; ++i) acc[i] = c[(2 * i + l / 16) * 16 + l % 16];
  acc = dev::wmma_bf16(fa, fb, acc);
  for (int i = 0; i < 8; ++i) d[(2 * i + l / 16) * 16 + l % 16] = acc[i];
}

// Lanes 16..31 deliberately carry different A operands.
__global__ void wmma_bad_dup_kernel(float* d) {
  const uint32_t l = threadIdx.x;
  dev::bf16x16 fa, fb;
  for (int k = 0; k < 16; ++k) {
    fa[k] = (short)(l < 16 ? 0x3f80 : 0x4000);
    fb[k] = (short)0x3f80;
  }
  dev::f32x8 acc = {0, 0, 0, 0, 0, 0, 0, 0};
  acc = dev::wmma_bf16(fa, fb, acc);
  d[l] = acc[0];
}

__global__ void bounded_load_kernel(const uint8_t* base, uint32_t bytes, uint32_t* out) {
  const uint32_t t = threadIdx.x;
  dev::BufferRes r = dev::make_buffer(base, bytes);
  dev::u32x4 v = dev::buffer_load16(r, t * 16);
  dev::u32x2 w = dev::buffer_load8(r, t * 8);
  for (int i = 0; i < 4; ++i) out[t * 7 + i] = v[i];
  out[t * 7 + 4] = w[0];
  out[t * 7 + 5] = w[1];
  out[t * 7 + 6] = dev::buffer_load4(r, t * 4);
}

// Every thread of every block hammers one LDS counter and one global counter.
__global__ void atomics_kernel(uint32_t* global_counter, uint32_t* per_block, int iters) {
  __shared__ uint32_t lds_counter;
  if (threadIdx.x == 0) lds_counter = 0;
  __syncthreads();
  for (int i = 0; i < iters; ++i) {
    dev::atomic_add_lds(&lds_counter, 1u);
    dev::atomic_add_global(global_counter, 1u);
    if (i % 4 == 3) dev::sleep();  // let other lanes interleave
  }
  __syncthreads();
  if (threadIdx.x == 0) per_block[blockIdx.x] = lds_counter;
}

// Workgroups meet at a device-wide barrier `rounds` times; after each round a
// block checks that every block wrote the previous round's value.
__global__ void grid_barrier_kernel(uint32_t* arrive, uint32_t* slots, uint32_t* bad, int rounds) {
  const uint32_t nb = gridDim.x;
  for (int r = 1; r <= rounds; ++r) {
    if (threadIdx.x == 0) dev::atomic_store_global(&slots[blockIdx.x], (uint32_t)r);
    __syncthreads();
    if (threadIdx.x == 0) {
      dev::atomic_add_global(arrive, 1u);
      while (dev::atomic_load_global(arrive) < nb * (uint32_t)r) dev::sleep();
      for (uint32_t b = 0; b < nb; ++b)
        if (dev::atomic_load_global(&slots[b]) < (uint32_t)r) dev::atomic_add_global(bad, 1u);
    }
    __syncthreads();
  }
}

__global__ void divergent_barrier_kernel(uint32_t* out) {
  if (threadIdx.x < 32) {
    __syncthreads();
  } else {
    __syncthreads();
  }
  out[threadIdx.x] = 1;
}

// Race-free: a block sums by a tree; racy: every thread writes one cell.
__global__ void race_free_kernel(uint32_t* out) {
  __shared__ uint32_t s[256];
  s[threadIdx.x] = threadIdx.x * 2654435761u;
  __syncthreads();
  for (int w = 128; w >= 1; w >>= 1) {
    if ((int)threadIdx.x < w) s[threadIdx.x] ^= s[threadIdx.x + w] * 31u;
    __syncthreads();
  }
  if (threadIdx.x == 0) out[blockIdx.x] = s[0];
}
__global__ void racy_kernel(uint32_t* out) { out[0] = blockIdx.x * 1000 + threadIdx.x; }

__global__ void fill_kernel(uint32_t* out, uint32_t v) { out[blockIdx.x * blockDim.x + threadIdx.x] = v; }

__global__ void lds_probe_kernel(uint32_t* out) {
  uint32_t* lds = static_cast<uint32_t*>(dev::dynamic_lds());
  lds[threadIdx.x] = threadIdx.x;
  __syncthreads();
  out[threadIdx.x] = lds[blockDim.x - 1 - threadIdx.x];
}

__global__ void empty_kernel() {}

// out[t] = perm(hi, lo, selector) of triple t.
__global__ void perm_kernel(const uint32_t* in, uint32_t* out) {
  const uint32_t t = threadIdx.x;
  out[t] = dev::perm(in[3 * t], in[3 * t + 1], in[3 * t + 2]);
}

__global__ void math_kernel(const float* x, float* out) {
  const uint32_t t = threadIdx.x;
  float v = x[t];
  out[t * 8 + 0] = dev::exp2(v);
  out[t * 8 + 1] = dev::rcp(v);
  out[t * 8 + 2] = dev::rsq_care(v < 0 ? -v : v);
  out[t * 8 + 3] = dev::sqrt(v < 0 ? -v : v);
  out[t * 8 + 4] = dev::sin(v);
  out[t * 8 + 5] = dev::cos(v);
  out[t * 8 + 6] = dev::tanh(v);
  out[t * 8 + 7] = dev::erf(v);
}

}  // namespace rt
