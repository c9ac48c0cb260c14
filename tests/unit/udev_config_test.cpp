// The vendor support list of qm_plus.conf: the reader's grammar rule by
// rule, matching of vendor and product against the loaded rules, and the
// shipped sample. Rules are seen as the protocol layer sees them, through
// UDEV_DeviceIsSupport.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/unit_support.h"
#include "udev_config.h"

#ifndef QMUDEV_SOURCE_DIR
#error "QMUDEV_SOURCE_DIR must name the source tree"
#endif

namespace {

const char *const kExampleFile =
    "ruler_name=ignored,vendor_id=X,product_id=Y\n"
    "[vendors]\n"
    "ruler_name = \"rule_a\", vendor_id = \"VENDOR\", \\\n"
    "product_id = \"PRODUCT\", driver = \"drv\";\n"
    "ruler_name=rule_b,vendor_id=VENDOR2,product_id=MODEL-2\n";

class VendorListTest : public ::testing::Test {
protected:
    bool Load(const std::string &content)
    {
        qmtest::WriteFile(dir_.File("qm_plus.conf"), content);
        return UDEV_InitConfigFromPath(dir_.File("qm_plus.conf").c_str());
    }
    // "VENDOR/PRODUCT" asks for that pair, "VENDOR" for a disk without
    // product text (a rule without product matches it), "" for the empty
    // rule; a leading "!" expects no match.
    static void Expect(const std::vector<std::string> &probes)
    {
        for (const std::string &probe : probes) {
            bool match = probe.empty() || probe[0] != '!';
            std::string text = match ? probe : probe.substr(1);
            size_t slash = text.find('/');
            std::string product = slash == std::string::npos ? "" : text.substr(slash + 1);
            const char *productOrNull = slash == std::string::npos ? nullptr : product.c_str();
            EXPECT_EQ(UDEV_DeviceIsSupport(text.substr(0, slash).c_str(), productOrNull), match) << "{" << probe << "}";
        }
    }

