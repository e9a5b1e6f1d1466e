// SPDX-License-Identifier: Apache-2.0
// Debug data descriptors of the host framework and its reference counters.
#pragma once

#include <stdint.h>

namespace adapter {

// One debug data blob; a null pData means that there is no debug data.
struct DebugData {
    uint64_t size;
    void* pData;
};

// Tuning debug data of one camera: up to six blobs. count is not clamped.
struct DebugDataTuningMetaArray {
    uint32_t count;
    DebugData entries[6];
};

}  // namespace adapter

extern "C" {
// Both return the buffer's reference count after the change.
// SubDebugDataReference identifies the buffer by pData alone.
int AddDebugDataReference(adapter::DebugData* debugData);
int SubDebugDataReference(adapter::DebugData* debugData);
}
