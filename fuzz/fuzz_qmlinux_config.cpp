// The time-out settings file: the general line reader and the settings
// line handler, fed arbitrary file contents through an in-memory file.
//
// 1. INTF_UTIL_ReadFileHandleByLine with a recording callback: the lines it
//    hands over (text and length) must be exactly those of a reference
//    reading of its rules, and a callback that refuses a line must stop the
//    reading with 1050.
// 2. UDEV_InitQmLinuxConfigFromPath from the defaults, then every lookup:
//    each value must equal the reference's, and lie within its range.
//
// A line of length 0 (a newline right after a newline, or at the start)
// holds the reading thread in the cleaner's assertion, by design: it
// never returns. Step 2 is therefore skipped for inputs that would hand such
// a line to the settings handler (the reference reader tells which); step 1
// still runs for them, since its own callback has no such check.

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "read_line.h"
#include "udev_qmlinux.h"
#include "util_ret.h"

namespace {

constexpr size_t kMaxStored = 511;

struct Setting {
    const char *name;
    int32_t def;
    int32_t lowest;
    int32_t highest;
};
const Setting kSettings[4] = {
    {"dev_loss_tmo", 5, 1, 600},
    {"fast_io_fail_tmo", 4, 0, 599},
    {"recovery_tmo", 5, 0, 600},
    {"scsi_timeout", 30, 1, 600},
};

std::vector<std::string> ReferenceLines(const uint8_t *data, size_t size)
{
    std::vector<std::string> lines;
    std::string buf;
    for (size_t i = 0; i < size; ++i) {
        char c = static_cast<char>(data[i]);
        if (buf.size() >= kMaxStored) {
            if (c == '\n') {
                buf.clear();  // the whole over-long line is skipped
            }
            continue;
        }
        if (c != '\n') {
            buf.push_back(c);
            continue;
        }
        if (!buf.empty() && buf.back() == '\\') {
            continue;  // joined with the next physical line, backslash kept
        }
        lines.push_back(buf);
        buf.clear();
    }
    return lines;
}

// Settings after reading `lines` from the defaults.
void ReferenceSettings(const std::vector<std::string> &lines, int32_t out[4])
{
    for (int i = 0; i < 4; ++i) {
        out[i] = kSettings[i].def;
    }
    for (const std::string &line : lines) {
        std::string cleaned;
        for (unsigned char c : line) {
            if (c == '\0') {
                break;
            }
            if (static_cast<signed char>(c) > ' ' && c != '"' && c != ';') {
                cleaned.push_back(c == '=' ? ' ' : static_cast<char>(c));
            }
        }
        if (cleaned.empty()) {
            continue;
        }
        // glibc's "%63s %d" is the reference scan: a name that long cannot
        // be one of the four, and a line without a number is skipped.
        char name[64] = {0};
        int value = 0;
        if (std::sscanf(cleaned.c_str(), "%63s %d", name, &value) != 2) {
            continue;
        }
        for (int i = 0; i < 4; ++i) {
            if (std::strcmp(name, kSettings[i].name) == 0 && value >= kSettings[i].lowest &&
                value <= kSettings[i].highest) {
                out[i] = value;
            }
        }
    }
}

struct Recorder {
    std::vector<std::string> lines;
    size_t refuseAt = SIZE_MAX;
    bool badLength = false;
};

int RecordLine(char *line, uint32_t lineLen, void *ctx)
{
    auto *rec = static_cast<Recorder *>(ctx);
    // The text must be terminated right after its stated length.
    if (line == nullptr || line[lineLen] != '\0') {
        rec->badLength = true;
    }
    rec->lines.emplace_back(line ? std::string(line, lineLen) : std::string());
    return rec->lines.size() - 1 == rec->refuseAt ? UDEV_RET_FAIL : UDEV_RET_OK;
}

void CheckLineReader(const FuzzMemFile &file, const uint8_t *data, size_t size, const std::vector<std::string> &expect)
{
    Recorder rec;
    int ret = INTF_UTIL_ReadFileHandleByLine(file.Path(), &rec, RecordLine);
    FUZZ_CHECK(ret == UDEV_RET_OK, "line reader returned %d on \"%s\"", ret, FuzzShow(data, size).c_str());
    FUZZ_CHECK(!rec.badLength, "line reader handed a line not terminated at its length");
    FUZZ_CHECK(rec.lines == expect, "line reader gave %zu lines, expected %zu, from \"%s\"", rec.lines.size(),
               expect.size(), FuzzShow(data, size).c_str());

    if (!expect.empty()) {
        Recorder refusing;
        refusing.refuseAt = (size > 0 ? data[0] : 0) % expect.size();
        ret = INTF_UTIL_ReadFileHandleByLine(file.Path(), &refusing, RecordLine);
        FUZZ_CHECK(ret == UDEV_RET_CALLBACK_FAIL, "line reader returned %d after a refused line, not 1050", ret);
        FUZZ_CHECK(refusing.lines.size() == refusing.refuseAt + 1, "line reader went on after a refused line");
    }
}

void CheckLookups(const int32_t expect[4])
{
    for (int i = 0; i < 4; ++i) {
        const Setting &s = kSettings[i];
        char text[16];
        std::snprintf(text, sizeof(text), "%d", expect[i]);
        size_t need = std::strlen(text) + 1;
        for (size_t len = 1; len <= need + 1; ++len) {
            FuzzGuarded out(len);
            int ret = UDEV_GetQmLinuxCfgValue(s.name, out.Data(), static_cast<uint32_t>(len));
            FUZZ_CHECK(out.Intact(), "UDEV_GetQmLinuxCfgValue(%s) wrote past %zu bytes", s.name, len);
            if (len < need) {
                FUZZ_CHECK(ret == UDEV_RET_FAIL, "UDEV_GetQmLinuxCfgValue(%s) into %zu bytes returned %d", s.name, len,
                           ret);
                continue;
            }
            FUZZ_CHECK(ret == UDEV_RET_OK, "UDEV_GetQmLinuxCfgValue(%s) returned %d", s.name, ret);
            FUZZ_CHECK(std::strcmp(out.Data(), text) == 0, "%s is \"%s\", expected \"%s\"", s.name,
                       FuzzShow(out.Data(), strnlen(out.Data(), len)).c_str(), text);
            long v = std::strtol(out.Data(), nullptr, 10);
            FUZZ_CHECK(v >= s.lowest && v <= s.highest, "%s = %ld is outside [%d, %d]", s.name, v, s.lowest,
                       s.highest);
        }
    }
    char out[16];
    FuzzGuarded none(1);
    FUZZ_CHECK(UDEV_GetQmLinuxCfgValue("scsi_timeout", none.Data(), 0) == UDEV_RET_FAIL && none.Intact() &&
                   none.Data()[0] == 0x5A,
               "a lookup into 0 bytes did not fail untouched");
    FUZZ_CHECK(UDEV_GetQmLinuxCfgValue("SCSI_TIMEOUT", out, sizeof(out)) == UDEV_RET_NOT_FOUND,
               "a name in capitals was found");
    FUZZ_CHECK(UDEV_GetQmLinuxCfgValue("", out, sizeof(out)) == UDEV_RET_NOT_FOUND, "the empty name was found");
}

// Direct updates with values from the input: inside the range stored,
// outside refused with the old value kept.
void CheckUpdates(const uint8_t *data, size_t size, int32_t current[4])
{
    for (size_t off = 0; off + 5 <= size && off < 40; off += 5) {
        int i = data[off] % 4;
        int32_t v;
        std::memcpy(&v, data + off + 1, sizeof(v));
        if (data[off] & 0x80) {
            v = static_cast<int32_t>(static_cast<int8_t>(data[off + 1])) * 5;  // near the bounds
        }
        const Setting &s = kSettings[i];
        int ret = UDEV_UpdateQmLinuxCfg(s.name, v);
        bool inRange = v >= s.lowest && v <= s.highest;
        FUZZ_CHECK(ret == (inRange ? UDEV_RET_OK : UDEV_RET_FAIL), "UDEV_UpdateQmLinuxCfg(%s, %d) returned %d",
                   s.name, v, ret);
        if (inRange) {
            current[i] = v;
        }
    }
    FUZZ_CHECK(UDEV_UpdateQmLinuxCfg("scsi_timeout60", 60) == UDEV_RET_NOT_FOUND, "an unknown name was stored");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static FuzzMemFile file;
    file.Set(data, size);

    std::vector<std::string> lines = ReferenceLines(data, size);
    CheckLineReader(file, data, size, lines);

    for (const std::string &line : lines) {
        if (line.empty()) {
            return 0;  // would hold this thread in the deliberate assertion
        }
    }
    // Each input starts from the defaults, put back through the update.
    for (const Setting &s : kSettings) {
        FUZZ_CHECK(UDEV_UpdateQmLinuxCfg(s.name, s.def) == UDEV_RET_OK, "default of %s refused", s.name);
    }
    int ret = UDEV_InitQmLinuxConfigFromPath(file.Path());
    FUZZ_CHECK(ret == UDEV_RET_OK, "UDEV_InitQmLinuxConfigFromPath returned %d", ret);
    int32_t expect[4];
    ReferenceSettings(lines, expect);
    CheckLookups(expect);
    CheckUpdates(data, size, expect);
    CheckLookups(expect);
    return 0;
}
