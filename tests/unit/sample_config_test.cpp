// The shipped /etc/qm_plus.conf and /etc/qmLinux.conf, read through the
// daemon's own readers: the intended rules and values, clear of the readers'
// traps (notes after [vendors], empty lines, a last line without newline).
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "udev_config.h"
#include "udev_qmlinux.h"
#include "util_ret.h"

#ifndef QMUDEV_SOURCE_DIR
#error "QMUDEV_SOURCE_DIR must name the source tree"
#endif

namespace {

const std::string kVendorSample = std::string(QMUDEV_SOURCE_DIR) + "/packaging/config/qm_plus.conf";
const std::string kSettingsSample = std::string(QMUDEV_SOURCE_DIR) + "/packaging/config/qmLinux.conf";

struct Rule {
    std::string rulerName;
    std::string vendorId;
    std::string productId;
    std::string driver;
    bool operator==(const Rule &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Rule &r)
{
    return os << "{" << r.rulerName << ", " << r.vendorId << ", " << r.productId << ", " << r.driver << "}";
}

// What the shipped vendor list must give, in file order.
const std::vector<Rule> kIntendedRules = {
    {"qm_scsi_array", "QUILLMSH", "QM-ARRAY", "quillmesh"},
    {"qm_nvme_array", "QUILLMSH", "QMNVME", "quillmesh"},
};

// The shipped settings are the built-in defaults, written out.
const std::vector<std::pair<std::string, std::string>> kIntendedSettings = {
    {"dev_loss_tmo", "5"},
    {"fast_io_fail_tmo", "4"},
    {"recovery_tmo", "5"},
    {"scsi_timeout", "30"},
};

std::string ReadWhole(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << "cannot read " << path;
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The lines of a text that ends in a newline, without their newlines.
std::vector<std::string> Lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string TrimLeft(const std::string &s)
{
    size_t i = s.find_first_not_of(" \t");
    return i == std::string::npos ? std::string() : s.substr(i);
}

std::vector<Rule> LoadedRules()
{
    std::vector<Rule> rules;
    const UdevListHead *head = UDEV_GetProductList();
    for (const UdevListHead *link = head->next; link != head; link = link->next) {
        const auto *node = reinterpret_cast<const UdevProductNode *>(link);
        rules.push_back({node->ruler_name, node->vendor_id, node->product_id, node->driver});
    }
    return rules;
}

std::string SettingValue(const char *name)
{
    char value[16] = {};
    EXPECT_EQ(UDEV_GetQmLinuxCfgValue(name, value, sizeof(value)), UDEV_RET_OK) << name;
    return value;
}

class SampleConfigTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        UDEV_ReleaseConfig();
        UDEV_ResetQmLinuxConfigForTest();
    }
};

TEST_F(SampleConfigTest, VendorSampleAvoidsTheReaderTraps)
{
    std::string text = ReadWhole(kVendorSample);
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n') << "the last line would never be read";
    // A backslash anywhere joins two lines, even in the notes above the header.
    EXPECT_EQ(text.find('\\'), std::string::npos);

    int headers = 0;
    bool afterHeader = false;
    for (const std::string &line : Lines(text)) {
        EXPECT_LT(line.size(), 511u) << "an over-long line is cut in two: " << line;
        std::string cleaned;
        for (char c : line) {
            if (c != ' ' && c != '\t') {
                cleaned += c;
            }
        }
        if (cleaned == "[vendors]") {
            headers++;
            afterHeader = true;
            continue;
        }
        if (afterHeader) {
            // Every line after the header is a rule; notes there would be too.
            EXPECT_NE(TrimLeft(line).rfind('#', 0), 0u) << "a note after [vendors] becomes a rule: " << line;
            EXPECT_NE(line.find("vendor_id"), std::string::npos) << "not a rule: " << line;
        }
    }
    EXPECT_EQ(headers, 1);
}

TEST_F(SampleConfigTest, VendorSampleGivesExactlyTheIntendedRules)
{
    ASSERT_TRUE(UDEV_InitConfigFromPath(kVendorSample.c_str()));
    EXPECT_EQ(LoadedRules(), kIntendedRules);
    EXPECT_TRUE(UDEV_DeviceIsSupport("QUILLMSH", "QM-ARRAY"));
    EXPECT_TRUE(UDEV_DeviceIsSupport("QUILLMSH", "QMNVME"));
    EXPECT_TRUE(UDEV_DeviceIsSupport("QUILLMSH", "QM-ARRAY\\x20\\x20"));  // udev's padded SCSI model
    EXPECT_FALSE(UDEV_DeviceIsSupport("QUILLMSH", nullptr));
    EXPECT_FALSE(UDEV_DeviceIsSupport("ATA", "QEMU HARDDISK"));
    EXPECT_FALSE(UDEV_DeviceIsSupport("Linux", "scsi_debug"));
}

TEST_F(SampleConfigTest, SettingsSampleIsSafeAndSetsEveryDefaultItNames)
{
    std::string text = ReadWhole(kSettingsSample);
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n') << "the last line would never be read";
    EXPECT_EQ(text.find('\\'), std::string::npos);
    std::vector<std::string> lines = Lines(text);
    EXPECT_EQ(lines.size(), kIntendedSettings.size());
    for (const std::string &line : lines) {
        ASSERT_FALSE(line.empty()) << "an empty line holds the settings reader for good";
        EXPECT_NE(line.find('='), std::string::npos) << "a setting without = is not read: " << line;
        EXPECT_EQ(line.find('#'), std::string::npos) << "the settings file has no comments: " << line;
    }

    UDEV_ResetQmLinuxConfigForTest();
    for (const auto &[name, value] : kIntendedSettings) {
        EXPECT_EQ(SettingValue(name.c_str()), value) << "built-in default of " << name;
    }
    // Values unlike the intended ones: a line the reader skips shows up unchanged.
    for (const char *name : {"dev_loss_tmo", "recovery_tmo", "scsi_timeout"}) {
        ASSERT_EQ(UDEV_UpdateQmLinuxCfg(name, 600), UDEV_RET_OK);
    }
    ASSERT_EQ(UDEV_UpdateQmLinuxCfg("fast_io_fail_tmo", 599), UDEV_RET_OK);
    ASSERT_EQ(UDEV_InitQmLinuxConfigFromPath(kSettingsSample.c_str()), UDEV_RET_OK);
    for (const auto &[name, value] : kIntendedSettings) {
        EXPECT_EQ(SettingValue(name.c_str()), value) << name;
    }
}

}  // namespace
