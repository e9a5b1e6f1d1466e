// SPDX-License-Identifier: Apache-2.0
// The log checker on the logs phones produce: every logcat form, colour and
// stray blanks, bug reports and their zips, logd's chatty lines, processes
// that die and come back under the same pid, lines longer than any buffer,
// a log cut inside a destructor, lines lost; and the program as people and
// scripts run it. The random sessions are logcheck_model_test's.
#include <sim/logcat.h>
#include <sim/session.h>
#include <sys/wait.h>
#include <unistd.h>
#include <ziparchive/zip_writer.h>
#include <zlib.h>
#include <nlohmann/json.hpp>

#include "support/logcheck_support.h"
#include "support/sim_test.h"

using adapter::QcomPostProcInfo;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testsupport::check;
using testsupport::Checked;
using testsupport::counts;
using testsupport::From;
using testsupport::hex;
using testsupport::program;

namespace {

// A threadtime line of the library's, or of another tag.
std::string lib(int pid, int tid, char priority, const std::string& function,
                const std::string& message) {
    char head[64];
    snprintf(head, sizeof(head), "11-23 10:00:00.000 %5d %5d %c KyCamAdapter: ", pid, tid,
             priority);
    return head + std::string("KYA_RECORD QcomPostProcInfo.cpp:1 ") + function + "()" + message +
           "\n";
}

std::string other(int pid, int tid, char priority, const char* tag, const std::string& message) {
    char head[64];
    snprintf(head, sizeof(head), "11-23 10:00:00.000 %5d %5d %c %-8s: ", pid, tid, priority, tag);
    return head + message + "\n";
}

std::string construct(int pid, int tid, const char* record, int sum) {
    return lib(pid, tid, 'D', "QcomPostProcInfo",
               std::string("Construct QcomPostProcInfo ") + record + ", after sum " +
                       std::to_string(sum));
}

std::string destruct(int pid, int tid, const char* record, int sum) {
    return lib(pid, tid, 'D', "~QcomPostProcInfo",
               std::string("Destruct  QcomPostProcInfo ") + record + ", before sum " +
                       std::to_string(sum));
}

// A record made on one thread and ended on another, with a debug buffer the
// manager referenced; and one never ended.
std::string leakingProcess(int pid) {
    return construct(pid, pid + 10, "0xaaaa", 1) +
           lib(pid, pid + 10, 'D', "addDebugDataAndRef",
               "PostProcsInfo 0xaaaa add DebugDataPtr 0xd0001 ref 1") +
           lib(pid, pid + 10, 'D', "keep3aDebugData",
               "[Offline DebugData] PostProcsInfo 0xaaaa add phycamId 0 3adebugData pData:0xd0001 "
               "after add ref is 1") +
           construct(pid, pid + 10, "0xbbbb", 2) + destruct(pid, pid + 20, "0xaaaa", 2) +
           lib(pid, pid + 20, 'D', "~QcomPostProcInfo",
               "[Offline DebugData] PostProcsInfo 0xaaaa mEnableIQBM 1 destruct debugData "
               "pData:0xd0001 after dec ref is 0");
}

// A record made and ended, with the count of records alive once it is made.
std::string cleanProcess(int pid, int sum = 1) {
    return construct(pid, pid + 10, "0xcccc", sum) + destruct(pid, pid + 20, "0xcccc", sum);
}

constexpr int32_t kWidePid = 1234567;

class LogcheckTest : public testsupport::SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        sim::kycam::setLogConfig(0, 64 | 128, 0);
    }
    void TearDown() override {
        leftovers.clear();
        SimTest::TearDown();
    }
    // One record never destroyed, among others made and ended.
    std::vector<sim::kycam::LogLine> leakingSession() {
        adapter::PostProcInfoMetaAttributes none = {};
        std::set<std::string> ids = {"0", "1"};
        for (int i = 0; i < 2; ++i) {
            auto record = std::make_unique<QcomPostProcInfo>();
            record->createPrivResultMeta(ids, true, none);
            leftovers.push_back(std::move(record));
        }
        leftovers.erase(leftovers.begin());
        // A pid wider than logcat's column.
        return sim::logcat::androidLines(kWidePid);
    }
    std::vector<std::unique_ptr<QcomPostProcInfo>> leftovers;
};

