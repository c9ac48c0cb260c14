// The vendor support list of qm_plus.conf: the reader's grammar rule by
// rule, the cleaning helpers, matching of vendor and product against the
// loaded rules, and the shipped sample read through the reader.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "mpi_usr_if.h"
#include "support/trace_capture.h"
#include "udev_config.h"

#ifndef QMUDEV_SOURCE_DIR
#error "QMUDEV_SOURCE_DIR must name the source tree"
#endif

namespace {

using Rule = std::tuple<std::string, std::string, std::string, std::string>;  // ruler, vendor, product, driver

const char *const kExampleFile =
    "ruler_name=ignored,vendor_id=X,product_id=Y\n"
    "[vendors]\n"
    "ruler_name = \"rule_a\", vendor_id = \"VENDOR\", \\\n"
    "product_id = \"PRODUCT\", driver = \"drv\";\n"
    "ruler_name=rule_b,vendor_id=VENDOR2,product_id=MODEL-2\n";

std::string Field(const char (&field)[UDEV_CFG_FIELD_LEN])
{
    return std::string(field, strnlen(field, UDEV_CFG_FIELD_LEN));
}

std::vector<Rule> RulesOf(const UdevListHead *head)
{
    std::vector<Rule> rules;
    for (const UdevListHead *link = head->next; link != head; link = link->next) {
        auto *node = reinterpret_cast<const UdevProductNode *>(link);
        rules.emplace_back(Field(node->ruler_name), Field(node->vendor_id), Field(node->product_id),
                           Field(node->driver));
    }
    return rules;
}

Rule VendorOnly(const std::string &vendor)
{
    return {"", vendor, "", ""};
}

const Rule kEmptyRule{"", "", "", ""};

std::string Repeat(char c, size_t count)
{
    return std::string(count, c);
}

// A literal with its embedded NULs, without the closing one.
template <size_t N>
std::string Bytes(const char (&text)[N])
{
    return std::string(text, N - 1);
}

class VendorListTest : public ::testing::Test {
protected:
    void SetUp() override { UDEV_ListInit(&rules_); }
    void TearDown() override
    {
        UDEV_DeleteProductList(&rules_);
        UDEV_ReleaseConfig();
    }

    std::string Write(const std::string &content)
    {
        std::string path = dir_.File("qm_plus.conf");
        qmtest::WriteFile(path, content);
        return path;
    }
    // Onto the test's own list of rules.
    bool Load(const std::string &content) { return UDEV_ReadConfigInto(Write(content).c_str(), &rules_); }
    // As the loaded configuration, which the support check reads.
    bool LoadConfig(const std::string &content) { return UDEV_InitConfigFromPath(Write(content).c_str()); }
    std::vector<Rule> Rules() const { return RulesOf(&rules_); }

    UdevListHead rules_;

