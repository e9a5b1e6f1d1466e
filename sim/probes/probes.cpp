// SPDX-License-Identifier: Apache-2.0
// The executable's definitions come first in symbol lookup, so calls from
// every shared library (the record, liblog, libstdc++) land here; each one
// counts and goes on to glibc.
#include <sim/probes.h>

#include <dlfcn.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* pointer);
}

namespace {

thread_local probe::Counts tCounts = {0, 0, 0};
thread_local const void* tWatched = nullptr;
thread_local long tWatchedFrees = 0;

using VsnprintfFn = int (*)(char*, size_t, const char*, va_list);
using VsnprintfChkFn = int (*)(char*, size_t, int, size_t, const char*, va_list);
using VasprintfFn = int (*)(char**, const char*, va_list);

template <typename Fn>
Fn next(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

int countedVsnprintf(char* buffer, size_t size, const char* format, va_list args) {
    static const VsnprintfFn real = next<VsnprintfFn>("vsnprintf");
    ++tCounts.formats;
    return real(buffer, size, format, args);
}

int countedVsnprintfChk(char* buffer, size_t size, int flag, size_t length, const char* format,
                        va_list args) {
    static const VsnprintfChkFn real = next<VsnprintfChkFn>("__vsnprintf_chk");
    ++tCounts.formats;
    return real(buffer, size, flag, length, format, args);
}

int countedVasprintf(char** out, const char* format, va_list args) {
    static const VasprintfFn real = next<VasprintfFn>("vasprintf");
    ++tCounts.formats;
    return real(out, format, args);
}

}  // namespace

namespace probe {

Counts counts() {
    return tCounts;
}

void watch(const void* pointer) {
    tWatched = pointer;
    tWatchedFrees = 0;
}

long watchedFrees() {
    return tWatchedFrees;
}

}  // namespace probe

extern "C" {

void* malloc(size_t size) {
    ++tCounts.allocations;
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    ++tCounts.allocations;
    return __libc_calloc(count, size);
}

void* realloc(void* pointer, size_t size) {
    if (pointer != nullptr) {
        ++tCounts.frees;
    }
    if (size != 0 || pointer == nullptr) {
        ++tCounts.allocations;
    }
    return __libc_realloc(pointer, size);
}

void free(void* pointer) {
    if (pointer != nullptr) {
        ++tCounts.frees;
        tWatchedFrees += pointer == tWatched ? 1 : 0;
    }
    __libc_free(pointer);
}

void* memalign(size_t alignment, size_t size) {
    ++tCounts.allocations;
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    return memalign(alignment, size);
}

int posix_memalign(void** out, size_t alignment, size_t size) {
    void* pointer = memalign(alignment, size);
    if (pointer == nullptr) {
        return 12;  // ENOMEM
    }
    *out = pointer;
    return 0;
}

int vsnprintf(char* buffer, size_t size, const char* format, va_list args) {
    return countedVsnprintf(buffer, size, format, args);
}

int __vsnprintf_chk(char* buffer, size_t size, int flag, size_t length, const char* format,
                    va_list args) {
    return countedVsnprintfChk(buffer, size, flag, length, format, args);
}

int snprintf(char* buffer, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int written = countedVsnprintf(buffer, size, format, args);
    va_end(args);
    return written;
}

int __snprintf_chk(char* buffer, size_t size, int flag, size_t length, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int written = countedVsnprintfChk(buffer, size, flag, length, format, args);
    va_end(args);
    return written;
}

int vasprintf(char** out, const char* format, va_list args) {
    return countedVasprintf(out, format, args);
}

int asprintf(char** out, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int written = countedVasprintf(out, format, args);
    va_end(args);
    return written;
}

}  // extern "C"
