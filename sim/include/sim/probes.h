// SPDX-License-Identifier: Apache-2.0
// The process's own ledger: heap allocations (the malloc family, which
// operator new also goes through) and printf-style formats (the snprintf
// family, which liblog and the log system also go through). Linking the
// static library sim_probes into an executable interposes these functions
// for the whole process; the counts are per thread.
#pragma once

namespace probe {

struct Counts {
    long allocations;  // malloc, calloc, realloc, aligned allocations
    long frees;        // free and realloc of a non-null pointer
    long formats;      // snprintf, vsnprintf, asprintf, vasprintf and their _chk forms
};

// This thread's counts since it started.
Counts counts();

// Counts, from now on, how often this thread frees one pointer.
void watch(const void* pointer);
long watchedFrees();

inline Counts operator-(const Counts& a, const Counts& b) {
    return {a.allocations - b.allocations, a.frees - b.frees, a.formats - b.formats};
}

}  // namespace probe