    qmtest::TempDir dir_;
    qmtest::TraceCapture trace_;
};

TEST_F(VendorListTest, GrammarRuleByRule)
{
    struct Row {
        const char *name;
        std::string content;
        std::vector<std::string> probes;
    } rows[] = {
        // The header and what comes before it.
        {"lines before the header ignored", "vendor_id=BEFORE\n[vendors]\nvendor_id=AFTER\n", {"AFTER", "!BEFORE"}},
        {"header compared after cleaning", "[ vendors ]\nvendor_id=V\n", {"V"}},
        {"capital header rejected", "[Vendors]\nvendor_id=V\n", {"!V"}},
        {"header with trailing text rejected", "[vendors]x\nvendor_id=V\n", {"!V"}},
        {"later section header is a rule", "[vendors]\n[other]\nvendor_id=V\n", {"", "V"}},
        {"hash line is a rule", "[vendors]\n# vendor_id=V\n", {"", "!V"}},
        {"second header is no rule", "[vendors]\n[vendors]\nvendor_id=V\n", {"V", "!"}},
        {"documented example", kExampleFile, {"VENDOR/PRODUCT", "VENDOR2/MODEL-2", "!X/Y", "!VENDOR", "!"}},
        // Lines, joins and cleaning.
        {"last line without newline not read", "[vendors]\nvendor_id=A\nvendor_id=B", {"A", "!B"}},
        {"backslash mid-line joins and is dropped", "[vendors]\nvendor_id=A\\B\n,product_id=C\n", {"AB/C", "!AB"}},
        {"backslash joins several lines", "[vendors]\nvendor_id=V\\\n,\\\nproduct_id=P\n", {"V/P", "!V"}},
        {"backslash on the last line without newline", "[vendors]\nvendor_id=V\\\n", {"!V"}},
        {"empty and blank lines ignored", "[vendors]\n\n   \n\t\nvendor_id=V\n\n", {"V", "!"}},
        {"carriage returns dropped", "[vendors]\r\nvendor_id=V\r\n", {"V"}},
        {"blanks, quotes, semicolons removed", "[vendors]\nvendor_id = \"A B\" ;\n", {"AB"}},
        {"high bytes removed", "[vendors]\nvendor_id=A\xff\x80" "B\n", {"AB"}},
        {"control bytes removed, DEL kept", "[vendors]\nvendor_id=A\x01\x1f" "B\x7f\n", {"AB\x7f"}},
        {"NUL ends the line", std::string("[vendors]\nvendor_id=AB\0,product_id=P\n", 37), {"AB", "!AB/P"}},
        {"NUL alone is an empty line", std::string("[vendors]\n\0\nvendor_id=V\n", 24), {"V", "!"}},
        // Pairs.
        {"four pairs kept", "[vendors]\nruler_name=R,vendor_id=V,product_id=P,driver=D\n", {"V/P"}},
        {"five pairs drop the line",
         "[vendors]\nruler_name=R,vendor_id=V,product_id=P,driver=D,extra=E\nvendor_id=NEXT\n", {"NEXT", "!V/P"}},
        {"five unknown pairs drop the line", "[vendors]\na=1,b=2,c=3,d=4,e=5\n", {"!"}},
        {"empty pieces not counted", "[vendors]\n,,ruler_name=R,,vendor_id=V,,product_id=P,,driver=D,,\n", {"V/P"}},
        {"unknown keys ignored", "[vendors]\ncolour=blue,vendor_id=V\n", {"V"}},
        {"unknown-only line adds an empty rule", "[vendors]\ncolour=blue\n", {""}},
        {"keys are case sensitive", "[vendors]\nVENDOR_ID=V\n", {"", "!V"}},
        {"key without value takes the previous value", "[vendors]\nvendor_id=V,product_id\n", {"V/V", "!V"}},
        {"first key without value stores empty", "[vendors]\nvendor_id\n", {""}},
        {"value without key is an unknown key", "[vendors]\n=V\n", {"", "!V"}},
        {"extra equals splits the value", "[vendors]\nvendor_id=A=B\n", {"A", "!AB"}},
        {"later pair overrides earlier", "[vendors]\nvendor_id=A,vendor_id=B\n", {"B", "!A"}},
        {"value of 63 kept", "[vendors]\nvendor_id=" + std::string(63, 'v') + "\n", {std::string(63, 'v')}},
        {"value of 64 drops the line", "[vendors]\nvendor_id=" + std::string(64, 'v') + "\nvendor_id=NEXT\n",
         {"NEXT", "!", "!" + std::string(63, 'v')}},
        {"unknown key with a long value ignored", "[vendors]\nnote=" + std::string(200, 'n') + ",vendor_id=V\n", {"V"}},
        {"key of 64 is unknown", "[vendors]\n" + std::string(64, 'k') + "=V\n", {""}},
        // Raw characters count, blanks included: 511 fill the buffer, the
        // next one is dropped and the rest is a line of its own.
        {"raw 510 characters kept", "[vendors]\nvendor_id=V" + std::string(499, ' ') + "\n", {"V"}},
        {"raw 511 characters discarded", "[vendors]\nvendor_id=V" + std::string(500, ' ') + "\nvendor_id=NEXT\n",
         {"NEXT", "!V"}},
        {"rest of a line of 600 is its own line",
         "[vendors]\n" + std::string(511, 'x') + "y" + std::string(73, 'z') + ",vendor_id=TAIL\n", {"TAIL"}},
        {"dropped character is the first after 511", "[vendors]\n" + std::string(511, ' ') + "Xvendor_id=V\n", {"V"}},
        {"long rest is cut again", "[vendors]\n" + std::string(1023, ' ') + "!vendor_id=V\n", {"V"}},
        {"backslash flag reset by a full buffer", "[vendors]\n" + std::string(511, ' ') + "\\\nvendor_id=V\n", {"V"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_TRUE(Load(row.content));
        Expect(row.probes);
    }
}

// Exact after udev's escaped trailing blanks ("\x20") are stripped from the
// product; the vendor is taken as it is.
TEST_F(VendorListTest, MatchingIsExactAfterEscapedBlanksAreStripped)
{
    ASSERT_TRUE(Load(std::string(kExampleFile) + "vendor_id=NOPROD\n"));
    Expect({"VENDOR/PRODUCT\\x20", "VENDOR/PRODUCT\\x20\\x20", "!VENDOR/PRODUCT ", "!VENDOR/PRODUCT \\x20",
            "!VENDOR/PRODUCT\\X20", "!VENDOR/PRODUCT\\x2", "!VENDOR/PROD", "!VENDOR\\x20/PRODUCT", "!vendor/PRODUCT",
            "!VENDOR/product", "!VENDOR/MODEL-2", "!/PRODUCT", "NOPROD", "NOPROD/", "NOPROD/\\x20", "!NOPROD/P"});
    EXPECT_FALSE(trace_.Has("sprintf_s failed."));
    // A product of 64 characters does not fit the copy that is stripped.
    EXPECT_FALSE(UDEV_DeviceIsSupport("VENDOR", std::string(64, 'p').c_str()));
    EXPECT_TRUE(trace_.Has("sprintf_s failed.\n"));
}

// The notes above [vendors] must not turn into rules, and the last rule must
// end in a newline.
TEST_F(VendorListTest, ShippedSampleGivesExactlyTheIntendedRules)
{
    ASSERT_TRUE(UDEV_InitConfigFromPath((std::string(QMUDEV_SOURCE_DIR) + "/packaging/config/qm_plus.conf").c_str()));
    Expect({"QUILLMSH/QM-ARRAY\\x20\\x20", "QUILLMSH/QMNVME", "!QUILLMSH", "!", "!ATA/QEMU HARDDISK"});
    EXPECT_FALSE(trace_.Has("[ERROR]"));
}

}  // namespace
