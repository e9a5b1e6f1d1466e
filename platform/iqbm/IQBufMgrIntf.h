// SPDX-License-Identifier: Apache-2.0
// Entry points of the IQ buffer manager, "libiqdbgmgr.so", loaded at run time.
#pragma once

extern "C" {
// Client registration; the result is not used by callers.
typedef int (*PFN_IBMIntfRegister)(const char* clientName);
typedef int (*PFN_IBMIntfUnRegister)(const char* clientName);
// Both return the buffer's reference count after the change.
typedef int (*PFN_IBMIntfBufAddRef)(void* buffer);
typedef int (*PFN_IBMIntfBufDecRef)(void* buffer);
}
