// The vendor support list: the [vendors] section of /etc/qm_plus.conf.
#pragma once

#include <cstdint>

#include "udev_list.h"

constexpr uint32_t UDEV_CFG_FIELD_LEN = 64;
constexpr uint32_t UDEV_CFG_LINE_LEN = 512;

inline constexpr const char *UDEV_VENDOR_CONFIG_PATH = "/etc/qm_plus.conf";

struct UdevProductNode {
    UdevListHead list;
    char ruler_name[UDEV_CFG_FIELD_LEN];
    char vendor_id[UDEV_CFG_FIELD_LEN];
    char product_id[UDEV_CFG_FIELD_LEN];
    char driver[UDEV_CFG_FIELD_LEN];
};

// Reader state of one file: the line buffer and the three flags that the
// line handler keeps across physical lines, and the list the rules go to
// (the caller's). The readers below feed it the file one character at a
// time; a tool that checks a file feeds it the same way and knows at each
// character which line it is on.
struct UdevConfigReader {
    char buffer[UDEV_CFG_LINE_LEN];
    uint32_t bufferIndex;
    uint8_t lineFlag;
    uint8_t vendorsUnit;
    UdevListHead *rules;
};

bool UDEV_InitConfig();  // from UDEV_VENDOR_CONFIG_PATH
// The same from another file; the rules read replace those loaded before.
bool UDEV_InitConfigFromPath(const char *path);
// A file's rules onto a list of the caller's (emptied first), the loaded
// configuration untouched; UDEV_DeleteProductList frees them.
bool UDEV_ReadConfigInto(const char *path, UdevListHead *rules);
void UDEV_DeleteProductList(UdevListHead *rules);
// One character of the file, in file order: the backslash join, the
// 511-character discard and the newline that hands a line over.
void UDEV_ReadConfigChar(UdevConfigReader *reader, int c);
void UDEV_ReleaseConfig();
bool UDEV_DeviceIsSupport(const char *vendor, const char *product);
bool UDEV_MatchProductStr(const char *vendor, const char *product, const UdevProductNode *node);
void UDEV_HandleSingleLine(char *buffer, uint32_t bufferLen, uint32_t *bufferIndex, uint8_t *lineFlag,
                           uint8_t *vendorsUnit);
void UDEV_AnalyzeLine(char *buffer, uint32_t bufferLen, uint8_t *vendorsUnit);
bool UDEV_DivisionString(char *buffer, uint32_t bufferLen, UdevProductNode *productNode);
bool UDEV_InitProductNode(const char *keyName, const char *keyValue, UdevProductNode *node);
UdevProductNode *UDEV_AllocProductNode();
bool UDEV_ClearCharacters(char *buffer, uint32_t bufferLen);
bool UDEV_ReplaceCharacters(char *buffer, uint32_t bufferLen);
void UDEV_ClearTailSpace(char *buffer, uint32_t bufferLen);