TEST_F(LogcheckTest, EveryLogcatFormatAndModifierIsRead) {
    const std::vector<sim::kycam::LogLine> lines = leakingSession();
    const std::string leak = "record-leak " + hex(leftovers[0].get()) + " record-lifetime";
    using logcheck::Format;
    const struct {
        const char* format;
        bool threads;
        Format seen;
        bool pid;
    } kFormats[] = {{"threadtime", true, Format::Threadtime, true},
                    {"threadtime,color", true, Format::Threadtime, true},
                    {"threadtime,uid,year,zone", true, Format::Threadtime, true},
                    {"threadtime,nsec,printable", true, Format::Threadtime, true},
                    {"threadtime,epoch,UTC", true, Format::Threadtime, true},
                    {"threadtime,monotonic,descriptive", true, Format::Threadtime, true},
                    {"long,usec,uid", true, Format::Long, true},
                    {"long,color", true, Format::Long, true},
                    {"thread", true, Format::Thread, true},
                    {"thread,uid,color", true, Format::Thread, true},
                    {"binary", true, Format::Binary, true},
                    {"brief,color", false, Format::Brief, true},
                    {"time,year,uid", false, Format::Time, true},
                    {"tag", false, Format::Tag, false},
                    {"tag,color", false, Format::Tag, false},
                    {"process", false, Format::Process, true},
                    {"process,uid,color", false, Format::Process, true}};
    for (const auto& [format, threads, seen, pid] : kFormats) {
        SCOPED_TRACE(format);
        const Checked got = check(sim::logcat::write(lines, format));
        // A record names itself: no thread is needed to find it.
        EXPECT_THAT(got.texts, ElementsAre(leak));
        EXPECT_EQ(counts(got.totals.records), "2 0 1");
        EXPECT_EQ(got.seen.threadIds, threads);
        EXPECT_EQ(got.stats.format, seen);
        ASSERT_EQ(got.findings.size(), 1u);
        EXPECT_EQ(got.findings[0].pid, pid ? kWidePid : 0);
    }
    // -v raw keeps the messages but not the tag: nothing can be checked.
    const Checked raw = check(sim::logcat::write(lines, "raw"));
    EXPECT_EQ(raw.verdict, logcheck::Verdict::NothingChecked);
    EXPECT_EQ(raw.stats.rawLibraryLines, lines.size());
}

TEST_F(LogcheckTest, ColourBlanksAndCarriageReturnsAroundALineAreTakenOff) {
    const std::string line = construct(1234, 1300, "0xaaaa", 1);
    const std::string bare = line.substr(0, line.size() - 1);
    for (const std::string& variant :
         {"\x1b[38;5;75m" + bare + "\x1b[0m\n", "\x1b[34m" + bare + "\x1b[0m \r\n", bare + " \n",
          bare + "\t\n", bare + "\r\r\n", bare}) {
        SCOPED_TRACE(variant);
        EXPECT_THAT(check(variant).texts, ElementsAre("record-leak 0xaaaa record-lifetime"));
    }
}

