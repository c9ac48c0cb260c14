// The two configuration readers on hostile file contents: the input is read
// as /etc/qm_plus.conf (vendor support list) and as /etc/qmLinux.conf
// (time-out settings); the line cleaners they share also run on exact-size
// heap buffers of any length, so that ASan sees any access past the end.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "fuzz_common.h"
#include "read_line.h"
#include "udev_config.h"
#include "udev_qmlinux.h"
#include "util_ret.h"

namespace {

// The four settings and their documented ranges.
const std::tuple<const char *, int, int> kSettings[] = {
    {"dev_loss_tmo", 1, 600}, {"fast_io_fail_tmo", 0, 599}, {"recovery_tmo", 0, 600}, {"scsi_timeout", 1, 600}};

// Candidate vendor and product texts: the input's words between the
// grammar's separators.
std::vector<std::string> Words(const uint8_t *data, size_t size)
{
    std::vector<std::string> words(1);
    for (size_t i = 0; i < size && words.size() < 8; ++i) {
        if (std::strchr(",= \t\n\"\\;", data[i]) == nullptr) {
            words.back().push_back(static_cast<char>(data[i]));
        } else if (!words.back().empty()) {
            words.emplace_back();
        }
    }
    return words;
}

void CheckVendorList(const uint8_t *data, size_t size)
{
    FUZZ_CHECK(UDEV_InitConfigFromPath(FuzzFile(data, size)));
    std::vector<std::string> words = Words(data, size);
    for (const std::string &vendor : words) {
        for (const std::string &product : words) {
            bool supported = UDEV_DeviceIsSupport(vendor.c_str(), product.c_str());
            // udev's "\x20" escapes of trailing blanks never change the answer.
            if (product.size() + 4 < UDEV_CFG_FIELD_LEN) {
                FUZZ_CHECK(supported == UDEV_DeviceIsSupport(vendor.c_str(), (product + "\\x20").c_str()));
            }
        }
        (void)UDEV_DeviceIsSupport(vendor.c_str(), nullptr);
    }
    // LeakSanitizer sees any rule that the release forgets.
    UDEV_ReleaseConfig();
    FUZZ_CHECK(!UDEV_DeviceIsSupport(words[0].c_str(), nullptr));
}

void CheckSettings(const uint8_t *data, size_t size)
{
    int lines = 0;
    const char *path = FuzzFile(data, size);
    auto count = [](char *line, uint32_t lineLen, void *ctx) {
        FUZZ_CHECK(lineLen < UTIL_LINE_BUF_LEN && line[lineLen] == '\0');
        ++*static_cast<int *>(ctx);
        return UDEV_RET_OK;
    };
    FUZZ_CHECK(INTF_UTIL_ReadFileHandleByLine(path, &lines, count) == UDEV_RET_OK);
    auto refuse = [](char *, uint32_t, void *) { return UDEV_RET_FAIL; };
    FUZZ_CHECK(INTF_UTIL_ReadFileHandleByLine(path, nullptr, refuse) == (lines > 0 ? UDEV_RET_CALLBACK_FAIL : UDEV_RET_OK));

    // An empty line holds the reading thread in the cleaner's assertion for
    // good, by design: the settings reader never gets one.
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] != '\n' || (!text.empty() && text.back() != '\n')) {
            text.push_back(static_cast<char>(data[i]));
        }
    }
    FUZZ_CHECK(UDEV_InitQmLinuxConfigFromPath(FuzzFile(text.data(), text.size())) == UDEV_RET_OK);
    for (auto [name, lowest, highest] : kSettings) {
        for (size_t len : {size_t{1}, size % 12 + 1}) {
            std::vector<char> value(len);
            int ret = UDEV_GetQmLinuxCfgValue(name, value.data(), len);
            FUZZ_CHECK(ret == UDEV_RET_FAIL || (ret == UDEV_RET_OK && std::memchr(value.data(), 0, len) != nullptr &&
                                                std::atoi(value.data()) >= lowest && std::atoi(value.data()) <= highest));
        }
    }
}

// Only for a size above 0: a size of 0 is the cleaners' assertion.
void CheckCleaners(const uint8_t *data, size_t size)
{
    std::vector<char> buf(data, data + size);
    (void)UDEV_ClearCharacters(buf.data(), static_cast<uint32_t>(size));
    (void)UDEV_ReplaceCharacters(buf.data(), static_cast<uint32_t>(size));
    for (size_t i = 0; i < size && buf[i] != '\0'; ++i) {
        // Blanks come only from "=", and every byte that cleaning drops is gone.
        char c = buf[i];
        FUZZ_CHECK(c == ' ' || (static_cast<signed char>(c) > ' ' && c != '"' && c != ';' && c != '='));
    }
    UDEV_ClearTailSpace(buf.data(), static_cast<uint32_t>(size));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    CheckVendorList(data, size);
    CheckSettings(data, size);
    if (size > 0) {
        CheckCleaners(data, size);
    }
    return 0;
}
