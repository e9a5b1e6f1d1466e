// SPDX-License-Identifier: Apache-2.0
// Ledger of the library's debug buffer references across both counters (the
// host framework's and the IQ buffer manager's): every reference the record
// takes and every one it gives back, counted at the counter.
#pragma once

#include <stddef.h>

namespace sim {
namespace buffers {

struct Books {
    size_t taken;      // AddDebugDataReference and IBMIntfBufAddRef calls
    size_t givenBack;  // SubDebugDataReference and IBMIntfBufDecRef calls
};

void taken();
void givenBack();
Books books();
void reset();

}  // namespace buffers
}  // namespace sim
