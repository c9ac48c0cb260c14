// The vendor support list of qm_plus.conf: the reader's grammar rule by
// rule, then matching of vendor and product against the loaded rules.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "mpi_usr_if.h"
#include "support/trace_capture.h"
#include "udev_config.h"

namespace {

using Rule = std::tuple<std::string, std::string, std::string, std::string>;  // ruler, vendor, product, driver

const char *const kExampleFile =
    "ruler_name=ignored,vendor_id=X,product_id=Y\n"
    "[vendors]\n"
    "ruler_name = \"rule_a\", vendor_id = \"VENDOR\", \\\n"
    "product_id = \"PRODUCT\", driver = \"drv\";\n"
    "ruler_name=rule_b,vendor_id=VENDOR2,product_id=MODEL-2\n";

class VendorListTest : public ::testing::Test {
protected:
    void TearDown() override { UDEV_ReleaseConfig(); }

    bool Load(const std::string &content)
    {
        std::string path = dir_.File("qm_plus.conf");
        qmtest::WriteFile(path, content);
        return UDEV_InitConfigFromPath(path.c_str());
    }

    bool TraceHas(const std::string &text) const { return trace_.Has(text); }

    static std::vector<Rule> Rules()
    {
        std::vector<Rule> rules;
        const UdevListHead *head = UDEV_GetProductList();
        for (const UdevListHead *link = head->next; link != head; link = link->next) {
            auto *node = reinterpret_cast<const UdevProductNode *>(link);
            rules.emplace_back(Field(node->ruler_name), Field(node->vendor_id), Field(node->product_id),
                               Field(node->driver));
        }
        return rules;
    }

    static std::string Field(const char (&field)[UDEV_CFG_FIELD_LEN])
    {
        return std::string(field, strnlen(field, UDEV_CFG_FIELD_LEN));
    }

