// The vendor support list reader and matcher, fed arbitrary file contents.
//
// The input becomes the file (an in-memory file, no real directory is
// written); UDEV_InitConfigFromPath reads it, and the rules it builds are
// compared with a reference reading of the grammar written out below, rule
// by rule and field by field. UDEV_DeviceIsSupport is then asked about
// vendors and products taken from the input and from the rules, and
// compared with the reference matcher. UDEV_ReleaseConfig must leave the
// list empty, and LeakSanitizer sees any rule it forgets.
//
// No input can reach an assertion of this reader: its checks are on
// pointers and on the fixed 512-byte buffer size, never on file contents
// (the time-out settings reader is different, see fuzz_qmlinux_config).
//
// The cleaning helpers are also fuzzed on their own with arbitrary buffer
// sizes, in guarded buffers.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "udev_config.h"

namespace {

constexpr size_t kField = 64;
constexpr size_t kLineMax = 511;

struct Rule {
    std::string field[4];  // ruler_name, vendor_id, product_id, driver
};

const char *const kKeys[4] = {"ruler_name", "vendor_id", "product_id", "driver"};

bool Dropped(unsigned char c)
{
    return static_cast<signed char>(c) <= ' ' || c == '"' || c == ';';
}

std::vector<std::string> Words(const std::string &piece)
{
    std::vector<std::string> words;
    std::string cur;
    for (char c : piece) {
        if (c == ' ') {
            if (!cur.empty()) {
                words.push_back(cur);
                cur.clear();
            }
        } else {
            cur.push_back(c);
        }
    }
    if (!cur.empty()) {
        words.push_back(cur);
    }
    return words;
}

// One cleaned rule line; false when the whole line is dropped.
bool SplitRule(std::string line, Rule &rule)
{
    for (char &c : line) {
        if (c == '=') {
            c = ' ';
        }
    }
    std::string key;
    std::string value;
    size_t pairs = 0;
    size_t pos = 0;
    while (pos <= line.size()) {
        size_t comma = line.find(',', pos);
        if (comma == std::string::npos) {
            comma = line.size();
        }
        std::string piece = line.substr(pos, comma - pos);
        pos = comma + 1;
        if (piece.empty()) {
            continue;  // strtok_s skips empty pieces
        }
        if (pairs >= 4) {
            return false;
        }
        // "%s %s": a piece of blanks only converts nothing (-1, C's rule
        // for input that ends before the first conversion) and drops the
        // line; a piece with one word leaves the value of the pair before.
        std::vector<std::string> words = Words(piece);
        if (words.empty()) {
            return false;
        }
        key = words[0];
        if (words.size() > 1) {
            value = words[1];
        }
        for (int k = 0; k < 4; ++k) {
            if (key == kKeys[k]) {
                if (value.size() >= kField) {
                    return false;
                }
                rule.field[k] = value;
            }
        }
        ++pairs;
    }
    return true;
}

std::vector<Rule> ReferenceRead(const uint8_t *data, size_t size)
{
    std::vector<Rule> rules;
    std::string buf;
    bool lineFlag = false;
    bool vendors = false;
    for (size_t i = 0; i < size; ++i) {
        unsigned char c = data[i];
        if (c == '\\') {
            lineFlag = true;
            continue;
        }
        if (buf.size() > kLineMax - 1) {
            // 511 characters held: they and this character are dropped, the
            // rest of the physical line is read as a line of its own.
            buf.clear();
            lineFlag = false;
            continue;
        }
        if (c != '\n') {
            buf.push_back(static_cast<char>(c));
            continue;
        }
        if (lineFlag) {
            lineFlag = false;
            continue;
        }
        if (buf.empty()) {
            continue;
        }
        std::string cleaned;
        for (unsigned char b : buf) {
            if (b == '\0') {
                break;
            }
            if (!Dropped(b)) {
                cleaned.push_back(static_cast<char>(b));
            }
        }
        buf.clear();
        if (cleaned.empty()) {
            continue;
        }
        if (cleaned == "[vendors]") {
            vendors = true;
            continue;
        }
        if (!vendors) {
            continue;
        }
        Rule rule;
        if (SplitRule(cleaned, rule)) {
            rules.push_back(rule);
        }
    }
    return rules;
}

bool ReferenceSupported(const std::vector<Rule> &rules, const std::string &vendor, const std::string *product)
{
    std::string stripped;
    if (product != nullptr) {
        if (product->size() >= kField) {
            return false;
        }
        stripped = *product;
        while (stripped.size() >= 4 && stripped.compare(stripped.size() - 4, 4, "\\x20") == 0) {
            stripped.resize(stripped.size() - 4);
        }
    }
    for (const Rule &r : rules) {
        if (r.field[1] != vendor) {
            continue;
        }
        if (product == nullptr ? r.field[2].empty() : r.field[2] == stripped) {
            return true;
        }
    }
    return false;
}

// The rules of the file read onto a list of its own.
std::vector<Rule> LoadedRules(const char *path)
{
    UdevListHead list;
    UDEV_ListInit(&list);
    FUZZ_CHECK(UDEV_ReadConfigInto(path, &list), "UDEV_ReadConfigInto could not read %s", path);
    const UdevListHead *head = &list;
    std::vector<Rule> rules;
    size_t guard = 0;
    for (const UdevListHead *link = head->next; link != head; link = link->next) {
        FUZZ_CHECK(++guard < 100000, "rule list does not close");
        FUZZ_CHECK(link->next->prev == link, "rule list links broken");
        const auto *node = reinterpret_cast<const UdevProductNode *>(link);
        const char *fields[4] = {node->ruler_name, node->vendor_id, node->product_id, node->driver};
        Rule r;
        for (int k = 0; k < 4; ++k) {
            FUZZ_CHECK(std::memchr(fields[k], 0, kField) != nullptr, "rule field %s not terminated", kKeys[k]);
            r.field[k] = fields[k];
        }
        rules.push_back(r);
    }
    UDEV_DeleteProductList(&list);
    FUZZ_CHECK(UDEV_ListEmpty(&list), "UDEV_DeleteProductList left rules in the list");
    return rules;
}

std::string ShowRules(const std::vector<Rule> &rules)
{
    std::string out;
    for (const Rule &r : rules) {
        out += "  {";
        for (int k = 0; k < 4; ++k) {
            out += std::string(kKeys[k]) + "=\"" + FuzzShow(r.field[k]) + "\" ";
        }
        out += "}\n";
    }
    return out;
}

void CheckQuery(const std::vector<Rule> &rules, const std::string &vendor, const std::string *product)
{
    bool expect = ReferenceSupported(rules, vendor, product);
    bool got = UDEV_DeviceIsSupport(vendor.c_str(), product ? product->c_str() : nullptr);
    FUZZ_CHECK(got == expect, "UDEV_DeviceIsSupport(\"%s\", %s%s%s) = %d, expected %d", FuzzShow(vendor).c_str(),
               product ? "\"" : "", product ? FuzzShow(*product).c_str() : "null", product ? "\"" : "", got, expect);
}

// The helpers on buffers of any size, within guards.
void FuzzHelpers(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return;
    }
    size_t len = 1 + data[0] % 80;
    FuzzGuarded buf(len);
    size_t n = std::min(len, size - 1);
    std::memcpy(buf.Data(), data + 1, n);
    std::string before(buf.Data(), len);

