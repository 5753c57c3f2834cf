// Small gfx1151 kernels whose disassembly check_disasm.py inspects: each device
// layer primitive must become the intended instruction, and a cross-lane
// operation must stay outside divergent code.
#include "platform/device.h"

namespace quillon::probe {

__global__ __launch_bounds__(32) void wmma_probe_kernel(const uint16_t* a, const uint16_t* b, float* d) {
  const uint32_t l = threadIdx.x;
  dev::bf16x16 fa, fb;
  for (int k = 0; k < 16; ++k) {
    fa[k] = (short)a[(l % 16) * 16 + k];
    fb[k] = (short)b[(l % 16) * 16 + k];
  }
  dev::f32x8 c = {0, 0, 0, 0, 0, 0, 0, 0};
  c = dev::wmma_bf16(fa, fb, c);
  for (int i = 0; i < 8; ++i) d[i * 32 + l] = c[i];
}

__global__ __launch_bounds__(64) void lanes_probe_kernel(const uint32_t* in, uint32_t* out) {
  const uint32_t t = threadIdx.x;
  uint32_t v = in[t];
  uint32_t r = dev::permlanex16(v, 0x76543210u, 0xfedcba98u);
  r ^= dev::bpermute((int)(t ^ 7), v);
  r ^= dev::perm(v, r, 0x05040100u);
  r ^= dev::readlane(v, 3);
  r ^= dev::ballot(v > 9);
  r ^= dev::shfl_xor(v, 2);
  out[t] = r;
}

__global__ __launch_bounds__(64) void buffer_probe_kernel(const uint8_t* src, uint32_t bytes, uint32_t* out) {
  dev::BufferRes res = dev::make_buffer(src, bytes);
  dev::u32x4 v = dev::buffer_load16(res, threadIdx.x * 16);
  *reinterpret_cast<dev::u32x4*>(out + threadIdx.x * 4) = v;
}

// The permlanex16 result is used only under a lane-dependent condition; the
// instruction must still run with every lane active, before the branch.
__global__ __launch_bounds__(64) void sink_probe_kernel(const uint32_t* in, uint32_t* out) {
  const uint32_t t = threadIdx.x;
  const uint32_t v = in[t];
  const uint32_t x = dev::permlanex16(v, 0x76543210u, 0xfedcba98u);
  if (in[t + 64] > 5u) out[t] = x * 3u;
}

}  // namespace quillon::probe
