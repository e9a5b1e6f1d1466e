// SPDX-License-Identifier: Apache-2.0
// The record's workloads, each in two forms that make the same platform
// calls (CHI metadata, camera metadata, IQ buffer manager, debug data
// counters) in the same order: through the record, and the floor, written by
// hand, doing on top of the calls only what the record's data model forces
// (its map and set nodes, name and id strings, the two new[] arrays, the tag
// list createChiMeta must allocate, the counters, its locks' lock pairs).
// Library / floor is the figure of merit. A Marks hears the name of each
// measured step before it runs and null after the last: what comes before
// the first (the request's own set-up) is not measured.
#pragma once

#include <string>

namespace workload {

struct Marks {
    virtual ~Marks() = default;
    virtual void operator()(const char* step) { (void)step; }
};

// Construct and destroy; or construct, private results, attach, the HAL,
// reconcile, keep 3A data, destroy.
enum class Kind { Empty, Request };

// What the HAL brings back: the objects it was given, its own object for the
// last camera, or cameras 1..n instead of 0..n-1 with objects of its own.
enum class Result { Same, ReplaceOne, NewCameras };

struct Workload {
    Kind kind = Kind::Request;
    int cameras = 3;   // 1 to 16
    int buffers = -1;  // 3A debug buffers kept, up to 64; -1: one per camera
    Result result = Result::Same;
    int others = 0;  // other records alive meanwhile
};

std::string describe(const Workload& w);

// One lifecycle through the record, or through the floor; settle() brings
// the simulation's books back to the same state between lifecycles.
void runLibrary(const Workload& w, Marks& marks);
void runFloor(const Workload& w, Marks& marks);
void settle();

}  // namespace workload
