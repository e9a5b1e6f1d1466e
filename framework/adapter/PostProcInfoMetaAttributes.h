// SPDX-License-Identifier: Apache-2.0
// How the private result metadata of a request are created.
#pragma once

#include <stdint.h>

namespace adapter {

// Non-zero means true; the record copies all four at once and compares them
// one by one.
struct PostProcInfoMetaAttributes {
    uint8_t logicalIsMultiTypeContextMeta;
    uint8_t logicalIsMultiCameraContextMeta;
    uint8_t physicalIsMultiTypeContextMeta;
    uint8_t physicalIsMultiCameraContextMeta;
};

}  // namespace adapter
