// Host entries of the probability half of sampling: temperature softmax and
// the exact top-k / top-p candidate selection. Both are asynchronous on `s`
// and do not check the launch status; neither reads the active geometry.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {
// Widest candidate array the top-k kernel serves.
inline constexpr int kSamplingMaxK = 1024;

// probs[b] = softmax((logits[b] - max) / temperature[b]) over V.
void sampling_softmax(const float* logits, float* probs, int64_t rows, int64_t V, const float* temperature,
                      hipStream_t s);

// The top min(K, top_k[b]) probabilities of each row, sorted and renormalised,
// cut at top_p[b]; K candidate slots per row. `top_k` may be null.
void sampling_topk_topp(const float* probs, float* cand_probs, int64_t* cand_ids, int64_t rows, int64_t V,
                        int64_t K, const int32_t* top_k, const float* top_p, hipStream_t s);
}  // namespace quillon