TEST_F(LogcheckTest, ARecordAtTheAddressOfAnEndedOneIsANewOne) {
    // Made on one thread, ended on another, made again at once at the same
    // address on a third, which keeps a buffer that the second thread gives
    // back at the end.
    const std::string log =
            construct(2101, 2111, "0xaaaa", 1) + destruct(2101, 2121, "0xaaaa", 1) +
            construct(2101, 2113, "0xaaaa", 1) +
            lib(2101, 2113, 'D', "addDebugDataAndRef",
                "PostProcsInfo 0xaaaa add DebugDataPtr 0xd0001 ref 1") +
            lib(2101, 2113, 'D', "keep3aDebugData",
                "[Offline DebugData] PostProcsInfo 0xaaaa add phycamId 0 3adebugData pData:0xd0001 "
                "after add ref is 1") +
            destruct(2101, 2121, "0xaaaa", 1) +
            lib(2101, 2121, 'D', "~QcomPostProcInfo",
                "[Offline DebugData] PostProcsInfo 0xaaaa mEnableIQBM 1 destruct debugData "
                "pData:0xd0001 after dec ref is 0");
    const Checked got = check(log);
    EXPECT_THAT(got.texts, IsEmpty());
    EXPECT_EQ(counts(got.totals.records), "2 0 2");
    EXPECT_EQ(counts(got.totals.debugData), "1 0 1");
}

TEST_F(LogcheckTest, ALogStartingInsideADestructorOwesNothing) {
    const std::string log =
            lib(1234, 1301, 'D', "~QcomPostProcInfo",
                "[Offline DebugData] PostProcsInfo 0xaaaa mEnableIQBM 1 destruct debugData "
                "pData:0xd0001 after dec ref is 0") +
            construct(1234, 1302, "0xaaaa", 1) + destruct(1234, 1301, "0xaaaa", 1);
    const Checked got = check(log);
    EXPECT_THAT(got.texts, IsEmpty());
    EXPECT_EQ(counts(got.totals.records), "1 1 2");
    EXPECT_EQ(counts(got.totals.debugData), "0 1 1");
}

TEST_F(LogcheckTest, ChattyFoldsOnlyWhatItFolds) {
    const std::string chatty = "uid=1047(cameraserver) provider@2.4-se identical 12 lines";
    const std::string leak = construct(1234, 1300, "0xaaaa", 1);
    // Another tag's lines folded on the provider's thread: nothing lost,
    // also when another process logged the library's line before them.
    for (const std::string& between : {std::string(), construct(999, 999, "0x9999", 1)}) {
        const Checked folded =
                check(leak + between + other(1234, 1300, 'D', "CamX", "request queued") +
                      other(1234, 1300, 'I', "chatty", chatty) + cleanProcess(1234, 2));
        EXPECT_THAT(folded.texts, Contains("record-leak 0xaaaa record-lifetime"));
        EXPECT_THAT(folded.caveats, IsEmpty());
    }
    // Copies of a library line that changes nothing (a buffer held already)
    // lose nothing; copies of one that changes the books cannot be.
    const std::string keep = lib(1234, 1300, 'D', "keep3aDebugData",
                                 "[Offline DebugData] PostProcsInfo 0xaaaa add phycamId 0 "
                                 "3adebugData pData:0xd0001 after add ref is -1");
    const Checked copies = check(leak + keep + other(1234, 1300, 'I', "chatty", chatty));
    EXPECT_EQ(counts(copies.totals.debugData), "0 1 0");
    EXPECT_THAT(copies.caveats, IsEmpty());
    std::string taken = keep;
    taken.replace(taken.find("ref is -1"), 9, "ref is 1");
    for (const std::string& changes : {std::string(), taken}) {
        const Checked impossible = check(leak + changes + other(1234, 1300, 'I', "chatty", chatty));
        EXPECT_THAT(impossible.texts, Contains("record-leak 0xaaaa record-lifetime uncertain"));
    }
    // Expired lines may have been the library's: later findings are not asserted.
    const Checked expired =
            check(leak + other(1234, 1300, 'I', "chatty",
                               "uid=1047(cameraserver) provider@2.4-se expire 3 lines"));
    EXPECT_THAT(expired.texts, ElementsAre("record-leak 0xaaaa record-lifetime uncertain"));
    EXPECT_EQ(expired.caveats.size(), 1u);
}

