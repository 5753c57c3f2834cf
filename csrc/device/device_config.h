// The compute unit count that sizes grids and split factors.
#pragma once
#include <stdint.h>

namespace quillon {
// QUILLON_NUM_CUS if set, else twice the device's multiprocessor count, else
// 40; computed once per process.
int32_t num_cus();
// Smallest power of two not below num_cus().
int32_t num_cus_p2();
}  // namespace quillon
