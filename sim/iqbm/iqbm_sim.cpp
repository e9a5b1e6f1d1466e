// SPDX-License-Identifier: Apache-2.0
// Host stand-in for the IQ buffer manager. It keeps a reference count per
// buffer and the registration of its one client; registering twice,
// unregistering when not registered, and reference calls from an
// unregistered client are reported as misuse.
#include <iqbm/IQBufMgrIntf.h>
#include <sim/buffers.h>
#include <sim/iqbm.h>
#include <sim/journal.h>

#include <string.h>

#include <atomic>
#include <map>
#include <mutex>

namespace {

std::mutex gMutex;
sim::iqbm::Counters gCounters = {};
std::vector<std::string> gEvents;
std::map<const void*, int> gRefs;
size_t gEntryPointCalls = 0;
std::atomic<void (*)(bool)> gRegistrationObserver{nullptr};

void observeRegistration(bool registering) {
    if (void (*observer)(bool) = gRegistrationObserver.load()) {
        observer(registering);
    }
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int IBMIntfRegister(const char* clientName) {
    observeRegistration(true);
    std::lock_guard<std::mutex> lock(gMutex);
    ++gEntryPointCalls;
    ++gCounters.registers;
    gEvents.push_back(std::string("register:") + (clientName != nullptr ? clientName : ""));
    sim::record("iqbm", "IBMIntfRegister", clientName);
    if (gCounters.registered) {
        sim::misuse("iqbm register while registered");
    }
    gCounters.registered = true;
    return 0;
}

__attribute__((visibility("default"))) int IBMIntfUnRegister(const char* clientName) {
    observeRegistration(false);
    std::lock_guard<std::mutex> lock(gMutex);
    ++gEntryPointCalls;
    ++gCounters.unregisters;
    gEvents.push_back(std::string("unregister:") + (clientName != nullptr ? clientName : ""));
    sim::record("iqbm", "IBMIntfUnRegister", clientName);
    if (!gCounters.registered) {
        sim::misuse("iqbm unregister while not registered");
    }
    gCounters.registered = false;
    return 0;
}

__attribute__((visibility("default"))) int IBMIntfBufAddRef(void* buffer) {
    std::lock_guard<std::mutex> lock(gMutex);
    ++gEntryPointCalls;
    ++gCounters.addRefs;
    gEvents.push_back("addref");
    if (!gCounters.registered) {
        sim::misuse("iqbm add reference from an unregistered client");
    }
    int count = ++gRefs[buffer];
    sim::buffers::taken();
    sim::record("iqbm", "IBMIntfBufAddRef", buffer, count);
    return count;
}

__attribute__((visibility("default"))) int IBMIntfBufDecRef(void* buffer) {
    std::lock_guard<std::mutex> lock(gMutex);
    ++gEntryPointCalls;
    ++gCounters.decRefs;
    gEvents.push_back("decref");
    if (!gCounters.registered) {
        sim::misuse("iqbm drop reference from an unregistered client");
    }
    sim::buffers::givenBack();
    int& count = gRefs[buffer];
    if (count == 0) {
        // The books stay at zero; the caller sees what the counter would.
        sim::misuse("iqbm reference below zero");
        sim::record("iqbm", "IBMIntfBufDecRef", buffer, -1);
        return -1;
    }
    --count;
    sim::record("iqbm", "IBMIntfBufDecRef", buffer, count);
    return count;
}

__attribute__((visibility("default"))) size_t SimIqbmEntryPointCalls() {
    std::lock_guard<std::mutex> lock(gMutex);
    return gEntryPointCalls;
}

}  // extern "C"

namespace sim {
namespace iqbm {

Counters counters() {
    std::lock_guard<std::mutex> lock(gMutex);
    return gCounters;
}

std::vector<std::string> events() {
    std::lock_guard<std::mutex> lock(gMutex);
    return gEvents;
}

int refCount(const void* buffer) {
    std::lock_guard<std::mutex> lock(gMutex);
    auto found = gRefs.find(buffer);
    return found != gRefs.end() ? found->second : 0;
}

void setRefCount(const void* buffer, int count) {
    std::lock_guard<std::mutex> lock(gMutex);
    int& held = gRefs[buffer];
    held = count;
}

void clearBuffers() {
    std::lock_guard<std::mutex> lock(gMutex);
    gRefs.clear();
    gEvents.clear();
}

void setRegistrationObserver(void (*observer)(bool registering)) {
    gRegistrationObserver.store(observer);
}

}  // namespace iqbm
}  // namespace sim
