// SPDX-License-Identifier: Apache-2.0
#include <sim/buffers.h>

#include <atomic>

namespace sim {
namespace buffers {

namespace {

std::atomic<size_t> gTaken{0};
std::atomic<size_t> gGivenBack{0};

}  // namespace

void taken() {
    ++gTaken;
}

void givenBack() {
    ++gGivenBack;
}

Books books() {
    return {gTaken.load(), gGivenBack.load()};
}

void reset() {
    gTaken = 0;
    gGivenBack = 0;
}

}  // namespace buffers
}  // namespace sim
