// Parser of the daemon's trace file records:
// "[%d][%s][%08x%02x%02x%04x][%-4s][%-6s][%s: %d]message"
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qmlab {

struct TraceRecord {
    long sequence = 0;
    std::string time;      // "YYYY-MM-DD hh:mm:ss" or empty
    uint32_t magic = 0;    // the record key's first 8 hex digits (0x5342)
    uint32_t module = 0;   // its next 2 (22 prints 16)
    uint32_t zero = 0;     // its next 2
    uint32_t keyLine = 0;  // its last 4: the source line in hex
    std::string level;     // as printed, padding removed
    std::string moduleName;
    std::string function;
    long line = 0;
    std::string message;   // everything up to the next record, its line end included
    std::string raw;       // the whole record as it stands in the file
};

// Splits a trace file into its records. Text before the first record (none
// in a well-formed file) is ignored. A record whose message has no line end
// runs on into the next record's head; the split is at that head.
std::vector<TraceRecord> ParseTraceLog(const std::string &text);
// The records of the trace file at `path` (the daemon's by default); empty
// when there is no file.
std::vector<TraceRecord> ReadTraceLog(const std::string &path = "/opt/Quillmesh_NVMe/log/qm_udev_log.txt");
// True when some record's message contains `text`.
bool TraceContains(const std::vector<TraceRecord> &records, const std::string &text);

}  // namespace qmlab