    qmtest::TempDir dir_;
    qmtest::TraceCapture trace_;
};

// ---- reading the file -------------------------------------------------------

TEST_F(VendorListTest, ReloadReplacesTheRulesAndAMissingFileEmptiesThem)
{
    ASSERT_TRUE(Load("[vendors]\nvendor_id=FIRST\n"));
    ASSERT_TRUE(Load("[vendors]\nvendor_id=SECOND\n"));
    EXPECT_EQ(Rules(), std::vector<Rule>{VendorOnly("SECOND")});

    EXPECT_FALSE(UDEV_ReadConfigInto(dir_.File("absent.conf").c_str(), &rules_));
    EXPECT_TRUE(Rules().empty());
    EXPECT_TRUE(trace_.Has("open file failed.\n"));
}

TEST_F(VendorListTest, GrammarRuleByRule)
{
    struct Row {
        const char *name;
        std::string content;
        std::vector<Rule> rules;
    } rows[] = {
        // The header and what comes before it.
        {"lines before the header ignored", "vendor_id=BEFORE\n[vendors]\nvendor_id=AFTER\n", {VendorOnly("AFTER")}},
        {"header compared after cleaning", "[ vendors ]\nvendor_id=V\n", {VendorOnly("V")}},
        {"capital header rejected", "[Vendors]\nvendor_id=V\n", {}},
        {"header with trailing text rejected", "[vendors]x\nvendor_id=V\n", {}},
        {"later section header is a rule", "[vendors]\n[other]\nvendor_id=V\n", {kEmptyRule, VendorOnly("V")}},
        {"hash line is a rule", "[vendors]\n# vendor_id=V\n", {kEmptyRule}},
        {"second header is no rule", "[vendors]\n[vendors]\nvendor_id=V\n", {VendorOnly("V")}},
        {"documented example",
         kExampleFile,
         {Rule{"rule_a", "VENDOR", "PRODUCT", "drv"}, Rule{"rule_b", "VENDOR2", "MODEL-2", ""}}},
        // Lines, joins and cleaning.
        {"last line without newline not read", "[vendors]\nvendor_id=A\nvendor_id=B", {VendorOnly("A")}},
        {"backslash mid-line joins and is dropped", "[vendors]\nvendor_id=A\\B\n,product_id=C\n",
         {Rule{"", "AB", "C", ""}}},
        {"backslash joins several lines", "[vendors]\nvendor_id=V\\\n,\\\nproduct_id=P\n", {Rule{"", "V", "P", ""}}},
        {"backslash on the last line without newline", "[vendors]\nvendor_id=V\\\n", {}},
        {"empty and blank lines ignored", "[vendors]\n\n   \n\t\nvendor_id=V\n\n", {VendorOnly("V")}},
        {"carriage returns dropped", "[vendors]\r\nvendor_id=V\r\n", {VendorOnly("V")}},
        {"blanks, quotes, semicolons removed", "[vendors]\nvendor_id = \"A B\" ;\n", {VendorOnly("AB")}},
        {"high bytes removed", "[vendors]\nvendor_id=A\xff\x80" "B\n", {VendorOnly("AB")}},
        {"control bytes removed, DEL kept", "[vendors]\nvendor_id=A\x01\x1f" "B\x7f\n", {VendorOnly("AB\x7f")}},
        {"NUL ends the line", Bytes("[vendors]\nvendor_id=AB\0,product_id=P\n"), {VendorOnly("AB")}},
        {"NUL alone is an empty line", Bytes("[vendors]\n\0\nvendor_id=V\n"), {VendorOnly("V")}},
        // Pairs.
        {"four pairs kept", "[vendors]\nruler_name=R,vendor_id=V,product_id=P,driver=D\n", {Rule{"R", "V", "P", "D"}}},
        {"five pairs drop the line",
         "[vendors]\nruler_name=R,vendor_id=V,product_id=P,driver=D,extra=E\nvendor_id=NEXT\n",
         {VendorOnly("NEXT")}},
        {"five unknown pairs drop the line", "[vendors]\na=1,b=2,c=3,d=4,e=5\n", {}},
        {"empty pieces not counted", "[vendors]\n,,ruler_name=R,,vendor_id=V,,product_id=P,,driver=D,,\n",
         {Rule{"R", "V", "P", "D"}}},
        {"unknown keys ignored", "[vendors]\ncolour=blue,vendor_id=V\n", {VendorOnly("V")}},
        {"unknown-only line adds an empty rule", "[vendors]\ncolour=blue\n", {kEmptyRule}},
        {"keys are case sensitive", "[vendors]\nVENDOR_ID=V\n", {kEmptyRule}},
        {"key without value takes the previous value", "[vendors]\nvendor_id=V,product_id\n", {Rule{"", "V", "V", ""}}},
        {"first key without value stores empty", "[vendors]\nvendor_id\n", {kEmptyRule}},
        {"value without key is an unknown key", "[vendors]\n=V\n", {kEmptyRule}},
        {"extra equals splits the value", "[vendors]\nvendor_id=A=B\n", {VendorOnly("A")}},
        {"later pair overrides earlier", "[vendors]\nvendor_id=A,vendor_id=B\n", {VendorOnly("B")}},
        {"value of 63 kept", "[vendors]\nvendor_id=" + Repeat('v', 63) + "\n", {VendorOnly(Repeat('v', 63))}},
        {"value of 64 drops the line", "[vendors]\nvendor_id=" + Repeat('v', 64) + "\nvendor_id=NEXT\n",
         {VendorOnly("NEXT")}},
        {"unknown key with a long value ignored", "[vendors]\nnote=" + Repeat('n', 200) + ",vendor_id=V\n",
         {VendorOnly("V")}},
        {"key of 64 is unknown", "[vendors]\n" + Repeat('k', 64) + "=V\n", {kEmptyRule}},
        // Raw characters count, blanks included: 511 fill the buffer, the
        // next one is dropped and the rest is a line of its own.
        {"raw 510 characters kept", "[vendors]\nvendor_id=V" + Repeat(' ', 499) + "\n", {VendorOnly("V")}},
        {"raw 511 characters discarded", "[vendors]\nvendor_id=V" + Repeat(' ', 500) + "\nvendor_id=NEXT\n",
         {VendorOnly("NEXT")}},
        {"rest of a line of 600 is its own line",
         "[vendors]\n" + Repeat('x', 511) + "y" + Repeat('z', 73) + ",vendor_id=TAIL\n",
         {VendorOnly("TAIL")}},
        {"dropped character is the first after 511", "[vendors]\n" + Repeat(' ', 511) + "Xvendor_id=V\n",
         {VendorOnly("V")}},
        {"long rest is cut again", "[vendors]\n" + Repeat(' ', 1023) + "!vendor_id=V\n", {VendorOnly("V")}},
        {"backslash flag reset by a full buffer", "[vendors]\n" + Repeat(' ', 511) + "\\\nvendor_id=V\n",
         {VendorOnly("V")}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_TRUE(Load(row.content));
        EXPECT_EQ(Rules(), row.rules);
    }
}

TEST_F(VendorListTest, RejectedLinesAreReported)
{
    ASSERT_TRUE(Load("[vendors]\n" + Repeat('x', 600) + "\na=1,b=2,c=3,d=4,e=5\nvendor_id=" + Repeat('v', 64) + "\n"));
    EXPECT_TRUE(trace_.Has("single line over maximum number of characters:" + Repeat('x', 511) + "\n"));
    EXPECT_TRUE(trace_.Has("more than buffer length.\n"));
    EXPECT_TRUE(trace_.Has("sprintf_s failed.\n"));
}

// ---- the cleaning helpers ---------------------------------------------------

TEST(CleaningHelpers, ClearTailSpaceStripsTrailingEscapesOnly)
{
    const char *cases[][2] = {
        {"PRODUCT\\x20", "PRODUCT"},         {"PRODUCT\\x20\\x20", "PRODUCT"},   {"\\x20\\x20", ""},
        {"A\\x20B", "A\\x20B"},              {"PRODUCT ", "PRODUCT "},           {"PRODUCT \\x20", "PRODUCT "},
        {"PRODUCT\\x2", "PRODUCT\\x2"},      {"PRODUCT\\X20", "PRODUCT\\X20"},   {"x20", "x20"},
        {"", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c[0]);
        char buffer[UDEV_CFG_FIELD_LEN] = {0};
        std::strcpy(buffer, c[0]);
        UDEV_ClearTailSpace(buffer, sizeof(buffer));
        EXPECT_STREQ(buffer, c[1]);
    }
    char unterminated[8] = {'A', 'B', 'C', 'D', '\\', 'x', '2', '0'};
    UDEV_ClearTailSpace(unterminated, sizeof(unterminated));
    EXPECT_EQ(std::string(unterminated, 8), std::string("ABCD\0\0\0\0", 8));
}

TEST(CleaningHelpers, ClearCharactersWritesNoTerminatorBeyondAFullBuffer)
{
    char kept[4] = {'a', 'b', 'c', 'Z'};
    EXPECT_TRUE(UDEV_ClearCharacters(kept, 3));
    EXPECT_EQ(std::string(kept, 4), "abcZ");

    char shrunk[4] = {'a', ' ', 'c', 'Z'};
    EXPECT_TRUE(UDEV_ClearCharacters(shrunk, 3));
    EXPECT_EQ(std::string(shrunk, 4), std::string("ac\0Z", 4));
}

// ---- matching ----------------------------------------------------------------

TEST_F(VendorListTest, MatchingIsExactAfterUdevsEscapedBlanksAreStripped)
{
    const std::string product64(64, 'p');
    const std::string exampleList = std::string(kExampleFile) + "vendor_id=NOPROD\n";
    const std::string emptyRuleList = "[vendors]\ncolour=blue\n";
    struct Row {
        const std::string *list;  // null: no list loaded
        const char *vendor;
        const char *product;  // null: the disk has no product text
        bool supported;
        const char *message;  // expected record; null: none checked
    } rows[] = {
        {nullptr, "VENDOR", "PRODUCT", false, "list is NULL.\n"},
        {nullptr, "VENDOR", nullptr, false, "list is NULL.\n"},
        {&exampleList, "VENDOR", "PRODUCT", true, nullptr},
        {&exampleList, "VENDOR2", "MODEL-2", true, nullptr},
        {&exampleList, "VENDOR", "PRODUCT\\x20\\x20", true, nullptr},
        {&exampleList, "VENDOR", "PRODUCT ", false, nullptr},    // a real blank stays
        {&exampleList, "VENDOR\\x20", "PRODUCT", false, nullptr},  // the vendor is not stripped
        {&exampleList, "vendor", "PRODUCT", false, nullptr},
        {&exampleList, "VENDOR", "product", false, nullptr},
        {&exampleList, "VENDOR", "MODEL-2", false, nullptr},  // the product of the other rule
        {&exampleList, "VENDOR", "PROD", false, nullptr},
        {&exampleList, "X", "Y", false, nullptr},  // the line before the header
        {&exampleList, "VENDOR", nullptr, false, nullptr},
        {&exampleList, "NOPROD", nullptr, true, nullptr},
        {&exampleList, "NOPROD", "", true, nullptr},
        {&exampleList, "NOPROD", "\\x20", true, nullptr},
        {&exampleList, "VENDOR", product64.c_str(), false, "sprintf_s failed.\n"},
        {&exampleList, "", "PRODUCT", false, nullptr},
        {&emptyRuleList, "", nullptr, true, nullptr},
        {&emptyRuleList, "", "P", false, nullptr},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.vendor) + " / " + (row.product != nullptr ? row.product : "(none)"));
        UDEV_ReleaseConfig();
        if (row.list != nullptr) {
            ASSERT_TRUE(LoadConfig(*row.list));
        }
        size_t before = trace_.Text().size();
        EXPECT_EQ(UDEV_DeviceIsSupport(row.vendor, row.product), row.supported);
        if (row.message != nullptr) {
            EXPECT_NE(trace_.Text().find(row.message, before), std::string::npos);
        }
    }
}

