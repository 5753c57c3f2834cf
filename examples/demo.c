/* An engine's first steps, in C, with nothing but quillon.h: select a
 * geometry, read its record, run a norm on the device, read the result back;
 * then one whole decode step (decode_step.c). */
#include <math.h>

#include "demo_util.h"

int main(void) {
  char name[64];
  const int32_t geometry = 0;
  if (quillon_select_geometry(geometry) != 0) return 1;
  quillon_geometry_name(geometry, name, sizeof name);
  QuillonModelConfig c;
  quillon_model_config(&c);
  printf("quillon ABI %d, geometry %d \"%s\"\n", quillon_abi_version(), geometry, name);
  printf("  hidden %lld, q heads %lld, kv heads %lld, head dim %lld, vocab %lld\n", (long long)c.hidden_size,
         (long long)c.num_q_heads, (long long)c.num_kv_heads, (long long)c.head_dim, (long long)c.vocab_size);
  printf("  qkv row %lld (K at %lld, V at %lld), linear heads %lld/%lld, conv width %lld\n", (long long)c.qkv_rows,
         (long long)c.k_offset, (long long)c.v_offset, (long long)c.linear_k_heads, (long long)c.linear_v_heads,
         (long long)c.conv_width);
  printf("  experts %lld (+shared, top %lld), expert width %lld\n", (long long)c.moe_num_experts,
         (long long)c.moe_top_k, (long long)c.moe_intermediate);

  const int64_t H = c.hidden_size, rows = 2;
  uint16_t* x = malloc(H * rows * 2);
  uint16_t* w = malloc(H * 2);
  uint16_t* out = malloc(H * rows * 2);
  for (int64_t i = 0; i < H * rows; ++i) x[i] = float_to_bf16(sinf(0.01f * (float)i));
  for (int64_t i = 0; i < H; ++i) w[i] = float_to_bf16(1.0f + 0.001f * (float)(i % 7));
  void *dx, *dw, *dout;
  CHECK(hipMalloc(&dx, H * rows * 2));
  CHECK(hipMalloc(&dw, H * 2));
  CHECK(hipMalloc(&dout, H * rows * 2));
  CHECK(hipMemcpy(dx, x, H * rows * 2, hipMemcpyHostToDevice));
  CHECK(hipMemcpy(dw, w, H * 2, hipMemcpyHostToDevice));
  CHECK(quillon_rmsnorm(dx, dw, dout, rows, 1e-6f, 0));
  CHECK(quillon_synchronize(0));
  CHECK(hipMemcpy(out, dout, H * rows * 2, hipMemcpyDeviceToHost));
  double ss = 0;
  for (int64_t i = 0; i < H; ++i) ss += (double)bf16_to_float(out[i]) * bf16_to_float(out[i]);
  printf("rmsnorm of %lld rows x %lld: out[0][0..3] = %.4f %.4f %.4f %.4f, mean square of row 0 = %.4f\n",
         (long long)rows, (long long)H, bf16_to_float(out[0]), bf16_to_float(out[1]), bf16_to_float(out[2]),
         bf16_to_float(out[3]), ss / (double)H);
  hipFree(dx);
  hipFree(dw);
  hipFree(dout);
  free(x);
  free(w);
  free(out);
  return decode_step(&c);
}
