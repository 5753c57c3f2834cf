/* One decode step of geometry 0 on synthetic bf16 weights, the way an engine
 * drives it: token id -> embedding row -> a linear-attention layer with its
 * MoE block -> a full-attention layer with its MoE block -> final norm ->
 * LM head -> greedy and sampled pick. Every operator call is synchronised and
 * timed on its own, so the times are per operator, not overlapped.
 *
 * The weights are patterns, not a model: the point is the calling sequence,
 * the buffers an engine owns and sizes, and where the time goes. Head row
 * `planted` is a copy of the final normalised hidden row, so the greedy pick
 * must land on it. */
#include <math.h>

#include "demo_util.h"

#define MAX_BUFS 64
#define MAX_TIMES 32

static void* bufs[MAX_BUFS];
static int nbufs;
static struct {
  const char* name;
  double s;
} times[MAX_TIMES];
static int ntimes;

/* Zeroed device memory, freed together at the end. */
static void* dev(size_t bytes) {
  void* p = NULL;
  if (nbufs == MAX_BUFS || hipMalloc(&p, bytes) != hipSuccess) return NULL;
  if (hipMemset(p, 0, bytes) != hipSuccess) return NULL;
  bufs[nbufs++] = p;
  return p;
}
#define DEV(p, bytes)                                      \
  do {                                                     \
    if (!((p) = dev((size_t)(bytes)))) {                   \
      fprintf(stderr, "cannot allocate %s\n", #p);          \
      return 1;                                            \
    }                                                      \
  } while (0)

/* Runs one operator call to completion and books its time. */
#define TIMED(label, call)                                 \
  do {                                                     \
    const double t_ = now_s();                             \
    CHECK(call);                                           \
    CHECK(quillon_synchronize(0));                         \
    times[ntimes].name = (label);                          \
    times[ntimes++].s = now_s() - t_;                      \
  } while (0)

static int upload(void* dst, const void* src, size_t bytes) {
  return hipMemcpy(dst, src, bytes, hipMemcpyHostToDevice) != hipSuccess;
}

static int fill_const(void* dst, int64_t n, float v) {
  uint16_t* h = (uint16_t*)malloc((size_t)n * 2);
  if (!h) return 1;
  for (int64_t i = 0; i < n; ++i) h[i] = float_to_bf16(v);
  const int rc = upload(dst, h, (size_t)n * 2);
  free(h);
  return rc;
}

int decode_step(const QuillonModelConfig* c) {
  const int64_t H = c->hidden_size, V = c->vocab_size, QKV = c->qkv_rows;
  const int64_t NQ = c->num_q_heads, NKV = c->num_kv_heads, HD = c->head_dim;
  const int64_t CONV = c->conv_width, VD = c->linear_value_width, HV = c->linear_v_heads;
  const int64_t ROWS_IN = c->in_proj_rows, E_TOT = c->moe_total_experts, I = c->moe_intermediate;
  const int64_t token = 12345, planted = 200000, history = 255, page = 16, K = 40;
  const float eps = 1e-6f;
  double t0 = now_s();

  /* ---- weights, shuffled once as an engine would after loading ---- */
  void *table, *ones_h, *head_src, *head_w;
  DEV(table, V * H * 2);
  DEV(head_src, V * H * 2);
  DEV(head_w, V * H * 2);
  DEV(ones_h, H * 2);
  if (fill_rows(table, V, H, 0.125f, 0) || fill_rows(head_src, V, H, 0.0625f, 5) || fill_const(ones_h, H, 1.0f))
    return 1;

  /* linear attention: in-projection rows (zero rows pad them to the row stride), taps, decay
   * constants, gated-norm weight, out-projection */
  void *lin_in_src, *lin_in_w, *conv_w, *a_log, *dt_bias, *gnorm_w, *lin_out_src, *lin_out_w;
  DEV(lin_in_src, c->in_proj_stride * H * 2);
  DEV(lin_in_w, c->in_proj_stride * H * 2);
  DEV(conv_w, CONV * 4 * 2);
  DEV(a_log, HV * 4);
  DEV(dt_bias, HV * 4);
  DEV(gnorm_w, 128 * 2);
  DEV(lin_out_src, H * VD * 2);
  DEV(lin_out_w, H * VD * 2);
  if (fill_rows(lin_in_src, ROWS_IN, H, 1.0f / 64, 1) || fill_rows(conv_w, CONV, 4, 0.125f, 2) ||
      fill_rows(lin_out_src, H, VD, 1.0f / 128, 3) || fill_const(gnorm_w, 128, 1.0f))
    return 1;
  {
    float al[64], dt[64];
    for (int64_t h = 0; h < HV; ++h) al[h] = -1.0f + 0.05f * (float)h, dt[h] = 0.5f;
    if (upload(a_log, al, (size_t)HV * 4) || upload(dt_bias, dt, (size_t)HV * 4)) return 1;
  }

  /* full attention: fused QKV rows, per-head q/k norm weights, output projection */
  void *qkv_src, *qkv_w, *qn_w, *kn_w, *o_src, *o_w;
  DEV(qkv_src, QKV * H * 2);
  DEV(qkv_w, QKV * H * 2);
  DEV(qn_w, HD * 2);
  DEV(kn_w, HD * 2);
  DEV(o_src, H * NQ * HD * 2);
  DEV(o_w, H * NQ * HD * 2);
  if (fill_rows(qkv_src, QKV, H, 1.0f / 64, 4) || fill_rows(o_src, H, NQ * HD, 1.0f / 256, 6) ||
      fill_const(qn_w, HD, 1.0f) || fill_const(kn_w, HD, 1.0f))
    return 1;

  /* MoE: router rows with the shared expert's gate row as their tail, and all experts (the shared one at index E) in one slab each */
  void *router_src, *router_w, *gate_src, *up_src, *gate_up_w, *down_src, *down_w;
  DEV(router_src, (c->moe_num_experts + 1) * H * 2);
  DEV(router_w, quillon_moe_shuffle_router_bytes());
  DEV(gate_src, E_TOT * I * H * 2);
  DEV(up_src, E_TOT * I * H * 2);
  DEV(gate_up_w, E_TOT * 2 * I * H * 2);
  DEV(down_src, E_TOT * H * I * 2);
  DEV(down_w, E_TOT * H * I * 2);
  if (fill_rows(router_src, c->moe_num_experts + 1, H, 1.0f / 32, 7) || fill_rows(gate_src, E_TOT * I, H, 1.0f / 64, 8) ||
      fill_rows(up_src, E_TOT * I, H, 1.0f / 64, 9) || fill_rows(down_src, E_TOT * H, I, 1.0f / 64, 10))
    return 1;

  CHECK(quillon_linear_in_proj_shuffle_w(lin_in_src, lin_in_w, 0));
  CHECK(quillon_linear_out_proj_shuffle_w(lin_out_src, lin_out_w, 0));
  CHECK(quillon_qkv_proj_shuffle_w(qkv_src, qkv_w, 0));
  CHECK(quillon_attn_out_scale_oproj_shuffle_w(o_src, o_w, 0));
  CHECK(quillon_moe_shuffle_router(router_src, NULL, router_w, 0));
  CHECK(quillon_moe_shuffle_gate_up(gate_src, up_src, gate_up_w, E_TOT, 0));
  CHECK(quillon_moe_shuffle_down(down_src, down_w, E_TOT, 0));
  CHECK(quillon_synchronize(0));
  printf("\none decode step, geometry 0, bf16 weights: filled and shuffled in %.2f s\n", now_s() - t0);

  /* ---- state an engine keeps between steps ---- */
  /* One sequence, one decode row: a pool of 2 slots (the spare one last), the sequence in slot 0. */
  int64_t total_slots = 0, spare = 0;
  quillon_linear_state_pool(1, 1, &total_slots, &spare);
  void *conv_state, *delta_state, *lin_slots, *has_state, *cu_seqlens;
  DEV(conv_state, total_slots * 3 * CONV * 2);
  DEV(delta_state, total_slots * HV * 128 * 128 * 4);
  DEV(lin_slots, 4);
  DEV(has_state, 4);
  DEV(cu_seqlens, 8);
  {
    int32_t slot_row[1], one = 1, cu[2] = {0, 1};
    quillon_linear_state_slots(0, -1, 1, 1, slot_row);
    if (upload(lin_slots, slot_row, 4) || upload(has_state, &one, 4) || upload(cu_seqlens, cu, 8)) return 1;
  }
  /* Paged KV of the full-attention layer: `history` earlier tokens as a pattern, the new one at slot 255. */
  const int64_t pages = quillon_kv_blocks_for(history + 1, page);
  int64_t k_bytes = 0, v_bytes = 0;
  quillon_kv_pool_bytes(pages, page, 0, &k_bytes, &v_bytes);
  void *k_pool, *v_pool, *block_table, *seq_lens, *slot_map, *positions, *inv_freq, *cos_t, *sin_t;
  DEV(k_pool, k_bytes);
  DEV(v_pool, v_bytes);
  DEV(block_table, pages * 4);
  DEV(seq_lens, 4);
  DEV(slot_map, 4);
  DEV(positions, 8);
  DEV(inv_freq, 32 * 4);
  DEV(cos_t, 64 * 4);
  DEV(sin_t, 64 * 4);
  if (fill_rows(k_pool, k_bytes / 2 / 256, 256, 0.25f, 11) || fill_rows(v_pool, v_bytes / 2 / 256, 256, 0.25f, 12))
    return 1;
  {
    int32_t bt[64], len = (int32_t)(history + 1), slot = (int32_t)history;
    int64_t pos = history;
    float f[32];
    for (int64_t p = 0; p < pages; ++p) bt[p] = (int32_t)p;
    for (int i = 0; i < 32; ++i) f[i] = powf(10000.0f, -(float)i / 32.0f);
    if (upload(block_table, bt, (size_t)pages * 4) || upload(seq_lens, &len, 4) || upload(slot_map, &slot, 4) ||
        upload(positions, &pos, 8) || upload(inv_freq, f, sizeof f))
      return 1;
  }
  const int64_t num_slots = quillon_paged_decode_num_slots(1);
  void *plan, *attn_ws;
  DEV(plan, quillon_paged_decode_plan_elems(1, num_slots) * 4);
  DEV(attn_ws, quillon_paged_decode_workspace_size(num_slots, 1));

  /* ---- activations and per-call workspaces for M = 1 ---- */
  void *ids, *resid, *x, *normed, *qkv, *q, *k, *attn, *lin_ws, *qkv_scratch, *o_scratch, *moe_ws;
  DEV(ids, 8);
  DEV(resid, H * 2);
  DEV(x, H * 2);
  DEV(normed, H * 2);
  DEV(qkv, QKV * 2);
  DEV(q, NQ * HD * 2);
  DEV(k, NKV * HD * 2);
  DEV(attn, NQ * HD * 2);
  DEV(lin_ws, quillon_fused_linear_attn_workspace_bytes(1, 2));
  DEV(qkv_scratch, quillon_qkv_proj_scratch_bytes(1));
  DEV(o_scratch, quillon_attn_out_scale_oproj_scratch_bytes(1));
  DEV(moe_ws, quillon_moe_workspace_bytes(1));
  if (upload(ids, &token, 8)) return 1;
  const LinearAttnRetain no_retain = {{NULL, NULL, NULL}};

  /* ---- the step ---- */
  TIMED("gather_embedding", quillon_gather_embedding(ids, table, resid, 1, 0));
  TIMED("rope_cos_sin", quillon_rope_cos_sin(positions, inv_freq, cos_t, sin_t, 1, 0));
  TIMED("paged_attn_decode_plan",
        quillon_paged_attn_decode_plan(seq_lens, plan, 1, num_slots, 128, 0, 0));

  /* layer A: linear attention (norm, in-projection, conv, delta rule, gated norm, out-projection) + MoE */
  TIMED("fused_linear_attn",
        quillon_fused_linear_attn(resid, NULL, ones_h, lin_in_w, conv_w, a_log, dt_bias, gnorm_w, lin_out_w, NULL, NULL,
                                  NULL, NULL, NULL, NULL, 8, NULL, NULL, 8, NULL, NULL, 8, NULL, NULL, 8, cu_seqlens,
                                  has_state, lin_slots, NULL, conv_state, delta_state, NULL, NULL, 0, NULL, NULL,
                                  lin_ws, x, 1, 1, 2, 0, no_retain, eps));
  TIMED("rmsnorm_residual", quillon_rmsnorm_residual(x, resid, ones_h, normed, 1, eps, 0));
  TIMED("fused_moe", quillon_fused_moe(normed, router_w, gate_up_w, down_w, x, moe_ws, 1, 0));

  /* layer B: full attention + MoE; the projection's norm adds the MoE output to the residual first */
  TIMED("qkv_proj", quillon_qkv_proj(x, resid, ones_h, qkv_w, qkv_scratch, qkv, 1, 2, NULL, NULL, 0, eps));
  TIMED("qk_norm_rope", quillon_qk_norm_rope(qkv, QKV, qn_w, kn_w, cos_t, sin_t, q, k, 1, eps, 0));
  TIMED("reshape_and_cache",
        quillon_reshape_and_cache(k, (uint16_t*)qkv + c->v_offset, NKV * HD, QKV, k_pool, v_pool, slot_map, 1, page,
                                  0));
  TIMED("paged_attn_decode",
        quillon_paged_attn_decode(q, seq_lens, k_pool, v_pool, attn, block_table, plan, 1, pages, num_slots, attn_ws,
                                  1, page, 0, 0, 0, 1.0f / 16.0f));
  TIMED("attn_out_scale_oproj", quillon_attn_out_scale_oproj(attn, qkv, QKV, o_w, o_scratch, x, 1, 2, 0));
  TIMED("rmsnorm_residual", quillon_rmsnorm_residual(x, resid, ones_h, normed, 1, eps, 0));
  TIMED("fused_moe", quillon_fused_moe(normed, router_w, gate_up_w, down_w, x, moe_ws, 1, 0));
  TIMED("rmsnorm_residual (final)", quillon_rmsnorm_residual(x, resid, ones_h, normed, 1, eps, 0));

  /* The head: plant the final row, shuffle once, then the product and the picks. */
  CHECK(hipMemcpy((uint16_t*)head_src + planted * H, normed, (size_t)(H * 2), hipMemcpyDeviceToDevice));
  const double ts = now_s();
  CHECK(quillon_lm_head_shuffle_weight(head_src, head_w, 0));
  CHECK(quillon_synchronize(0));
  printf("  (LM head weight shuffled in %.2f s, outside the step)\n", now_s() - ts);

  void *logits, *probs, *cand_p, *cand_id, *temp, *topk, *topp, *unif, *out_ids;
  DEV(logits, V * 4);
  DEV(probs, V * 4);
  DEV(cand_p, K * 4);
  DEV(cand_id, K * 8);
  DEV(temp, 4);
  DEV(topk, 4);
  DEV(topp, 4);
  DEV(unif, 4);
  DEV(out_ids, 16);
  {
    /* A high temperature spreads the draw beyond the planted row. */
    const float temperature = 500.0f, top_p = 0.9f, uniform = 0.5f;
    const int32_t top_k = (int32_t)K;
    if (upload(temp, &temperature, 4) || upload(topk, &top_k, 4) || upload(topp, &top_p, 4) ||
        upload(unif, &uniform, 4))
      return 1;
  }
  TIMED("lm_head", quillon_lm_head(normed, head_w, logits, 1, NULL, 0));
  TIMED("sampling_argmax", quillon_sampling_argmax(logits, out_ids, 1, V, 0));
  TIMED("sampling_softmax", quillon_sampling_softmax(logits, probs, 1, V, temp, 0));
  TIMED("sampling_topk_topp", quillon_sampling_topk_topp(probs, cand_p, cand_id, 1, V, K, topk, topp, 0));
  TIMED("sampling_multinomial",
        quillon_sampling_multinomial(cand_p, cand_id, unif, (int64_t*)out_ids + 1, 1, K, 0));

  int64_t next[2];
  float lg;
  uint16_t row[4];
  CHECK(hipMemcpy(next, out_ids, 16, hipMemcpyDeviceToHost));
  CHECK(hipMemcpy(&lg, (float*)logits + planted, 4, hipMemcpyDeviceToHost));
  CHECK(hipMemcpy(row, normed, 8, hipMemcpyDeviceToHost));
  double total = 0;
  printf("  operator                      CPU-device time\n");
  for (int i = 0; i < ntimes; ++i) {
    printf("  %-28s %8.3f s\n", times[i].name, times[i].s);
    total += times[i].s;
  }
  printf("  %-28s %8.3f s\n", "step", total);
  printf("  token %lld -> final row [%.3f %.3f %.3f %.3f ...], logits[%lld] = %.2f\n", (long long)token,
         bf16_to_float(row[0]), bf16_to_float(row[1]), bf16_to_float(row[2]), bf16_to_float(row[3]),
         (long long)planted, lg);
  printf("  argmax: %lld%s; multinomial (uniform 0.50, top-k %lld, top-p 0.90, temperature 500): %lld\n",
         (long long)next[0], next[0] == planted ? " (the planted row)" : " (NOT the planted row)", (long long)K,
         (long long)next[1]);
  for (int i = 0; i < nbufs; ++i) hipFree(bufs[i]);
  return next[0] == planted ? 0 : 1;
}
