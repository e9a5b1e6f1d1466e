// SPDX-License-Identifier: Apache-2.0
// Host stand-in for the host camera framework: the log facility with its
// globals, the debug data reference counters and the bodies of the
// framework's types.
#define LOG_TAG "KyCamSim"

#include <PostProcInfo.h>
#include <adapter/DebugData.h>
#include <kycam/IMediator.h>
#include <kycam/TuningParamsBase.h>
#include <kydebug/Log.h>
#include <sim/buffers.h>
#include <sim/journal.h>
#include <sim/kycam.h>

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <android/log.h>

#include <map>
#include <mutex>

// The facility starts quiet; hosts and tests configure it.
int32_t gKyCamLogLevel = 4;
uint32_t gKyCamLogGroup = 0;
uint32_t gKyCamDebugMask = 0;

namespace {

std::mutex gLogMutex;
std::vector<sim::kycam::LogLine> gLines;
bool gCapture = true;
FILE* gEcho = nullptr;
bool gEchoLogSystem = true;

std::mutex gRefMutex;

int threadId() {
    return static_cast<int>(syscall(SYS_gettid));
}
std::map<const void*, int> gDebugDataRefs;

// Captures the Android sink through liblog's own logger hook.
void androidLogger(const struct __android_logger_data* data, const char* message) {
    std::lock_guard<std::mutex> lock(gLogMutex);
    if (gCapture) {
        sim::kycam::LogLine line{sim::kycam::Sink::Android,
                                 data->priority,
                                 data->tag != nullptr ? data->tag : "",
                                 0,
                                 "",
                                 "",
                                 "",
                                 0,
                                 message,
                                 getpid(),
                                 threadId()};
        gLines.push_back(std::move(line));
    }
    if (gEcho != nullptr) {
        fprintf(gEcho, "[android %c] %s: %s\n", "??VDIWEF"[data->priority & 7], data -> tag,
                message);
    }
}

int letterPriority(const char* level) {
    switch (level != nullptr ? level[0] : '?') {
        case 'D':
            return ANDROID_LOG_DEBUG;
        case 'I':
            return ANDROID_LOG_INFO;
        case 'W':
            return ANDROID_LOG_WARN;
        case 'E':
            return ANDROID_LOG_ERROR;
        default:
            return ANDROID_LOG_UNKNOWN;
    }
}

// Installed when the library loads, so that every process that uses the
// simulation sees the Android sink at every priority.
__attribute__((constructor)) void installAndroidLogger() {
    __android_log_set_logger(androidLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

}  // namespace

namespace kydebug {

void Log::logSystem(uint32_t group, const char* level, const char* fileName, const char* function,
                    int line, const char* format, ...) {
    // Formatted once into a fixed buffer: writing a line allocates nothing
    // unless it is captured.
    char message[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof(message), format, args);
    va_end(args);
    std::lock_guard<std::mutex> lock(gLogMutex);
    if (gCapture) {
        gLines.push_back({sim::kycam::Sink::LogSystem, letterPriority(level), "", group, level,
                          fileName, function, line, message, getpid(), threadId()});
    }
    if (gEcho != nullptr && gEchoLogSystem) {
        fprintf(gEcho, "[kylog %s] %s %s:%d %s() %s\n", level, kyaGroupToString(group), fileName,
                line, function, message);
    }
}

const char* Log::getFileName(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

const char* Log::kyaGroupToString(uint32_t group) {
    switch (group) {
        case 64:
            return "KYA_META";
        case 128:
            return "KYA_POSTPROC";
        default:
            return "KYA_OTHER";
    }
}

}  // namespace kydebug

extern "C" int AddDebugDataReference(adapter::DebugData* debugData) {
    std::lock_guard<std::mutex> lock(gRefMutex);
    if (debugData == nullptr) {
        sim::misuse("AddDebugDataReference with a null descriptor");
        return -1;
    }
    int count = ++gDebugDataRefs[debugData->pData];
    sim::buffers::taken();
    sim::record("kycam", "AddDebugDataReference", debugData->pData, count);
    return count;
}

extern "C" int SubDebugDataReference(adapter::DebugData* debugData) {
    std::lock_guard<std::mutex> lock(gRefMutex);
    if (debugData == nullptr) {
        sim::misuse("SubDebugDataReference with a null descriptor");
        return -1;
    }
    sim::buffers::givenBack();
    int& count = gDebugDataRefs[debugData->pData];
    if (count == 0) {
        // The books stay at zero; the caller sees what the counter would.
        sim::misuse("debug data reference below zero");
        sim::record("kycam", "SubDebugDataReference", debugData->pData, -1);
        return -1;
    }
    --count;
    sim::record("kycam", "SubDebugDataReference", debugData->pData, count);
    return count;
}

namespace kycam {

TuningParamsBase::TuningParamsBase()
    : mCameraId(-1),
      mFrameNumber(0),
      mTimestamp(0),
      mSessionId(UINT64_MAX),
      mReserved(0),
      mTransAllMetas(false) {}

TuningParamsBase::~TuningParamsBase() = default;

int32_t TuningParamsBase::getTuningMetasSize() {
    return static_cast<int32_t>(mTuningMetas.size());
}

IMediator::~IMediator() = default;

}  // namespace kycam

PostProcInfo::~PostProcInfo() = default;

void PostProcInfo::onPipelineStarted() {}

void PostProcInfo::onPipelineFinished() {}

namespace sim {
namespace kycam {

void setLogConfig(int32_t level, uint32_t group, uint32_t debugMask) {
    gKyCamLogLevel = level;
    gKyCamLogGroup = group;
    gKyCamDebugMask = debugMask;
}

void setLogOutput(bool capture, FILE* echo, bool echoLogSystem) {
    std::lock_guard<std::mutex> lock(gLogMutex);
    gCapture = capture;
    gEcho = echo;
    gEchoLogSystem = echoLogSystem;
}

std::vector<LogLine> lines() {
    std::lock_guard<std::mutex> lock(gLogMutex);
    return gLines;
}

std::vector<std::string> texts(Sink sink) {
    std::lock_guard<std::mutex> lock(gLogMutex);
    std::vector<std::string> result;
    for (const LogLine& line : gLines) {
        if (line.sink == sink) {
            result.push_back(line.text);
        }
    }
    return result;
}

void clearLines() {
    std::lock_guard<std::mutex> lock(gLogMutex);
    gLines.clear();
}

int debugDataRefCount(const void* buffer) {
    std::lock_guard<std::mutex> lock(gRefMutex);
    auto found = gDebugDataRefs.find(buffer);
    return found != gDebugDataRefs.end() ? found->second : 0;
}

void setDebugDataRefCount(const void* buffer, int count) {
    std::lock_guard<std::mutex> lock(gRefMutex);
    int& held = gDebugDataRefs[buffer];
    held = count;
}

void resetDebugData() {
    std::lock_guard<std::mutex> lock(gRefMutex);
    gDebugDataRefs.clear();
    sim::buffers::reset();
}

}  // namespace kycam
}  // namespace sim
