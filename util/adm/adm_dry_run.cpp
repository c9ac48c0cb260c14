// qmudevadm test: a dry run of the daemon's start-up scan. For each whole
// disk it runs the daemon's own enrichment and filtering on a fresh event
// record, exactly as the scan does, and shows the verdict, the device
// information text that the daemon would send with the ADD, and for a SCSI
// disk the time-out plan that its finishing step would write. Nothing is
// sent to the driver and nothing is written; what the daemon's code logs
// becomes the disk's reasons.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

#include <getopt.h>
#include <libudev.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "adm.h"
#include "adm_json.h"
#include "raii.h"
#include "udev_config.h"
#include "udev_enrich.h"
#include "udev_event.h"
#include "udev_protocol.h"
#include "udev_query.h"
#include "udev_sanboot.h"
#include "udev_timeout.h"
#include "util_ret.h"

namespace adm {

namespace {

struct TimeoutLine {
    std::string object;  // sysfs path of the port, session or SCSI device
    std::string attribute;
    std::optional<std::string> current;  // null: unreadable, so not written
    std::string value;
    bool write = false;  // the daemon writes only a text that differs
};

struct DiskReport {
    std::string name;
    std::string syspath;
    std::string devNum;
    std::string protocol;
    std::string vendor;
    std::string product;
    std::string wwn;
    bool takenOver = false;
    std::string reason;
    std::string driverText;
    std::vector<TimeoutLine> timeouts;
    std::vector<LogRecord> log;
};

// The first rule whose text appears in one of the disk's records names the
// reason; the records themselves go with it.
struct ReasonRule {
    const char *needle;
    const char *reason;
};
constexpr ReasonRule kReasons[] = {
    {"check the vendor{", "unsupported vendor or product"},
    {"specific the device of wwn{", "filtered by the SAN-boot WWN"},
    {"scsi parent fail", "no SCSI parent"},
    {"skips because hidden", "hidden NVMe path"},
    {"the nvme udev is not indentify", "NVMe namespace under an nvme-subsystem"},
    {"of udev device is not support", "neither a SCSI (sd) nor an NVMe (nvme) disk"},
    {"get device major fail", "no device number"},
    {"get device minor fail", "no device number"},
    {"list is NULL", "the vendor list is empty"},
};

std::string RefusalReason(const std::vector<LogRecord> &log)
{
    for (const ReasonRule &rule : kReasons) {
        for (const LogRecord &record : log) {
            if (record.text.find(rule.needle) != std::string::npos) {
                return rule.reason;
            }
        }
    }
    for (auto it = log.rbegin(); it != log.rend(); ++it) {
        if (it->level >= 2) {
            return "refused: " + it->text;
        }
    }
    return "refused";
}

const char *TextOf(const char *text)
{
    return text != nullptr ? text : "";
}

std::vector<TimeoutLine> TimeoutPlan(const UdevEventNode *node)
{
    UdevTimeoutPlan plan;
    UDEV_PlanScsiTimeOuts(node, &plan);
    std::vector<TimeoutLine> lines;
    for (uint32_t t = 0; t < plan.count; t++) {
        const UdevTimeoutTarget &target = plan.targets[t];
        for (uint32_t a = 0; a < target.attrCount; a++) {
            const UdevTimeoutAttr &attr = target.attrs[a];
            TimeoutLine line{TextOf(udev_device_get_syspath(target.device.get())), attr.name, std::nullopt, attr.value};
            if (attr.current != nullptr) {
                line.current = attr.current;
                line.write = std::strcmp(attr.current, attr.value) != 0;
            }
            lines.push_back(std::move(line));
        }
    }
    return lines;
}

// Vendor, product and WWN as the daemon reads them, for the reader of the
// report; what these queries log is not a reason of the verdict.
void Identify(struct udev_device *dev, const UdevEventNode *node, DiskReport *report)
{
    LogCapture quiet;
    char vendor[UTIL_VENDOR_LEN] = {0};
    char product[UTIL_PRODUCT_LEN] = {0};
    if (INTF_UTIL_CheckVidPidByBlkudev(dev, vendor, UTIL_VENDOR_LEN, product, UTIL_PRODUCT_LEN) == UDEV_RET_OK) {
        report->vendor = vendor;
        report->product = product;
    }
    if (!report->protocol.empty()) {
        report->wwn = TextOf(UDEV_ProtocolGetWwnByDevice(node->protocol, dev));
    }
}

// One whole disk through the steps of the start-up scan's add: basic
// information (device number, protocol), then the add's enrichment with the
// SAN-boot filter and the vendor check.
DiskReport Examine(struct udev_device *dev)
{
    DiskReport report;
    report.name = TextOf(udev_device_get_sysname(dev));
    report.syspath = TextOf(udev_device_get_syspath(dev));
    LogCapture capture;
    UdevEventNodePtr owned(UDEV_AllocEventNode());
    UdevEventNode *node = owned.get();
    if (node == nullptr) {
        report.log = capture.Take();
        report.reason = "out of memory";
        return report;
    }
    bool basic = UDEV_InitEventNodeBasicInfo(dev, node) == UDEV_RET_OK;
    if (basic) {
        report.protocol = node->protocol == UDEV_PROTOCOL_SCSI ? "scsi" : "nvme";
    }
    report.takenOver = basic && UDEV_InitAddEventNode(dev, node) == UDEV_RET_OK;
    report.devNum = node->devNum;
    if (report.takenOver) {
        report.reason = "vendor and product on the vendor list";
        report.driverText = node->devInfo;
        if (node->protocol == UDEV_PROTOCOL_SCSI) {
            report.timeouts = TimeoutPlan(node);
        }
    }
    report.log = capture.Take();
    if (!report.takenOver) {
        report.reason = RefusalReason(report.log);
    }
    Identify(dev, node, &report);
    return report;
}

DiskReport NotAWholeDisk(struct udev_device *dev, const char *devType)
{
    DiskReport report;
    report.name = TextOf(udev_device_get_sysname(dev));
    report.syspath = TextOf(udev_device_get_syspath(dev));
    report.reason = std::string("not a whole disk (device type ") + (devType != nullptr ? devType : "none") +
                    "): the start-up scan leaves it out";
    return report;
}

class Printer {
public:
    explicit Printer(bool json) : json_(json) {}
    ~Printer()
    {
        if (json_) {
            std::fputs(count_ == 0 ? "[]\n" : "\n]\n", stdout);
        }
    }
    Printer(const Printer &) = delete;
    Printer &operator=(const Printer &) = delete;

