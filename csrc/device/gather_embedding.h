// Host entry of the embedding gather. Asynchronous on `s`; does not check the
// launch status.
#pragma once
#include <hip/hip_runtime_api.h>
#include <stdint.h>

namespace quillon {
// out[r] = table[ids[r]] for r below n, rows of the active geometry's hidden
// width in bf16. Ids are used as they stand.
void gather_embedding(const int64_t* ids, const void* table, void* out, int64_t n, hipStream_t s);
}  // namespace quillon
