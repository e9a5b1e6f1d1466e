// SPDX-License-Identifier: Apache-2.0
// One request on a host: private results for two cameras, attached to the
// HAL request, reconciled with a result in which the HAL filled camera 1
// with an object of its own, and the record ended. Then the books.
#include "QcomPostProcInfo.h"

#include <sim/chi.h>
#include <sim/hal.h>
#include <sim/kycam.h>
#include <stdio.h>

int main() {
    sim::kycam::setLogConfig(3, 64 | 128, 0);  // Debug and up, both groups
    sim::kycam::setLogOutput(false, stdout);
    auto record = std::make_unique<adapter::QcomPostProcInfo>();
    std::set<std::string> cameras = {"0", "1"};
    adapter::PostProcInfoMetaAttributes attributes = {};
    record->createPrivResultMeta(cameras, true, attributes);
    camera3_capture_request request = {};
    record->setHalRequestPrivResultMeta(&request);
    // The HAL's side: it holds a reference on every object it is handed, and
    // fills one of its own for camera 1 instead.
    sim::hal::reference(request);
    sim::hal::Result result(
            1, request.priv_result,
            {{"0", request.priv_physcam_result[0]}, {"1", sim::hal::newMeta(true)}});
    record->checkAndUpdatePrivResult(result.get());
    record.reset();
    const sim::chi::Totals books = sim::chi::totals();
    printf("CHI metadata objects: %zu made, %zu ended, %zu alive\n", books.created, books.destroyed,
           books.alive);
    return books.alive == 0 ? 0 : 1;
}