    void Print(const DiskReport &report)
    {
        json_ ? PrintJson(report) : PrintText(report);
        count_++;
    }

private:
    void PrintText(const DiskReport &report)
    {
        std::printf("%s %s %s %s/%s wwn=%s: %s (%s)\n", report.name.c_str(), Or(report.devNum), Or(report.protocol),
                    Or(report.vendor), Or(report.product), Or(report.wwn),
                    report.takenOver ? "taken over" : "not taken over", report.reason.c_str());
        if (report.takenOver) {
            std::printf("    driver text: %s\n", report.driverText.c_str());
        }
        for (const TimeoutLine &line : report.timeouts) {
            std::printf("    %s %s: %s\n", line.object.c_str(), line.attribute.c_str(), Change(line).c_str());
        }
        for (const LogRecord &record : report.log) {
            if (!report.takenOver && record.level > 0) {
                std::printf("    %s: %s\n", LevelName(record.level), record.text.c_str());
            }
        }
    }

    void PrintJson(const DiskReport &report)
    {
        std::string out = count_ == 0 ? "[\n" : ",\n";
        JsonWriter json(&out);
        json.BeginObject().Field("device", report.name).Field("syspath", report.syspath);
        json.Field("devnum", report.devNum).Field("protocol", report.protocol).Field("vendor", report.vendor);
        json.Field("product", report.product).Field("wwn", report.wwn);
        json.Field("verdict", report.takenOver ? "taken over" : "not taken over").Field("reason", report.reason);
        json.Key("driver_text");
        report.takenOver ? json.String(report.driverText) : json.Null();
        json.Key("timeouts").BeginArray();
        for (const TimeoutLine &line : report.timeouts) {
            json.BeginObject().Field("object", line.object).Field("attribute", line.attribute).Key("current");
            line.current ? json.String(*line.current) : json.Null();
            json.Field("new", line.value).Key("write").Bool(line.write).EndObject();
        }
        json.EndArray().Key("log").BeginArray();
        for (const LogRecord &record : report.log) {
            json.BeginObject().Field("level", LevelName(record.level)).Field("function", record.func);
            json.Field("message", record.text).EndObject();
        }
        json.EndArray().EndObject();
        std::fputs(out.c_str(), stdout);
    }

    static const char *Or(const std::string &text) { return text.empty() ? "-" : text.c_str(); }

    static std::string Change(const TimeoutLine &line)
    {
        if (!line.current) {
            return "unreadable, not written (wanted " + line.value + ")";
        }
        return line.write ? *line.current + " -> " + line.value : line.value + " (already)";
    }

