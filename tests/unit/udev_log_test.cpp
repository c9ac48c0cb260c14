// The trace record read back field by field, the choice of sink, the
// system-log length rule, the log path helper, and a failed assertion that
// must write one record and then hold its thread.
#include <pthread.h>

#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "mpi_usr_if.h"
#include "securec.h"
#include "support/trace_capture.h"
#include "udev_log.h"
#include "util_ret.h"

namespace {

struct Record {
    unsigned long sequence = 0;
    std::string time;
    std::string key;
    std::string level;  // as printed, padding included
    std::string module;
    std::string func;
    int line = 0;
    std::string message;
};

// One trace record per line (every message used here ends in "\n").
std::vector<Record> ParseTrace(const std::string &text)
{
    static const std::regex re(
        R"(^\[(\d+)\]\[([^\]]*)\]\[([0-9a-f]{16})\]\[([^\]]*)\]\[([^\]]*)\]\[([^\]]+): (\d+)\](.*)$)");
    std::vector<Record> records;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        start = end == std::string::npos ? text.size() : end + 1;
        std::smatch m;
        if (!std::regex_match(line, m, re)) {
            ADD_FAILURE() << "not a trace record: " << line;
            continue;
        }
        records.push_back(Record{std::stoul(m[1]), m[2], m[3], m[4], m[5], m[6], std::stoi(m[7]), m[8]});
    }
    return records;
}

std::string KeyFor(int line)
{
    char key[32];
    (void)snprintf_s(key, sizeof(key), sizeof(key) - 1, "%08x%02x%02x%04x", 0x5342u, 22u, 0u,
                     static_cast<unsigned>(line));
    return key;
}

std::vector<std::string> g_syslog;
void CatchSyslog(const char *text)
{
    g_syslog.emplace_back(text);
}

class LogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_syslog.clear();
        UDEV_ResetFlagsForTest();
        UDEV_SetSyslogSinkForTest(CatchSyslog);
    }
    void TearDown() override
    {
        UDEV_ResetFlagsForTest();
        UDEV_SetSyslogSinkForTest(nullptr);
    }
};

// ---- trace file ----------------------------------------------------------------

TEST_F(LogTest, TraceRecordFieldsReadBack)
{
    qmtest::TraceCapture trace;
    struct Row {
        int level;
        const char *printed;
    } rows[] = {
        {MPI_LOG_INFO, "INFO"},
        {MPI_LOG_WARN, "WARN"},
        {MPI_LOG_ERROR, "ERROR"},
        {MPI_LOG_FATAL, "FATAL"},
    };
    MPI_Log(MPI_LOG_DEBUG, "%s\n", "debug text");  // neither written nor numbered
    std::vector<int> lines;
    for (const Row &row : rows) {
        lines.push_back(__LINE__ + 1);
        MPI_Log(row.level, "%s.\n", "sprintf_s failed");
    }
    std::vector<Record> records = ParseTrace(trace.Text());
    ASSERT_EQ(records.size(), std::size(rows));
    static const std::regex timeRe(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}$)");
    for (size_t i = 0; i < records.size(); ++i) {
        SCOPED_TRACE(rows[i].printed);
        const Record &r = records[i];
        EXPECT_EQ(r.sequence, i + 1);
        EXPECT_TRUE(std::regex_match(r.time, timeRe)) << r.time;
        EXPECT_EQ(r.key, KeyFor(lines[i]));
        EXPECT_EQ(r.key.substr(8, 4), "1600");  // module 22, then a 0
        EXPECT_EQ(r.level, rows[i].printed);    // at least 4 wide, "ERROR" whole
        EXPECT_EQ(r.module, "UDEV  ");          // padded to 6
        EXPECT_EQ(r.func, "TestBody");
        EXPECT_EQ(r.line, lines[i]);
        EXPECT_EQ(r.message, "sprintf_s failed.");
    }
    EXPECT_TRUE(g_syslog.empty());
}

TEST_F(LogTest, SequenceRunsOnAcrossARemovedFileAndRestartsWithANewPath)
{
    qmtest::TraceCapture trace;
    MPI_Log(MPI_LOG_INFO, "%s\n", "one");
    MPI_Log(MPI_LOG_INFO, "%s\n", "two");
    ASSERT_EQ(::unlink(trace.Path().c_str()), 0);
    MPI_Log(MPI_LOG_INFO, "%s\n", "three");
    std::vector<Record> records = ParseTrace(trace.Text());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].sequence, 3u);

    qmtest::TraceCapture again;
    MPI_Log(MPI_LOG_INFO, "%s\n", "four");
    records = ParseTrace(again.Text());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].sequence, 1u);
}

TEST_F(LogTest, RecordsWithoutAPathAreDropped)
{
    ASSERT_EQ(MPI_SetLogFile(""), UDEV_RET_OK);
    MPI_Log(MPI_LOG_ERROR, "%s\n", "lost");  // must neither crash nor go to syslog
    EXPECT_TRUE(g_syslog.empty());
}

// ---- system log --------------------------------------------------------------------

TEST_F(LogTest, SyslogModeSendsOnlyTheMessageForEveryLevel)
{
    qmtest::TraceCapture trace;
    UDEV_SetSyslogMode();
    MPI_Log(MPI_LOG_DEBUG, "dbg %d\n", 1);
    MPI_Log(MPI_LOG_INFO, "info %s\n", "x");
    MPI_Log(MPI_LOG_ERROR, "%s.\n", "sprintf_s failed");
    EXPECT_EQ(g_syslog, (std::vector<std::string>{"dbg 1\n", "info x\n", "sprintf_s failed.\n"}));
    EXPECT_EQ(trace.Text(), "");
}

