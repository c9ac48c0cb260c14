// qmudevadm verify: both configuration files read by the daemon's own
// readers, fed by the tool so that it knows the line of everything the
// readers do. What the readers log, the rules they add and the lines they
// never hand over become "FILE:LINE: what the daemon will do and why".
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string_view>

#include <getopt.h>

#include "adm.h"
#include "adm_json.h"
#include "read_line.h"
#include "securec.h"
#include "udev_config.h"
#include "udev_list.h"
#include "udev_qmlinux.h"
#include "util_ret.h"

namespace adm {

namespace {

constexpr const char *kSettingNames[] = {"dev_loss_tmo", "fast_io_fail_tmo", "recovery_tmo", "scsi_timeout"};
// Both readers keep at most this many characters of a line.
constexpr unsigned kMaxLineChars = 510;
constexpr size_t kSettingTextLen = 17;  // what the time-out writer asks for

std::optional<std::string> ReadWhole(const std::string &path, int *err)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *err = errno;
        return std::nullopt;
    }
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool StartsWith(std::string_view text, std::string_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

// The text as the daemon's readers clean a line (blanks, quotes, semicolons
// and control or non-ASCII bytes removed, "=" read as a blank).
std::string CleanedLine(std::string_view raw)
{
    char buffer[UDEV_CFG_LINE_LEN] = {0};
    size_t length = std::min(raw.size(), sizeof(buffer) - 1);
    (void)memcpy_s(buffer, sizeof(buffer), raw.data(), length);
    (void)UDEV_ClearCharacters(buffer, sizeof(buffer));
    (void)UDEV_ReplaceCharacters(buffer, sizeof(buffer));
    return buffer;
}

std::string SettingValue(const char *name)
{
    char value[kSettingTextLen] = {0};
    LogCapture quiet;
    return UDEV_GetQmLinuxCfgValue(name, value, sizeof(value)) == UDEV_RET_OK ? value : "?";
}

// ---- The vendor list -----------------------------------------------------

// Rules read by the daemon's reader onto a list of the tool's own, so that
// the daemon's loaded configuration is never touched. Owns the rules.
class RuleList {
public:
    RuleList() { UDEV_ListInit(&head_); }
    ~RuleList() { UDEV_DeleteProductList(&head_); }
    RuleList(const RuleList &) = delete;  // the head is linked to itself
    RuleList &operator=(const RuleList &) = delete;

    UdevListHead *Head() { return &head_; }
    const UdevListHead *Head() const { return &head_; }

private:
    UdevListHead head_;
};

// A key the daemon stores (a field of the rule), found by the daemon's own
// key table: an unknown key leaves a scratch rule untouched.
bool IsKnownKey(const char *key)
{
    UdevProductNode scratch = {};
    LogCapture quiet;
    (void)UDEV_InitProductNode(key, "x", &scratch);
    return scratch.ruler_name[0] != '\0' || scratch.vendor_id[0] != '\0' || scratch.product_id[0] != '\0' ||
           scratch.driver[0] != '\0';
}

struct RulePair {
    std::string key;
    std::string value;  // empty: the piece is a key alone
};

// The pieces of a rule line as the daemon splits them.
std::vector<RulePair> PairsOf(std::string_view raw)
{
    std::string cleaned = CleanedLine(raw);
    std::vector<RulePair> pairs;
    char *context = nullptr;
    for (char *piece = strtok_s(cleaned.data(), ",", &context); piece != nullptr;
         piece = strtok_s(nullptr, ",", &context)) {
        char key[UDEV_CFG_LINE_LEN] = {0};
        char value[UDEV_CFG_LINE_LEN] = {0};
        if (sscanf_s(piece, "%s %s", key, sizeof(key), value, sizeof(value)) >= 1) {
            pairs.push_back({key, value});
        }
    }
    return pairs;
}

std::string VendorRecordMessage(const std::string &text)
{
    if (StartsWith(text, "single line over maximum number of characters")) {
        return "longer than 510 characters: the daemon drops the first 511 characters and the one after them, "
               "and reads the rest of the line as a line of its own";
    }
    if (text == "more than buffer length.") {
        return "more than four key = value pairs: the daemon drops this rule";
    }
    if (text == "sprintf_s failed.") {
        return "a value of 64 characters or more: the daemon drops this rule";
    }
    if (text == "sscanf_s failed.") {
        return "no key = value pair that the daemon can read: it drops this line";
    }
    return "the daemon logs: " + text;
}

struct VendorCheck {
    std::vector<Problem> problems;
    std::vector<unsigned> ruleLines;  // first line of each rule, in file order
    bool header = false;
};

// Feeds the file to the daemon's reader one character at a time, as
// UDEV_InitConfig does, and notes what happens on which line.
class VendorChecker {
public:
    explicit VendorChecker(const std::string &path) : path_(path) {}

    VendorCheck Run(const std::string &content)
    {
        reader_.rules = rules_.Head();
        LogCapture capture;
        for (char c : content) {
            Feed(c, &capture);
        }
        CheckLastLine(content);
        return std::move(check_);
    }

private:
    void Add(unsigned line, std::string message) { check_.problems.push_back({path_, line, std::move(message)}); }

    void Feed(char c, LogCapture *capture)
    {
        if (reader_.bufferIndex == 0 && reader_.lineFlag == 0) {
            start_ = line_;  // a new logical line begins
        }
        if (c == '\\' && backslashLine_ != line_) {
            backslashLine_ = line_;
            Add(line_, "backslash: the daemon drops it and joins line " + std::to_string(line_ + 1) +
                           " to this line (a backslash anywhere joins, even in a note)");
        }
        std::string raw;
        if (c == '\n' && reader_.lineFlag == 0 && reader_.bufferIndex < UDEV_CFG_LINE_LEN) {
            raw.assign(reader_.buffer, reader_.bufferIndex);  // before the handler cleans it
        }
        const UdevListHead *list = rules_.Head();
        const UdevListHead *lastRule = list->prev;
        uint8_t vendorsBefore = reader_.vendorsUnit;
        UDEV_ReadConfigChar(&reader_, static_cast<unsigned char>(c));
        for (LogRecord &record : capture->Take()) {
            bool overLong = StartsWith(record.text, "single line over maximum");
            Add(overLong ? line_ : start_, VendorRecordMessage(record.text));
        }
        if (c != '\n') {
            return;
        }
        if (vendorsBefore == 0 && reader_.vendorsUnit == 1) {
            check_.header = true;
        }
        if (list->prev != lastRule) {
            CheckRule(reinterpret_cast<const UdevProductNode *>(list->prev), raw);
        }
        line_++;
    }

    void CheckRule(const UdevProductNode *rule, std::string_view raw)
    {
        check_.ruleLines.push_back(start_);
        if (rule->vendor_id[0] == '\0' && rule->product_id[0] == '\0') {
            Add(start_, "read as a rule with no vendor_id and no product_id, which matches no disk: every line "
                        "after [vendors] is a rule (notes go above it)");
            return;
        }
        // The daemon reads a line's pairs into one key and one value buffer:
        // a key alone keeps the value of the piece before it.
        std::string carried;
        for (const RulePair &pair : PairsOf(raw)) {
            if (!IsKnownKey(pair.key.c_str())) {
                Add(start_, "unknown key \"" + pair.key + "\": the daemon ignores it (keys: ruler_name, vendor_id, "
                            "product_id, driver)");
            } else if (pair.value.empty()) {
                Add(start_, pair.key + " without a value: the daemon gives it " +
                                (carried.empty() ? "an empty value" : "the value before it, \"" + carried + "\""));
            }
            if (!pair.value.empty()) {
                carried = pair.value;
            }
        }
    }

    void CheckLastLine(const std::string &content)
    {
        if (content.empty() || content.back() == '\n' || reader_.bufferIndex == 0) {
            return;
        }
        std::string_view raw(reader_.buffer, std::min<size_t>(reader_.bufferIndex, UDEV_CFG_LINE_LEN));
        if (!CleanedLine(raw).empty()) {
            Add(start_, "no newline at the end of the file: the daemon ignores this last line");
        }
    }

    std::string path_;
    RuleList rules_;
    UdevConfigReader reader_ = {};
    unsigned line_ = 1;
    unsigned start_ = 1;
    unsigned backslashLine_ = 0;
    VendorCheck check_;
};

// ---- The settings file ---------------------------------------------------

std::string UnknownNameHint(const std::string &name)
{
    if (StartsWith(name, "#")) {
        return " (the file has no comments)";
    }
    for (const char *known : kSettingNames) {
        std::string_view rest = std::string_view(name).substr(std::min(name.size(), std::strlen(known)));
        if (StartsWith(name, known) && !rest.empty() &&
            rest.find_first_not_of("0123456789-") == std::string_view::npos) {
            return " (written without \"=\": \"" + std::string(known) + " " + std::string(rest) +
                   "\" reads as one name)";
        }
    }
    return "";
}

std::optional<std::string> SettingRecordMessage(const std::string &text)
{
    char name[UDEV_QMLINUX_NAME_LEN] = {0};
    int value = 0;
    int lowest = 0;
    int highest = 0;
    if (std::sscanf(text.c_str(), "get atrr{%63[^}]} value{%d} is out range{%d, %d}", name, &value, &lowest,
                    &highest) == 4) {
        return std::string(name) + " = " + std::to_string(value) + " is out of range " + std::to_string(lowest) +
               " to " + std::to_string(highest) + ": the daemon keeps " + name + " = " + SettingValue(name);
    }
    if (std::sscanf(text.c_str(), "get atrr{%63[^}]} value", name) == 1 && text.find("is not find") != text.npos) {
        return "unknown name \"" + std::string(name) + "\": the daemon skips the line" + UnknownNameHint(name);
    }
    if (std::sscanf(text.c_str(), "attr{%63[^}]} has no value", name) == 1) {
        return std::string(name) + " without a number: the daemon skips the line";
    }
    if (StartsWith(text, "sscanf_s {")) {
        return "no name and number that the daemon can read: it skips the line";
    }
    if (StartsWith(text, "update attr{")) {
        return std::nullopt;  // follows one of the records above, on the same line
    }
    return "the daemon logs: " + text;
}

// Follows the daemon's line reader through the file: every line handed to
// the callback, and every line the reader skips, is matched with the
// physical lines it came from.
class SettingsChecker {
public:
    SettingsChecker(const std::string &path, const std::string &content, SettingsResult *result)
        : path_(path), content_(content), result_(result)
    {
    }

    void Run()
    {
        LogCapture capture;
        capture_ = &capture;
        int ret = INTF_UTIL_ReadFileHandleByLine(path_.c_str(), this, &SettingsChecker::OnLine);
        TakeReaderRecords();
        if (ret == UDEV_RET_FAIL) {
            result_->found = false;  // gone since it was read: defaults
            return;
        }
        if (!result_->hangs && pos_ < content_.size() && !CleanedLine(content_.substr(pos_)).empty()) {
            Add(line_, "no newline at the end of the file: the daemon ignores this last line");
        }
    }

private:
    static int OnLine(char *text, uint32_t length, void *context)
    {
        return static_cast<SettingsChecker *>(context)->HandleLine(text, length);
    }

    void Add(unsigned line, std::string message, bool fatal = false)
    {
        result_->problems.push_back({path_, line, std::move(message), fatal});
    }

    int HandleLine(char *text, uint32_t length)
    {
        TakeReaderRecords();
        unsigned start = Consume(length, false);
        if (length == 0) {
            Add(start, "empty line: the daemon's reader never returns from it and start-up hangs (until the "
                       "service's start time-out fails it)",
                true);
            result_->hangs = true;
            return UDEV_RET_FAIL;  // stops the reader: the daemon's handler is not called on it
        }
        (void)UDEV_HandQmLinuxCfgReadLine(text, length, nullptr);
        for (const LogRecord &record : capture_->Take()) {
            if (std::optional<std::string> message = SettingRecordMessage(record.text)) {
                Add(start, *message);
            }
        }
        return UDEV_RET_OK;
    }

    // Records the reader itself logs between two lines: a skipped long line.
    void TakeReaderRecords()
    {
        for (const LogRecord &record : capture_->Take()) {
            if (StartsWith(record.text, "line over max number")) {
                unsigned start = Consume(kMaxLineChars + 1, true);
                Add(start, "longer than 510 characters: the daemon skips the whole line");
            } else if (!StartsWith(record.text, "can't open")) {
                Add(line_, "the daemon logs: " + record.text);
            }
        }
    }

    // Moves over the physical lines that gave `stored` characters of one
    // line of the reader, and its closing newline. Every newline met before
    // the last character is one the reader joined (it followed a
    // backslash); a long line is dropped up to its newline whatever it holds.
    unsigned Consume(size_t stored, bool dropRest)
    {
        unsigned start = line_;
        for (size_t kept = 0; kept < stored && pos_ < content_.size(); pos_++) {
            if (content_[pos_] != '\n') {
                kept++;
                continue;
            }
            Add(line_, "backslash at the end of the line: the daemon joins line " + std::to_string(line_ + 1) +
                           " to it");
            line_++;
        }
        if (dropRest) {
            while (pos_ < content_.size() && content_[pos_] != '\n') {
                pos_++;
            }
        }
        pos_++;  // the newline that ended it
        line_++;
        return start;
    }

    std::string path_;
    const std::string &content_;
    SettingsResult *result_;
    LogCapture *capture_ = nullptr;
    size_t pos_ = 0;
    unsigned line_ = 1;
};

// ---- Output --------------------------------------------------------------

struct VerifyReport {
    std::string vendorsPath = kDefaultVendors;
    std::string settingsPath = kDefaultSettings;
    RuleList rules;  // as the daemon's reader makes them of the file
    std::vector<unsigned> ruleLines;
    SettingsResult settings;
    std::vector<std::string> defaults;
    std::vector<Problem> problems;
};

std::string ProblemLine(const Problem &problem)
{
    std::string where = problem.line != 0 ? problem.file + ":" + std::to_string(problem.line) : problem.file;
    return where + ": " + problem.message;
}

void PrintText(const VerifyReport &report)
{
    const UdevListHead *list = report.rules.Head();
    size_t index = 0;
    std::printf("%s: vendor list\n", report.vendorsPath.c_str());
    for (const UdevListHead *link = list->next; link != list; link = link->next, index++) {
        const auto *rule = reinterpret_cast<const UdevProductNode *>(link);
        std::string line = index < report.ruleLines.size() ? std::to_string(report.ruleLines[index]) : "?";
        std::printf("  line %s: ruler_name=%s vendor_id=%s product_id=%s driver=%s\n", line.c_str(),
                    rule->ruler_name, rule->vendor_id, rule->product_id, rule->driver);
    }
    if (index == 0) {
        std::printf("  no rule: no disk is taken over\n");
    }
    std::printf("%s: time-out settings%s\n", report.settingsPath.c_str(),
                report.settings.hangs ? " (not read: start-up would hang)"
                                      : report.settings.found ? "" : " (no file: defaults)");
    for (size_t i = 0; i < std::size(kSettingNames) && !report.settings.hangs; i++) {
        std::printf("  %s = %s (default %s)\n", kSettingNames[i], SettingValue(kSettingNames[i]).c_str(),
                    report.defaults[i].c_str());
    }
    for (const Problem &problem : report.problems) {
        std::printf("%s\n", ProblemLine(problem).c_str());
    }
}

void PrintJson(const VerifyReport &report, int exitCode)
{
    std::string out;
    JsonWriter json(&out);
    json.BeginObject().Key("vendors").BeginObject().Field("file", report.vendorsPath).Key("rules").BeginArray();
    const UdevListHead *list = report.rules.Head();
    size_t index = 0;
    for (const UdevListHead *link = list->next; link != list; link = link->next, index++) {
        const auto *rule = reinterpret_cast<const UdevProductNode *>(link);
        json.BeginObject().Key("line");
        index < report.ruleLines.size() ? json.Int(report.ruleLines[index]) : json.Null();
        json.Field("ruler_name", rule->ruler_name).Field("vendor_id", rule->vendor_id);
        json.Field("product_id", rule->product_id).Field("driver", rule->driver).EndObject();
    }
    json.EndArray().EndObject();
    json.Key("settings").BeginObject().Field("file", report.settingsPath).Key("found").Bool(report.settings.found);
    json.Key("hangs").Bool(report.settings.hangs).Key("values").BeginArray();
    for (size_t i = 0; i < std::size(kSettingNames) && !report.settings.hangs; i++) {
        json.BeginObject().Field("name", kSettingNames[i]).Field("value", SettingValue(kSettingNames[i]));
        json.Field("default", report.defaults[i]).EndObject();
    }
    json.EndArray().EndObject().Key("problems").BeginArray();
    for (const Problem &problem : report.problems) {
        json.BeginObject().Field("file", problem.file).Key("line");
        problem.line != 0 ? json.Int(problem.line) : json.Null();
        json.Field("message", problem.message).Key("fatal").Bool(problem.fatal);
        json.Field("text", ProblemLine(problem)).EndObject();
    }
    json.EndArray().Key("exit").Int(exitCode).EndObject();
    std::printf("%s\n", out.c_str());
}

void CheckVendors(VerifyReport *report)
{
    const std::string &path = report->vendorsPath;
    int err = 0;
    std::optional<std::string> content = ReadWhole(path, &err);
    if (!content) {
        report->problems.push_back({path, 0, "cannot be read (" + HintForOpenError(err) + "): the daemon does not "
                                   "start without its vendor list", true});
        return;
    }
    VendorCheck check = VendorChecker(path).Run(*content);
    report->problems = std::move(check.problems);
    report->ruleLines = std::move(check.ruleLines);
    // The rules shown are the ones the daemon's reader makes of the file.
    LogCapture quiet;
    errno = 0;
    if (!UDEV_ReadConfigInto(path.c_str(), report->rules.Head())) {
        report->problems.push_back({path, 0, "cannot be opened for reading and writing (" + HintForOpenError(errno) +
                                   "): the daemon does not start", true});
    } else if (UDEV_ListEmpty(report->rules.Head())) {
        report->problems.push_back({path, 0, check.header ? "no rule after [vendors]: the daemon takes over no disk"
                                   : "no [vendors] line: the daemon reads no rule and takes over no disk"});
    }
}

void SortByLine(std::vector<Problem> *problems)
{
    std::stable_sort(problems->begin(), problems->end(),
                     [](const Problem &a, const Problem &b) { return a.line < b.line; });
}

const char *const kVerifyUsage =
    "Usage: qmudevadm verify [--vendors FILE] [--settings FILE] [--json]\n"
    "Reads the vendor list and the time-out settings with the daemon's own readers, prints the rules\n"
    "and settings the daemon would use, then one line per problem: FILE:LINE: what the daemon will do.\n"
    "  --vendors FILE   the vendor list (default /etc/qm_plus.conf)\n"
    "  --settings FILE  the time-out settings (default /etc/qmLinux.conf)\n"
    "  --json           one JSON object\n"
    "Exit: 0 the files mean what they seem to, 1 some line is dropped or changed,\n"
    "      2 the daemon would not start or would hang, 64 bad usage.\n";

}  // namespace

SettingsResult LoadSettings(const std::string &path)
{
    SettingsResult result;
    int err = 0;
    std::optional<std::string> content = ReadWhole(path, &err);
    if (!content) {
        if (err != ENOENT) {
            result.problems.push_back({path, 0, "cannot be read (" + HintForOpenError(err) +
                                       "): the daemon keeps every default"});
        }
        return result;
    }
    result.found = true;
    SettingsChecker(path, *content, &result).Run();
    if (result.found && !result.hangs) {
        // The table the daemon's own reader makes of the file; the lines were
        // handled once already, and handling them again gives the same table.
        LogCapture quiet;
        (void)UDEV_InitQmLinuxConfigFromPath(path.c_str());
    }
    return result;
}

int RunVerify(int argc, char **argv)
{
    VerifyReport report;
    bool json = false;
    static const option kOptions[] = {{"vendors", required_argument, nullptr, 'v'},
                                      {"settings", required_argument, nullptr, 's'},
                                      {"json", no_argument, nullptr, 'j'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    int opt;
    while ((opt = getopt_long(argc, argv, "+h", kOptions, nullptr)) != -1) {
        switch (opt) {
            case 'v': report.vendorsPath = optarg; break;
            case 's': report.settingsPath = optarg; break;
            case 'j': json = true; break;
            case 'h': std::fputs(kVerifyUsage, stdout); return kExitOk;
            default: std::fputs(kVerifyUsage, stderr); return kExitUsage;
        }
    }
    if (optind != argc) {
        std::fputs(kVerifyUsage, stderr);
        return kExitUsage;
    }
    for (const char *name : kSettingNames) {
        report.defaults.push_back(SettingValue(name));  // nothing read yet: the built-in values
    }
    CheckVendors(&report);
    report.settings = LoadSettings(report.settingsPath);
    SortByLine(&report.problems);
    SortByLine(&report.settings.problems);
    report.problems.insert(report.problems.end(), report.settings.problems.begin(), report.settings.problems.end());
    int exitCode = kExitOk;
    for (const Problem &problem : report.problems) {
        exitCode = std::max(exitCode, problem.fatal ? kExitNoStart : kExitChanged);
    }
    json ? PrintJson(report, exitCode) : PrintText(report);
    return exitCode;
}

}  // namespace adm