    bool json_;
    size_t count_ = 0;
};

Printer *g_printer = nullptr;  // for the enumeration's callback, which has no context

// Every device of the "block" subsystem, as the start-up scan enumerates
// them; only whole disks are the scan's (the rest it leaves out).
void OnBlockDevice(const char *devPath, struct udev_device *dev)
{
    (void)devPath;
    const char *devType = dev != nullptr ? udev_device_get_devtype(dev) : nullptr;
    if (devType != nullptr && std::strcmp(devType, "disk") == 0) {
        g_printer->Print(Examine(dev));
    }
}

UdevDevicePtr Resolve(struct udev *udev, const std::string &arg)
{
    if (arg.rfind("/sys/", 0) == 0) {
        return UdevDevicePtr(udev_device_new_from_syspath(udev, arg.c_str()));
    }
    struct stat st {};
    if (arg.rfind("/dev/", 0) == 0) {
        if (stat(arg.c_str(), &st) != 0 || !S_ISBLK(st.st_mode)) {
            return nullptr;
        }
        return UdevDevicePtr(udev_device_new_from_devnum(udev, 'b', st.st_rdev));
    }
    unsigned major = 0;
    unsigned minor = 0;
    char rest = 0;
    if (std::sscanf(arg.c_str(), "%u:%u%c", &major, &minor, &rest) == 2) {
        return UdevDevicePtr(udev_device_new_from_devnum(udev, 'b', makedev(major, minor)));
    }
    return UdevDevicePtr(udev_device_new_from_subsystem_sysname(udev, "block", arg.c_str()));
}

// The configuration the daemon would start with; kExitOk or why not.
int LoadConfiguration(const std::string &vendors, const std::string &settings)
{
    LogCapture capture;
    if (!UDEV_InitConfigFromPath(vendors.c_str())) {
        std::fprintf(stderr, "qmudevadm: %s: cannot be opened (%s): the daemon does not start\n", vendors.c_str(),
                     HintForOpenError(errno).c_str());
        return kExitNoStart;
    }
    bool vendorProblems = !capture.Take().empty();
    SettingsResult result = LoadSettings(settings);
    if (result.hangs) {
        std::fprintf(stderr, "qmudevadm: %s:%u: empty line: the daemon's start-up would hang before its scan\n",
                     settings.c_str(), result.problems.back().line);
        return kExitNoStart;
    }
    if (vendorProblems || !result.problems.empty()) {
        std::fprintf(stderr, "qmudevadm: the daemon drops or changes lines of its configuration: see qmudevadm "
                             "verify\n");
    }
    return kExitOk;
}

const char *const kTestUsage =
    "Usage: qmudevadm test [--vendors FILE] [--settings FILE] [--sanboot-wwn WWN] [--json] [DEVICE...]\n"
    "A dry run of the daemon's start-up scan: for each whole disk (default: every one udev knows) the\n"
    "verdict and its reason, the text the driver would receive, and the time-outs that would be written.\n"
    "It only reads. DEVICE: a kernel name (sdb), /dev/NAME, a /sys path or MAJOR:MINOR.\n"
    "  --vendors FILE      the vendor list (default /etc/qm_plus.conf)\n"
    "  --settings FILE     the time-out settings (default /etc/qmLinux.conf)\n"
    "  --sanboot-wwn WWN   as the daemon's first argument: take over only this boot LUN\n"
    "  --json              a JSON array, one object per disk\n"
    "Exit: 0 done, 1 a device not found, 2 the daemon would not start or would hang, 64 bad usage.\n";

}  // namespace

int RunTest(int argc, char **argv)
{
    std::string vendors = kDefaultVendors;
    std::string settings = kDefaultSettings;
    std::string wwn;
    bool json = false;
    static const option kOptions[] = {{"vendors", required_argument, nullptr, 'v'},
                                      {"settings", required_argument, nullptr, 's'},
                                      {"sanboot-wwn", required_argument, nullptr, 'w'},
                                      {"json", no_argument, nullptr, 'j'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    int opt;
    while ((opt = getopt_long(argc, argv, "+h", kOptions, nullptr)) != -1) {
        switch (opt) {
            case 'v': vendors = optarg; break;
            case 's': settings = optarg; break;
            case 'w': wwn = optarg; break;
            case 'j': json = true; break;
            case 'h': std::fputs(kTestUsage, stdout); return kExitOk;
            default: std::fputs(kTestUsage, stderr); return kExitUsage;
        }
    }
    if (!wwn.empty() && !UDEV_SetSanbootWwn(wwn.c_str(), static_cast<int>(wwn.size()))) {
        std::fprintf(stderr, "qmudevadm: the daemon refuses the WWN \"%s\" (\"0x\" and 32 hexadecimal digits)\n",
                     wwn.c_str());
        return kExitUsage;
    }
    if (int ret = LoadConfiguration(vendors, settings); ret != kExitOk) {
        return ret;
    }
    if (!UDEV_ProtocolInitHandle()) {
        return kExitChanged;
    }
    int exitCode = kExitOk;
    {
        Printer printer(json);
        if (optind == argc) {
            g_printer = &printer;
            if (INTF_UTIL_UdevGetDevice("block", OnBlockDevice) != UDEV_RET_OK) {
                exitCode = kExitChanged;
            }
            g_printer = nullptr;
        }
        UdevPtr udev(udev_new());
        for (int i = optind; i < argc && udev; i++) {
            UdevDevicePtr dev = Resolve(udev.get(), argv[i]);
            const char *devType = dev ? udev_device_get_devtype(dev.get()) : nullptr;
            if (!dev) {
                std::fprintf(stderr, "qmudevadm: %s: no such block device\n", argv[i]);
                exitCode = kExitChanged;
            } else if (devType == nullptr || std::strcmp(devType, "disk") != 0) {
                printer.Print(NotAWholeDisk(dev.get(), devType));
            } else {
                printer.Print(Examine(dev.get()));
            }
        }
    }
    UDEV_ProtocolReleaseHandle();
    UDEV_ReleaseConfig();
    return exitCode;
}

}  // namespace adm