TEST_F(LogcheckTest, LinesLostInASessionShowInItsSumsAndNothingIsAsserted) {
    // A session long enough that the sums are checked well past their window.
    sim::session::Options options;
    options.seed = 20;
    options.requestThreads = 1;
    options.requests = 1500;
    const sim::session::Truth truth = sim::session::run(options);
    const Checked whole = check(sim::logcat::write(truth.lines));
    EXPECT_THAT(whole.texts, IsEmpty());
    EXPECT_EQ(whole.totals.chiMetas.ended, truth.chiMetas.ended);
    std::vector<sim::kycam::LogLine> kept;
    for (size_t i = 0; i < truth.lines.size(); ++i) {
        if (i < truth.lines.size() * 3 / 4 || i % 20 != 0) {
            kept.push_back(truth.lines[i]);
        }
    }
    const Checked got = check(sim::logcat::write(kept));
    EXPECT_THAT(got.texts, Contains(HasSubstr("lines-lost")));
    for (const testsupport::Found& f : got.findings) {
        EXPECT_TRUE(f.kind == "lines-lost" || !f.certain) << f.text();
    }
    // One Destroy line lost between two lines of another thread: its next
    // sum is one below what any order of the logged changes gives.
    auto create = [](int tid, const char* object, int sum) {
        return lib(1234, tid, 'I', "createChiMeta",
                   std::string("Create ChiMeta ") + object +
                           " ref 0 isMultiTypeContextMeta 0 isMultiCameraContextMeta 0 "
                           "ChimetaSum " +
                           std::to_string(sum));
    };
    const Checked sums = check(
            create(1300, "0x51", 1) + create(1300, "0x52", 2) +
            lib(1234, 1301, 'I', "destroyChiMeta", "Destroy ChiMeta 0x51 ref 0 ChimetaSum 1") +
            create(1300, "0x53", 1));
    ASSERT_THAT(sums.texts, Contains("lines-lost 0x0 -"));
    EXPECT_EQ(sums.findings[0].detail,
              "ChimetaSum 1 disagrees with the objects the log made and ended");
    EXPECT_THAT(sums.findings[0].evidence, ElementsAre(4u));
}

