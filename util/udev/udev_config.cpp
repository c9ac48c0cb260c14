// The vendor support list. This module owns g_productList: filled once on the
// main thread before the workers start, read by the protocol layer, freed at
// shutdown. The file grammar's quirks (backslash joins anywhere, the
// 511-character discard, a [vendors] flag that nothing resets, a last line
// without newline never handled) are deliberate and kept.
#include "udev_config.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mpi_usr_if.h"
#include "raii.h"
#include "securec.h"

namespace {

UdevListHead g_productList = {&g_productList, &g_productList};

constexpr uint32_t CFG_KEY_COUNT = 4;
constexpr uint32_t CFG_MAX_PAIRS = 4;
constexpr uint32_t CFG_LAST_INDEX = UDEV_CFG_LINE_LEN - 2;  // 510: the buffer then holds 511 characters
constexpr char CFG_VENDORS_HEADER[] = "[vendors]";
constexpr char CFG_TAIL_ESCAPE[] = "\\x20";  // how udev encodes a blank
constexpr uint32_t CFG_TAIL_ESCAPE_LEN = sizeof(CFG_TAIL_ESCAPE) - 1;

// The key table: the index of a name selects the node's field.
const char g_productKeys[CFG_KEY_COUNT][UDEV_CFG_FIELD_LEN] = {"ruler_name", "vendor_id", "product_id", "driver"};
using ProductField = char (UdevProductNode::*)[UDEV_CFG_FIELD_LEN];
constexpr ProductField g_productFields[CFG_KEY_COUNT] = {
    &UdevProductNode::ruler_name, &UdevProductNode::vendor_id, &UdevProductNode::product_id,
    &UdevProductNode::driver};

void HandleSingleLine(char *buffer, uint32_t bufferLen, uint32_t *bufferIndex, uint8_t *lineFlag,
                      uint8_t *vendorsUnit, UdevListHead *rules);

bool IsDroppedByte(char c)
{
    signed char value = static_cast<signed char>(c);
    return value <= ' ' || c == '"' || c == ';';
}

}  // namespace

void UDEV_ReadConfigChar(UdevConfigReader *reader, int c)
{
    MPI_AssertNotNull(reader);
    MPI_AssertNotNull(reader->rules);
    if (c == '\\') {
        reader->lineFlag = 1;
        return;
    }
    if (reader->bufferIndex > CFG_LAST_INDEX) {
        reader->buffer[reader->bufferIndex] = '\0';
        MPI_Log(MPI_LOG_ERROR, "single line over maximum number of characters:%s\n", reader->buffer);
        reader->bufferIndex = 0;
        reader->lineFlag = 0;
        return;
    }
    if (c != '\n') {
        reader->buffer[reader->bufferIndex] = static_cast<char>(c);
        reader->bufferIndex++;
        return;
    }
    HandleSingleLine(reader->buffer, sizeof(reader->buffer), &reader->bufferIndex, &reader->lineFlag,
                     &reader->vendorsUnit, reader->rules);
}

