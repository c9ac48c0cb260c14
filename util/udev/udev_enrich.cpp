// Enrichment and filtering of event records. This module owns the SAN-boot
// WWN (written once at start-up, before the threads) and the cached block
// major of the product's driver (used by the handle thread only).
#include "udev_enrich.h"

#include <cstdio>
#include <cstring>

#include <libudev.h>

#include "mpi_usr_if.h"
#include "raii.h"
#include "securec.h"
#include "udev_event.h"
#include "udev_protocol.h"
#include "util_ret.h"

namespace {

constexpr int SANBOOT_WWN_TEXT_LEN = 34;  // "0x" and 32 hexadecimal digits
constexpr size_t WWN_MIN_DIGITS = 32;

const char *const VLUN_MAJOR_COMMAND =
    "cat /proc/devices 2>/dev/null | grep '[[:blank:]]quillmesh$' | awk -F ' ' '{print $1}'";

char g_sanbootWwn[UDEV_WWN_LEN] = {0};
char g_vlunMajor[UDEV_MAJOR_LEN] = {0};

bool UDEV_IsHexDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The length rule here (at least 32) differs from the caller's (exactly 34)
// on purpose.
bool UDEV_IsHexWwn(const char *wwn)
{
    if (wwn == nullptr || strnlen(wwn, WWN_MIN_DIGITS) < WWN_MIN_DIGITS) {
        return false;
    }
    const char *digits = (wwn[0] == '0' && wwn[1] == 'x') ? wwn + 2 : wwn;
    for (; *digits != '\0'; ++digits) {
        if (!UDEV_IsHexDigit(*digits)) {
            return false;
        }
    }
    return true;
}

bool UDEV_StartsWith(const char *text, const char *prefix)
{
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

int UDEV_DispatchAction(struct udev_device *udevDev, UdevEventNode *eventNode, const char *action)
{
    if (std::strcmp(action, "add") == 0) {
        return UDEV_InitAddEventNode(udevDev, eventNode);
    }
    if (std::strcmp(action, "remove") == 0) {
        return UDEV_InitRemoveEventNode(eventNode);
    }
    if (std::strcmp(action, "change") == 0) {
        return UDEV_InitChangeEventNode(eventNode);
    }
    MPI_Log(MPI_LOG_WARN, "udev action{%s} is not support.\n", action);
    return UDEV_RET_FAIL;
}

}  // namespace

int UDEV_EnrichAndFilterEventNode(UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    // A retried node was enriched on an earlier walk; a node without a
    // device was built complete by the start-up scan.
    if (eventNode->isRetry == 1 || eventNode->udevDev == nullptr) {
        return UDEV_RET_OK;
    }
    struct udev_device *udevDev = eventNode->udevDev;
    if (UDEV_InitEventNodeBasicInfo(udevDev, eventNode) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    const char *action = udev_device_get_action(udevDev);
    if (action == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "get udev action fail");
        return UDEV_RET_FAIL;
    }
    return UDEV_DispatchAction(udevDev, eventNode, action);
}

int UDEV_InitEventNodeBasicInfo(struct udev_device *udevDev, UdevEventNode *eventNode)
{
    MPI_AssertNotNull(udevDev);
    MPI_AssertNotNull(eventNode);
    if (UDEV_InitDevt(udevDev, eventNode) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    if (UDEV_ProtocolInit(udevDev, eventNode) != UDEV_RET_OK) {
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

int UDEV_InitDevt(struct udev_device *udevDev, UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    MPI_AssertNotNull(udevDev);
    const char *major = udev_device_get_property_value(udevDev, "MAJOR");
    if (major == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "get device major fail");
        return UDEV_RET_FAIL;
    }
    const char *minor = udev_device_get_property_value(udevDev, "MINOR");
    if (minor == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "get device minor fail");
        return UDEV_RET_FAIL;
    }
    if (sprintf_s(eventNode->devNum, sizeof(eventNode->devNum), "%s:%s", major, minor) == -1) {
        MPI_Log(MPI_LOG_ERROR, "sprintf_s device num{%s:%s} failed.\n", major, minor);
        return UDEV_RET_FAIL;
    }
    // The trailing blank separates the protocol word that follows.
    if (sprintf_s(eventNode->devInfo, sizeof(eventNode->devInfo), "%s:%s ", major, minor) == -1) {
        MPI_Log(MPI_LOG_ERROR, "sprintf_s device num{%s:%s} of devinfo failed.\n", major, minor);
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

int UDEV_InitAddEventNode(struct udev_device *udevDev, UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    MPI_AssertNotNull(udevDev);
    // A device without a WWN is never filtered by the SAN-boot disk.
    const char *wwn = UDEV_ProtocolGetWwnByDevice(eventNode->protocol, udevDev);
    if (wwn != nullptr && !UDEV_FilterDeviceByWwn(wwn)) {
        return UDEV_RET_FAIL;
    }
    return UDEV_ProtocolInitAddEventNode(eventNode->protocol, udevDev, eventNode);
}

int UDEV_InitRemoveEventNode(UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    // The driver knows a removed disk by devNum alone; the zero-filled
    // record supplies the terminator.
    if (memcpy_s(eventNode->action, sizeof(eventNode->action), "remove", 6) != EOK) {
        MPI_Log(MPI_LOG_ERROR, "memcpy_s action{%s} failed.\n", "remove");
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

int UDEV_InitChangeEventNode(UdevEventNode *eventNode)
{
    MPI_AssertNotNull(eventNode);
    MPI_AssertNotNull(eventNode->udevDev);
    const char *sysname = udev_device_get_sysname(eventNode->udevDev);
    if (sysname == nullptr) {
        MPI_Log(MPI_LOG_ERROR, "%s.\n", "get the device name of udev device failed");
        return UDEV_RET_FAIL;
    }
    if (!UDEV_StartsWith(sysname, "sd") && !UDEV_StartsWith(sysname, "nvme")) {
        MPI_Log(MPI_LOG_DEBUG, "filter change event{%s}.\n", eventNode->devNum);
        return UDEV_RET_FAIL;
    }
    if (memcpy_s(eventNode->action, sizeof(eventNode->action), "change", 6) != EOK) {
        MPI_Log(MPI_LOG_ERROR, "memcpy_s action{%s} failed.\n", "change");
        return UDEV_RET_FAIL;
    }
    return UDEV_RET_OK;
}

bool UDEV_FilterDeviceByWwn(const char *wwn)
{
    if (wwn == nullptr || g_sanbootWwn[0] == '\0' || std::strcmp(g_sanbootWwn, wwn) == 0) {
        return true;
    }
    MPI_Log(MPI_LOG_INFO, "specific the device of wwn{%s} to take over, but current wwn {%s} to filter.\n",
            g_sanbootWwn, wwn);
    return false;
}

bool UDEV_SetSanbootWwn(const char *wwn, int len)
{
    if (wwn == nullptr || len != SANBOOT_WWN_TEXT_LEN || !UDEV_IsHexWwn(wwn)) {
        return false;
    }
    return strncpy_s(g_sanbootWwn, sizeof(g_sanbootWwn), wwn, sizeof(g_sanbootWwn) - 1) == EOK;
}

const char *UDEV_GetVlunMajorFromFile()
{
    // Re-run while empty: the driver may register its major later.
    if (g_vlunMajor[0] != '\0') {
        return g_vlunMajor;
    }
    PipePtr pipe(popen(VLUN_MAJOR_COMMAND, "r"));
    if (!pipe) {
        MPI_Log(MPI_LOG_ERROR, "run command{%s} failed.\n", VLUN_MAJOR_COMMAND);
        return nullptr;
    }
    // fgets leaves its buffer undefined on a read error, so the cache only
    // takes a line that was read whole.
    char line[UDEV_MAJOR_LEN] = {0};
    if (std::fgets(line, sizeof(line), pipe.get()) != nullptr) {
        size_t length = strnlen(line, sizeof(line));
        if (length > 0 && line[length - 1] == '\n') {
            line[length - 1] = '\0';
        }
        if (strcpy_s(g_vlunMajor, sizeof(g_vlunMajor), line) != EOK) {
            g_vlunMajor[0] = '\0';
        }
    }
    pipe.reset();
    MPI_Log(MPI_LOG_INFO, "get major{%s} form /proc/devices.\n", g_vlunMajor);
    return g_vlunMajor;
}

void UDEV_ResetEnrichForTest()
{
    (void)memset_s(g_sanbootWwn, sizeof(g_sanbootWwn), 0, sizeof(g_sanbootWwn));
    (void)memset_s(g_vlunMajor, sizeof(g_vlunMajor), 0, sizeof(g_vlunMajor));
}
