// The trace record, character by character:
// [sequence][time][key][level][module][function: line]message
// with the clock fixed, and how the sequence runs; the system log's bound.
#include <cstdlib>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "mpi_usr_if.h"
#include "support/unit_support.h"
#include "util_ret.h"

namespace {

// Key: the magic 0x5342, module 22 (UDEV), 0, the line; all in hex.
std::string Record(int sequence, const char *level, int line, const char *message)
{
    char key[17];
    std::snprintf(key, sizeof(key), "%08x%02x%02x%04x", 0x5342u, 22u, 0u, static_cast<unsigned>(line));
    return "[" + std::to_string(sequence) + "][2023-11-14 22:13:20][" + key + "][" + level + "][UDEV  ][TestBody: " +
           std::to_string(line) + "]" + message;
}

TEST(TraceRecord, FieldsAndSequence)
{
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    qmtest::SetClock(1'700'000'000);
    // Without a path records are dropped and nothing breaks.
    ASSERT_EQ(MPI_SetLogFile(""), UDEV_RET_OK);
    MPI_Log(MPI_LOG_ERROR, "%s\n", "lost");

    qmtest::TraceCapture trace;
    MPI_Log(MPI_LOG_DEBUG, "%s\n", "debug text");  // neither written nor numbered
    const int first = __LINE__ + 1;
    MPI_Log(MPI_LOG_INFO, "%s.\n", "sprintf_s failed");
    MPI_Log(MPI_LOG_WARN, "value{%d}\n", 7);
    MPI_Log(MPI_LOG_ERROR, "%s\n", "e");
    MPI_Log(MPI_LOG_FATAL, "%s\n", "f");
    MPI_Log(5, "%s\n", "no level name");
    MPI_Log(0x1234, "%s\n", "beyond the table");
    EXPECT_EQ(trace.Text(), Record(1, "INFO", first, "sprintf_s failed.\n") +
                                Record(2, "WARN", first + 1, "value{7}\n") +
                                Record(3, "ERROR", first + 2, "e\n") + Record(4, "FATAL", first + 3, "f\n") +
                                Record(5, "    ", first + 4, "no level name\n") +
                                Record(6, "    ", first + 5, "beyond the table\n"));

    // The sequence runs on across a removed file and restarts with a new path.
    ASSERT_EQ(::unlink(trace.Path().c_str()), 0);
    MPI_Log(MPI_LOG_INFO, "%s\n", "seven");
    EXPECT_EQ(trace.Text(), Record(7, "INFO", __LINE__ - 1, "seven\n"));
    qmtest::TraceCapture again;
    MPI_Log(MPI_LOG_INFO, "%s\n", "one");
    EXPECT_EQ(again.Text(), Record(1, "INFO", __LINE__ - 1, "one\n"));
}

// In syslog mode a message is formatted into 1024 bytes: 1023 characters
// go whole, a longer message is replaced, never cut.
TEST(SystemLog, MessageOfTheBufferSizeOrMoreIsReplaced)
{
    UDEV_SetSyslogMode();
    for (const auto &[length, whole] : {std::pair{1023u, true}, {1024u, false}, {5000u, false}}) {
        const std::string text(length, 'x');
        MPI_Log(MPI_LOG_ERROR, "%s", text.c_str());
        EXPECT_EQ(qmtest::TakeSyslog(), std::vector<std::string>{whole ? text : "vsnprintf failed."}) << length;
    }
}

}  // namespace
