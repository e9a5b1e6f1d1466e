// SPDX-License-Identifier: Apache-2.0
// The page as a person sees it: headless Chromium (CHROMIUM) opens the
// report of a phone's session with a seeded leak, runs its script, and
// draws it to a PNG. The DOM it ends with has the three series, a mark per
// leak and the first one called out; the console has no error.
#include <gmock/gmock.h>
#include <sim/logcat.h>
#include <sim/session.h>
#include <stdlib.h>

#include <fstream>
#include <sstream>

#include "support/logcheck_support.h"

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

std::string readAll(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// Chromium's standard output, standard error apart.
std::string chromium(const std::string& arguments, const std::string& errors) {
    const std::string command = std::string(CHROMIUM) +
                                " --headless --no-sandbox --disable-gpu --hide-scrollbars "
                                "--enable-logging=stderr --v=0 " +
                                arguments + " 2>" + errors;
    FILE* pipe = popen(command.c_str(), "r");
    std::string output;
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) {
        output.append(chunk, n);
    }
    EXPECT_EQ(WEXITSTATUS(pclose(pipe)), 0) << readAll(errors);
    return output;
}

TEST(PageTest, ChromiumDrawsTheLeakWithItsScriptRunAndNoError) {
    sim::session::Options options;
    options.seed = 5;
    options.broken = sim::session::Rule::RecordLifetime;
    options.requests = 400;
    options.requestThreads = 3;
    const sim::session::Truth truth = sim::session::run(options);
    ASSERT_FALSE(truth.findings.empty());
    sim::logcat::Phone phone;
    phone.seed = 5;
    phone.noise = 4;
    const std::string dir = OUTPUT_DIR;
    const std::string page = dir + "/logcheck-page.html";
    const std::string png = dir + "/logcheck-page.png";
    const std::string errors = dir + "/logcheck-page.chromium.log";
    unlink(png.c_str());
    const auto [status, output] =
            testsupport::program("--html " + page, sim::logcat::phoneLog(truth.lines, phone));
    ASSERT_EQ(status, 1) << output;

    const std::string dom = chromium("--dump-dom file://" + page, errors);
    EXPECT_THAT(dom, HasSubstr("data-ready=\"1\"")) << "the script ran to its end";
    for (const char* family : {"records", "chi-metas", "debug-data"}) {
        EXPECT_THAT(dom, HasSubstr(std::string("<g class=\"family ") + family)) << family;
    }
    EXPECT_THAT(dom, HasSubstr("data-kind=\"record-leak\""));
    EXPECT_THAT(dom, HasSubstr("<g class=\"callout\" data-rule=\"record-lifetime\">"));
    const std::string console = readAll(errors);
    EXPECT_THAT(console, Not(HasSubstr("CONSOLE"))) << console;
    EXPECT_THAT(console, Not(HasSubstr("Uncaught"))) << console;

    chromium("--window-size=1040,760 --screenshot=" + png + " file://" + page, errors);
    const std::string picture = readAll(png);
    ASSERT_GT(picture.size(), 8u);
    EXPECT_EQ(picture.substr(0, 8), "\x89PNG\r\n\x1a\n");
    // A blank page compresses to a few KiB; the chart and the table do not.
    EXPECT_GT(picture.size(), 30000u);
}

}  // namespace
