// Host entries of the token-picking half of sampling: the draw from the
// candidates and the greedy argmax. Asynchronous on `s`, no launch check, no
// geometry read.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {
// out_ids[b] = the candidate whose inclusive prefix sum first exceeds
// uniform[b]; the last non-zero candidate when none does.
void sampling_multinomial(const float* cand_probs, const int64_t* cand_ids, const float* uniform, int64_t* out_ids,
                          int64_t rows, int64_t K, hipStream_t s);

// out_ids[b] = the lowest index of the row's maximum; NaNs never win.
void sampling_argmax(const float* logits, int64_t* out_ids, int64_t rows, int64_t V, hipStream_t s);
}  // namespace quillon
