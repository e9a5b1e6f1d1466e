// SPDX-License-Identifier: Apache-2.0
// A log through the checker as the tool reads it, from a file, and what came
// out: findings as the tests name them, totals, and the input's counts.
#pragma once

#include <gtest/gtest.h>
#include <logcheck.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

struct Found {
    std::string kind;
    uint64_t object;
    std::string rule;  // "-" for none
    bool certain;
    bool processEnded;
    int boot;
    std::vector<uint64_t> evidence;
    std::string detail;
    int32_t pid = 0;
    std::string text() const {
        char head[96];
        snprintf(head, sizeof(head), "%s 0x%llx %s", kind.c_str(),
                 static_cast<unsigned long long>(object), rule.c_str());
        return std::string(head) + (certain ? "" : " uncertain") + (processEnded ? " ended" : "") +
               (boot != 0 ? " boot" + std::to_string(boot) : "");
    }
};

struct Checked {
    std::vector<Found> findings;
    std::vector<std::string> texts;  // sorted, as Found::text
    logcheck::Totals totals;
    size_t processes = 0;
    logcheck::InputStats stats;
    logcheck::Seen seen;
    logcheck::Verdict verdict = logcheck::Verdict::Clean;
    std::vector<logcheck::Caveat> caveats;
    std::vector<logcheck::Timeline> timelines;  // with their process's alive at the end
    std::vector<logcheck::Totals> endings;
};

inline Checked check(const std::string& log, logcheck::Format format = logcheck::Format::Auto) {
    const int fd = memfd_create("log", MFD_CLOEXEC);
    for (size_t at = 0; at < log.size();) {
        const ssize_t n = write(fd, log.data() + at, log.size() - at);
        at += n > 0 ? static_cast<size_t>(n) : log.size();
    }
    lseek(fd, 0, SEEK_SET);
    Checked checked;
    logcheck::Checker checker;
    std::string error;
    int failure = 0;
    const volatile sig_atomic_t stop = 0;
    auto source =
            logcheck::openLog(("/proc/self/fd/" + std::to_string(fd)).c_str(), &failure, &error);
    if (source) {
        logcheck::readLog(*source, format, checker, checked.stats, &error, &stop);
    }
    close(fd);
    checker.finish();
    checked.seen = checker.seen();
    checked.verdict = logcheck::verdict(checker);
    checked.caveats = checker.caveats();
    for (const logcheck::Process& process : checker.processes()) {
        ++checked.processes;
        checked.totals += process.totals;
        checked.timelines.push_back(process.timeline);
        checked.endings.push_back(process.totals);
        for (const logcheck::Finding& f : process.findings) {
            checked.findings.push_back({logcheck::kindName(f.kind), f.object,
                                        f.rule != nullptr ? f.rule : "-", f.certain, f.processEnded,
                                        f.boot, f.evidence, f.detail, f.pid});
            checked.texts.push_back(checked.findings.back().text());
        }
    }
    std::sort(checked.texts.begin(), checked.texts.end());
    return checked;
}

#ifdef LOGCHECK_PROGRAM
// The program as scripts run it (LOGCHECK_PROGRAM, under LOGCHECK_RUNNER):
// its exit status and its output, standard error included. The log is a
// file named last, standard input, or none (the logs are in the arguments).
enum class From { File, Stdin, None };
inline std::pair<int, std::string> program(const std::string& arguments,
                                           const std::string& input = "", From from = From::File) {
    char path[] = "/tmp/logcheck-XXXXXX";
    const int fd = mkstemp(path);
    EXPECT_EQ(write(fd, input.data(), input.size()), static_cast<ssize_t>(input.size()));
    close(fd);
    const std::string command = std::string(LOGCHECK_RUNNER " " LOGCHECK_PROGRAM " ") + arguments +
                                (from == From::File    ? std::string(" ") + path
                                 : from == From::Stdin ? std::string(" < ") + path
                                                       : std::string()) +
                                " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    std::string output;
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) {
        output.append(chunk, n);
    }
    const int status = WEXITSTATUS(pclose(pipe));
    unlink(path);
    return {status, output};
}

#endif

inline std::string counts(const logcheck::Count& count) {
    return std::to_string(count.created) + " " + std::to_string(count.before) + " " +
           std::to_string(count.ended);
}

}  // namespace testsupport