TEST_F(LogcheckTest, EachFindingSaysWhatHappenedWithItsEvidenceLines) {
    const std::string create =
            lib(1234, 1300, 'I', "createChiMeta",
                "Create ChiMeta 0x51 ref 0 isMultiTypeContextMeta 0 isMultiCameraContextMeta 0 "
                "ChimetaSum 1");
    const std::string held =
            construct(1234, 1300, "0xaaaa", 1) + create +
            lib(1234, 1300, 'D', "createPrivResultMeta",
                "PostProcsInfo 0xaaaa m_pPrivResult 0x51 request phyCamIdSet size 0 "
                "mSamelogical_PhyResult 0") +
            lib(1234, 1300, 'D', "addChiMetasRef", "PostProcsInfo 0xaaaa m_pPrivResult 0x51 ref 1");
    const std::string kept =
            construct(1234, 1300, "0xaaaa", 1) +
            lib(1234, 1300, 'D', "addDebugDataAndRef",
                "PostProcsInfo 0xaaaa add DebugDataPtr 0xd0001 ref 1") +
            lib(1234, 1300, 'D', "keep3aDebugData",
                "[Offline DebugData] PostProcsInfo 0xaaaa add phycamId 0 3adebugData pData:0xd0001 "
                "after add ref is 1");
    const struct {
        std::string log;
        std::string text;
        std::string detail;
        std::vector<uint64_t> evidence;
    } kCases[] = {
            {create,
             "chi-meta-leak 0x51 - uncertain",
             "made by createChiMeta for no record the log shows",
             {1}},
            {held,
             "record-leak 0xaaaa record-lifetime",
             "never destroyed; holds 1 CHI metadata object(s) and 0 debug buffer(s)",
             {1, 4}},
            // The Destruct line is missing before the destructor's own.
            {construct(1234, 1300, "0xaaaa", 1) +
                     lib(1234, 1301, 'D', "~QcomPostProcInfo",
                         "[Offline DebugData] PostProcsInfo 0xaaaa mEnableIQBM 1 destruct "
                         "debugData pData:0xd0001 after dec ref is 0"),
             "lines-lost 0xaaaa -",
             "a destructor's line with no Destruct line before it",
             {2}},
            {kept + destruct(1234, 1301, "0xaaaa", 1),
             "debug-data-leak 0xd0001 - uncertain",
             "its record's destructor had not finished when the log ended",
             {2, 4}},
            {kept +
                     lib(1234, 1300, 'D', "createTuningParams",
                         "PostProcsInfo 0xaaaa mTuningParam:0x7100") +
                     destruct(1234, 1301, "0xaaaa", 1) +
                     lib(1234, 1301, 'D', "~QcomPostProcInfo",
                         "PostProcsInfo 0xaaaa free data:0xd0001"),
             "debug-data-leak 0xd0001 tuning-params-free",
             "freed by record 0xaaaa, which had taken a reference on it: the reference is never "
             "given back",
             {2, 6}},
            // The HAL dropped a reference it never took.
            {held +
                     lib(1234, 1300, 'D', "checkAndUpdatePrivResult",
                         "PostProcsInfo 0xaaaa the chi meta: 0x51 AddReference ref: 2") +
                     lib(1234, 1300, 'D', "checkAndUpdatePrivResult",
                         "PostProcsInfo 0xaaaa the chi meta: 0x51 ReleaseReference ref: 0"),
             "reference-underflow 0x51 hal-references",
             "count 0 below the 1 references the library holds",
             {6}},
            // It dropped its reference before the result came back.
            {held + lib(1234, 1300, 'D', "checkAndUpdatePrivResult",
                        "PostProcsInfo 0xaaaa the chi meta: 0x51 AddReference ref: 1"),
             "reference-underflow 0x51 hal-references",
             "count 1 below the 2 references the library holds",
             {5}},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.log);
        const Checked got = check(c.log);
        const auto found = std::find_if(got.findings.begin(), got.findings.end(),
                                        [&](const auto& f) { return f.text() == c.text; });
        ASSERT_NE(found, got.findings.end()) << ::testing::PrintToString(got.texts);
        EXPECT_EQ(found->detail, c.detail);
        EXPECT_EQ(found->evidence, c.evidence);
    }
}

std::string bugReport(const std::string& current, const std::string& previous) {
    return "========================================================\n"
           "== dumpstate: 2026-11-23 10:00:00\n"
           "========================================================\n"
           "------ SYSTEM LOG (logcat -v threadtime -v printable -v uid -d *:v) ------\n" +
           current +
           "------ 0.125s was the duration of 'SYSTEM LOG' ------\n"
           "------ DUMPSYS MEDIA.CAMERA (dumpsys media.camera) ------\n" +
           construct(1234, 1300, "0xdead", 1) +  // dumped text, not a log
           "------ 0.010s was the duration of 'DUMPSYS MEDIA.CAMERA' ------\n"
           "------ LAST LOGCAT (logcat -L -b all -v threadtime -v printable -v uid -d *:v) "
           "------\n" +
           previous + "------ 0.201s was the duration of 'LAST LOGCAT' ------\n";
}

TEST_F(LogcheckTest, ABugReportsPreviousBootIsALedgerOfItsOwnEndedByTheReboot) {
    for (int previousPid : {1234, 999}) {
        SCOPED_TRACE(previousPid);
        const Checked got = check(bugReport(cleanProcess(1234) + construct(1234, 1300, "0xeeee", 2),
                                            leakingProcess(previousPid)));
        // The live process's record is in flight; the previous boot's ended
        // with the reboot.
        EXPECT_THAT(got.texts, ElementsAre("record-leak 0xbbbb record-lifetime ended boot1",
                                           "record-leak 0xeeee record-lifetime"));
        EXPECT_TRUE(got.stats.bugReport);
        EXPECT_EQ(got.processes, 2u);
    }
}

