// SPDX-License-Identifier: Apache-2.0
// libcutils' property functions, which Debian's host libcutils does not
// ship, served from libbase's in-process property store (or, built with
// libc++, which Debian's libbase is not, from one of its own).
#include <cutils/properties.h>
#include <sim/properties.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <mutex>
#include <string>

#ifdef SIM_PROPERTIES_OWN_STORE
#include <map>
#else
#include <android-base/properties.h>
#endif

namespace {

#ifdef SIM_PROPERTIES_OWN_STORE
std::mutex gStoreMutex;
std::map<std::string, std::string> gStore;

bool setProperty(const std::string& key, const std::string& value) {
    std::lock_guard<std::mutex> lock(gStoreMutex);
    gStore[key] = value;
    return true;
}

std::string getProperty(const std::string& key) {
    std::lock_guard<std::mutex> lock(gStoreMutex);
    auto found = gStore.find(key);
    return found != gStore.end() ? found->second : std::string();
}
#else
bool setProperty(const std::string& key, const std::string& value) {
    return android::base::SetProperty(key, value);
}

std::string getProperty(const std::string& key) {
    return android::base::GetProperty(key, "");
}
#endif

// Seeds the store from the environment once, before the first access. A
// malformed entry stops the process: a run against properties other than
// the ones asked for would prove nothing.
void seedFromEnvironment() {
    static std::once_flag once;
    std::call_once(once, [] {
        const char* seed = getenv(sim::properties::kEnvironment);
        if (seed == nullptr || seed[0] == '\0') {
            return;
        }
        const std::string pairs = seed;
        size_t start = 0;
        while (start <= pairs.size()) {
            size_t end = pairs.find(',', start);
            end = end == std::string::npos ? pairs.size() : end;
            const std::string pair = pairs.substr(start, end - start);
            const size_t equals = pair.find('=');
            if (equals == 0 || equals == std::string::npos ||
                pair.find_first_of(" \t") != std::string::npos ||
                pair.size() - equals - 1 >= PROPERTY_VALUE_MAX) {
                fprintf(stderr,
                        "%s: malformed entry \"%s\": want key=value[,key=value...], no blanks, "
                        "values shorter than %d\n",
                        sim::properties::kEnvironment, pair.c_str(), PROPERTY_VALUE_MAX);
                exit(2);
            }
            setProperty(pair.substr(0, equals), pair.substr(equals + 1));
            start = end + 1;
        }
    });
}

std::string lookup(const char* key) {
    seedFromEnvironment();
    return key != nullptr ? getProperty(key) : std::string();
}

// strtoimax with the base inferred; the default when empty, partly numeric
// or out of range.
template <typename T>
T toInteger(const char* key, T defaultValue, T min, T max) {
    std::string value = lookup(key);
    if (value.empty()) {
        return defaultValue;
    }
    char* end = nullptr;
    errno = 0;
    long long parsed = strtoll(value.c_str(), &end, 0);
    while (end != nullptr && (*end == ' ' || *end == '\t')) {
        ++end;
    }
    if (errno != 0 || end == value.c_str() || *end != '\0' || parsed < min || parsed > max) {
        return defaultValue;
    }
    return static_cast<T>(parsed);
}

}  // namespace

extern "C" {

int property_get(const char* key, char* value, const char* default_value) {
    std::string found = lookup(key);
    if (found.empty() && default_value != nullptr) {
        found = default_value;
    }
    size_t length = found.size() < PROPERTY_VALUE_MAX - 1 ? found.size() : PROPERTY_VALUE_MAX - 1;
    memcpy(value, found.data(), length);
    value[length] = '\0';
    return static_cast<int>(length);
}

int8_t property_get_bool(const char* key, int8_t default_value) {
    std::string value = lookup(key);
    if (value == "1" || value == "true" || value == "y" || value == "yes" || value == "on") {
        return 1;
    }
    if (value == "0" || value == "false" || value == "n" || value == "no" || value == "off") {
        return 0;
    }
    return default_value;
}

int64_t property_get_int64(const char* key, int64_t default_value) {
    return toInteger<int64_t>(key, default_value, INT64_MIN, INT64_MAX);
}

int32_t property_get_int32(const char* key, int32_t default_value) {
    return toInteger<int32_t>(key, default_value, INT32_MIN, INT32_MAX);
}

int property_set(const char* key, const char* value) {
    seedFromEnvironment();
    return setProperty(key, value != nullptr ? value : "") ? 0 : -1;
}

}  // extern "C"
