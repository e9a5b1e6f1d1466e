// SPDX-License-Identifier: Apache-2.0
// Ledger of the simulated Android camera metadata buffers.
#pragma once

#include <stddef.h>

#include <string>

#include <system/camera_metadata.h>

namespace sim {
namespace camera_metadata {

struct Totals {
    size_t allocated;
    size_t freed;
    size_t alive;
};

Totals totals();
// What a translation wrote into the buffer, or what a test put there.
std::string content(const camera_metadata_t* buffer);
void setContent(camera_metadata_t* buffer, const std::string& content);
// Fault injection: the next n allocations fail.
void failNextAllocations(size_t n);
// Frees every buffer still alive and clears the counts.
void reset();

}  // namespace camera_metadata
}  // namespace sim