TEST_F(LogcheckTest, ABugReportZipAndAGzippedLogAreReadDirectly) {
    const std::string text = bugReport(cleanProcess(1234), leakingProcess(1234));
    std::vector<std::string> paths;
#ifndef LOGCHECK_NO_ZIP  // a build without the zip reader, as the phone's
    char zipPath[] = "/tmp/bugreport-XXXXXX";
    FILE* file = fdopen(mkstemp(zipPath), "w");
    ZipWriter writer(file);
    const std::string mainEntry = "bugreport-phone-2026-11-23.txt";
    ASSERT_EQ(writer.StartEntry("main_entry.txt", ZipWriter::kCompress), 0);
    writer.WriteBytes(mainEntry.data(), mainEntry.size());
    writer.FinishEntry();
    writer.StartEntry("FS/data/tombstones/tombstone_00", ZipWriter::kCompress);
    writer.FinishEntry();
    writer.StartEntry(mainEntry.c_str(), ZipWriter::kCompress);
    writer.WriteBytes(text.data(), text.size());
    writer.FinishEntry();
    ASSERT_EQ(writer.Finish(), 0);
    fclose(file);
    paths.push_back(zipPath);
#endif
    char gzPath[] = "/tmp/logcat-XXXXXX";
    close(mkstemp(gzPath));
    gzFile gz = gzopen(gzPath, "wb");
    gzwrite(gz, text.data(), static_cast<unsigned>(text.size()));
    gzclose(gz);
    paths.push_back(gzPath);
    for (const std::string& path : paths) {
        SCOPED_TRACE(path);
        logcheck::Checker checker;
        logcheck::InputStats stats;
        std::string error;
        int failure = 0;
        const volatile sig_atomic_t stop = 0;
        auto source = logcheck::openLog(path.c_str(), &failure, &error);
#ifdef LOGCHECK_NO_ZIP
        // The phone's build reads logcat's text, and says so.
        EXPECT_FALSE(source);
        EXPECT_EQ(error, "compressed: this build reads text; unzip or zcat it first");
        unlink(path.c_str());
        continue;
#endif
        ASSERT_TRUE(source) << error;
        ASSERT_TRUE(
                logcheck::readLog(*source, logcheck::Format::Auto, checker, stats, &error, &stop));
        checker.finish();
        EXPECT_TRUE(stats.bugReport);
        EXPECT_EQ(logcheck::verdict(checker), logcheck::Verdict::Findings);
        EXPECT_EQ(checker.libraryLines(), 8u);
        unlink(path.c_str());
    }
}

