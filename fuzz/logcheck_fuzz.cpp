// SPDX-License-Identifier: Apache-2.0
// libFuzzer target of postproc-logcheck's reading and ledger: any input, in
// any of the formats, read in place from a file or in pieces from a pipe, is
// read without a crash or a read out of bounds, the books stay consistent
// (nothing ends more often than it was made or seen alive), the evidence is
// read back, and both reports can be written. The first byte picks the
// format and the way of reading.
#include <logcheck.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// A pipe's way: whatever piece the reader asks for, a few bytes at a time.
class Pieces : public logcheck::Source {
  public:
    Pieces(std::string_view bytes, size_t piece) : mBytes(bytes), mPiece(piece) {}
    long read(char* buffer, size_t size) override {
        const size_t n = std::min({size, mPiece, mBytes.size()});
        memcpy(buffer, mBytes.data(), n);
        mBytes.remove_prefix(n);
        return static_cast<long>(n);
    }

  private:
    std::string_view mBytes;
    size_t mPiece;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const auto format = static_cast<logcheck::Format>((data[0] & 0x0f) % 10);
    const bool inPieces = (data[0] & 0x10) != 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data + 1), size - 1);
    const int fd = memfd_create("log", MFD_CLOEXEC);
    if (fd < 0 || write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        abort();
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    auto open = [&]() -> std::unique_ptr<logcheck::Source> {
        if (inPieces) {
            return std::make_unique<Pieces>(bytes, 1 + (data[0] >> 5) * 997);
        }
        int failure = 0;
        std::string reason;
        return logcheck::openLog(path.c_str(), &failure, &reason);
    };
    logcheck::Checker checker;
    logcheck::InputStats stats;
    std::string error;
    const volatile sig_atomic_t stop = 0;
    if (auto source = open()) {
        logcheck::readLog(*source, format, checker, stats, &error, &stop);
    }
    checker.finish();
    std::map<uint64_t, std::string> texts;
    if (auto again = open()) {
        texts = logcheck::evidenceLines(*again, logcheck::citedLines(checker));
    }
    close(fd);
    static FILE* const sink = fopen("/dev/null", "w");
    logcheck::ReportOptions options;
    options.texts = &texts;
    logcheck::printHuman(sink, checker, stats, options);
    logcheck::printJson(sink, checker, stats, options);
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
