// SPDX-License-Identifier: Apache-2.0
// postproc-logcheck: rebuilds libpostprocinfo's ledger from a phone's log
// and names the host rule that a leak, a double destroy or an underflow
// most likely broke.
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "logcheck.h"

namespace {

volatile sig_atomic_t gInterrupted = 0;

void onInterrupt(int) {
    gInterrupted = 1;
}

const char kUsage[] =
        "usage: postproc-logcheck [-v FORMAT] [-B] [--json] [FILE...]\n"
        "Rebuilds libpostprocinfo's ledger from a log (adb logcat's output) and reports\n"
        "what its host broke: leaks, double destroys, references below zero.\n"
        "\n"
        "  -v, --format=FORMAT  threadtime, brief, time or long, with any modifiers\n"
        "                       (default: recognised line by line)\n"
        "  -B, --binary         the input is adb logcat -B (default: recognised)\n"
        "      --json           one JSON object on standard output\n"
        "  -h, --help           this text\n"
        "\n"
        "Files are read one after another (\"-\" or none: standard input); line numbers\n"
        "run on across them. Reading a pipe, findings are printed as they are found;\n"
        "the summary follows at the end of input or on Ctrl-C.\n"
        "Exit status: 0 no finding, 1 findings, 2 usage error or unreadable input.\n";

int usageError(const char* reason) {
    fprintf(stderr, "postproc-logcheck: %s\n%s", reason, kUsage);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    static const option kOptions[] = {{"format", required_argument, nullptr, 'v'},
                                      {"binary", no_argument, nullptr, 'B'},
                                      {"json", no_argument, nullptr, 'j'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    logcheck::Format format = logcheck::Format::Auto;
    bool json = false;
    int option;
    while ((option = getopt_long(argc, argv, "v:Bh", kOptions, nullptr)) != -1) {
        switch (option) {
            case 'v': {
                // logcat's modifiers (year, usec, UTC, zone, uid, epoch, ...)
                // are recognised in the text; only the format names count.
                logcheck::Format named;
                if (logcheck::parseFormat(optarg, &named)) {
                    format = named;
                } else if (strchr(optarg, ',') == nullptr &&
                           strstr("color usec nsec printable year zone UTC epoch monotonic uid "
                                  "descriptive",
                                  optarg) == nullptr) {
                    return usageError((std::string("unknown format: ") + optarg).c_str());
                }
                break;
            }
            case 'B':
                format = logcheck::Format::Binary;
                break;
            case 'j':
                json = true;
                break;
            case 'h':
                fputs(kUsage, stdout);
                return 0;
            default:
                return usageError("unknown option");
        }
    }
    std::vector<const char*> files(argv + optind, argv + argc);
    if (files.empty()) {
        files.push_back("-");
    }

    struct sigaction action = {};
    action.sa_handler = onInterrupt;  // no SA_RESTART: a blocked read returns
    sigaction(SIGINT, &action, nullptr);

    struct stat status = {};
    const bool live = !json && files.size() == 1 && strcmp(files[0], "-") == 0 &&
                      fstat(STDIN_FILENO, &status) == 0 && !S_ISREG(status.st_mode);
    logcheck::Checker checker([live](const logcheck::Finding& finding) {
        if (live) {
            printf("finding: %s\n", logcheck::describe(finding).c_str());
            fflush(stdout);
        }
    });
    logcheck::InputStats stats;
    stats.format = format;
    for (const char* file : files) {
        const bool standardInput = strcmp(file, "-") == 0;
        const int fd = standardInput ? STDIN_FILENO : open(file, O_RDONLY | O_CLOEXEC);
        int error = fd < 0 ? errno : 0;
        if (fd < 0 || !logcheck::readLog(fd, format, checker, stats, &error, &gInterrupted)) {
            fprintf(stderr, "postproc-logcheck: %s: %s\n", standardInput ? "standard input" : file,
                    error == ENOTSUP ? "binary input needs a build with liblog; read logcat's text"
                                     : strerror(error));
            return 2;
        }
        if (!standardInput) {
            close(fd);
        }
    }
    stats.interrupted = gInterrupted != 0;
    checker.finish();
    if (json) {
        logcheck::printJson(stdout, checker, stats);
    } else {
        logcheck::printHuman(stdout, checker, stats);
    }
    for (const logcheck::Process& process : checker.processes()) {
        if (!process.findings.empty()) {
            return 1;
        }
    }
    return 0;
}