// ---- the shipped sample ----------------------------------------------------------

// The notes above [vendors] must not turn into rules (a backslash would join
// lines, a note after the header would be a rule) and the last rule must end
// in a newline: exactly the intended rules come out.
TEST_F(VendorListTest, ShippedSampleGivesExactlyTheIntendedRules)
{
    const std::string sample = std::string(QMUDEV_SOURCE_DIR) + "/packaging/config/qm_plus.conf";
    ASSERT_TRUE(UDEV_ReadConfigInto(sample.c_str(), &rules_));
    ASSERT_TRUE(UDEV_InitConfigFromPath(sample.c_str()));
    EXPECT_EQ(Rules(), (std::vector<Rule>{Rule{"qm_scsi_array", "QUILLMSH", "QM-ARRAY", "quillmesh"},
                                          Rule{"qm_nvme_array", "QUILLMSH", "QMNVME", "quillmesh"}}));
    EXPECT_TRUE(UDEV_DeviceIsSupport("QUILLMSH", "QM-ARRAY\\x20\\x20"));  // udev's padded SCSI model
    EXPECT_TRUE(UDEV_DeviceIsSupport("QUILLMSH", "QMNVME"));
    EXPECT_FALSE(UDEV_DeviceIsSupport("QUILLMSH", nullptr));
    EXPECT_FALSE(UDEV_DeviceIsSupport("ATA", "QEMU HARDDISK"));
    EXPECT_FALSE(trace_.Has("[ERROR]"));
}

}  // namespace