TEST_F(LogcheckTest, DeathLinesInEveryWordingEndTheProcessAndNothingElseDoes) {
    const struct {
        const char* tag;
        char priority;
        int pid;  // that logs it
        const char* message;
        bool death;
    } kLines[] = {
            {"init", 'I', 1, "Service 'vendor.camera-provider-2-4' (pid 1234) received signal 9",
             true},
            {"init", 'I', 1, "Service 'vendor.camera-provider-2-4' (pid 1234) killed by signal 6",
             true},
            {"init", 'I', 1,
             "Service 'vendor.camera-provider-2-4' (pid 1234) exited with status 0 oneshot service "
             "took 1.2 seconds in background",
             true},
            {"init", 'I', 1, "Untracked pid 1234 received signal 9", true},
            {"libc", 'F', 1234,
             "Fatal signal 6 (SIGABRT), code -1 (SI_QUEUE) in tid 1301 (HwBinder:1234_1), pid 1234 "
             "(provider@2.4-se)",
             true},
            {"libc", 'F', 1234,
             "Fatal signal 11 (SIGSEGV), code 1, fault addr 0x0 in tid 1301 (HwBinder)", true},
            {"DEBUG", 'F', 1600,
             "pid: 1234, tid: 1301, name: HwBinder:1234_1  >>> "
             "/vendor/bin/hw/android.hardware.camera.provider@2.4-service_64 <<<",
             true},
            {"DEBUG", 'D', 1500, "onServiceConnected pid: 1234", false},
            {"init", 'I', 1,
             "Sending signal 9 to service 'vendor.camera-provider-2-4' (pid 1234) process group...",
             false},
            {"libc", 'W', 1234, "Access denied finding property \"ro.vendor.camera\", pid 1234",
             false},
    };
    for (const auto& line : kLines) {
        SCOPED_TRACE(line.message);
        // The pid comes back as a new provider, whose record is ended.
        const Checked got = check(construct(1234, 1300, "0xaaaa", 1) +
                                  other(line.pid, line.pid, line.priority, line.tag, line.message) +
                                  cleanProcess(1234));
        if (line.death) {
            EXPECT_THAT(got.texts, ElementsAre("record-leak 0xaaaa record-lifetime ended"));
            EXPECT_EQ(got.processes, 2u);
        } else {
            EXPECT_THAT(got.texts, ElementsAre("lines-lost 0xcccc -",
                                               "record-leak 0xaaaa record-lifetime uncertain"));
            EXPECT_EQ(got.processes, 1u);
        }
    }
    // A provider back under a new pid, with no death line, replaced the old one.
    EXPECT_THAT(check(construct(1234, 1300, "0xaaaa", 1) + cleanProcess(1400)).texts,
                ElementsAre("record-leak 0xaaaa record-lifetime ended"));
}

TEST_F(LogcheckTest, ALineLongerThanAnyBufferIsOneLine) {
    const std::string tail = construct(1, 1, "0xf", 1);
    const std::string log =
            other(1500, 1500, 'I', "dumpsys",
                  std::string(200000, 'x') + " " + tail.substr(0, tail.size() - 1)) +
            other(1500, 1500, 'I', "dumpsys", "done") + construct(1234, 1300, "0xaaaa", 1);
    const Checked got = check(log);
    ASSERT_THAT(got.texts, ElementsAre("record-leak 0xaaaa record-lifetime"));
    EXPECT_THAT(got.findings[0].evidence, ElementsAre(3u));
    EXPECT_EQ(got.stats.lines, 3u);
    EXPECT_EQ(got.stats.skipped, 1u);
}

std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

TEST_F(LogcheckTest, TheVerdictComesFirstWithAnExitStatusOfItsOwn) {
    using Answer = std::pair<int, std::string>;
    const struct {
        std::string input;
        Answer answer;
    } kCases[] = {
            {cleanProcess(1234),
             {0, "postproc-logcheck: clean: 2 library lines in 1 process, no finding"}},
            {construct(1234, 1300, "0xaaaa", 1),
             {1, "postproc-logcheck: 1 finding (0 uncertain) in 1 process: 1 record-leak"}},
            {"", {3, "postproc-logcheck: nothing checked: the input is empty"}},
            {other(1100, 1100, 'I', "CameraService", "frame 1"),
             {3, "postproc-logcheck: nothing checked: no KyCamAdapter line in 1 lines"}},
    };
    for (const auto& [input, answer] : kCases) {
        for (From from : {From::File, From::Stdin}) {
            const auto [status, output] = program("", input, from);
            EXPECT_EQ(Answer(status, firstLine(output)), answer);
        }
    }
    // What the log could not support, and the settings it needs.
    EXPECT_THAT(program("", cleanProcess(1234)).second,
                HasSubstr("\nnot checked:\n  chi-meta-leak, chi-meta-double-destroy, "
                          "reference-underflow: no Info line of group 64\n  debug-data-leak of "
                          "freed buffers: no Debug line of group 64\n"));
    EXPECT_THAT(program("", other(1100, 1100, 'I', "CameraService", "frame 1")).second,
                HasSubstr(", 1 of other tags,"));
    // -B on text finds no entry.
    EXPECT_EQ(program("-B", cleanProcess(1234)).first, 3);
    EXPECT_EQ(program("-v nonsense").first, 2);
    EXPECT_EQ(firstLine(program("-v nonsense").second),
              "postproc-logcheck: unknown format: nonsense");
    EXPECT_EQ(firstLine(program("/nonexistent/log", "", From::None).second),
              "postproc-logcheck: /nonexistent/log: No such file or directory");
}