TEST_F(LogTest, SyslogTextOf1024OrMoreIsReplacedNotCut)
{
    struct Row {
        size_t length;
        bool whole;
    } rows[] = {{0, true}, {1, true}, {1023, true}, {1024, false}, {5000, false}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.length);
        g_syslog.clear();
        std::string message(row.length, 'm');
        UDEV_Syslog("%s", message.c_str());
        ASSERT_EQ(g_syslog.size(), 1u);
        EXPECT_EQ(g_syslog[0], row.whole ? message : std::string("vsnprintf failed."));
    }
    g_syslog.clear();
    UDEV_Syslog(nullptr);
    EXPECT_TRUE(g_syslog.empty());
}

// ---- log path ---------------------------------------------------------------------

TEST_F(LogTest, FilePathKinds)
{
    const std::string logDir = "/opt/Quillmesh_NVMe/log/";  // 24 characters of the 119 that fit
    const std::string fits(119 - logDir.size(), 'n');
    struct Row {
        int kind;
        std::string name;
        bool refused;
        std::string expected;
    } rows[] = {
        {2, "qm_udev_log.txt", false, "/opt/Quillmesh_NVMe/log/qm_udev_log.txt"},
        {5, "qm.conf", false, "/etc/Quillmesh_NVMe/qm.conf"},
        {7, "more", false, "/etc/Quillmesh_NVMe/qm.confmore"},  // appended to what was there
        {0, "", false, "/etc/Quillmesh_NVMe/qm.confmore"},
        {2, fits, false, logDir + fits},
        {2, fits + "n", true, ""},
        {3, "alone", false, "alone"},  // the failure left an empty buffer behind
        {5, std::string(120, 'n'), true, ""},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::to_string(row.kind) + " " + row.name);
        const char *path = MPI_GetFilePath(row.kind, row.name.c_str());
        if (row.refused) {
            EXPECT_EQ(path, nullptr);
        } else {
            ASSERT_NE(path, nullptr);
            EXPECT_EQ(std::string(path), row.expected);
        }
    }
}

TEST_F(LogTest, InitLogPointsTheDescriptorAtTheTraceFile)
{
    MPI_LogDesc *desc = MPI_GetLogDesc(22);
    ASSERT_EQ(UDEV_InitLog(), UDEV_RET_OK);
    EXPECT_STREQ(desc->path, "/opt/Quillmesh_NVMe/log/qm_udev_log.txt");
    EXPECT_EQ(desc->sequence, 1u);
    EXPECT_EQ(desc->moduleId, 22u);
    (void)MPI_SetLogFile("");  // nothing may be written to the host's /opt
}

// ---- assertion ----------------------------------------------------------------------

void *AssertInThread(void *)
{
    int *pointer = nullptr;
    MPI_AssertNotNull(pointer);
    return nullptr;
}

TEST_F(LogTest, FailedAssertionWritesOneRecordAndHoldsTheThread)
{
    qmtest::TraceCapture trace;
    int line = __LINE__ + 3;
    qmtest::HangResult result = qmtest::RunUntilTraceHas(trace.Path(), "exception \"1 == 2\"", [] {
        UDEV_SetSyslogMode();  // assertions ignore the mode
        MPI_Assert(1 == 2);
    });
    EXPECT_TRUE(result.recordSeen);
    EXPECT_TRUE(result.stillRunning);
    std::vector<Record> records = ParseTrace(trace.Text());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, "ERROR");
    EXPECT_EQ(records[0].func, "operator()");
    EXPECT_EQ(records[0].line, line);
    EXPECT_EQ(records[0].message, "*** Assertion on file \"(null)\" function \"operator()\" line " +
                                      std::to_string(line) + " exception \"1 == 2\"");
}

TEST_F(LogTest, FailedAssertionInAWorkerLeavesTheOtherThreadsRunning)
{
    qmtest::TraceCapture trace;
    std::string tracePath = trace.Path();
    qmtest::HangResult result = qmtest::RunUntilTraceHas(trace.Path(), "main thread goes on", [tracePath] {
        pthread_t worker;
        if (pthread_create(&worker, nullptr, AssertInThread, nullptr) != 0) {
            return;
        }
        (void)pthread_detach(worker);
        while (qmtest::ReadFile(tracePath).find("exception") == std::string::npos) {
            ::usleep(10000);
        }
        MPI_Log(MPI_LOG_INFO, "%s\n", "main thread goes on");
        for (;;) {
            ::pause();
        }
    });
    EXPECT_TRUE(result.recordSeen);
    EXPECT_TRUE(result.stillRunning);
    std::string text = trace.Text();
    EXPECT_EQ(qmtest::CountOf(text, "*** Assertion on file"), 1u);
    EXPECT_EQ(qmtest::CountOf(text, "exception \"pointer != ((void *)0)\""), 1u);
    EXPECT_EQ(qmtest::CountOf(text, "function \"AssertInThread\""), 1u);
}

// ---- the carried atomic --------------------------------------------------------------

TEST_F(LogTest, AtomicReadPanicsOnAnUnusableAtomic)
{
    MPI_Atomic atomic = {};
    EXPECT_EXIT((void)MPI_AtomicRead(&atomic), ::testing::ExitedWithCode(255), "");
    MPI_AtomicInitImpl(&atomic, 42);
    EXPECT_EQ(MPI_AtomicRead(&atomic), 42);
    MPI_AtomicDestroyImpl(&atomic);
    EXPECT_EQ(atomic.magic, 0xFFFF4110u);
    EXPECT_EXIT((void)MPI_AtomicRead(&atomic), ::testing::ExitedWithCode(255), "");
}

}  // namespace
