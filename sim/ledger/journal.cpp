// SPDX-License-Identifier: Apache-2.0
#include <sim/journal.h>

#include <atomic>
#include <mutex>

namespace sim {
namespace {

std::mutex gMutex;
std::vector<Call> gCalls;
std::vector<std::string> gMisuses;
std::atomic<bool> gEnabled{true};

}  // namespace

void record(const char* lib, const char* op, const void* object, long long result) {
    if (!gEnabled.load(std::memory_order_relaxed)) {
        return;
    }
    std::lock_guard<std::mutex> lock(gMutex);
    gCalls.push_back({lib, op, object, result});
}

std::vector<Call> calls() {
    std::lock_guard<std::mutex> lock(gMutex);
    return gCalls;
}

size_t count(const std::string& op, const void* object) {
    std::lock_guard<std::mutex> lock(gMutex);
    size_t n = 0;
    for (const Call& call : gCalls) {
        if (call.op == op && (object == nullptr || call.object == object)) {
            ++n;
        }
    }
    return n;
}

std::vector<std::string> opSequence(const std::string& lib) {
    std::lock_guard<std::mutex> lock(gMutex);
    std::vector<std::string> ops;
    for (const Call& call : gCalls) {
        if (lib.empty() || call.lib == lib) {
            ops.push_back(call.op);
        }
    }
    return ops;
}

void setJournalEnabled(bool enabled) {
    gEnabled.store(enabled, std::memory_order_relaxed);
}

bool journalEnabled() {
    return gEnabled.load(std::memory_order_relaxed);
}

void misuse(const std::string& what) {
    std::lock_guard<std::mutex> lock(gMutex);
    gMisuses.push_back(what);
}

std::vector<std::string> misuses() {
    std::lock_guard<std::mutex> lock(gMutex);
    return gMisuses;
}

void clearJournal() {
    std::lock_guard<std::mutex> lock(gMutex);
    gCalls.clear();
    gMisuses.clear();
}

}  // namespace sim
