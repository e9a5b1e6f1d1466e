// SPDX-License-Identifier: Apache-2.0
// One entry of the advanced-feature concurrency configuration.
#pragma once

#include <stdint.h>

struct AdvancedFeatureConcurrencyParams {
    uint32_t width;           // frame width the entry applies to, 0 for any
    uint32_t height;          // frame height, 0 for any
    uint32_t fps;             // frame rate, 0 for any
    uint32_t flag;            // 0 or 1
    uint32_t level;           // 1, 2 or 3
    uint32_t primaryFeature;  // one feature bit of the entry's mask
};