    qmtest::TempDir dir_;
    qmtest::TraceCapture trace_;
};

Rule VendorOnly(const std::string &vendor)
{
    return {"", vendor, "", ""};
}

const Rule kEmptyRule{"", "", "", ""};

// ---- opening the file -------------------------------------------------------

TEST_F(VendorListTest, MissingFileFailsWithEmptyList)
{
    ASSERT_TRUE(Load("[vendors]\nvendor_id=OLD\n"));
    ASSERT_EQ(Rules().size(), 1u);

    EXPECT_FALSE(UDEV_InitConfigFromPath(dir_.File("absent.conf").c_str()));
    EXPECT_TRUE(Rules().empty());
    EXPECT_TRUE(TraceHas("open file failed.\n"));
}

TEST_F(VendorListTest, ReloadReplacesEarlierRules)
{
    ASSERT_TRUE(Load("[vendors]\nvendor_id=FIRST\n"));
    ASSERT_TRUE(Load("[vendors]\nvendor_id=SECOND\n"));
    EXPECT_EQ(Rules(), std::vector<Rule>{VendorOnly("SECOND")});
}

// ---- the grammar, rule by rule ---------------------------------------------

struct GrammarCase {
    const char *name;
    std::string content;
    std::vector<Rule> rules;
};

class VendorGrammarTest : public VendorListTest, public ::testing::WithParamInterface<GrammarCase> {};

TEST_P(VendorGrammarTest, YieldsRules)
{
    ASSERT_TRUE(Load(GetParam().content));
    EXPECT_EQ(Rules(), GetParam().rules);
}

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

const GrammarCase kGrammarCases[] = {
    {"NoHeaderNoRules", "vendor_id=V\nproduct_id=P\n", {}},
    {"LinesBeforeHeaderIgnored", "vendor_id=BEFORE\n[vendors]\nvendor_id=AFTER\n", {VendorOnly("AFTER")}},
    {"HeaderWithBlanksInside", "[ vendors ]\nvendor_id=V\n", {VendorOnly("V")}},
    {"HeaderInQuotesWithSemicolon", "\"[vendors]\";\nvendor_id=V\n", {VendorOnly("V")}},
    {"CapitalHeaderRejected", "[Vendors]\nvendor_id=V\n", {}},
    {"HeaderWithTrailingTextRejected", "[vendors]x\nvendor_id=V\n", {}},
    {"LaterSectionHeaderIsARule", "[vendors]\n[other]\nvendor_id=V\n", {kEmptyRule, VendorOnly("V")}},
    {"HashLineIsARule", "[vendors]\n# vendor_id=V\n", {kEmptyRule}},
    {"SecondHeaderIsNoRule", "[vendors]\n[vendors]\nvendor_id=V\n", {VendorOnly("V")}},
    {"DocumentedExample",
     kExampleFile,
     {Rule{"rule_a", "VENDOR", "PRODUCT", "drv"}, Rule{"rule_b", "VENDOR2", "MODEL-2", ""}}},
    {"LastLineWithoutNewlineNotRead", "[vendors]\nvendor_id=A\nvendor_id=B", {VendorOnly("A")}},
    {"OnlyLineWithoutNewline", "[vendors]", {}},
    {"BackslashMidLineJoinsAndIsDropped", "[vendors]\nvendor_id=A\\B\n,product_id=C\n", {Rule{"", "AB", "C", ""}}},
    {"BackslashJoinsSeveralLines", "[vendors]\nvendor_id=V\\\n,\\\nproduct_id=P\n", {Rule{"", "V", "P", ""}}},
    {"BackslashOnLastLineWithoutNewline", "[vendors]\nvendor_id=V\\\n", {}},
    {"EmptyAndBlankLinesIgnored", "[vendors]\n\n   \n\t\nvendor_id=V\n\n", {VendorOnly("V")}},
    {"CarriageReturnsDropped", "[vendors]\r\nvendor_id=V\r\n", {VendorOnly("V")}},
    {"BlanksQuotesSemicolonsRemoved", "[vendors]\nvendor_id = \"A B\" ;\n", {VendorOnly("AB")}},
    {"HighBytesRemoved", "[vendors]\nvendor_id=A\xff\x80" "B\n", {VendorOnly("AB")}},
    {"ControlBytesRemoved", "[vendors]\nvendor_id=A\x01\x1f" "B\x7f\n", {VendorOnly("AB\x7f")}},
    {"NulEndsTheLine", Bytes("[vendors]\nvendor_id=AB\0,product_id=P\n"), {VendorOnly("AB")}},
    {"NulAloneIsAnEmptyLine", Bytes("[vendors]\n\0\nvendor_id=V\n"), {VendorOnly("V")}},
    {"FourPairsKept",
     "[vendors]\nruler_name=R,vendor_id=V,product_id=P,driver=D\n",
     {Rule{"R", "V", "P", "D"}}},
    {"FivePairsDropLine",
     "[vendors]\nruler_name=R,vendor_id=V,product_id=P,driver=D,extra=E\nvendor_id=NEXT\n",
     {VendorOnly("NEXT")}},
    {"FiveUnknownPairsDropLine", "[vendors]\na=1,b=2,c=3,d=4,e=5\n", {}},
    {"EmptyPiecesNotCounted", "[vendors]\n,,ruler_name=R,,vendor_id=V,,product_id=P,,driver=D,,\n",
     {Rule{"R", "V", "P", "D"}}},
    {"UnknownKeysIgnored", "[vendors]\ncolour=blue,vendor_id=V\n", {VendorOnly("V")}},
    {"UnknownOnlyLineAddsEmptyRule", "[vendors]\ncolour=blue\n", {kEmptyRule}},
    {"KeysAreCaseSensitive", "[vendors]\nVENDOR_ID=V\n", {kEmptyRule}},
    {"KeyWithoutValueTakesPreviousValue", "[vendors]\nvendor_id=V,product_id\n", {Rule{"", "V", "V", ""}}},
    {"FirstKeyWithoutValueStoresEmpty", "[vendors]\nvendor_id\n", {kEmptyRule}},
    {"ValueWithoutKeyIsAnUnknownKey", "[vendors]\n=V\n", {kEmptyRule}},
    {"ExtraEqualsSplitsValue", "[vendors]\nvendor_id=A=B\n", {VendorOnly("A")}},
    {"LaterPairOverridesEarlier", "[vendors]\nvendor_id=A,vendor_id=B\n", {VendorOnly("B")}},
    {"ValueOf63Kept", "[vendors]\nvendor_id=" + Repeat('v', 63) + "\n", {VendorOnly(Repeat('v', 63))}},
    {"ValueOf64DropsLine", "[vendors]\nvendor_id=" + Repeat('v', 64) + "\nvendor_id=NEXT\n", {VendorOnly("NEXT")}},
    {"UnknownKeyWithLongValueIgnored", "[vendors]\nnote=" + Repeat('n', 200) + ",vendor_id=V\n", {VendorOnly("V")}},
    {"KeyOf64IsUnknown", "[vendors]\n" + Repeat('k', 64) + "=V\n", {kEmptyRule}},
    // Raw characters count, blanks included: 511 fill the buffer, the next is dropped.
    {"Raw510CharactersKept", "[vendors]\nvendor_id=V" + Repeat(' ', 499) + "\n", {VendorOnly("V")}},
    {"Raw511CharactersDiscarded", "[vendors]\nvendor_id=V" + Repeat(' ', 500) + "\nvendor_id=NEXT\n",
     {VendorOnly("NEXT")}},
    {"Line600RestIsItsOwnLine",
     "[vendors]\n" + Repeat('x', 511) + "y" + Repeat('z', 73) + ",vendor_id=TAIL\n",
     {VendorOnly("TAIL")}},
    {"DroppedCharacterIsTheFirstAfter511", "[vendors]\n" + Repeat(' ', 511) + "Xvendor_id=V\n", {VendorOnly("V")}},
    {"LongRestIsCutAgain",
     "[vendors]\n" + Repeat(' ', 512) + Repeat(' ', 511) + "!vendor_id=V\n",
     {VendorOnly("V")}},
    {"BackslashFlagResetByFullBuffer", "[vendors]\n" + Repeat(' ', 511) + "\\\nvendor_id=V\n", {VendorOnly("V")}},
};
INSTANTIATE_TEST_SUITE_P(Rules, VendorGrammarTest, ::testing::ValuesIn(kGrammarCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(VendorListTest, RejectedLinesAreReported)
{
    ASSERT_TRUE(Load("[vendors]\n" + Repeat('x', 600) + "\na=1,b=2,c=3,d=4,e=5\nvendor_id=" + Repeat('v', 64) + "\n"));
    EXPECT_TRUE(TraceHas("single line over maximum number of characters:" + Repeat('x', 511) + "\n"));
    EXPECT_TRUE(TraceHas("more than buffer length.\n"));
    EXPECT_TRUE(TraceHas("sprintf_s failed.\n"));
}

// Junk stays inside the buffers (sanitizer builds check) and fields stay texts.
TEST_F(VendorListTest, JunkContentIsReadSafely)
{
    std::mt19937 random(20240501);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> pick(0, 9);
    const char frequent[] = "=,\\\n [vendors]";
    for (int round = 0; round < 200; round++) {
        std::string content = (round % 2 == 0) ? "[vendors]\n" : "";
        size_t length = static_cast<size_t>(byte(random)) * 8;
        for (size_t i = 0; i < length; i++) {
            content.push_back(pick(random) < 4 ? frequent[byte(random) % (sizeof(frequent) - 1)]
                                               : static_cast<char>(byte(random)));
        }
        ASSERT_TRUE(Load(content));
        for (const Rule &rule : Rules()) {
            EXPECT_LT(std::get<1>(rule).size(), UDEV_CFG_FIELD_LEN);
            EXPECT_LT(std::get<2>(rule).size(), UDEV_CFG_FIELD_LEN);
        }
    }
}

// ---- the cleaning helpers ---------------------------------------------------

struct TextCase {
    const char *name;
    std::string input;
    std::string output;
};

class ClearTailSpaceTest : public ::testing::TestWithParam<TextCase> {};

TEST_P(ClearTailSpaceTest, StripsTrailingEscapesOnly)
{
    char buffer[UDEV_CFG_FIELD_LEN] = {0};
    std::memcpy(buffer, GetParam().input.data(), GetParam().input.size());
    UDEV_ClearTailSpace(buffer, sizeof(buffer));
    EXPECT_EQ(std::string(buffer), GetParam().output);
}

const TextCase kTailCases[] = {
    {"OneEscape", "PRODUCT\\x20", "PRODUCT"},
    {"TwoEscapes", "PRODUCT\\x20\\x20", "PRODUCT"},
    {"OnlyEscapes", "\\x20\\x20", ""},
    {"EscapeInsideKept", "A\\x20B", "A\\x20B"},
    {"RealBlankKept", "PRODUCT ", "PRODUCT "},
    {"BlankBeforeEscapeKept", "PRODUCT \\x20", "PRODUCT "},
    {"ShortEscapeKept", "PRODUCT\\x2", "PRODUCT\\x2"},
    {"UpperCaseEscapeKept", "PRODUCT\\X20", "PRODUCT\\X20"},
    {"TooShort", "x20", "x20"},
    {"Empty", "", ""},
};
INSTANTIATE_TEST_SUITE_P(Escapes, ClearTailSpaceTest, ::testing::ValuesIn(kTailCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(ClearTailSpaceBounds, UnterminatedBufferStaysInside)
{
    char buffer[8] = {'A', 'B', 'C', 'D', '\\', 'x', '2', '0'};
    UDEV_ClearTailSpace(buffer, sizeof(buffer));
    EXPECT_EQ(std::string(buffer, 4), "ABCD");
    EXPECT_EQ(buffer[4], '\0');
}

TEST(ClearCharactersBounds, FullBufferGetsNoTerminatorBeyondIt)
{
    char kept[4] = {'a', 'b', 'c', 'Z'};
    EXPECT_TRUE(UDEV_ClearCharacters(kept, 3));
    EXPECT_EQ(std::string(kept, 4), "abcZ");

    char shrunk[4] = {'a', ' ', 'c', 'Z'};
    EXPECT_TRUE(UDEV_ClearCharacters(shrunk, 3));
    EXPECT_EQ(std::string(shrunk, 4), std::string("ac\0Z", 4));
}

// ---- matching ----------------------------------------------------------------

TEST_F(VendorListTest, EmptyListSupportsNothing)
{
    EXPECT_FALSE(UDEV_DeviceIsSupport("VENDOR", "PRODUCT"));
    EXPECT_FALSE(UDEV_DeviceIsSupport("VENDOR", nullptr));
    EXPECT_TRUE(TraceHas("list is NULL.\n"));
}

struct MatchCase {
    const char *name;
    const char *vendor;
    const char *product;  // null: the disk has no product text
    bool supported;
};

class VendorMatchTest : public VendorListTest, public ::testing::WithParamInterface<MatchCase> {};

TEST_P(VendorMatchTest, Decides)
{
    ASSERT_TRUE(Load(std::string(kExampleFile) + "vendor_id=NOPROD\n"));
    EXPECT_EQ(UDEV_DeviceIsSupport(GetParam().vendor, GetParam().product), GetParam().supported);
}

const std::string kProduct64(64, 'p');
const MatchCase kMatchCases[] = {
    {"FirstRule", "VENDOR", "PRODUCT", true},
    {"SecondRule", "VENDOR2", "MODEL-2", true},
    {"TwoEscapedBlanksStripped", "VENDOR", "PRODUCT\\x20\\x20", true},
    {"RealTrailingBlankNotStripped", "VENDOR", "PRODUCT ", false},
    {"VendorNotStripped", "VENDOR\\x20", "PRODUCT", false},
    {"VendorCaseDiffers", "vendor", "PRODUCT", false},
    {"ProductCaseDiffers", "VENDOR", "product", false},
    {"ProductOfOtherRule", "VENDOR", "MODEL-2", false},
    {"ProductPrefixOnly", "VENDOR", "PROD", false},
    {"IgnoredLineBeforeHeader", "X", "Y", false},
    {"NoProductNeedsEmptyRuleProduct", "VENDOR", nullptr, false},
    {"NoProductMatchesEmptyProduct", "NOPROD", nullptr, true},
    {"EmptyProductMatchesEmptyProduct", "NOPROD", "", true},
    {"EscapesOnlyMatchEmptyProduct", "NOPROD", "\\x20", true},
    {"ProductOf64Refused", "VENDOR", kProduct64.c_str(), false},
    {"EmptyVendor", "", "PRODUCT", false},
};
INSTANTIATE_TEST_SUITE_P(Example, VendorMatchTest, ::testing::ValuesIn(kMatchCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(VendorListTest, EmptyRuleMatchesEmptyVendorWithoutProduct)
{
    ASSERT_TRUE(Load("[vendors]\ncolour=blue\n"));
    EXPECT_TRUE(UDEV_DeviceIsSupport("", nullptr));
    EXPECT_FALSE(UDEV_DeviceIsSupport("", "P"));
}

TEST_F(VendorListTest, LongProductIsReported)
{
    ASSERT_TRUE(Load(kExampleFile));
    ASSERT_FALSE(UDEV_DeviceIsSupport("VENDOR", kProduct64.c_str()));
    EXPECT_TRUE(TraceHas("sprintf_s failed.\n"));
}

}  // namespace
