// SPDX-License-Identifier: Apache-2.0
// Ordered journal of the simulated platform calls, shared by every stand-in
// library, and the list of misuses they detected.
#pragma once

#include <stddef.h>

#include <string>
#include <vector>

namespace sim {

struct Call {
    std::string lib;     // "chi", "camera_metadata", "iqbm", "kycam"
    std::string op;      // the platform operation, e.g. "AddReference"
    const void* object;  // the object or buffer it was called on
    long long result;    // what it returned, or 0
};

// Records one call; a no-op while the journal is off.
void record(const char* lib, const char* op, const void* object, long long result = 0);
std::vector<Call> calls();
// Calls of op (on object, when given).
size_t count(const std::string& op, const void* object = nullptr);
// The operations in call order (of one library, when given).
std::vector<std::string> opSequence(const std::string& lib = std::string());
void setJournalEnabled(bool enabled);
bool journalEnabled();

// A stand-in saw a call that breaks its contract (double destroy, use after
// destroy, a reference below zero, ...).
void misuse(const std::string& what);
std::vector<std::string> misuses();

// Forgets calls and misuses.
void clearJournal();

}  // namespace sim