    UDEV_ClearCharacters(buf.Data(), static_cast<uint32_t>(len));
    FUZZ_CHECK(buf.Intact(), "UDEV_ClearCharacters wrote past %zu bytes", len);
    std::string text = before.substr(0, strnlen(before.c_str(), len));
    std::string kept;
    for (unsigned char c : text) {
        if (!Dropped(c)) {
            kept.push_back(static_cast<char>(c));
        }
    }
    FUZZ_CHECK(std::memcmp(buf.Data(), kept.data(), kept.size()) == 0 && (kept.size() == len || buf.Data()[kept.size()] == 0),
               "UDEV_ClearCharacters(\"%s\") gave \"%s\", expected \"%s\"", FuzzShow(text).c_str(),
               FuzzShow(buf.Data(), strnlen(buf.Data(), len)).c_str(), FuzzShow(kept).c_str());

    UDEV_ReplaceCharacters(buf.Data(), static_cast<uint32_t>(len));
    FUZZ_CHECK(buf.Intact(), "UDEV_ReplaceCharacters wrote past %zu bytes", len);
    FUZZ_CHECK(std::memchr(buf.Data(), '=', strnlen(buf.Data(), len)) == nullptr, "UDEV_ReplaceCharacters left a '='");

    std::memcpy(buf.Data(), before.data(), len);
    UDEV_ClearTailSpace(buf.Data(), static_cast<uint32_t>(len));
    FUZZ_CHECK(buf.Intact(), "UDEV_ClearTailSpace wrote past %zu bytes", len);
    if (std::memchr(before.data(), 0, len) != nullptr) {
        std::string stripped = before.c_str();
        while (stripped.size() >= 4 && stripped.compare(stripped.size() - 4, 4, "\\x20") == 0) {
            stripped.resize(stripped.size() - 4);
        }
        FUZZ_CHECK(std::string(buf.Data()) == stripped, "UDEV_ClearTailSpace(\"%s\") gave \"%s\"",
                   FuzzShow(before.c_str()).c_str(), FuzzShow(buf.Data()).c_str());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static FuzzMemFile file;
    file.Set(data, size);

    FUZZ_CHECK(UDEV_InitConfigFromPath(file.Path()), "UDEV_InitConfigFromPath could not read %s", file.Path());
    std::vector<Rule> expect = ReferenceRead(data, size);
    std::vector<Rule> got = LoadedRules(file.Path());
    bool same = got.size() == expect.size();
    for (size_t i = 0; same && i < got.size(); ++i) {
        for (int k = 0; k < 4; ++k) {
            same = same && got[i].field[k] == expect[i].field[k];
        }
    }
    FUZZ_CHECK(same, "rules read from \"%s\":\n%sexpected:\n%s", FuzzShow(data, size).c_str(), ShowRules(got).c_str(),
               ShowRules(expect).c_str());

    // Queries: each rule's own pair, with udev's escaped trailing blanks,
    // without a product, with a changed case; and words of the input.
    std::vector<std::pair<std::string, std::string>> queries;
    for (size_t i = 0; i < expect.size() && i < 4; ++i) {
        const Rule &r = expect[i];
        queries.emplace_back(r.field[1], r.field[2]);
        queries.emplace_back(r.field[1], r.field[2] + "\\x20\\x20");
        queries.emplace_back(r.field[1], r.field[2] + " ");
        std::string upper = r.field[1];
        for (char &c : upper) {
            c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : (c >= 'A' && c <= 'Z' ? c + 32 : c));
        }
        queries.emplace_back(upper, r.field[2]);
    }
    std::string text(reinterpret_cast<const char *>(data), size);
    std::vector<std::string> words = Words(std::string(text.c_str()));
    for (size_t i = 0; i + 1 < words.size() && i < 6; i += 2) {
        queries.emplace_back(words[i], words[i + 1]);
    }
    for (const auto &q : queries) {
        CheckQuery(expect, q.first, &q.second);
        CheckQuery(expect, q.first, nullptr);
    }
    CheckQuery(expect, "", nullptr);
    std::string longProduct(70, 'P');
    if (!expect.empty()) {
        CheckQuery(expect, expect[0].field[1], &longProduct);
    }

    UDEV_ReleaseConfig();
    FUZZ_CHECK(!UDEV_DeviceIsSupport("VENDOR", "PRODUCT"), "an empty list supports a disk");

    FuzzHelpers(data, size);
    return 0;
}
