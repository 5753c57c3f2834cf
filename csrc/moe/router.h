// The MoE router: the weight blob, score routing (internal, for the fused
// entries) and table routing, into a routing table of S = K + 1 slots per
// token with the shared expert E in slot K.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {

int64_t moe_shuffle_router_bytes();
// Routing matrix into block panels; the gate row (geometries 0, 3) or the
// selection bias (geometry 2, when given) behind it.
void moe_shuffle_router(const void* src, const float* bias, void* dst, hipStream_t s);
int64_t moe_router_shuffle_bytes(int64_t M);

// Score routing: logits [M, E] (fp32), then top-K into weights and ids [M, S].
void moe_router(const void* hidden, const void* router_w, float* weights, int32_t* ids, float* logits,
                void* hidden_shuffled, int64_t M, hipStream_t s);
// When the variant at M is shuffled: hidden into gathered tiles, with the
// shared-expert gate into slot K of weights where the geometry has one.
void moe_shuffle_hidden(const void* hidden, const void* router_w, float* weights, void* hidden_shuffled, int64_t M,
                        hipStream_t s);
// Table routing: the K experts of token id t are row t of tid2eid.
void moe_router_tid2eid(const void* hidden, const void* router_w, const int64_t* token_ids, const int32_t* tid2eid,
                        float* weights, int32_t* ids, void* hidden_shuffled, int64_t M, hipStream_t s);

}  // namespace quillon
