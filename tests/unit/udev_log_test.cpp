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
#include "support/sys_wrap.h"
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
        UDEV_ClearSyslogMode();
        qmtest::ReplaceSyslog(CatchSyslog);
    }
    void TearDown() override
    {
        UDEV_ClearSyslogMode();
        qmtest::ReplaceSyslog(nullptr);
    }
};

// ---- trace file ----------------------------------------------------------------

TEST_F(LogTest, TraceRecordsFieldsAndSequence)
{
    // Without a path records are dropped: no crash, no syslog.
    ASSERT_EQ(MPI_SetLogFile(""), UDEV_RET_OK);
    MPI_Log(MPI_LOG_ERROR, "%s\n", "lost");
    qmtest::TraceCapture trace;
    struct Row {
        int level;
        const char *printed;  // at least 4 wide, "ERROR" whole
    } rows[] = {{MPI_LOG_INFO, "INFO"}, {MPI_LOG_WARN, "WARN"}, {MPI_LOG_ERROR, "ERROR"}, {MPI_LOG_FATAL, "FATAL"}};
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
        char key[32];  // magic, module 22, 0, line
        (void)snprintf_s(key, sizeof(key), sizeof(key) - 1, "%08x%02x%02x%04x", 0x5342u, 22u, 0u,
                         static_cast<unsigned>(lines[i]));
        EXPECT_EQ(r.sequence, i + 1);
        EXPECT_TRUE(std::regex_match(r.time, timeRe)) << r.time;
        EXPECT_EQ(r.key, key);
        EXPECT_EQ(r.level, rows[i].printed);
        EXPECT_EQ(r.module, "UDEV  ");  // padded to 6
        EXPECT_EQ(r.func, "TestBody");
        EXPECT_EQ(r.line, lines[i]);
        EXPECT_EQ(r.message, "sprintf_s failed.");
    }

    // The sequence runs on across a removed file and restarts with a new path.
    ASSERT_EQ(::unlink(trace.Path().c_str()), 0);
    MPI_Log(MPI_LOG_INFO, "%s\n", "five");
    records = ParseTrace(trace.Text());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].sequence, 5u);
    qmtest::TraceCapture again;
    MPI_Log(MPI_LOG_INFO, "%s\n", "one");
    records = ParseTrace(again.Text());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].sequence, 1u);
    EXPECT_TRUE(g_syslog.empty());
}

// ---- system log --------------------------------------------------------------------

TEST_F(LogTest, SyslogModeSendsOnlyTheMessageAndReplacesTextsOf1024OrMore)
{
    qmtest::TraceCapture trace;
    UDEV_SetSyslogMode();
    MPI_Log(MPI_LOG_DEBUG, "dbg %d\n", 1);
    MPI_Log(MPI_LOG_INFO, "info %s\n", "x");
    MPI_Log(MPI_LOG_ERROR, "%s.\n", "sprintf_s failed");
    EXPECT_EQ(g_syslog, (std::vector<std::string>{"dbg 1\n", "info x\n", "sprintf_s failed.\n"}));
    EXPECT_EQ(trace.Text(), "");

    for (size_t length : {0, 1, 1023, 1024, 5000}) {
        SCOPED_TRACE(length);
        g_syslog.clear();
        std::string message(length, 'm');
        UDEV_Syslog("%s", message.c_str());
        EXPECT_EQ(g_syslog, std::vector<std::string>{length < 1024 ? message : "vsnprintf failed."});
    }
    g_syslog.clear();
    UDEV_Syslog(nullptr);
    EXPECT_TRUE(g_syslog.empty());
}

// ---- log path ---------------------------------------------------------------------

TEST_F(LogTest, FilePathKindsAndTheInitialTracePath)
{
    const std::string logDir = "/opt/Quillmesh_NVMe/log/";  // 24 characters of the 119 that fit
    const std::string fits(119 - logDir.size(), 'n');
    struct Row {
        int kind;
        std::string name;
        std::string expected;  // empty: refused
    } rows[] = {
        {5, std::string(120, 'n'), ""},
        {2, fits + "n", ""},
        {3, "alone", "alone"},  // the failure left an empty buffer behind
        {2, "qm_udev_log.txt", "/opt/Quillmesh_NVMe/log/qm_udev_log.txt"},
        {5, "qm.conf", "/etc/Quillmesh_NVMe/qm.conf"},
        {7, "more", "/etc/Quillmesh_NVMe/qm.confmore"},  // appended to what was there
        {0, "", "/etc/Quillmesh_NVMe/qm.confmore"},
        {2, fits, logDir + fits},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::to_string(row.kind) + " " + row.name);
        const char *path = MPI_GetFilePath(row.kind, row.name.c_str());
        EXPECT_STREQ(path, row.expected.empty() ? nullptr : row.expected.c_str());
    }

    MPI_LogDesc *desc = MPI_GetLogDesc(22);
    ASSERT_EQ(UDEV_InitLog(), UDEV_RET_OK);
    EXPECT_STREQ(desc->path, "/opt/Quillmesh_NVMe/log/qm_udev_log.txt");
    EXPECT_EQ(desc->sequence, 1u);
    EXPECT_EQ(desc->moduleId, 22u);
    (void)MPI_SetLogFile("");  // nothing may be written to the host's /opt
}

// ---- assertion ----------------------------------------------------------------------

constexpr int kAssertLine = __LINE__ + 4;
void *AssertInThread(void *)
{
    int *pointer = nullptr;
    MPI_AssertNotNull(pointer);
    return nullptr;
}

// The worker's failed assertion writes one record, in trace format even in
// syslog mode, and holds only its own thread: the main thread logs on.
TEST_F(LogTest, FailedAssertionWritesOneRecordAndHoldsOnlyItsThread)
{
    qmtest::TraceCapture trace;
    std::string tracePath = trace.Path();
    qmtest::HangResult result = qmtest::RunUntilTraceHas(tracePath, "main thread goes on", [tracePath] {
        UDEV_SetSyslogMode();
        pthread_t worker;
        if (pthread_create(&worker, nullptr, AssertInThread, nullptr) != 0) {
            return;
        }
        (void)pthread_detach(worker);
        while (qmtest::ReadFile(tracePath).find("exception") == std::string::npos) {
            ::usleep(10000);
        }
        UDEV_ClearSyslogMode();
        MPI_Log(MPI_LOG_INFO, "%s\n", "main thread goes on");
        for (;;) {
            ::pause();
        }
    });
    EXPECT_TRUE(result.recordSeen);
    EXPECT_TRUE(result.stillRunning);
    std::vector<Record> records = ParseTrace(trace.Text());
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].level, "ERROR");
    EXPECT_EQ(records[0].func, "AssertInThread");
    EXPECT_EQ(records[0].line, kAssertLine);
    EXPECT_EQ(records[0].message, "*** Assertion on file \"(null)\" function \"AssertInThread\" line " +
                                      std::to_string(kAssertLine) + " exception \"pointer != ((void *)0)\"");
    EXPECT_EQ(records[1].message, "main thread goes on");
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
