// SPDX-License-Identifier: Apache-2.0
// The log checker as a whole: a log read into the ledgers, and what they
// found, for a person (the verdict first, then the ledger per process and the
// findings, most severe first) or for a script (one JSON object).
#pragma once

#include <signal.h>
#include <stdint.h>
#include <stdio.h>

#include <string>

#include "input.h"
#include "ledger.h"

namespace logcheck {

struct InputStats {
    uint64_t lines = 0;  // text lines, or binary entries
    uint64_t markers = 0;
    uint64_t skipped = 0;  // no entry: truncated, garbled
    Format format = Format::Auto;
    bool interrupted = false;
};

// Reads one input (a file descriptor) into the checker, until its end or
// until *stop is set. False when it cannot be read; error then holds the
// errno value (ENOTSUP: binary input in a build without liblog).
bool readLog(int fd, Format format, Checker& checker, InputStats& stats, int* error,
             const volatile sig_atomic_t* stop);

// One finding on one line, as the live output prints it.
std::string describe(const Finding& finding);
void printHuman(FILE* out, const Checker& checker, const InputStats& input);
void printJson(FILE* out, const Checker& checker, const InputStats& input);

}  // namespace logcheck