TEST_F(LogcheckTest, FindingsComeByRuleWithWhatToDoAndTheirEvidenceLines) {
    const auto [status, output] = program("", leakingProcess(1234));
    EXPECT_EQ(status, 1);
    EXPECT_THAT(output, HasSubstr("\nrecord-lifetime: 1 finding\n"
                                  "  what to do: destroy every record exactly once, however it "
                                  "was made\n"
                                  "  record-leak 0xbbbb pid 1234: never destroyed; holds 0 CHI "
                                  "metadata object(s) and 0 debug buffer(s)\n"
                                  "           4  11-23 10:00:00.000  1234  1244 D KyCamAdapter: "
                                  "KYA_RECORD QcomPostProcInfo.cpp:1 QcomPostProcInfo()Construct "
                                  "QcomPostProcInfo 0xbbbb, after sum 2\n"));
    // Past a screenful, a summary by rule first and a few of each.
    std::string many;
    for (int i = 0; i < 25; ++i) {
        char record[16];
        snprintf(record, sizeof(record), "0x%x", 0x1000 + i);
        many += construct(1234, 1300, record, i + 1);
    }
    const std::string summary = program("", many).second;
    EXPECT_THAT(summary, HasSubstr("\nby rule:\n  rule                        findings uncertain  "
                                   "kinds\n  record-lifetime                   25         0  "
                                   "record-leak\n"));
    EXPECT_THAT(summary, HasSubstr("  ... and 20 more (--all, or --json for every one)\n"));
    EXPECT_THAT(program("--all", many).second, Not(HasSubstr("more (--all")));
}

TEST_F(LogcheckTest, JsonIsValidWhateverBytesTheLogHolds) {
    // A camera id that is not UTF-8 lands in a finding's evidence.
    std::string id = "cam";
    id += {static_cast<char>(0xff), static_cast<char>(0xc3), '(', '"', '\\', '\x01'};
    const std::string log =
            construct(1234, 1300, "0xaaaa", 1) +
            lib(1234, 1300, 'I', "createPrivResultMeta",
                "PostProcsInfo 0xaaaa m_pPrivResult (nil) request phyCamIdSet size 1 "
                "mSamelogical_PhyResult 1") +
            lib(1234, 1300, 'I', "createPrivResultMeta",
                "PostProcsInfo 0xaaaa PrivPhyCamId " + id + " PrivPhyResult (nil)");
    const auto [status, output] = program("--json", log);
    EXPECT_EQ(status, 1);
    const nlohmann::json json = nlohmann::json::parse(output);
    EXPECT_EQ(json["verdict"], "findings");
    EXPECT_EQ(json["findings"][0]["kind"], "record-leak");
    EXPECT_EQ(json["findings"][0]["evidence"][1]["line"], 3);
    EXPECT_THAT(json["findings"][0]["evidence"][1]["text"].get<std::string>(),
                HasSubstr("PrivPhyCamId cam\xef\xbf\xbd\xef\xbf\xbd(\"\\\x01 PrivPhyResult"));
    const nlohmann::json nothing = nlohmann::json::parse(program("--json", "").second);
    EXPECT_EQ(nothing["verdict"], "nothing-checked");
    EXPECT_FALSE(nothing["not_checked"].empty());
}

}  // namespace
