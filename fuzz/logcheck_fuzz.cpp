// SPDX-License-Identifier: Apache-2.0
// libFuzzer target of postproc-logcheck's reading and ledger: any input, in
// any of the formats, is read without a crash or a read out of bounds, the
// books stay consistent (nothing ends more often than it was made or seen
// alive) and both reports can be written. The first byte picks the format.
#include <logcheck.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    static const logcheck::Format kFormats[] = {
            logcheck::Format::Auto, logcheck::Format::Threadtime, logcheck::Format::Brief,
            logcheck::Format::Time, logcheck::Format::Long,       logcheck::Format::Binary};
    const int fd = memfd_create("log", MFD_CLOEXEC);
    if (fd < 0 || write(fd, data + 1, size - 1) != static_cast<ssize_t>(size - 1)) {
        abort();
    }
    lseek(fd, 0, SEEK_SET);
    logcheck::Checker checker;
    logcheck::InputStats stats;
    std::string error;
    int failure = 0;
    const volatile sig_atomic_t stop = 0;
    auto source =
            logcheck::openLog(("/proc/self/fd/" + std::to_string(fd)).c_str(), &failure, &error);
    if (source) {
        logcheck::readLog(*source, kFormats[data[0] % 6], checker, stats, &error, &stop);
    }
    close(fd);
    checker.finish();
    static FILE* const sink = fopen("/dev/null", "w");
    logcheck::printHuman(sink, checker, stats, {});
    logcheck::printJson(sink, checker, stats, {});
    for (const logcheck::Process& process : checker.processes()) {
        for (const logcheck::Count* count :
             {&process.totals.records, &process.totals.chiMetas, &process.totals.debugData}) {
            if (count->ended > count->created + count->before) {
                abort();
            }
        }
    }
    return 0;
}