namespace {

int FindProductKey(const char *keyName)
{
    for (uint32_t i = 0; i < CFG_KEY_COUNT; i++) {
        if (std::strcmp(g_productKeys[i], keyName) == 0) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

}  // namespace

UdevProductNode *UDEV_AllocProductNode()
{
    auto *node = static_cast<UdevProductNode *>(std::calloc(1, sizeof(UdevProductNode)));
    if (node != nullptr) {
        UDEV_ListInit(&node->list);
    }
    return node;
}

bool UDEV_ClearCharacters(char *buffer, uint32_t bufferLen)
{
    MPI_AssertNotNull(buffer);
    MPI_Assert(bufferLen != 0);
    uint32_t kept = 0;
    for (uint32_t i = 0; i < bufferLen && buffer[i] != '\0'; i++) {
        if (!IsDroppedByte(buffer[i])) {
            buffer[kept++] = buffer[i];
        }
    }
    if (kept < bufferLen) {
        buffer[kept] = '\0';
    }
    return true;
}

bool UDEV_ReplaceCharacters(char *buffer, uint32_t bufferLen)
{
    MPI_AssertNotNull(buffer);
    MPI_Assert(bufferLen != 0);
    for (uint32_t i = 0; i < bufferLen && buffer[i] != '\0'; i++) {
        if (buffer[i] == '=') {
            buffer[i] = ' ';
        }
    }
    return true;
}

void UDEV_ClearTailSpace(char *buffer, uint32_t bufferLen)
{
    MPI_AssertNotNull(buffer);
    MPI_Assert(bufferLen != 0);
    size_t len = strnlen(buffer, bufferLen);
    while (len >= CFG_TAIL_ESCAPE_LEN &&
           std::memcmp(buffer + len - CFG_TAIL_ESCAPE_LEN, CFG_TAIL_ESCAPE, CFG_TAIL_ESCAPE_LEN) == 0) {
        len -= CFG_TAIL_ESCAPE_LEN;
        (void)memset_s(buffer + len, bufferLen - len, 0, CFG_TAIL_ESCAPE_LEN);
    }
}

bool UDEV_InitProductNode(const char *keyName, const char *keyValue, UdevProductNode *node)
{
    MPI_AssertNotNull(keyName);
    MPI_AssertNotNull(keyValue);
    MPI_AssertNotNull(node);
    int index = FindProductKey(keyName);
    if (index < 0) {
        return true;
    }
    char *field = node->*g_productFields[index];
    if (sprintf_s(field, UDEV_CFG_FIELD_LEN, "%s", keyValue) == -1) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "sprintf_s failed.");
        return false;
    }
    return true;
}

bool UDEV_DivisionString(char *buffer, uint32_t bufferLen, UdevProductNode *productNode)
{
    MPI_AssertNotNull(buffer);
    MPI_Assert(bufferLen != 0);
    MPI_Assert(productNode != 0);
    if (strnlen(buffer, bufferLen) >= bufferLen) {
        return false;  // not a text: strtok_s would run past the buffer
    }
    (void)UDEV_ReplaceCharacters(buffer, bufferLen);

    // The scan targets hold a whole line, not one field: a value of 64
    // characters or more must reach the field copy and be refused there
    // rather than be cut or lost inside the scan.
    char key[UDEV_CFG_LINE_LEN] = {0};
    char value[UDEV_CFG_LINE_LEN] = {0};
    char *context = nullptr;
    uint32_t pairCount = 0;
    for (char *piece = strtok_s(buffer, ",", &context); piece != nullptr; piece = strtok_s(nullptr, ",", &context)) {
        if (pairCount >= CFG_MAX_PAIRS) {
            MPI_Log(MPI_LOG_ERROR, "%s\n", "more than buffer length.");
            return false;
        }
        if (sscanf_s(piece, "%s %s", key, sizeof(key), value, sizeof(value)) == -1) {
            MPI_Log(MPI_LOG_ERROR, "%s\n", "sscanf_s failed.");
            return false;
        }
        if (!UDEV_InitProductNode(key, value, productNode)) {
            return false;
        }
        pairCount++;
    }
    return true;
}

namespace {

// A rule line after the header becomes a rule on `rules`; `func` names the
// entry point in the records.
void AnalyzeLine(char *buffer, uint32_t bufferLen, uint8_t *vendorsUnit, UdevListHead *rules, const char *func)
{
    if (strnlen(buffer, bufferLen) == sizeof(CFG_VENDORS_HEADER) - 1 &&
        std::memcmp(buffer, CFG_VENDORS_HEADER, sizeof(CFG_VENDORS_HEADER) - 1) == 0) {
        *vendorsUnit = 1;
        return;
    }
    if (*vendorsUnit != 1) {
        return;
    }
    MallocPtr<UdevProductNode> node(UDEV_AllocProductNode());
    if (!node) {
        MPI_LogAs(func, MPI_LOG_ERROR, "%s\n", "malloc failed");
        return;
    }
    if (!UDEV_DivisionString(buffer, bufferLen, node.get())) {
        return;
    }
    UDEV_ListAddTail(&node.release()->list, rules);
}

void HandleSingleLine(char *buffer, uint32_t bufferLen, uint32_t *bufferIndex, uint8_t *lineFlag,
                      uint8_t *vendorsUnit, UdevListHead *rules)
{
    if (*lineFlag == 1) {
        *lineFlag = 0;
        return;
    }
    if (*bufferIndex == 0) {
        return;
    }
    uint32_t end = (*bufferIndex < bufferLen) ? *bufferIndex : bufferLen - 1;
    buffer[end] = '\0';
    (void)UDEV_ClearCharacters(buffer, bufferLen);
    if (buffer[0] != '\0') {
        AnalyzeLine(buffer, bufferLen, vendorsUnit, rules, "UDEV_AnalyzeLine");
    }
    (void)memset_s(buffer, bufferLen, 0, bufferLen);
    *bufferIndex = 0;
}

// Every read; `func` names the entry point in the records.
bool ReadConfigFile(const char *path, UdevListHead *rules, const char *func)
{
    UDEV_DeleteProductList(rules);
    FilePtr file(std::fopen(path, "rb+"));
    if (file == nullptr) {
        MPI_LogAs(func, MPI_LOG_ERROR, "%s\n", "open file failed.");
        return false;
    }
    (void)std::fseek(file.get(), 0, SEEK_SET);
    UdevConfigReader reader = {};
    reader.rules = rules;
    int c;
    while ((c = std::fgetc(file.get())) != EOF) {
        UDEV_ReadConfigChar(&reader, c);
    }
    return true;
}

}  // namespace

