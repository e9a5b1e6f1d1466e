// SPDX-License-Identifier: Apache-2.0
// postproc-logcheck: rebuilds libpostprocinfo's ledger from a phone's log
// and names the host rule that a leak, a double destroy or an underflow
// most likely broke.
#include <errno.h>
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
        "usage: postproc-logcheck [-v FORMAT] [-B] [--json] [--all] [FILE...]\n"
        "Rebuilds libpostprocinfo's ledger from a log and reports what its host broke:\n"
        "leaks, double destroys, references below zero.\n"
        "\n"
        "  -v, --format=FORMAT  logcat's -v words: threadtime, brief, time, long, tag,\n"
        "                       process, thread, with any modifiers (color, uid, year,\n"
        "                       usec, nsec, zone, UTC, epoch, monotonic, printable,\n"
        "                       descriptive); default: recognised line by line\n"
        "  -B, --binary         the input is adb logcat -B (default: recognised)\n"
        "      --json           one JSON object on standard output\n"
        "      --all            every finding, also past a screenful\n"
        "  -h, --help           this text\n"
        "\n"
        "A FILE is a log (adb logcat's output, -B's too), a bug report (its text, or\n"
        "its .zip), or either gzipped; \"-\" or none is standard input. Files are read\n"
        "one after another; line numbers run on across them. Reading a pipe, findings\n"
        "are printed as they are found; the summary follows at the end of input or on\n"
        "Ctrl-C.\n"
        "Exit status: 0 clean, 1 findings, 2 usage error or unreadable input,\n"
        "3 nothing checked (no line of the library's in the input).\n";

int usageError(const std::string& reason) {
    fprintf(stderr, "postproc-logcheck: %s\n%s", reason.c_str(), kUsage);
    return 2;
}

struct Input {
    const char* path;
    uint64_t firstLine;  // the line numbers it holds
    uint64_t lastLine;
};

}  // namespace

int main(int argc, char** argv) {
    static const option kOptions[] = {
            {"format", required_argument, nullptr, 'v'}, {"binary", no_argument, nullptr, 'B'},
            {"json", no_argument, nullptr, 'j'},         {"all", no_argument, nullptr, 'a'},
            {"help", no_argument, nullptr, 'h'},         {nullptr, 0, nullptr, 0}};
    logcheck::Format format = logcheck::Format::Auto;
    logcheck::ReportOptions report;
    bool json = false;
    int option;
    while ((option = getopt_long(argc, argv, "v:Bh", kOptions, nullptr)) != -1) {
        switch (option) {
            case 'v': {
                logcheck::Format named;
                if (!logcheck::parseFormat(optarg, &named)) {
                    return usageError(std::string("unknown format: ") + optarg);
                }
                // logcat takes -v once per word: a format named before stays.
                format = named != logcheck::Format::Auto ? named : format;
                break;
            }
            case 'B':
                format = logcheck::Format::Binary;
                break;
            case 'j':
                json = true;
                break;
            case 'a':
                report.all = true;
                break;
            case 'h':
                fputs(kUsage, stdout);
                return 0;
            default:
                return usageError("unknown option");
        }
    }
    std::vector<Input> inputs;
    for (int i = optind; i < argc; ++i) {
        inputs.push_back({argv[i], 0, 0});
    }
    if (inputs.empty()) {
        inputs.push_back({"-", 0, 0});
    }

    struct sigaction action = {};
    action.sa_handler = onInterrupt;  // no SA_RESTART: a blocked read returns
    sigaction(SIGINT, &action, nullptr);

    struct stat status = {};
    const bool live = !json && inputs.size() == 1 && strcmp(inputs[0].path, "-") == 0 &&
                      fstat(STDIN_FILENO, &status) == 0 && !S_ISREG(status.st_mode);
    logcheck::Checker checker([live](const logcheck::Finding& finding) {
        if (live) {
            printf("finding: %s\n", logcheck::describe(finding).c_str());
            fflush(stdout);
        }
    });
    logcheck::InputStats stats;
    stats.format = format;
    for (Input& input : inputs) {
        const bool standardInput = strcmp(input.path, "-") == 0;
        const char* name = standardInput ? "standard input" : input.path;
        int error = 0;
        std::string reason;
        std::unique_ptr<logcheck::Source> source = logcheck::openLog(input.path, &error, &reason);
        input.firstLine = stats.lines + 1;
        if (!source ||
            !logcheck::readLog(*source, format, checker, stats, &reason, &gInterrupted)) {
            fprintf(stderr, "postproc-logcheck: %s: %s\n", name,
                    !reason.empty() ? reason.c_str() : strerror(error));
            return 2;
        }
        input.lastLine = stats.lines;
    }
    stats.interrupted = gInterrupted != 0;
    checker.finish();

    // The evidence lines' texts, from every input that can be read again.
    std::map<uint64_t, std::string> texts;
    const std::vector<uint64_t> cited = logcheck::citedLines(checker);
    for (const Input& input : inputs) {
        std::vector<uint64_t> own;
        for (uint64_t line : cited) {
            if (line >= input.firstLine && line <= input.lastLine) {
                own.push_back(line - input.firstLine + 1);
            }
        }
        int error = 0;
        std::string reason;
        std::unique_ptr<logcheck::Source> again;
        if (!own.empty() && strcmp(input.path, "-") != 0 &&
            (again = logcheck::openLog(input.path, &error, &reason))) {
            for (auto& [line, text] : logcheck::evidenceLines(*again, own)) {
                texts.emplace(line + input.firstLine - 1, std::move(text));
            }
        }
    }
    report.texts = &texts;
    if (json) {
        logcheck::printJson(stdout, checker, stats, report);
    } else {
        logcheck::printHuman(stdout, checker, stats, report);
    }
    return logcheck::exitStatus(logcheck::verdict(checker));
}
