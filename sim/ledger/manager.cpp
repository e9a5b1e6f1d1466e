// SPDX-License-Identifier: Apache-2.0
// The stand-in IQ buffer manager, loaded on a host before the record's own
// dlopen of its name, which then takes the one loaded: a program of the
// simulation finds it wherever it is (beside these libraries in a build
// tree, in postprocinfo-sim/ once installed, where a consumer's library
// directory does not hold it), also when the linker dropped it from the
// program's needs. Every stand-in depends on this library, and the record
// on them, so this runs first. On a phone the device test's run path does
// the same.
#ifndef __ANDROID__
#include <dlfcn.h>
#include <string.h>
#include <unistd.h>

#include <string>

namespace {

__attribute__((constructor)) void loadStandInManager() {
    Dl_info self;
    if (dladdr(reinterpret_cast<void*>(&loadStandInManager), &self) == 0 ||
        self.dli_fname == nullptr || strchr(self.dli_fname, '/') == nullptr) {
        return;
    }
    const std::string name = self.dli_fname;
    const std::string directory = name.substr(0, name.rfind('/') + 1);
    for (const char* place : {"postprocinfo-sim/libiqdbgmgr.so", "libiqdbgmgr.so"}) {
        const std::string path = directory + place;
        if (access(path.c_str(), R_OK) == 0) {
            dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
            return;
        }
    }
}

}  // namespace
#endif