void UDEV_AnalyzeLine(char *buffer, uint32_t bufferLen, uint8_t *vendorsUnit)
{
    MPI_AssertNotNull(buffer);
    MPI_Assert(bufferLen != 0);
    MPI_AssertNotNull(vendorsUnit);
    AnalyzeLine(buffer, bufferLen, vendorsUnit, &g_productList, __func__);
}

void UDEV_HandleSingleLine(char *buffer, uint32_t bufferLen, uint32_t *bufferIndex, uint8_t *lineFlag,
                           uint8_t *vendorsUnit)
{
    MPI_AssertNotNull(buffer);
    MPI_Assert(bufferLen != 0);
    MPI_AssertNotNull(bufferIndex);
    MPI_AssertNotNull(lineFlag);
    MPI_AssertNotNull(vendorsUnit);
    HandleSingleLine(buffer, bufferLen, bufferIndex, lineFlag, vendorsUnit, &g_productList);
}

bool UDEV_InitConfig()
{
    return ReadConfigFile(UDEV_VENDOR_CONFIG_PATH, &g_productList, __func__);
}

bool UDEV_InitConfigFromPath(const char *path)
{
    MPI_AssertNotNull(path);
    return ReadConfigFile(path, &g_productList, __func__);
}

bool UDEV_ReadConfigInto(const char *path, UdevListHead *rules)
{
    MPI_AssertNotNull(path);
    MPI_AssertNotNull(rules);
    return ReadConfigFile(path, rules, __func__);
}

void UDEV_ReleaseConfig()
{
    UDEV_DeleteProductList(&g_productList);
}

void UDEV_DeleteProductList(UdevListHead *rules)
{
    MPI_AssertNotNull(rules);
    while (!UDEV_ListEmpty(rules)) {
        UdevListHead *link = rules->next;
        UDEV_ListDelInit(link);
        std::free(reinterpret_cast<UdevProductNode *>(link));
    }
}

bool UDEV_MatchProductStr(const char *vendor, const char *product, const UdevProductNode *node)
{
    MPI_AssertNotNull(vendor);
    MPI_AssertNotNull(node);
    if (product == nullptr) {
        return std::strcmp(node->vendor_id, vendor) == 0 && node->product_id[0] == '\0';
    }
    char stripped[UDEV_CFG_FIELD_LEN] = {0};
    if (sprintf_s(stripped, sizeof(stripped), "%s", product) == -1) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "sprintf_s failed.");
        return false;
    }
    UDEV_ClearTailSpace(stripped, sizeof(stripped));
    return std::strcmp(node->vendor_id, vendor) == 0 && std::strcmp(node->product_id, stripped) == 0;
}

bool UDEV_DeviceIsSupport(const char *vendor, const char *product)
{
    MPI_AssertNotNull(vendor);
    if (UDEV_ListEmpty(&g_productList)) {
        MPI_Log(MPI_LOG_ERROR, "%s\n", "list is NULL.");
        return false;
    }
    for (const UdevListHead *link = g_productList.next; link != &g_productList; link = link->next) {
        if (UDEV_MatchProductStr(vendor, product, reinterpret_cast<const UdevProductNode *>(link))) {
            return true;
        }
    }
    return false;
}
