/* An engine's first steps, in C, with nothing but quillon.h: select a
 * geometry, read its record, run a norm on the device, read the result back;
 * then one token end to end: gather, norm, LM head, greedy and sampled pick. */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "quillon/quillon.h"

#define CHECK(call)                                                               \
  do {                                                                            \
    hipError_t e_ = (call);                                                       \
    if (e_ != hipSuccess) {                                                       \
      fprintf(stderr, "%s failed: %s\n", #call, quillon_error_string(e_));         \
      return 1;                                                                   \
    }                                                                             \
  } while (0)

static float bf16_to_float(uint16_t h) {
  uint32_t u = (uint32_t)h << 16;
  float f;
  memcpy(&f, &u, 4);
  return f;
}
static uint16_t float_to_bf16(float f) {
  uint32_t u;
  memcpy(&u, &f, 4);
  return (uint16_t)((u + 0x7fff + ((u >> 16) & 1)) >> 16);
}

static double now_s(void) {
  struct timespec ts;
  timespec_get(&ts, TIME_UTC);
  return (double)ts.tv_sec + 1e-9 * (double)ts.tv_nsec;
}

/* Fills a [rows, H] bf16 device matrix with a 256-row host pattern, copied
 * block by block: a gigabyte in a few hundred copies rather than a host loop
 * over every element. */
static int fill_rows(void* dst, int64_t rows, int64_t H, float scale, int salt) {
  const int64_t block = 256;
  uint16_t* host = malloc((size_t)(block * H * 2));
  if (!host) return 1;
  for (int64_t r = 0; r < block; ++r)
    for (int64_t k = 0; k < H; ++k)
      host[r * H + k] = float_to_bf16(scale * (float)((r * 7 + k * 3 + salt) % 17 - 8));
  for (int64_t r = 0; r < rows; r += block) {
    const int64_t n = rows - r < block ? rows - r : block;
    if (hipMemcpy((uint16_t*)dst + r * H, host, (size_t)(n * H * 2), hipMemcpyHostToDevice) != hipSuccess) {
      free(host);
      return 1;
    }
  }
  free(host);
  return 0;
}

/* One decode token, end to end: id -> embedding row -> RMSNorm -> LM head
 * over the whole vocabulary -> greedy and sampled next token. Head row
 * `planted` is a copy of the input's embedding row, so it should win. */
static int one_token(const QuillonModelConfig* c) {
  const int64_t H = c->hidden_size, V = c->vocab_size, K = 40;
  const int64_t token = 12345, planted = 200000;
  void *table, *head_src, *head_w, *norm_w, *hidden, *normed, *ids, *out_ids;
  void *logits, *probs, *cand_p, *cand_id, *temp, *topk, *topp, *unif;
  CHECK(hipMalloc(&table, (size_t)(V * H * 2)));
  CHECK(hipMalloc(&head_src, (size_t)(V * H * 2)));
  CHECK(hipMalloc(&head_w, (size_t)(V * H * 2)));
  CHECK(hipMalloc(&norm_w, (size_t)(H * 2)));
  CHECK(hipMalloc(&hidden, (size_t)(H * 2)));
  CHECK(hipMalloc(&normed, (size_t)(H * 2)));
  CHECK(hipMalloc(&ids, 8));
  CHECK(hipMalloc(&out_ids, 16));
  CHECK(hipMalloc(&logits, (size_t)(V * 4)));
  CHECK(hipMalloc(&probs, (size_t)(V * 4)));
  CHECK(hipMalloc(&cand_p, (size_t)(K * 4)));
  CHECK(hipMalloc(&cand_id, (size_t)(K * 8)));
  CHECK(hipMalloc(&temp, 4));
  CHECK(hipMalloc(&topk, 4));
  CHECK(hipMalloc(&topp, 4));
  CHECK(hipMalloc(&unif, 4));

  double t0 = now_s();
  if (fill_rows(table, V, H, 0.125f, 0) || fill_rows(head_src, V, H, 0.0625f, 5)) return 1;
  CHECK(hipMemcpy((uint16_t*)head_src + planted * H, (uint16_t*)table + token * H, (size_t)(H * 2),
                  hipMemcpyDeviceToDevice));
  uint16_t* ones = malloc((size_t)(H * 2));
  if (!ones) return 1;
  for (int64_t k = 0; k < H; ++k) ones[k] = float_to_bf16(1.0f);
  CHECK(hipMemcpy(norm_w, ones, (size_t)(H * 2), hipMemcpyHostToDevice));
  free(ones);
  /* A high temperature spreads the draw beyond the planted row. */
  const float temperature = 500.0f, top_p = 0.9f, uniform = 0.5f;
  const int32_t top_k = (int32_t)K;
  CHECK(hipMemcpy(ids, &token, 8, hipMemcpyHostToDevice));
  CHECK(hipMemcpy(temp, &temperature, 4, hipMemcpyHostToDevice));
  CHECK(hipMemcpy(topk, &top_k, 4, hipMemcpyHostToDevice));
  CHECK(hipMemcpy(topp, &top_p, 4, hipMemcpyHostToDevice));
  CHECK(hipMemcpy(unif, &uniform, 4, hipMemcpyHostToDevice));
  double t1 = now_s();
  printf("\none token, geometry %d: table and head %lld x %lld bf16 filled in %.2f s\n", 0, (long long)V, (long long)H,
         t1 - t0);

  CHECK(quillon_lm_head_shuffle_weight(head_src, head_w, 0));
  CHECK(quillon_synchronize(0));
  double t2 = now_s();
  printf("  quillon_lm_head_shuffle_weight: %.2f s\n", t2 - t1);

  CHECK(quillon_gather_embedding(ids, table, hidden, 1, 0));
  CHECK(quillon_rmsnorm(hidden, norm_w, normed, 1, 1e-6f, 0));
  CHECK(quillon_synchronize(0));
  double t3 = now_s();
  CHECK(quillon_lm_head(normed, head_w, logits, 1, NULL, 0));
  CHECK(quillon_synchronize(0));
  double t4 = now_s();
  printf("  quillon_lm_head, M 1 over %lld columns: %.2f s\n", (long long)V, t4 - t3);

  CHECK(quillon_sampling_argmax(logits, out_ids, 1, V, 0));
  CHECK(quillon_sampling_softmax(logits, probs, 1, V, temp, 0));
  CHECK(quillon_sampling_topk_topp(probs, cand_p, cand_id, 1, V, K, topk, topp, 0));
  CHECK(quillon_sampling_multinomial(cand_p, cand_id, unif, (int64_t*)out_ids + 1, 1, K, 0));
  CHECK(quillon_synchronize(0));
  int64_t next[2], cid[3];
  float lg[2], cp[3];
  CHECK(hipMemcpy(next, out_ids, 16, hipMemcpyDeviceToHost));
  CHECK(hipMemcpy(cid, cand_id, 24, hipMemcpyDeviceToHost));
  CHECK(hipMemcpy(cp, cand_p, 12, hipMemcpyDeviceToHost));
  CHECK(hipMemcpy(&lg[0], (float*)logits + planted, 4, hipMemcpyDeviceToHost));
  CHECK(hipMemcpy(&lg[1], (float*)logits, 4, hipMemcpyDeviceToHost));
  printf("  token %lld -> logits[%lld] = %.3f (planted row), logits[0] = %.3f\n", (long long)token,
         (long long)planted, lg[0], lg[1]);
  printf("  argmax: %lld%s\n", (long long)next[0], next[0] == planted ? " (the planted row)" : "");
  printf("  top-k %lld / top-p %.2f at temperature %.2f: %lld (p %.4f), %lld (p %.4f), %lld (p %.4f) ...\n",
         (long long)K, top_p, temperature, (long long)cid[0], cp[0], (long long)cid[1], cp[1], (long long)cid[2],
         cp[2]);
  printf("  multinomial with uniform %.2f: token %lld\n", uniform, (long long)next[1]);

  void* bufs[] = {table, head_src, head_w, norm_w, hidden, normed, ids, out_ids,
                  logits, probs, cand_p, cand_id, temp, topk, topp, unif};
  for (size_t i = 0; i < sizeof bufs / sizeof bufs[0]; ++i) hipFree(bufs[i]);
  return 0;
}

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
  return one_token(&c);
}
