// SPDX-License-Identifier: Apache-2.0
// Ledger of the simulated IQ buffer manager, "libiqdbgmgr.so".
#pragma once

#include <stddef.h>

#include <string>
#include <vector>

namespace sim {
namespace iqbm {

struct Counters {
    size_t registers;
    size_t unregisters;
    size_t addRefs;
    size_t decRefs;
    bool registered;
};

Counters counters();
// "register:KYHAL", "unregister:KYHAL", "addref", "decref" in call order.
std::vector<std::string> events();
int refCount(const void* buffer);
// A buffer the pipeline already holds references on.
void setRefCount(const void* buffer, int count);
// Buffer counts and events back to empty; the registration state is kept,
// since it follows the live records.
void clearBuffers();
// Called on the caller's thread at the start of IBMIntfRegister (true) and
// IBMIntfUnRegister (false), while the caller still holds its own locks; null
// for none.
void setRegistrationObserver(void (*observer)(bool registering));

}  // namespace iqbm
}  // namespace sim

// For processes that find the manager only through dlopen: the number of
// entry point calls since load.
extern "C" size_t SimIqbmEntryPointCalls();
